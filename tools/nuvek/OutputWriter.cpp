#include "OutputWriter.h"

#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <stdexcept>

namespace NuvekTool {

bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel)
{
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = settings.tileSize;
    options.threads = settings.threads;
    options.compression = settings.compression == "none"  ? Nuvek::TiffCompression::None
                          : settings.compression == "lzw" ? Nuvek::TiffCompression::LZW
                                                          : Nuvek::TiffCompression::Deflate;
    options.sampleType = settings.type == "uint8"    ? Nuvek::TiffSampleType::UInt8
                         : settings.type == "uint16" ? Nuvek::TiffSampleType::UInt16
                                                     : Nuvek::TiffSampleType::Float32;
    long long const voxels = image.getExtent(0).prod() * image.getNumChannels();
    options.progress = [&](long long done, long long total) {
        // Level 0 holds about three quarters of all tiles; the voxel count is an estimate.
        progress(done, total, total > 0 ? voxels * done / total : 0);
        return !cancel.load();
    };
    return Nuvek::writePyramidalTiff(image, path, options);
}

std::unique_ptr<Nuvek::Image> openInput(std::string const& path, long long timePoint)
{
    return Nuvek::openImage(path, timePoint);
}

} // namespace NuvekTool
