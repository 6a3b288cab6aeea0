#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>

#include <cmath>

namespace Nuvek {

namespace {

// The kernel is built before the base takes the input, so an owned input is released here when
// building it fails; from the base on, the base's destructor does that.
std::vector<double> kernelForOwnedInput(Image* input, long long kernelSize, bool ownsInput)
{
    try
    {
        return GaussianBlurFilter::getGaussianKernel(kernelSize);
    }
    catch (...)
    {
        if (ownsInput)
            delete input;
        throw;
    }
}

} // namespace

GaussianBlurFilter::GaussianBlurFilter(Image* input, long long kernelSize, bool ownsInput)
    : SeparableConvolutionFilter(input, kernelForOwnedInput(input, kernelSize, ownsInput), ownsInput)
{
}

GaussianBlurFilter::~GaussianBlurFilter() = default;

std::vector<double> GaussianBlurFilter::getGaussianKernel(long long size)
{
    if (size < 1)
        return {};
    // Size 1 gives sigma 0 and 0 / 0 below: a single NaN weight, kept as it is.
    double const centre = static_cast<double>(size - 1) * 0.5;
    double const sigma = 0.5 * centre;
    std::vector<double> kernel(static_cast<std::size_t>(size));
    double sum = 0.0;
    for (long long i = 0; i < size; ++i)
    {
        kernel[static_cast<std::size_t>(i)] = computeGaussian(static_cast<double>(i) - centre, sigma);
        sum += kernel[static_cast<std::size_t>(i)];
    }
    for (double& weight : kernel)
        weight /= sum;
    return kernel;
}

double GaussianBlurFilter::computeGaussian(double x, double sigma)
{
    double const scaled = x / sigma;
    return std::exp(-0.5 * (scaled * scaled));
}

} // namespace Nuvek
