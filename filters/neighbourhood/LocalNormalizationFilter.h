#pragma once

#include <nuvek/core/Filter.h>

#include <memory>

namespace Nuvek {

class WorkBufferPool;

/// \brief Removes slowly varying background: subtracts from every voxel the input's values at a
/// coarser background level, bilinearly interpolated at the voxel, and maps the difference back
/// into the input's value range.
///
/// With (min, max) the input's value range and R = max - min, an output voxel is
/// (v - b + R) * 0.5 + min: a difference of -R gives min, 0 the middle of the range, +R gives max.
/// The filter asks the input for the requested box at the requested level, and for the box
/// (trunc(min / f) - 1 .. trunc(max / f) + 1) in x and y, the requested z, at the background level
/// L, clipped to the input's extent at L, where f = 2^(L - level) is the size of one background
/// voxel in voxels of the requested level (below 1 when the request is coarser than L). When that
/// clipped box is empty, the output is the input unchanged.
///
/// The background at x is the bilinear mix of the background columns floor(x / f - 0.5) and one
/// further with the weight x / f - (column + 0.5), and the rows likewise: voxel x is placed at its
/// corner x / f while background voxel centres lie at i + 0.5, so even with f = 1 the background is
/// a mix of neighbours, not the voxel itself. Indices are clamped into the clipped background box
/// first, so beyond it the nearest edge values repeat. Output slice z reads background slice
/// z - box.min.z, counted from the requested box's z; output slices for which the background box
/// holds no such slice keep the input's values. Rows of the background interpolated along x are
/// shared between the output rows that read them without changing a bit: every voxel gets the same
/// operations in the same order. The level L is not validated: what the input does at a level it
/// does not have is its own business.
///
/// openRegion may serve several threads at once, and calls do not wait for each other: every call
/// reads the background values into a work cache of its own, taken from the filter's idle caches and
/// given back afterwards (a lock is held only to take or give back one). Between calls each cache
/// keeps at most 100000 values; one thread at a time is always served by the same cache.
class LocalNormalizationFilter : public Filter
{
public:
    LocalNormalizationFilter(Image* input, long long backgroundLevel, bool ownsInput);
    ~LocalNormalizationFilter() override;

    void openRegion(double* out, long long level, Box const& box) override;

    /// The number of values the work cache given back last holds (at most 100000; 0 before any call
    /// that read background values).
    long long getCacheSize() const;

private:
    long long backgroundLevel;
    std::unique_ptr<WorkBufferPool> caches;
};

} // namespace Nuvek
