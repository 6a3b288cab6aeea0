#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace NuvekTool {

struct OutputSettings
{
    long long tileSize = 512;
    int threads = 1;
    Nuvek::TiffSampleType type = Nuvek::TiffSampleType::Float32;
    Nuvek::TiffCompression compression = Nuvek::TiffCompression::Deflate;
};

/// Writes level 0 of image as a tiled pyramidal BigTIFF, tile by tile on `threads` threads. Calls
/// progress(tilesDone, tilesTotal, voxelsDone) as tiles complete; stops when cancel becomes true.
/// Nothing is left at path unless the whole file was written. Returns false when cancelled.
bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel);

} // namespace NuvekTool
