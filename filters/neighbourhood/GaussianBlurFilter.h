#pragma once

#include <nuvek/filters/neighbourhood/SeparableConvolutionFilter.h>

#include <vector>

namespace Nuvek {

/// \brief Blurs every channel of every slice with a sampled, normalised Gaussian of odd size k,
/// along x and then along y.
///
/// The kernel is getGaussianKernel(k): centre (k - 1) / 2 and sigma (k - 1) / 4, so the width
/// follows from the size alone. Size 1 gives sigma 0 and a single NaN weight, so every output voxel
/// is NaN; this is kept, not special-cased. Everything else (the box grown by k / 2 in x and y,
/// borders, range, threads) is that of SeparableConvolutionFilter.
class GaussianBlurFilter : public SeparableConvolutionFilter
{
public:
    /// Throws std::runtime_error "Kernel size must be odd." for an even size or a size below 1.
    GaussianBlurFilter(Image* input, long long kernelSize, bool ownsInput);
    ~GaussianBlurFilter() override;

    /// The normalised Gaussian of the given length: w[i] = computeGaussian(i - c, c / 2) with
    /// c = (size - 1) / 2, divided by the sum of all w taken in index order. Empty for size < 1.
    static std::vector<double> getGaussianKernel(long long size);
    /// exp(-0.5 * (x / sigma)^2), without the 1 / (sigma * sqrt(2 pi)) factor.
    static double computeGaussian(double x, double sigma);
};

} // namespace Nuvek
