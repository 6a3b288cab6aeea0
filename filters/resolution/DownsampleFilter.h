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
/// A request wholly inside the image over an input that gives the same bits in row bands
/// (RowBandExactness) is computed in bands of output rows, each reading only its own block rows, so
/// that the source values held at once stay about those of one 512 x 512 RGB tile rather than
/// 4^(L - sourceLevel) times the request; the values are the same bits.
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
    /// Source values a band of a large request holds at once: about one 512 x 512 RGB tile's.
    static constexpr long long bandSourceValues = 3LL << 18;

    // Output rows per band of a request wholly inside the image.
    long long rowsPerBand(Box const& box, long long level) const;
    // Whether a request wholly inside the image is computed in bands of output rows: it spans more
    // than one, and the input gives the same bits in row bands (RowBandExactness).
    bool inBands(Box const& box, long long level) const;
    void openRegionInBands(double* out, long long level, Box const& box);

    long long sourceLevel;
};

} // namespace Nuvek
