#pragma once

#include <nuvek/core/Image.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace NuvekTool {

struct OutputSettings
{
    long long tileSize = 512;
    int threads = 1;
    /// uint8, uint16 or float32.
    std::string type = "float32";
    /// none, deflate or lzw.
    std::string compression = "deflate";
};

/// Writes level 0 of image as a tiled pyramidal BigTIFF, tile by tile on `threads` threads. Calls
/// progress(tilesDone, tilesTotal, voxelsDone) as tiles complete; stops when cancel becomes true.
/// Nothing is left at path unless the whole file was written. Returns false when cancelled.
bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel);

/// Opens an image file with the reader its content calls for (Nuvek::openImage), at one time point.
std::unique_ptr<Nuvek::Image> openInput(std::string const& path, long long timePoint = 0);

} // namespace NuvekTool
