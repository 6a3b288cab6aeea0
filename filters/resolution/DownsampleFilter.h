#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/filters/resolution/CopyImageBuffer.h>
#include <nuvek/filters/resolution/DownsampleBufferFullLevel.h>

namespace Nuvek {

/// \brief Computes the levels coarser than sourceLevel from the input's sourceLevel by block
/// averaging, instead of using the input's own coarse levels.
///
/// A request at a level up to and including sourceLevel goes to the input unchanged. A request at a
/// coarser level L is clipped to the input's extent at L; the filter asks the input for the clipped
/// box at sourceLevel (convertToLevel, 2^(L - sourceLevel) times larger in x and y, the same z), and
/// every output voxel is the mean of its 2^(L - sourceLevel) x 2^(L - sourceLevel) block there,
/// summed as downsampleBufferFullLevel does. z slices are never mixed. Voxels of the requested box
/// outside the input's extent at L are not written at all: they keep what the caller's buffer held,
/// because the filter never invents border values. A box wholly outside asks the input for nothing.
///
/// Over a MemoryImage with sourceLevel 0 the result equals the image's own coarse levels to the bit.
/// Extent, channels, levels, value range, voxel size, names and hash are the input's. Requests more
/// than 62 levels coarser than sourceLevel that still overlap the image throw std::runtime_error.
/// openRegion keeps no state and may run on several threads at once if the input allows it.
class DownsampleFilter : public Filter
{
public:
    DownsampleFilter(Image* input, long long sourceLevel, bool ownsInput);

    void openRegion(double* out, long long level, Box const& box) override;

    /// The block-averaging path of openRegion, for a level coarser than sourceLevel.
    void openRegionDownsampled(double* out, long long level, Box const& box);

private:
    long long sourceLevel;
};

} // namespace Nuvek
