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

/// Opens an image file: whole-slide formats through the slide reader, everything else as TIFF.
std::unique_ptr<Nuvek::Image> openInput(std::string const& path);

} // namespace NuvekTool
