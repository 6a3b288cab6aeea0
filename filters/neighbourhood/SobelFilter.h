#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/filters/neighbourhood/SeparableConvolutionFilter.h>

#include <memory>
#include <string>

namespace Nuvek {

/// What a SobelFilter delivers per input channel.
enum class SobelOutput
{
    /// Two channels, the x gradient then the y gradient ("VectorX", "VectorY").
    Vector = 0,
    /// One channel, the squared gradient magnitude gx^2 + gy^2 ("Magnitude"); no square root.
    Magnitude = 1
};

/// \brief The x and y gradients of every input channel, from a difference kernel along one axis
/// times a Gaussian smoothing kernel along the other.
///
/// For size k (h = k / 2) the difference kernel D is -1 below the centre, 0 at it and +1 above it,
/// and G is GaussianBlurFilter::getGaussianKernel(k) (for k = 3 about 0.1065, 0.7870, 0.1065, not
/// 1, 2, 1). The x gradient is a SeparableConvolutionFilter with row kernel D and column kernel G,
/// the y gradient one with row kernel G and column kernel D; both correlate, so a gradient is
/// positive where values grow along its axis. k = 1 gives D = [0] and a NaN Gaussian, so every
/// output voxel is NaN.
///
/// SobelOutput::Vector gives 2C channels for C input channels, X and Y alternating per input
/// channel; only channels 0 and 1 have names. SobelOutput::Magnitude gives C channels, gy^2 + gx^2,
/// and only channel 0 has a name. The range, with d the input's max - min, is [-d, d] for the
/// vector and [0, d^2] for the magnitude: the ranges of the 3 x 3 case, not scaled for larger k.
///
/// Each gradient asks the input for the requested box grown by h in x and y at the requested
/// A request inside the image of more than 2^19 values (all output channels) is computed in bands
/// of whole rows, each asked of the input like a request of its own, so that the temporaries stay
/// in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// level, not clipped to the input's extent. openRegion may run on several threads at once.
template <SobelOutput output>
class SobelFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    /// Throws std::runtime_error "Kernel size must be at least 1." for kernelSize < 1, and
    /// "Kernel size must be odd." for an even one.
    SobelFilter(Image* input, long long kernelSize, bool ownsInput);
    ~SobelFilter() override;

    long long getNumChannels() const override;
    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;

private:
    std::unique_ptr<SeparableConvolutionFilter> gradientX;
    std::unique_ptr<SeparableConvolutionFilter> gradientY;
};

extern template class SobelFilter<SobelOutput::Vector>;
extern template class SobelFilter<SobelOutput::Magnitude>;

/// The x and y gradients, two channels per input channel.
using SobelVectorFilter = SobelFilter<SobelOutput::Vector>;
/// The squared gradient magnitude, one channel per input channel.
using SobelMagnitudeFilter = SobelFilter<SobelOutput::Magnitude>;

} // namespace Nuvek
