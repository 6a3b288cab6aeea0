#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

/// \brief Repeats the nearest edge values wherever a requested box reaches beyond the image.
///
/// The filter asks its input for the requested box unchanged, then overwrites the voxels outside the
/// input's extent at that level, per channel: the x margins of each row, then the y margins, then
/// the z margins, so that corner regions take the corner voxel's value. The x and y margins are
/// filled in one slice only, the first slice of the box inside the image; the other inside slices
/// of a deeper box keep what the input wrote in their margins, and the slices outside the image in
/// z are copies of the nearest inside slice. On a one-slice box the result is full clamp-to-edge.
///
/// A box that lies wholly beside the image along some axis has no inside voxel to repeat along that
/// axis; for it the filter asks the input for the nearest voxels inside the image and fills every
/// voxel of the box with the value at its coordinates clamped into the image. An image with an
/// empty extent leaves the input's values as they are.
///
/// openRegion may run on several threads at once.
class ClampingFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    ClampingFilter(Image* input, bool ownsInput);

    void openRegion(double* out, long long level, Box const& box) override;
};

} // namespace Nuvek
