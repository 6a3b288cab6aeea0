#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

#include <vector>

namespace Nuvek {

/// \brief Correlates every channel of every slice with a row kernel along x, then a column kernel
/// along y.
///
/// With n the kernel length and h = (n - 1) / 2, an output voxel at (x, y) is
/// sum over j of kernelY[j] * H(x, y - h + j), where H(x, y) = sum over j of kernelX[j] * in(x - h + j, y):
/// kernel element 0 weighs the lowest coordinate (a correlation, not a mirrored convolution). Both
/// sums run in kernel order starting from 0.0. The z axis is never filtered; the output is neither
/// rounded nor clamped.
///
/// The filter asks its input for the requested box grown by h in x and y at the requested level,
/// not clipped to the input's extent: values beyond the border are what the input delivers there.
/// The kernels are the same at every level. The value range is the input's, whatever the kernels.
/// A request inside the image of more than 2^19 values (all output channels) is computed in bands
/// of whole rows, each asked of the input like a request of its own, so that the temporaries stay
/// in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once.
class SeparableConvolutionFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    /// Throws std::runtime_error "Kernel sizes for x and y must be equal." when the lengths differ,
    /// else "Kernel size must be odd." when the length is even (zero included).
    SeparableConvolutionFilter(Image* input, std::vector<double> const& kernelX, std::vector<double> const& kernelY,
                               bool ownsInput);
    /// The same kernel along x and y.
    SeparableConvolutionFilter(Image* input, std::vector<double> const& kernel, bool ownsInput);
    ~SeparableConvolutionFilter() override;

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;

private:
    std::vector<double> kernelX;
    std::vector<double> kernelY;
};

} // namespace Nuvek
