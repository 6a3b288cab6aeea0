#pragma once

#include <nuvek/core/Filter.h>

namespace Nuvek {

/// \brief Gives every voxel that holds `value` its Euclidean distance, in voxels of the requested
/// level, to the nearest voxel that does not hold it, capped at `maxDistance`.
///
/// A voxel holding anything else (NaN included) is a target and gets 0. Distances are exact
/// (sqrt 2 at a diagonal neighbour): squared distances come from two one-dimensional passes of
/// `dt`, down the columns and then along the rows, and the output is their square root, capped.
/// The filter asks its input for the requested box grown by `maxDistance` in x and y, not clipped
/// to the extent, at the requested level; the margin does not change with the level. So a tile
/// gets the same distances as a larger request (a target further away than the cap would only give
/// the cap), and at the border the input decides what lies beyond the extent (a source reading 0.0
/// there makes it a target unless `value` is 0.0).
///
/// The transform works on the x/y plane. Of a box several slices deep only the first slice is
/// transformed and written; the other slices of `out` are left as they are. In that slice the filter
/// writes a block as wide and as high as the box's overlap with the input's extent, starting at the
/// box's first voxel: for a box reaching beyond the far borders exactly its voxels inside the
/// extent, for one reaching below the origin its first voxels (outside the extent) and not the
/// same number of inside voxels at its far end. A box wholly beside the extent in x or y gets nothing written. Channel
/// c is written at c * box.getSize(). Of every channel of the grown box only the first (voxel count
/// of the grown box) / (number of channels) values are compared with `value`; the rest of the first
/// slice goes into the passes as read. With one channel that is the whole channel.
///
/// A request of one slice and one channel inside the image of more than 2^19 values (all output
/// channels) is computed in bands of whole rows, each asked of the input like a request of its own,
/// so that the temporaries stay in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// The value range is [0, maxDistance]. A negative `maxDistance` is rejected. openRegion may run on
/// several threads at once.
class DistanceTransformFilter : public Filter
{
public:
    DistanceTransformFilter(Image* input, double value, long long maxDistance, bool ownsInput);

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;

private:
    double value;
    long long maxDistance;
};

/// \brief The one-dimensional squared distance transform of the n samples f: element q of the
/// result is the smallest (q - p)^2 + f[p] over p, taken from the lower envelope of those parabolas.
///
/// 1e20 stands for "infinitely far". Returns a new array of n doubles made with array new, which the
/// caller releases with array delete; f is not changed. n = 0 gives an empty array; a negative n or
/// a null f with n > 0 throws std::runtime_error.
double* dt(double* f, long long n);

} // namespace Nuvek
