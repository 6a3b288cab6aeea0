#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

/// \brief Replaces every voxel of every channel by the value of a chosen rank among the k x k values
/// of the x/y window centred on it: rank 0 is the minimum, k * k - 1 the maximum, (k * k - 1) / 2
/// the median.
///
/// The values of a window are put in ascending order as numbers, with -0.0 before +0.0 and every
/// NaN after +infinity; NaNs among themselves come in a fixed order of their bits (sign bit clear by
/// ascending bits, then sign bit set by descending bits), so the result is defined to the bit for any
/// input.
///
/// Only the first slice of the requested box (z = box.min.z) is computed; for a box of several slices
/// the other slices of out keep what they held. The filter asks its input for the box grown by k / 2
/// in x and y at the same level, not clipped to the image. When that grown box misses the image
/// entirely, out is left untouched; when it reaches partly outside the image, out is cleared first
/// and the input's values outside its extent take part in the windows.
///
/// The constructor rejects an even kernel size, then a rank index of k * k or more, then a negative
/// rank index; a negative odd kernel size is accepted, but openRegion then throws std::runtime_error.
/// A request of one slice inside the image of more than 2^19 values (all output channels) is
/// computed in bands of whole rows, each asked of the input like a request of its own, so that the
/// temporaries stay in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once.
class RankFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    RankFilter(Image* input, long long kernelSize, long long rankIndex, bool ownsInput);

    void openRegion(double* out, long long level, Box const& box) override;

private:
    long long kernelSize;
    long long rankIndex;
};

} // namespace Nuvek
