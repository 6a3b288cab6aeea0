#include "filters/internal/RequestBands.h"
#include <nuvek/filters/neighbourhood/SobelFilter.h>

#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// -1 below the centre, 0 at it, +1 above it.
std::vector<double> differenceKernel(long long kernelSize)
{
    long long const half = kernelSize / 2;
    std::vector<double> kernel(static_cast<std::size_t>(kernelSize));
    for (long long i = 0; i < kernelSize; ++i)
        kernel[static_cast<std::size_t>(i)] = i < half ? -1.0 : (i == half ? 0.0 : 1.0);
    return kernel;
}

// One request the plain way: both gradients of the whole box, combined into out.
template <SobelOutput output>
void sobelOfRegion(Image& gradientX, Image& gradientY, long long numChannels, double* out, long long level,
                   Box const& box)
{
    long long const size = box.getSize();

    if (output == SobelOutput::Vector && numChannels == 1)
    {
        // One input channel: X and Y are already the output's two planes.
        gradientX.openRegion(out, level, box);
        gradientY.openRegion(out + size, level, box);
        return;
    }

    std::vector<double> gradientsY(static_cast<std::size_t>(numChannels * size), 0.0);
    gradientY.openRegion(gradientsY.data(), level, box);

    if (output == SobelOutput::Magnitude)
    {
        // The x gradients go straight into out and are squared in place.
        gradientX.openRegion(out, level, box);
        for (long long i = 0; i < numChannels * size; ++i)
        {
            double const gx = out[i];
            double const gy = gradientsY[static_cast<std::size_t>(i)];
            out[i] = gy * gy + gx * gx;
        }
        return;
    }

    std::vector<double> gradientsX(static_cast<std::size_t>(numChannels * size), 0.0);
    gradientX.openRegion(gradientsX.data(), level, box);
    // The output channels alternate X and Y per input channel.
    for (long long c = 0; c < numChannels; ++c)
    {
        std::copy(gradientsX.begin() + c * size, gradientsX.begin() + (c + 1) * size, out + 2 * c * size);
        std::copy(gradientsY.begin() + c * size, gradientsY.begin() + (c + 1) * size, out + (2 * c + 1) * size);
    }
}

} // namespace

template <SobelOutput output>
SobelFilter<output>::SobelFilter(Image* input, long long kernelSize, bool ownsInput) : Filter(input, ownsInput)
{
    if (kernelSize < 1)
        throw std::runtime_error("Kernel size must be at least 1.");
    std::vector<double> const difference = differenceKernel(kernelSize);
    std::vector<double> const gaussian = GaussianBlurFilter::getGaussianKernel(kernelSize);
    // The children share this filter's input and do not own it.
    gradientX = std::make_unique<SeparableConvolutionFilter>(input, difference, gaussian, false);
    gradientY = std::make_unique<SeparableConvolutionFilter>(input, gaussian, difference, false);
}

template <SobelOutput output>
SobelFilter<output>::~SobelFilter() = default;

template <SobelOutput output>
long long SobelFilter<output>::getNumChannels() const
{
    return output == SobelOutput::Vector ? 2 * input->getNumChannels() : input->getNumChannels();
}

template <SobelOutput output>
ValueRange<double> SobelFilter<output>::getValueRange() const
{
    // The ranges of the 3 x 3 case, deliberately not scaled with the kernel size.
    ValueRange<double> const range = input->getValueRange();
    double const spread = range.max - range.min;
    if (output == SobelOutput::Vector)
        return ValueRange<double>(-spread, spread);
    return ValueRange<double>(0.0, spread * spread);
}

template <SobelOutput output>
std::string SobelFilter<output>::getChannelName(long long index)
{
    // Only the first input channel's outputs have names, also for multi-channel inputs.
    if (output == SobelOutput::Vector)
    {
        if (index == 0)
            return "VectorX";
        if (index == 1)
            return "VectorY";
    }
    else if (index == 0)
        return "Magnitude";
    throw std::runtime_error("Invalid channel index. Cannot determine its name.");
}

template <SobelOutput output>
void SobelFilter<output>::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    long long const numChannels = input->getNumChannels();
    // Every voxel's gradients depend only on the input around it, so bands give the same bits.
    if (RequestBands::splits(input, box, getNumChannels(), getExtent(level)))
    {
        RequestBands::run(out, box, getNumChannels(), [&](double* bandOut, Box const& band) {
            sobelOfRegion<output>(*gradientX, *gradientY, numChannels, bandOut, level, band);
        });
        return;
    }
    sobelOfRegion<output>(*gradientX, *gradientY, numChannels, out, level, box);
}

template class SobelFilter<SobelOutput::Vector>;
template class SobelFilter<SobelOutput::Magnitude>;

} // namespace Nuvek
