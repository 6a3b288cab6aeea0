#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace NuvekTool {

struct OutputSettings
{
    long long tileSize = 512;
    int threads = 1;
    Nuvek::TiffSampleType type = Nuvek::TiffSampleType::Float32;
    Nuvek::TiffCompression compression = Nuvek::TiffCompression::Deflate;
    /// The Deflate (1 to 12) or zstd (1 to 22) level; 0 takes the writer's default.
    int compressionLevel = 0;
    /// The JPEG quality, 1 to 100.
    int quality = 90;
    /// The range that integer types map from: one for every channel, or one per channel; the
    /// image's value range when empty.
    std::vector<Nuvek::ValueRange<double>> ranges;
    /// When set, receives how the samples fell against the range (integer types only).
    Nuvek::SampleStatistics* statistics = nullptr;
};

/// The output formats, chosen by the output file's name.
enum class OutputFormat
{
    /// .tif, .tiff, .btf, .tf8: a plain pyramidal BigTIFF, which OpenSlide opens.
    Tiff,
    /// .ome.tif, .ome.tiff: OME-TIFF, which microscopy software opens with its metadata.
    OmeTiff,
    /// .ome.zarr, .zarr: an OME-Zarr multiscale group (a folder).
    OmeZarr
};

/// The format a name asks for; throws std::runtime_error for any other ending.
OutputFormat outputFormatOf(std::string const& path);

/// Writes level 0 of image in the format its name asks for, tile by tile on `threads` threads.
/// Calls progress(tilesDone, tilesTotal, voxelsDone) as tiles complete; stops when cancel becomes
/// true. Nothing is left at path unless the whole file was written. Returns false when cancelled.
bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel);

} // namespace NuvekTool
