#include "filters/internal/TargetClones.h"
#include <nuvek/filters/neighbourhood/SeparableConvolutionFilter.h>

#include "filters/internal/RequestBands.h"
#include "filters/internal/SimdQuad.h"

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

// The fast passes below compute every output with the same products, added in the same kernel
// order starting from 0.0, as the ring passes above; they only change which outputs are computed
// together and where the row results are kept, so the results are the same to the bit.
constexpr long long minimumFastWidth = 8;

constexpr long long quadsPerBlock = 8;
// Outputs computed together: enough independent sums to hide the latency of the additions.
constexpr long long blockWidth = 4 * quadsPerBlock;

// One output row: out[x] = sum over j of kernel[j] * rows[j * stride + x]. Pass 2 reads the n row
// results below each other in the work buffer (stride: a row). Pass 1 runs it along one row in place
// (stride 1, out = rows): each block of outputs is computed from values at or right of its first
// position before it is stored, and later blocks read only further right, so the row needs no copy;
// the results are kept h places left of the voxels they belong to.
NUVEK_TARGET_CLONES void correlateRowsInto(double* out, double const* rows, long long stride, long long outputWidth,
                                           double const* kernel, long long n)
{
    long long x = 0;
    for (; x + blockWidth <= outputWidth; x += blockWidth)
    {
        Quad sums[quadsPerBlock];
        for (Quad& sum : sums)
            sum = Quad{0.0, 0.0, 0.0, 0.0};
        for (long long j = 0; j < n; ++j)
        {
            double const weight = kernel[j];
            for (long long q = 0; q < quadsPerBlock; ++q)
            {
                sums[q] += weight * *reinterpret_cast<UnalignedQuad const*>(rows + j * stride + x + 4 * q);
            }
        }
        for (long long q = 0; q < quadsPerBlock; ++q)
            *reinterpret_cast<UnalignedQuad*>(out + x + 4 * q) = sums[q];
    }
    for (; x < outputWidth; ++x)
    {
        double sum = 0.0;
        for (long long j = 0; j < n; ++j)
            sum += kernel[j] * rows[j * stride + x];
        out[x] = sum;
    }
}

// Both passes, plane by plane: each output row is computed as soon as the n rows it reads have
// their row results, while those rows are still in cache.
void correlateFast(double* out, double* work, Vector const& outputExtent, Vector const& inputExtent,
                   long long numChannels, std::vector<double> const& kernelX, std::vector<double> const& kernelY)
{
    long long const n = static_cast<long long>(kernelX.size());
    long long const planeSize = inputExtent.x * inputExtent.y;
    for (long long p = 0; p < numChannels * outputExtent.z; ++p)
    {
        double* plane = work + p * planeSize;
        double* outPlane = out + p * outputExtent.x * outputExtent.y;
        for (long long r = 0; r < n - 1; ++r)
        {
            double* row = plane + r * inputExtent.x;
            correlateRowsInto(row, row, 1, outputExtent.x, kernelX.data(), n);
        }
        for (long long y = 0; y < outputExtent.y; ++y)
        {
            double* entering = plane + (y + n - 1) * inputExtent.x;
            correlateRowsInto(entering, entering, 1, outputExtent.x, kernelX.data(), n);
            correlateRowsInto(outPlane + y * outputExtent.x, plane + y * inputExtent.x, inputExtent.x, outputExtent.x,
                              kernelY.data(), n);
        }
    }
}

// One request the plain way: the grown box from the input in one buffer, then both passes.
void convolveRegion(Image& input, std::vector<double> const& kernelX, std::vector<double> const& kernelY,
                    long long numChannels, double* out, long long level, Box const& box)
{
    long long const half = static_cast<long long>(kernelX.size() / 2);
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const inputBox = box.expanded(Vector(half, half, 0));
    Vector const inputExtent = inputBox.getExtent();
    Vector const outputExtent = box.getExtent();

    std::vector<double> work(static_cast<std::size_t>(numChannels * inputBox.getSize()), 0.0);
    input.openRegion(work.data(), level, inputBox);

    // Rows at least eight wide take the fast passes; they give the same bits as the ring passes,
    // which narrower boxes keep.
    if (outputExtent.x >= minimumFastWidth)
    {
        correlateFast(out, work.data(), outputExtent, inputExtent, numChannels, kernelX, kernelY);
        return;
    }
    std::vector<double> ring(kernelX.size(), 0.0);
    std::size_t position = 0;
    correlateAlongXInPlace(work.data(), inputExtent, numChannels, outputExtent.x, kernelX, ring, position);
    correlateAlongYInto(out, work.data(), outputExtent, inputExtent, numChannels, kernelY, ring, position);
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

SeparableConvolutionFilter::SeparableConvolutionFilter(Image* input, std::vector<double> const& kernel, bool ownsInput)
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
    long long const numChannels = getNumChannels();
    // Every voxel's value depends only on the input around it, so bands give the same bits.
    if (RequestBands::splits(input, box, numChannels, getExtent(level)))
    {
        RequestBands::run(out, box, numChannels, [&](double* bandOut, Box const& band) {
            convolveRegion(*input, kernelX, kernelY, numChannels, bandOut, level, band);
        });
        return;
    }
    convolveRegion(*input, kernelX, kernelY, numChannels, out, level, box);
}

} // namespace Nuvek
