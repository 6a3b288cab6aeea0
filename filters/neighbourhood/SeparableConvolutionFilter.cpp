#include <nuvek/filters/neighbourhood/SeparableConvolutionFilter.h>

#include <stdexcept>

namespace Nuvek {

namespace {

// Pass 1: every row of the grown box, in place. The ring holds the values as read, so the row can
// be overwritten while its later outputs still need them. The ring position carries over from row
// to row and pass to pass; the sums do not depend on where it starts.
void correlateAlongXInPlace(double* work, Vector const& inputExtent, long long numChannels, long long outputWidth,
                            std::vector<double> const& kernel, std::vector<double>& ring, std::size_t& position)
{
    std::size_t const n = kernel.size();
    long long const half = static_cast<long long>(n / 2);
    long long const rows = numChannels * inputExtent.z * inputExtent.y;
    for (long long r = 0; r < rows; ++r)
    {
        double* row = work + r * inputExtent.x;
        for (std::size_t j = 0; j < n; ++j)
        {
            ring[position] = row[j];
            position = (position + 1) % n;
        }
        for (long long i = 0; i < outputWidth; ++i)
        {
            if (i > 0)
            {
                ring[position] = row[i + static_cast<long long>(n) - 1];
                position = (position + 1) % n;
            }
            double sum = 0.0;
            for (std::size_t j = 0; j < n; ++j)
                sum += kernel[j] * ring[(position + j) % n];
            row[half + i] = sum;
        }
    }
}

// Pass 2: every output column, read at input column h + x where pass 1 left its results.
void correlateAlongYInto(double* out, double const* work, Vector const& outputExtent, Vector const& inputExtent,
                         long long numChannels, std::vector<double> const& kernel, std::vector<double>& ring,
                         std::size_t& position)
{
    std::size_t const n = kernel.size();
    long long const half = static_cast<long long>(n / 2);
    long long const planes = numChannels * outputExtent.z;
    for (long long p = 0; p < planes; ++p)
    {
        double const* plane = work + p * inputExtent.x * inputExtent.y;
        double* outPlane = out + p * outputExtent.x * outputExtent.y;
        for (long long x = 0; x < outputExtent.x; ++x)
        {
            double const* column = plane + half + x;
            for (std::size_t j = 0; j < n; ++j)
            {
                ring[position] = column[static_cast<long long>(j) * inputExtent.x];
                position = (position + 1) % n;
            }
            for (long long y = 0; y < outputExtent.y; ++y)
            {
                if (y > 0)
                {
                    ring[position] = column[(y + static_cast<long long>(n) - 1) * inputExtent.x];
                    position = (position + 1) % n;
                }
                double sum = 0.0;
                for (std::size_t j = 0; j < n; ++j)
                    sum += kernel[j] * ring[(position + j) % n];
                outPlane[y * outputExtent.x + x] = sum;
            }
        }
    }
}

} // namespace

SeparableConvolutionFilter::SeparableConvolutionFilter(Image* input, std::vector<double> const& kernelX,
                                                       std::vector<double> const& kernelY, bool ownsInput)
    : Filter(input, ownsInput), kernelX(kernelX), kernelY(kernelY)
{
    if (kernelX.size() != kernelY.size())
        throw std::runtime_error("Kernel sizes for x and y must be equal.");
    if (kernelX.size() % 2 == 0)
        throw std::runtime_error("Kernel size must be odd.");
}

SeparableConvolutionFilter::SeparableConvolutionFilter(Image* input, std::vector<double> const& kernel,
                                                       bool ownsInput)
    : SeparableConvolutionFilter(input, kernel, kernel, ownsInput)
{
}

SeparableConvolutionFilter::~SeparableConvolutionFilter() = default;

ValueRange<double> SeparableConvolutionFilter::getValueRange() const
{
    // Deliberately the input's range, whatever the kernels do to it.
    return input->getValueRange();
}

void SeparableConvolutionFilter::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    long long const half = static_cast<long long>(kernelX.size() / 2);
    long long const numChannels = getNumChannels();
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const inputBox = box.expanded(Vector(half, half, 0));
    Vector const inputExtent = inputBox.getExtent();
    Vector const outputExtent = box.getExtent();

    std::vector<double> work(static_cast<std::size_t>(numChannels * inputBox.getSize()), 0.0);
    input->openRegion(work.data(), level, inputBox);

    std::vector<double> ring(kernelX.size(), 0.0);
    std::size_t position = 0;
    correlateAlongXInPlace(work.data(), inputExtent, numChannels, outputExtent.x, kernelX, ring, position);
    correlateAlongYInto(out, work.data(), outputExtent, inputExtent, numChannels, kernelY, ring, position);
}

} // namespace Nuvek
