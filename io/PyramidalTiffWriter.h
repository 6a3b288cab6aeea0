#pragma once

#include <nuvek/core/Image.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Nuvek {

/// How writePyramidalTiff compresses tiles.
enum class TiffCompression
{
    None,
    Deflate,
    LZW,
    /// Lossy, for uint8 samples of 1 (grey) or 3 (RGB) channels: a baseline JPEG stream per tile,
    /// RGB stored as YCbCr with the colour halved along x and y, as slide scanners store it.
    JPEG,
    Zstd
};

/// The sample type writePyramidalTiff stores.
enum class TiffSampleType
{
    UInt8,
    UInt16,
    Float32
};

/// \brief How the level-0 samples of a write fell against the value range of integer samples.
struct SampleStatistics
{
    /// Samples mapped onto integers (NaN not counted).
    long long samples = 0;
    /// Samples whose value lay below or above the range, stored as 0 or the type's maximum.
    long long saturated = 0;
    /// The lowest and highest integer stored (0 and 0 when no sample was counted).
    double lowestStored = 0.0;
    double highestStored = 0.0;
};

/// \brief Options of writePyramidalTiff.
struct PyramidalTiffOptions
{
    /// Tile width and height in voxels: a multiple of 16, from 16 to 65536.
    long long tileSize = 256;
    TiffCompression compression = TiffCompression::Deflate;
    /// The Deflate level, 1 (fastest) to 12 (smallest).
    int deflateLevel = 6;
    /// The zstd level, 1 (fastest) to 22 (smallest).
    int zstdLevel = 3;
    /// The JPEG quality, 1 to 100.
    int jpegQuality = 90;
    TiffSampleType sampleType = TiffSampleType::UInt8;
    /// The range that integer sample types map from; the image's getValueRange() when unset.
    std::optional<ValueRange<double>> valueRange;
    /// One range per channel for integer sample types, overriding valueRange when not empty.
    std::vector<ValueRange<double>> channelRanges;
    /// When set, receives how the level-0 samples fell against the range (integer types only).
    SampleStatistics* statistics = nullptr;
    /// Write OME-TIFF (see writePyramidalTiff) instead of a plain pyramid.
    bool omeTiff = false;
    /// The image's level that becomes the file's level 0.
    long long level = 0;
    /// Worker threads that compute and compress tiles; 0 means one per processor.
    int threads = 0;
    /// Called on the calling thread after every tile written, with the tiles written so far and
    /// the total; returning false cancels the write.
    std::function<bool(long long done, long long total)> progress;
};

/// \brief Writes an image as a tiled, pyramidal BigTIFF file.
///
/// The file holds, for every z slice in order, the slice at options.level as a full page (marked
/// as a page of a multi-page file when there are several slices, named by getSliceName when that
/// is not empty), followed by its coarser levels as reduced-resolution pages, down to the first
/// level that fits in one tile (or whose x or y extent would fall below 1 by halving again). Level
/// L + 1 has the extent (x / 2, y / 2) of level L, rounded down, and each of its voxels is the mean
/// of the 2 x 2 block of stored level-L voxels that it covers (added row by row, divided by 4,
/// then stored as below); a last odd row or column of level L is not used, so the extents are those
/// MemoryImage gives its levels. Three channels are stored as RGB, any other number as
/// grey with extra samples, interleaved. JPEG tiles are compressed whole (a tile beyond the
/// image's edge is padded with 0); coarser levels average the decoded tiles of the level above.
/// The voxel size of options.level is stored as the
/// resolution in pixels per centimetre, read as nanometres; level L stores 2^L times it.
///
/// With options.omeTiff, the file is an OME-TIFF instead, as microscopy software reads it: the
/// full-resolution pages form the main chain and each one's coarser levels are its SubIFDs. An image
/// of 3 channels stored as uint8 has one RGB page per z slice; any other has one single-sample page
/// per channel and z slice, channels varying fastest. The first page's ImageDescription is OME-XML
/// (dimension order XYCZT, SizeC, SizeZ, the channel names from getChannelName ("Channel c" for an
/// empty name or one the image cannot give), PhysicalSizeX, Y and
/// Z in micrometres from the voxel size). Each channel page asks the image for its tiles, so the
/// image computes every level-0 tile once per channel.
///
/// Stored values, with (min, max) the channel's value range:
/// - UInt8, UInt16: round((v - min) / (max - min) * M), M = 255 or 65535, rounding halves up and
///   clamping to 0 and M; NaN stores 0, +infinity M, -infinity 0. The range must be finite with
///   max > min. Coarser levels average stored samples and round halves up the same way.
/// - Float32: v converted to float, unscaled (NaN and infinities kept); the range is written as
///   SMinSampleValue and SMaxSampleValue, which TiffImage reports as its value range.
///
/// Memory stays bounded whatever the image's width and height: a worker computes one level-0 tile
/// at a time through one openRegion call on the image, compresses it, and adds the 2 x 2 means of
/// its stored samples to the tile above it in the next level, which is compressed as soon as its
/// last part has come, and so on up the levels; the calling thread writes finished tiles in order,
/// and workers wait while more than two tiles per worker are finished but not yet written. Tiles
/// are computed, and stored in the file, in column stripes of 8 tiles, left to right, each from top
/// to bottom in rows (any order of tiles is valid TIFF; this one is fixed, so the file's bytes do
/// not depend on the threads). The unfinished coarser tiles then take about 7 tiles' bytes for
/// levels 1 to 3, which finish inside a stripe, and one tile per 2^L level-0 tiles of the image's
/// height for a level L above that, plus a few per worker. A source read with a decoded-tile cache
/// needs three rows of a stripe's input tiles held. The coarser levels' compressed
/// tiles wait in a file beside path, removed as soon as it is created, until their level is
/// written. With JPEG, whose stored samples differ from those it was given, each coarser level is
/// made from the level before it read back from the file instead. The image's openRegion therefore runs on several threads at once. Unlike
/// libNuvekCore and libNuvekFilters, which create no threads, this function runs a pool of its own
/// for the duration of the call.
///
/// The file is written under a temporary name beside path ("<path>.partial-" and six characters)
/// and renamed to path, with mode 0644, only when it is complete. An exception (from the image, the disk or bad options) or a cancellation removes the
/// temporary file and leaves any existing file at path untouched. Returns true when the file was
/// written, false when the progress callback cancelled. Problems are std::runtime_errors starting
/// with "writePyramidalTiff: ".
bool writePyramidalTiff(Image& image, std::string const& path, PyramidalTiffOptions const& options = {});

} // namespace Nuvek
