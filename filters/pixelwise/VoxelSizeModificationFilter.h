#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

/// \brief Passes the input's values through unchanged and reports a voxel size of the caller's
/// choice.
///
/// The voxel size at level L is the stored level-0 size with x and y multiplied by a factor 2^L that
/// is computed as a 32-bit signed shift of 1 by L modulo 32: level 31 gives the factor -2^31 and
/// level 32 gives 1 again, and a negative level uses its low five bits. z is never scaled. A product
/// that does not fit in 64 bits throws std::runtime_error. setVoxelSizeAtLevel0 takes effect on the
/// next getVoxelSize and must not run concurrently with anything else on the same filter;
/// openRegion is the input's and may run on several threads at once when the input allows it.
class VoxelSizeModificationFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    VoxelSizeModificationFilter(Image* input, bool ownsInput, Vector voxelSize);
    /// Starts from the input's level-0 voxel size.
    VoxelSizeModificationFilter(Image* input, bool ownsInput);

    Vector getVoxelSize(long long level) const override;

    void setVoxelSizeAtLevel0(Vector voxelSize);

private:
    Vector voxelSizeAtLevel0;
};

} // namespace Nuvek
