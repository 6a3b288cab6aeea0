#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/Lock.h>

#include <cstdint>
#include <vector>

namespace Nuvek {

/// \brief Computes the levels finer than sourceLevel by enlarging the input's sourceLevel, by nearest
/// neighbour or bilinear interpolation in x and y.
///
/// A request at sourceLevel or a coarser level goes to the input unchanged. For a finer level the
/// scale is s = 2^(sourceLevel - level). The filter asks the input at sourceLevel for the box
/// (trunc(min / s) - 1 .. trunc(max / s) + 1) in x and y, the requested z, clipped to the input's
/// extent there; when nothing is left, the caller's buffer is not written. Output voxel x maps to
/// the source coordinate x / s (its corner), while source voxel centres lie at i + 0.5:
///  - nearest neighbour takes source column trunc(x / s), row trunc(y / s);
///  - bilinear mixes the columns floor(x / s - 0.5) and one further with the weight
///    x / s - (column + 0.5), and the rows likewise.
/// Every source index is clamped into the clipped source box first, so at and beyond the image's
/// edges the edge values repeat and the weights still sum to one. Output slice z reads slice
/// z - box.min.z of the source box, counted from the requested box's z; output slices for which
/// the source box holds no such slice are not written. Sharing rows between the output rows that
/// read them does not change a bit: every value gets the same operations in the same order.
///
/// An Interpolation value other than the two named ones writes nothing. A request 31 or more levels
/// finer than sourceLevel throws std::runtime_error (the scale is a 32-bit power of two).
///
/// The source values read for a request are kept in one cache reused by every call, so the
/// upsampling path holds a lock for its whole duration; openRegion may be called from several
/// threads at once, and those calls are served one after another (pass-through calls take no lock).
/// After every call the cache keeps at most 100000 values.
class UpsampleFilter : public Filter
{
public:
    enum Interpolation : std::int32_t
    {
        NearestNeighbor = 0,
        Bilinear = 1
    };

    UpsampleFilter(Image* input, long long sourceLevel, Interpolation interpolation, bool ownsInput);

    void openRegion(double* out, long long level, Box const& box) override;

    /// The number of values the cache holds between calls (at most 100000).
    long long getCacheSize() const;

private:
    // The two upsampling paths of openRegion. Private because they use the cache and so may run
    // only while openRegion holds the lock.
    void openRegionNearestNeighbor(double* out, long long level, Box const& box);
    void openRegionBilinear(double* out, long long level, Box const& box);
    // Reads the clipped source box of a request into the cache; false when it is empty.
    bool readSource(long long level, Box const& box, double& scale, Box& sourceBox);

    long long sourceLevel;
    Interpolation interpolation;
    std::vector<double> cache;
    mutable Lock lock;
};

} // namespace Nuvek
