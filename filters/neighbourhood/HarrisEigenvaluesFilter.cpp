#include "filters/internal/RequestBands.h"
#include "filters/internal/TargetClones.h"
#include <nuvek/filters/neighbourhood/HarrisEigenvaluesFilter.h>

#include <nuvek/filters/neighbourhood/SobelFilter.h>

#include <cmath>
#include <stdexcept>

namespace Nuvek {

namespace {

// Larger and smaller eigenvalue of ((a*a, a*b), (a*b, b*b)) for every voxel of one channel pair,
// in place: the blurred x gradient a becomes the larger, the blurred y gradient b the smaller.
// The square root is correctly rounded whether it is taken one value or four at a time; the file is
// built without errno for math functions so that the compiler can take it four at a time.
NUVEK_TARGET_CLONES void computeEigenvaluesInPlace(double* larger, double* smaller, long long count)
{
    for (long long i = 0; i < count; ++i)
    {
        double const a = larger[i];
        double const b = smaller[i];
        double const trace = a * a + b * b;
        double const determinant = (b * b) * (a * a) - (a * b) * (a * b);
        // No clamping: a slightly negative radicand gives NaN.
        double const radius = std::sqrt(trace * trace * 0.25 - determinant);
        larger[i] = radius + trace * 0.5;
        smaller[i] = trace * 0.5 - radius;
    }
}

} // namespace

HarrisEigenvaluesFilter::HarrisEigenvaluesFilter(Image* input, long long kernelSize, bool ownsInput)
    : Filter(input, ownsInput)
{
    auto sobel = std::make_unique<SobelVectorFilter>(input, 3, false);
    // The blur owns the Sobel filter from its construction on, also when that construction throws;
    // its memory is allocated before the pointer is released, so a failed allocation loses nothing.
    smoothedGradient.reset(new GaussianBlurFilter(sobel.release(), kernelSize, true));
}

HarrisEigenvaluesFilter::~HarrisEigenvaluesFilter() = default;

long long HarrisEigenvaluesFilter::getNumChannels() const
{
    return 2 * input->getNumChannels();
}

std::string HarrisEigenvaluesFilter::getChannelName(long long index)
{
    // An index equal to getNumChannels() is accepted on purpose.
    if (index < 0 || index > getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return "";
}

void HarrisEigenvaluesFilter::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    // Every voxel's eigenvalues depend only on the input around it, so bands give the same bits.
    if (RequestBands::splits(input, box, getNumChannels(), getExtent(level)))
    {
        RequestBands::run(out, box, getNumChannels(), [&](double* bandOut, Box const& band) {
            HarrisEigenvaluesFilter::openRegion(bandOut, level, band);
        });
        return;
    }
    long long const size = box.getSize();
    long long const numChannels = input->getNumChannels();
    // The smoothed gradients have the output's layout, so the eigenvalues replace them in place.
    smoothedGradient->openRegion(out, level, box);
    for (long long c = 0; c < numChannels; ++c)
        computeEigenvaluesInPlace(out + 2 * c * size, out + (2 * c + 1) * size, size);
}

} // namespace Nuvek
