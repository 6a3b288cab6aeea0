#include <nuvek/filters/neighbourhood/BoxFilter.h>

#include <cmath>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Pass 1: running sums along x over every row of the grown box, in place. The ring holds the
// values as read, so the row can be overwritten while the window still needs them. Its last slot
// keeps what the previous row left there and enters the row's first sum before being replaced.
void sumAlongXInPlace(double* work, Vector const& inputExtent, long long numChannels, long long outputWidth,
                      long long kernelSize, std::vector<double>& ring)
{
    long long const half = kernelSize / 2;
    long long const rows = numChannels * inputExtent.z * inputExtent.y;
    for (long long r = 0; r < rows; ++r)
    {
        double* row = work + r * inputExtent.x;
        for (long long j = 0; j < kernelSize - 1; ++j)
            ring[static_cast<std::size_t>(j)] = row[j];
        double sum = 0.0;
        for (double value : ring)
            sum += value;
        if (outputWidth <= 0)
            continue;
        long long position = kernelSize - 1;
        sum -= ring[static_cast<std::size_t>(position)];
        ring[static_cast<std::size_t>(position)] = row[kernelSize - 1];
        sum += ring[static_cast<std::size_t>(position)];
        row[half] = sum;
        for (long long i = 1; i < outputWidth; ++i)
        {
            position = (position + 1) % kernelSize;
            sum -= ring[static_cast<std::size_t>(position)];
            ring[static_cast<std::size_t>(position)] = row[kernelSize - 1 + i];
            sum += ring[static_cast<std::size_t>(position)];
            row[half + i] = sum;
        }
    }
}

// Pass 2: running sums along y over every output column, read at input column h + x where pass 1
// left the row sums, then scaled and optionally rounded into out.
void sumAlongYInto(double* out, double const* work, Vector const& outputExtent, Vector const& inputExtent,
                   long long numChannels, long long kernelSize, double scale, bool rounding, std::vector<double>& ring)
{
    long long const half = kernelSize / 2;
    long long const planes = numChannels * outputExtent.z;
    for (long long p = 0; p < planes; ++p)
    {
        double const* plane = work + p * inputExtent.x * inputExtent.y;
        double* outPlane = out + p * outputExtent.x * outputExtent.y;
        for (long long x = 0; x < outputExtent.x; ++x)
        {
            double const* column = plane + half + x;
            double sum = 0.0;
            for (long long j = 0; j < kernelSize - 1; ++j)
            {
                ring[static_cast<std::size_t>(j)] = column[j * inputExtent.x];
                sum += ring[static_cast<std::size_t>(j)];
            }
            ring[static_cast<std::size_t>(kernelSize - 1)] = 0.0;
            long long position = kernelSize - 1;
            for (long long y = 0; y < outputExtent.y; ++y)
            {
                sum -= ring[static_cast<std::size_t>(position)];
                ring[static_cast<std::size_t>(position)] = column[(kernelSize - 1 + y) * inputExtent.x];
                sum += ring[static_cast<std::size_t>(position)];
                position = (position + 1) % kernelSize;
                double value = scale * sum;
                if (rounding)
                    value = std::floor(value + 0.5);
                outPlane[y * outputExtent.x + x] = value;
            }
        }
    }
}

} // namespace

BoxFilter::BoxFilter(Image* input, long long kernelSize, bool normalize, bool rounding, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize), normalize(normalize), rounding(rounding)
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
}

BoxFilter::~BoxFilter() = default;

ValueRange<double> BoxFilter::getValueRange() const
{
    ValueRange<double> const range = input->getValueRange();
    double const factor = normalize ? 1.0 : static_cast<double>(kernelSize * kernelSize);
    return ValueRange<double>(range.min * factor, range.max * factor);
}

void BoxFilter::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    long long const half = kernelSize / 2;
    long long const numChannels = getNumChannels();
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const inputBox = box.expanded(Vector(half, half, 0));
    Vector const inputExtent = inputBox.getExtent();
    Vector const outputExtent = box.getExtent();

    std::vector<double> work(static_cast<std::size_t>(numChannels * inputBox.getSize()), 0.0);
    input->openRegion(work.data(), level, inputBox);

    double const scale = normalize ? 1.0 / static_cast<double>(kernelSize * kernelSize) : 1.0;
    std::vector<double> ring(static_cast<std::size_t>(kernelSize), 0.0);
    sumAlongXInPlace(work.data(), inputExtent, numChannels, outputExtent.x, kernelSize, ring);
    sumAlongYInto(out, work.data(), outputExtent, inputExtent, numChannels, kernelSize, scale, rounding, ring);
}

} // namespace Nuvek
