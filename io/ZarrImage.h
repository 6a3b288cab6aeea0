#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/io/TileCacheSize.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Nuvek {

/// \brief A source image read from a zarr (version 2) folder: an OME-Zarr (NGFF) multiscale group
/// or a plain array of 2 to 5 dimensions.
///
/// A group whose ".zattrs" holds "multiscales" gives one level per dataset of its first multiscale
/// image, finest first; its axes name the dimensions ("t", "c", "z", "y", "x"; y and x required). A
/// plain array (a folder with ".zarray") is one level whose dimensions are, from the last, x, y, z,
/// c and t. Of several time points only the first is read. A level whose number of channels or z
/// slices differs from level 0 ends the levels there. Samples may be unsigned or signed integers or
/// floats of any byte order, uncompressed or compressed with zlib, gzip, zstd or blosc; a chunk
/// that is not stored holds the array's fill value.
///
/// Values are the stored numbers, unscaled. Value range: the integer type's range; for floats, the
/// smallest "min" and largest "max" of the omero channel windows when every channel gives both, else
/// (0, 1). Channel names: the omero channel labels when there is one per channel, else "Channel c".
/// Voxel size: level L's scale along x, y and z in nanometres, rounded (at least 1), when the axis
/// has a unit of length; else 1. getHash() is constant: the folder must not change while it is open.
///
/// openRegion reads only the chunks the box touches, each once per call, and writes 0.0 outside
/// the extent. It may run on several threads at once. Decoded chunks are kept, in the stored type,
/// in a cache of at most cacheBytes shared by every thread, the least recently used leaving
/// first; a thread that needs a chunk another thread is decoding waits for it. cacheBytes 0 keeps
/// nothing between calls. Every
/// problem, when opening or later when reading a chunk, is a std::runtime_error whose message starts
/// with "ZarrImage: <path>: ".
class ZarrImage : public Image, public RowBandExactness
{
public:
    /// Stored values: the same whatever box asks for them.
    bool splitsExactlyInRowBands() const override { return true; }

    explicit ZarrImage(std::string const& path, std::size_t cacheBytes = defaultTileCacheBytes);
    ~ZarrImage() override;
    ZarrImage(ZarrImage const&) = delete;
    ZarrImage& operator=(ZarrImage const&) = delete;

    std::string getURL() const override;
    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// The stored data type of level 0 as zarr writes it: "|u1", "<u2", "<f4", ...
    std::string getDataType() const;

    /// Whether a folder looks like zarr: it holds ".zarray", or ".zgroup" or ".zattrs".
    static bool isZarr(std::string const& path);

private:
    struct Internals;
    std::unique_ptr<Internals> internals;
};

} // namespace Nuvek
