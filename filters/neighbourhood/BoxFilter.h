#pragma once

#include <nuvek/core/Filter.h>

#include <memory>

namespace Nuvek {

class WorkBufferPool;

/// \brief Replaces every voxel by the sum, or the mean, of the k x k square of input voxels
/// centred on it in the x/y plane of its slice, channel by channel.
///
/// The square is summed as two running sums, first along x over every row of the grown box, then
/// along y, so the cost per voxel does not depend on k. Each running sum adds the entering value
/// and subtracts the leaving one and is never recomputed within a row, so rounding errors build up
/// along a row, and an infinity that enters a row turns the rest of it into NaN once it leaves.
/// The first sum of each row also adds and then subtracts the value that the previous row (of the
/// same call, across slices and channels) left in the last slot of its window; the first row of a
/// call uses 0.0 there. normalize divides by k * k; rounding replaces each result v by
/// floor(v + 0.5) (2.5 gives 3, -2.5 gives -2). The z axis is never filtered.
///
/// The filter asks its input for the requested box grown by k / 2 in x and y at the requested
/// level, not clipped to the input's extent: values beyond the border are what the input delivers
/// there, and border voxels are not renormalised. The kernel size is the same at every level.
/// A request of more than 2^19 values (grown box, all channels) that lies inside the image, over an
/// input that gives the same bits in row bands (RowBandExactness), asks the input for the grown box a
/// band of whole rows at a time, each band with rows inside the image, and carries the running sums
/// from band to band: the values are those of one request, with the working set in the caches.
/// openRegion may run on several threads at once. Each call borrows its work buffer (the grown box,
/// or the bands) from buffers the filter keeps for later calls (up to 64 MiB each; larger ones are
/// freed), so that a large request does not map and fault in fresh memory every time.
class BoxFilter : public Filter
{
public:
    /// Throws std::runtime_error "Kernel size must be odd." for an even kernelSize, then
    /// "Kernel size must not be negative." for a negative one.
    BoxFilter(Image* input, long long kernelSize, bool normalize, bool rounding, bool ownsInput);
    ~BoxFilter() override;

    /// The input's range times 1 when normalize is set, else times k * k; rounding does not change it.
    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;

private:
    long long kernelSize;
    bool normalize;
    bool rounding;
    std::unique_ptr<WorkBufferPool> workBuffers;
};

} // namespace Nuvek
