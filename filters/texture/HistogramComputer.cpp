#include <nuvek/filters/texture/HistogramComputer.h>

#include <nuvek/filters/texture/PositionIterator.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

/// The ring buffers and counts of every column of the padded region, kept as planes so that the
/// horizontal sums read contiguous memory. Every column receives exactly one value per row, so all
/// columns share one ring position. A fresh set holds k values of bin 0 in every column.
class CircularHistogramBuffers
{
public:
    CircularHistogramBuffers(long long width, long long kernelSize, long long numBins)
        : width(width), kernelSize(kernelSize), ring(static_cast<std::size_t>(width * kernelSize), 0),
          counts(static_cast<std::size_t>(width * numBins), 0)
    {
        for (long long c = 0; c < width; ++c)
            counts[static_cast<std::size_t>(c)] = kernelSize;
    }

    /// Pushes the bins of one padded row, one per column, into every column.
    void pushRow(long long const* bins)
    {
        long long* slot = ring.data() + position * width;
        long long* count = counts.data();
        for (long long c = 0; c < width; ++c)
        {
            count[slot[c] * width + c] -= 1;
            count[bins[c] * width + c] += 1;
            slot[c] = bins[c];
        }
        position = position + 1 == kernelSize ? 0 : position + 1;
    }

    /// The counts of bin b of every column.
    long long const* countsOfBin(long long b) const { return counts.data() + b * width; }

private:
    long long width;
    long long kernelSize;
    std::vector<long long> ring;
    std::vector<long long> counts;
    long long position = 0;
};

// Pass 2: for each bin, a running sum of k column counts along the row. The counts are integers, so
// the running sum equals the sum of k counts taken afresh for every voxel. Into a cleared out the
// sums are stored rather than added: 0.0 + n is n, to the bit.
template <bool add>
void addWindowCounts(double* outRow, long long planeSize, CircularHistogramBuffers const& columns, long long numBins,
                     long long outWidth, long long kernelSize)
{
    for (long long b = 0; b < numBins; ++b)
    {
        long long const* count = columns.countsOfBin(b);
        double* out = outRow + b * planeSize;
        long long sum = 0;
        for (long long c = 0; c < kernelSize; ++c)
            sum += count[c];
        out[0] = add ? out[0] + static_cast<double>(sum) : static_cast<double>(sum);
        for (long long x = 1; x < outWidth; ++x)
        {
            sum += count[x + kernelSize - 1] - count[x - 1];
            out[x] = add ? out[x] + static_cast<double>(sum) : static_cast<double>(sum);
        }
    }
}

} // namespace

HistogramComputer::HistogramComputer(long long kernelSize, long long numBins, ValueRange<double> range)
    : kernelSize(kernelSize), numBins(numBins), binWidth((range.max - range.min + 1.0) / numBins), minValue(range.min)
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
    if (numBins <= 0)
        throw std::runtime_error("Cannot create HistogramComputer with zero bins.");
}

long long HistogramComputer::valueToBin(double value) const
{
    double const quotient = (value - minValue) / binWidth;
    // Compared before converting, so that NaN, infinities and huge quotients stay defined.
    if (!(quotient > 0.0))
        return 0;
    if (quotient >= static_cast<double>(numBins - 1))
        return numBins - 1;
    return static_cast<long long>(quotient);
}

void HistogramComputer::compute(double* out, double* in, Vector extent) const
{
    countWindows(out, in, extent, true);
}

void HistogramComputer::countWindows(double* out, double const* in, Vector const& extent, bool add) const
{
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    if (extent.x < 1 || extent.y < 1 || extent.z < 1)
        return;
    long long const k = kernelSize;
    long long const width = extent.x + k - 1;
    long long const height = extent.y + k - 1;
    long long const sliceSize = extent.x * extent.y;
    long long const planeSize = sliceSize * extent.z;

    // The columns live for the whole call: the k pushes before a slice's first row replace all of
    // the previous slice's entries.
    CircularHistogramBuffers columns(width, k, numBins);
    std::vector<long long> bins(static_cast<std::size_t>(width));
    auto pushRow = [&](double const* row) {
        for (long long c = 0; c < width; ++c)
            bins[static_cast<std::size_t>(c)] = valueToBin(row[c]);
        columns.pushRow(bins.data());
    };

    for (long long z = 0; z < extent.z; ++z)
    {
        double const* slice = in + z * width * height;
        // Pass 1: the first k - 1 rows fill the column rings.
        for (long long r = 0; r + 1 < k; ++r)
            pushRow(slice + r * width);
        for (long long y = 0; y < extent.y; ++y)
        {
            pushRow(slice + (y + k - 1) * width);
            double* outRow = out + z * sliceSize + y * extent.x;
            if (add)
                addWindowCounts<true>(outRow, planeSize, columns, numBins, extent.x, k);
            else
                addWindowCounts<false>(outRow, planeSize, columns, numBins, extent.x, k);
        }
    }
}

void HistogramComputer::compute(double* out, Image* input, Box box, long long level) const
{
    if (box.isEmpty())
        return;
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    long long const half = kernelSize / 2;
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const expanded = box.expanded(Vector(half, half, 0));
    // Room for every channel the input writes; the counts use the first.
    std::vector<double> work(static_cast<std::size_t>(expanded.getSize() * input->getNumChannels()), 0.0);
    input->openRegion(work.data(), level, expanded);

    long long const size = box.getSize();
    // Every count is stored, which is what clearing out and adding the counts gives.
    countWindows(out, work.data(), box.getExtent(), false);

    Vector const imageExtent = input->getExtent(level);
    if (box.intersected(Box(imageExtent)).getSize() >= size)
        return;

    // Bin 0 is cleared over these slabs, in box coordinates, each clipped to the box by the walk.
    Vector const extent = box.getExtent();
    std::vector<Box> slabs;
    if (box.min.x < 0)
        slabs.emplace_back(Vector(0, 0, 0), Vector(-box.min.x, extent.y, extent.z));
    if (box.min.y < 0)
        slabs.emplace_back(Vector(0, 0, 0), Vector(extent.x, -box.min.y, extent.z));
    if (box.min.z < 0)
        slabs.emplace_back(Vector(0, 0, 0), Vector(extent.x, extent.y, -box.min.z));
    if (box.max.x >= imageExtent.x)
        slabs.emplace_back(Vector(imageExtent.x + 1 - box.max.x, 0, 0), extent);
    if (box.max.y >= imageExtent.y)
        slabs.emplace_back(Vector(0, imageExtent.y + 1 - box.max.y, 0), extent);
    if (box.max.z >= imageExtent.z)
        slabs.emplace_back(Vector(0, 0, imageExtent.z + 1 - box.max.z), extent);
    for (Box const& slab : slabs)
    {
        PositionIterator positions(extent, slab);
        long long index = 0;
        while (positions.next(index))
            out[index] = 0.0;
    }
}

long long HistogramComputer::getKernelSize() const
{
    return kernelSize;
}

long long HistogramComputer::getNumBins() const
{
    return numBins;
}

} // namespace Nuvek
