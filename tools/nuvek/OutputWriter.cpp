#include "OutputWriter.h"

#include <nuvek/io/ImageFormats.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <algorithm>
#include <cctype>
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
                             ".ome.tiff (OME-TIFF), or .ome.zarr or .zarr (OME-Zarr), not '" +
                             path + "'.");
}

namespace {

bool writeZarrOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                     std::function<void(long long, long long, long long)> const& progress,
                     std::atomic<bool> const& cancel)
{
    Nuvek::OmeZarrOptions options;
    options.chunkSize = settings.tileSize;
    options.threads = settings.threads;
    switch (settings.compression)
    {
    case Nuvek::TiffCompression::None:
        options.compression = Nuvek::ZarrCompression::None;
        break;
    case Nuvek::TiffCompression::Deflate:
        options.compression = Nuvek::ZarrCompression::Zlib;
        break;
    case Nuvek::TiffCompression::Zstd:
        options.compression = Nuvek::ZarrCompression::Zstd;
        break;
    case Nuvek::TiffCompression::LZW:
    case Nuvek::TiffCompression::JPEG:
        throw std::runtime_error("zarr output takes --compression none, deflate (zarr's zlib) or zstd, not " +
                                 Nuvek::ImageFormats::toString(settings.compression) + ".");
    }
    options.compressionLevel = settings.compressionLevel;
    options.sampleType = settings.type;
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
    options.compression = settings.compression;
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
    options.sampleType = settings.type;
    options.omeTiff = outputFormatOf(path) == OutputFormat::OmeTiff;
    long long const voxels = image.getExtent(0).prod() * image.getNumChannels();
    options.progress = [&](long long done, long long total) {
        // Level 0 holds about three quarters of all tiles; the voxel count is an estimate.
        progress(done, total, total > 0 ? voxels * done / total : 0);
        return !cancel.load();
    };
    return Nuvek::writePyramidalTiff(image, path, options);
}

} // namespace NuvekTool
