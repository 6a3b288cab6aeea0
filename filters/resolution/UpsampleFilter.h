#pragma once

#include <nuvek/core/Filter.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Nuvek {

class WorkBufferPool;

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
/// openRegion may serve several threads at once, and calls do not wait for each other: every call
/// reads the source values into a work cache of its own, taken from the filter's idle caches and
/// given back afterwards (a lock is held only to take or give back one). After every call the cache
/// given back keeps at most 100000 values; one thread at a time is always served by the same cache.
class UpsampleFilter : public Filter
{
public:
    enum Interpolation : std::int32_t
    {
        NearestNeighbor = 0,
        Bilinear = 1
    };

    UpsampleFilter(Image* input, long long sourceLevel, Interpolation interpolation, bool ownsInput);
    ~UpsampleFilter() override;

    void openRegion(double* out, long long level, Box const& box) override;

    /// The number of values the cache given back last holds (at most 100000; 0 before any call
    /// that upsampled).
    long long getCacheSize() const;

private:
    // The two upsampling paths of openRegion, each working in the cache its call borrowed.
    void openRegionNearestNeighbor(double* out, long long level, Box const& box, std::vector<double>& cache);
    void openRegionBilinear(double* out, long long level, Box const& box, std::vector<double>& cache);
    // Reads the clipped source box of a request into cache; false when it is empty.
    bool readSource(long long level, Box const& box, std::vector<double>& cache, double& scale, Box& sourceBox);

    long long sourceLevel;
    Interpolation interpolation;
    std::unique_ptr<WorkBufferPool> caches;
};

} // namespace Nuvek
