#include "OutputWriter.h"

#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <stdexcept>

namespace NuvekTool {

namespace {

std::string lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool endsWith(std::string const& text, std::string const& ending)
{
    return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

} // namespace

OutputFormat outputFormatOf(std::string const& path)
{
    std::string const name = lowercase(path);
    for (char const* ending : {".ome.tif", ".ome.tiff"})
        if (endsWith(name, ending))
            return OutputFormat::OmeTiff;
    for (char const* ending : {".ome.zarr", ".zarr"})
        if (endsWith(name, ending))
            return OutputFormat::OmeZarr;
    for (char const* ending : {".tif", ".tiff", ".btf", ".tf8"})
        if (endsWith(name, ending))
            return OutputFormat::Tiff;
    throw std::runtime_error("the output's name must end in .tif, .tiff, .btf, .tf8 (a plain pyramid), .ome.tif or "
                             ".ome.tiff (OME-TIFF), or .ome.zarr or .zarr (OME-Zarr), not '" + path + "'.");
}

namespace {

bool writeZarrOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                     std::function<void(long long, long long, long long)> const& progress,
                     std::atomic<bool> const& cancel)
{
    Nuvek::OmeZarrOptions options;
    options.chunkSize = settings.tileSize;
    options.threads = settings.threads;
    if (settings.compression == "none")
        options.compression = Nuvek::ZarrCompression::None;
    else if (settings.compression == "deflate")
        options.compression = Nuvek::ZarrCompression::Zlib;
    else if (settings.compression == "zstd")
        options.compression = Nuvek::ZarrCompression::Zstd;
    else
        throw std::runtime_error("zarr output takes --compression none, deflate (zarr's zlib) or zstd, not " +
                                 settings.compression + ".");
    options.compressionLevel = settings.compressionLevel;
    options.sampleType = settings.type == "uint8"    ? Nuvek::TiffSampleType::UInt8
                         : settings.type == "uint16" ? Nuvek::TiffSampleType::UInt16
                                                     : Nuvek::TiffSampleType::Float32;
    if (settings.ranges.size() == 1)
        options.valueRange = settings.ranges.front();
    else
        options.channelRanges = settings.ranges;
    options.statistics = settings.statistics;
    long long const voxels = image.getExtent(0).prod() * image.getNumChannels();
    options.progress = [&](long long done, long long total) {
        progress(done, total, total > 0 ? voxels * done / total : 0);
        return !cancel.load();
    };
    return Nuvek::writeOmeZarr(image, path, options);
}

} // namespace

bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel)
{
    if (outputFormatOf(path) == OutputFormat::OmeZarr)
        return writeZarrOutput(image, path, settings, progress, cancel);
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = settings.tileSize;
    options.threads = settings.threads;
    options.compression = settings.compression == "none"   ? Nuvek::TiffCompression::None
                          : settings.compression == "lzw"  ? Nuvek::TiffCompression::LZW
                          : settings.compression == "jpeg" ? Nuvek::TiffCompression::JPEG
                          : settings.compression == "zstd" ? Nuvek::TiffCompression::Zstd
                                                           : Nuvek::TiffCompression::Deflate;
    if (settings.compressionLevel > 0 && options.compression == Nuvek::TiffCompression::Zstd)
        options.zstdLevel = settings.compressionLevel;
    else if (settings.compressionLevel > 0)
        options.deflateLevel = settings.compressionLevel;
    options.jpegQuality = settings.quality;
    if (settings.ranges.size() == 1)
        options.valueRange = settings.ranges.front();
    else
        options.channelRanges = settings.ranges;
    options.statistics = settings.statistics;
    options.sampleType = settings.type == "uint8"    ? Nuvek::TiffSampleType::UInt8
                         : settings.type == "uint16" ? Nuvek::TiffSampleType::UInt16
                                                     : Nuvek::TiffSampleType::Float32;
    options.omeTiff = outputFormatOf(path) == OutputFormat::OmeTiff;
    long long const voxels = image.getExtent(0).prod() * image.getNumChannels();
    options.progress = [&](long long done, long long total) {
        // Level 0 holds about three quarters of all tiles; the voxel count is an estimate.
        progress(done, total, total > 0 ? voxels * done / total : 0);
        return !cancel.load();
    };
    return Nuvek::writePyramidalTiff(image, path, options);
}

std::unique_ptr<Nuvek::Image> openInput(std::string const& path)
{
    if (!std::filesystem::exists(path))
        throw std::runtime_error("cannot read " + path + ": no such file.");
    if (Nuvek::ZarrImage::isZarr(path))
        return std::make_unique<Nuvek::ZarrImage>(path);
    std::string const extension = lowercase(std::filesystem::path(path).extension().string());
    static char const* const slideExtensions[] = {".svs", ".ndpi", ".mrxs", ".scn", ".vms", ".vmu", ".bif", ".svslide"};
    for (char const* slideExtension : slideExtensions)
        if (extension == slideExtension)
            return std::make_unique<Nuvek::SlideImage>(path);
    return std::make_unique<Nuvek::TiffImage>(path);
}

} // namespace NuvekTool
