#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>

#include <memory>
#include <string>

namespace Nuvek {

/// \brief The two eigenvalues of the 2 x 2 matrix built from the smoothed gradient (a, b) at every
/// voxel, for every input channel: the larger at channel 2c, the smaller at channel 2c + 1.
///
/// The gradient comes from a 3 x 3 SobelVectorFilter, smoothed by a GaussianBlurFilter of size k.
/// The matrix has rows (a*a, a*b) and (a*b, b*b) and is formed from the already smoothed gradient,
/// so its determinant is 0 up to rounding: the larger eigenvalue is a^2 + b^2 and the smaller 0,
/// up to rounding. A slightly negative radicand is not clamped and gives NaN.
///
/// The Sobel filter asks the input for the requested box grown by 1 in x and y, and the blur grows
/// that by k / 2; neither is clipped to the input's extent. The value range is the input's, not
/// that of the eigenvalues. Channel names are empty, for indices 0 to getNumChannels() inclusive.
/// A request inside the image of more than 2^19 values (all output channels) is computed in bands
/// of whole rows, each asked of the input like a request of its own, so that the temporaries stay
/// in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once.
class HarrisEigenvaluesFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    /// Throws std::runtime_error "Kernel size must be odd." for an even kernelSize or one below 1.
    HarrisEigenvaluesFilter(Image* input, long long kernelSize, bool ownsInput);
    ~HarrisEigenvaluesFilter() override;

    long long getNumChannels() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    /// "" for 0 <= index <= getNumChannels() (the upper bound included on purpose); otherwise throws
    /// std::runtime_error "Invalid channel index. Cannot determine its name.".
    std::string getChannelName(long long index) override;

private:
    std::unique_ptr<GaussianBlurFilter> smoothedGradient;
};

} // namespace Nuvek
