#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Nuvek {

/// How writeOmeZarr compresses chunks: zarr's "zlib" and "zstd" codecs, or none.
enum class ZarrCompression
{
    None,
    Zlib,
    Zstd
};

/// \brief Options of writeOmeZarr.
struct OmeZarrOptions
{
    /// Chunk width and height in voxels: a multiple of 16, from 16 to 65536.
    long long chunkSize = 256;
    ZarrCompression compression = ZarrCompression::Zstd;
    /// The zlib level, 1 (fastest) to 12 (smallest), or the zstd level, 1 to 22; 0 for the
    /// codec's default here: 6 for zlib, 3 for zstd.
    int compressionLevel = 0;
    TiffSampleType sampleType = TiffSampleType::Float32;
    /// The range that integer sample types map from; the image's getValueRange() when unset.
    std::optional<ValueRange<double>> valueRange;
    /// One range per channel for integer sample types, overriding valueRange when not empty.
    std::vector<ValueRange<double>> channelRanges;
    /// When set, receives how the level-0 samples fell against the range (integer types only).
    SampleStatistics* statistics = nullptr;
    /// The image's level that becomes the group's level 0.
    long long level = 0;
    /// Worker threads that compute and compress chunks; 0 means one per processor.
    int threads = 0;
    /// Called on the calling thread after every chunk row written, with the chunks written so far
    /// and the total; returning false cancels the write.
    std::function<bool(long long done, long long total)> progress;
};

/// \brief Writes an image as an OME-Zarr (NGFF 0.4) multiscale group in zarr version 2.
///
/// The group holds one array per level, named "0", "1", ..., of axes (c, z, y, x) and chunks of
/// (1, 1, chunkSize, chunkSize) stored under "/"-separated keys, little-endian. Levels and their
/// values are those writePyramidalTiff stores: level L + 1 halves x and y of level L, rounded down,
/// down to the first level that fits in one chunk; each voxel is the 2 x 2 mean of stored level-L
/// samples; integer samples map the value range (per channel with channelRanges) exactly as
/// writePyramidalTiff maps it. ".zattrs" holds "multiscales" (axes c of type channel and z, y, x of
/// type space in micrometres; per level a scale of (1, voxel z, voxel y, voxel x) from the image's
/// voxel size at options.level, times 2^L along x and y) and an "omero" block naming the channels
/// (getChannelName, or "Channel c" for an empty name) with the value range as their window, which
/// ZarrImage reads back.
///
/// Work and memory are as in writePyramidalTiff: a worker computes the level-0 chunks of one
/// (z, y, x) position for all channels at once (one openRegion call on the image) and compresses
/// them; the calling thread writes them. The coarser levels' chunks are made from the stored
/// samples of the level below as they come and written by the worker that completes them. The group is written into a temporary folder beside path ("<path>.partial-" and
/// six characters) and renamed to path only when complete; an existing path (file or folder) is
/// then replaced. An exception or a cancellation removes the temporary folder and leaves path
/// untouched. Returns true when written, false when cancelled. Problems are std::runtime_errors
/// starting with "writeOmeZarr: ".
bool writeOmeZarr(Image& image, std::string const& path, OmeZarrOptions const& options = {});

} // namespace Nuvek
