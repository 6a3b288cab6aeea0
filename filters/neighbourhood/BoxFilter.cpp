#include "filters/internal/TargetClones.h"
#include <nuvek/filters/neighbourhood/BoxFilter.h>

#include "filters/internal/RequestBands.h"
#include "filters/internal/SimdQuad.h"
#include "filters/internal/WorkBufferPool.h"

#include <nuvek/core/RowBandExactness.h>

#include <algorithm>
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

// The fast passes below perform, for every output, the same additions and subtractions on the same
// values in the same order as the ring passes above. The ring only ever hands back the value read
// k steps earlier, which is the input one place behind the window, and what its last slot carries
// into the next row is that row's input at a position known in advance. So the fast passes read
// those values straight from the buffer; they change which sums run side by side and where the
// row sums are kept, and the results are the same to the bit.
constexpr long long minimumFastWidth = 8;
// Work buffers up to this many values (64 MiB) are kept for the next call; larger ones are freed.
constexpr std::size_t retainedWorkValues = std::size_t(1) << 23;
// Rows whose running sums along x run side by side: each sum depends on its own previous step, so
// interleaving independent rows hides the latency of the additions.
constexpr long long rowsPerGroup = 6;

// Running sums along x of `count` consecutive rows, in place. The sum for output i is stored at
// row[i], once row[i] has been read as the value leaving the window, so the row needs no copy: the
// sums end up h places left of the voxels they belong to. `carried` is the value the previous row
// left in the window's last slot; on return it is what the last of these rows leaves there.
template <long long count>
__attribute__((always_inline)) inline void sumRowsAlongX(double* rows, long long stride, long long outputWidth,
                                                         long long kernelSize, long long carriedPosition,
                                                         double& carried)
{
    double sums[count];
    for (long long r = 0; r < count; ++r)
    {
        double const* row = rows + r * stride;
        double const previous = carried;
        carried = row[carriedPosition];
        double sum = 0.0;
        for (long long j = 0; j < kernelSize - 1; ++j)
            sum += row[j];
        sum += previous;
        sum -= previous;
        sum += row[kernelSize - 1];
        sums[r] = sum;
    }
    for (long long i = 1; i < outputWidth; ++i)
        for (long long r = 0; r < count; ++r)
        {
            double* row = rows + r * stride;
            double const leaving = row[i - 1];
            double const entering = row[kernelSize - 1 + i];
            row[i - 1] = sums[r];
            sums[r] = (sums[r] - leaving) + entering;
        }
    for (long long r = 0; r < count; ++r)
        rows[r * stride + outputWidth - 1] = sums[r];
}

// Scalar on purpose (the file is built without straight-line vectorisation where the compiler has
// it): packing the rows' values into vectors costs more shuffles than it saves.
NUVEK_TARGET_CLONES void sumRowGroupAlongX(double* rows, long long stride, long long outputWidth, long long kernelSize,
                                           long long carriedPosition, double& carried)
{
    sumRowsAlongX<rowsPerGroup>(rows, stride, outputWidth, kernelSize, carriedPosition, carried);
}

NUVEK_TARGET_CLONES void sumRowAlongX(double* row, long long outputWidth, long long kernelSize,
                                      long long carriedPosition, double& carried)
{
    sumRowsAlongX<1>(row, 0, outputWidth, kernelSize, carriedPosition, carried);
}

// The column sums of output row 0: 0.0, plus the row sums of input rows 0 to k - 2 in order, minus
// the empty slot's 0.0, plus input row k - 1.
NUVEK_TARGET_CLONES void startColumnSums(double* sums, double const* rows, long long stride, long long outputWidth,
                                         long long kernelSize)
{
    for (long long x = 0; x < outputWidth; ++x)
        sums[x] = 0.0;
    for (long long j = 0; j < kernelSize - 1; ++j)
    {
        double const* row = rows + j * stride;
        for (long long x = 0; x < outputWidth; ++x)
            sums[x] += row[x];
    }
    double const* last = rows + (kernelSize - 1) * stride;
    for (long long x = 0; x < outputWidth; ++x)
    {
        sums[x] -= 0.0;
        sums[x] += last[x];
    }
}

// One step down: every column sum loses the row leaving the window and gains the one entering it.
// With `entering` null only the scaling is done, for output row 0.
NUVEK_TARGET_CLONES void advanceColumnSumsInto(double* out, double* sums, double const* leaving, double const* entering,
                                               long long outputWidth, double scale, bool rounding)
{
    long long x = 0;
    if (entering != nullptr)
    {
        for (; x + 4 <= outputWidth; x += 4)
        {
            Quad const previous = *reinterpret_cast<UnalignedQuad const*>(sums + x);
            Quad const away = *reinterpret_cast<UnalignedQuad const*>(leaving + x);
            Quad const in = *reinterpret_cast<UnalignedQuad const*>(entering + x);
            Quad const sum = (previous - away) + in;
            *reinterpret_cast<UnalignedQuad*>(sums + x) = sum;
            *reinterpret_cast<UnalignedQuad*>(out + x) = scale * sum;
        }
        for (; x < outputWidth; ++x)
        {
            sums[x] = (sums[x] - leaving[x]) + entering[x];
            out[x] = scale * sums[x];
        }
    }
    else
        for (; x < outputWidth; ++x)
            out[x] = scale * sums[x];
    if (rounding)
        for (x = 0; x < outputWidth; ++x)
            out[x] = std::floor(out[x] + 0.5);
}

// Both passes, plane by plane: rows are summed along x a group at a time, and every output row is
// produced as soon as the rows of its window are summed, while they are still in cache.
void sumBoxFast(double* out, double* work, Vector const& outputExtent, Vector const& inputExtent, long long numChannels,
                long long kernelSize, double scale, bool rounding)
{
    long long const stride = inputExtent.x;
    long long const width = outputExtent.x;
    // The window's last slot is last filled at the largest multiple of k below the output width.
    long long const carriedPosition = kernelSize - 1 + kernelSize * ((width - 1) / kernelSize);
    std::vector<double> columnSums(static_cast<std::size_t>(width));
    double carried = 0.0;
    for (long long p = 0; p < numChannels * outputExtent.z; ++p)
    {
        double* plane = work + p * stride * inputExtent.y;
        double* outPlane = out + p * width * outputExtent.y;
        long long summedRows = 0;
        long long y = 0;
        while (summedRows < inputExtent.y)
        {
            if (inputExtent.y - summedRows >= rowsPerGroup)
            {
                sumRowGroupAlongX(plane + summedRows * stride, stride, width, kernelSize, carriedPosition, carried);
                summedRows += rowsPerGroup;
            }
            else
            {
                sumRowAlongX(plane + summedRows * stride, width, kernelSize, carriedPosition, carried);
                ++summedRows;
            }
            for (; y < outputExtent.y && y + kernelSize - 1 < summedRows; ++y)
            {
                if (y == 0)
                {
                    startColumnSums(columnSums.data(), plane, stride, width, kernelSize);
                    advanceColumnSumsInto(outPlane, columnSums.data(), nullptr, nullptr, width, scale, rounding);
                }
                else
                    advanceColumnSumsInto(outPlane + y * width, columnSums.data(), plane + (y - 1) * stride,
                                          plane + (y + kernelSize - 1) * stride, width, scale, rounding);
            }
        }
    }
}

// Values (all planes) of input rows a band reads at a time: two bands, the one being summed and
// the one before it, whose last rows leave the window, stay in the second-level cache.
constexpr long long bandValues = 1LL << 16;

// Both passes over a large request, read from the input a band of whole rows of the grown box at a
// time (every plane of the band in one request) instead of the whole grown box. The running sums
// along x take each row's carried value from the row before it in the same plane, or for the first
// row of a plane from the last row of the plane before it, and the column sums continue from one
// band to the next, so every output gets the same additions in the same order as in sumBoxFast.
// Bands are bandRows rows (at least k), the last one up to twice that, so that no band lies wholly in
// the margin beyond the image of a request inside it. The last band is read first, for the values
// that each plane's last row carries into the next plane, into a region of its own; the others take
// turns in two regions, so the rows leaving the window are still where the previous band left them.
void sumBoxInBands(double* out, Image& input, long long level, Box const& inputBox, Vector const& outputExtent,
                   long long numChannels, long long kernelSize, double scale, bool rounding, long long bandRows,
                   std::vector<double>& work)
{
    Vector const inputExtent = inputBox.getExtent();
    Box const image(input.getExtent(level));
    long long const stride = inputExtent.x;
    long long const width = outputExtent.x;
    long long const planes = numChannels * outputExtent.z;
    long long const carriedPosition = kernelSize - 1 + kernelSize * ((width - 1) / kernelSize);
    long long const bands = inputExtent.y / bandRows;
    long long const regionValues = bandRows * stride * planes;
    work.resize(static_cast<std::size_t>(4 * regionValues + planes * width));
    double* const columnSums = work.data() + 4 * regionValues;

    // The first input row of band b, and its number of rows.
    auto bandFirst = [&](long long band) { return band * bandRows; };
    auto bandSize = [&](long long band) { return band + 1 < bands ? bandRows : inputExtent.y - band * bandRows; };
    // Reads rows [first, first + rows) of the grown box, every plane, into `to`. Voxels that a source
    // leaves unwritten beyond the image read 0.0, as they do in the whole request's buffer.
    auto read = [&](double* to, long long first, long long rows) {
        Box const band(Vector(inputBox.min.x, inputBox.min.y + first, inputBox.min.z),
                       Vector(inputBox.max.x, inputBox.min.y + first + rows - 1, inputBox.max.z));
        if (band.intersected(image) != band)
            std::fill(to, to + rows * stride * planes, 0.0);
        input.openRegion(to, level, band);
    };

    // Input row j (from the grown box's first row) of plane p, in the region that holds its band.
    auto rowAt = [&](long long p, long long j) -> double* {
        long long const band = std::min(j / bandRows, bands - 1);
        long long const region = band == bands - 1 ? 2 : band % 2;
        return work.data() + region * regionValues + (p * bandSize(band) + (j - bandFirst(band))) * stride;
    };

    // The raw values that each plane's last row carries into the next plane's first.
    read(rowAt(0, bandFirst(bands - 1)), bandFirst(bands - 1), bandSize(bands - 1));
    std::vector<double> carried(static_cast<std::size_t>(planes), 0.0);
    for (long long p = 1; p < planes; ++p)
        carried[static_cast<std::size_t>(p)] = rowAt(p - 1, inputExtent.y - 1)[carriedPosition];

    long long nextOutput = 0;
    for (long long band = 0; band < bands; ++band)
    {
        long long const first = bandFirst(band);
        long long const rows = bandSize(band);
        if (band + 1 < bands)
            read(rowAt(0, first), first, rows);
        long long const end = std::min(outputExtent.y, first + rows - kernelSize + 1);
        for (long long p = 0; p < planes; ++p)
        {
            double* const plane = rowAt(p, first);
            double* const outPlane = out + p * width * outputExtent.y;
            double* const sums = columnSums + p * width;
            double& carry = carried[static_cast<std::size_t>(p)];
            long long summed = 0;
            long long y = nextOutput;
            while (summed < rows)
            {
                if (rows - summed >= rowsPerGroup)
                {
                    sumRowGroupAlongX(plane + summed * stride, stride, width, kernelSize, carriedPosition, carry);
                    summed += rowsPerGroup;
                }
                else
                {
                    sumRowAlongX(plane + summed * stride, width, kernelSize, carriedPosition, carry);
                    ++summed;
                }
                for (; y < end && y + kernelSize - 1 < first + summed; ++y)
                {
                    if (y == 0)
                    {
                        startColumnSums(sums, plane, stride, width, kernelSize);
                        advanceColumnSumsInto(outPlane, sums, nullptr, nullptr, width, scale, rounding);
                    }
                    else
                        advanceColumnSumsInto(outPlane + y * width, sums, rowAt(p, y - 1), rowAt(p, y + kernelSize - 1),
                                              width, scale, rounding);
                }
            }
        }
        nextOutput = std::max(nextOutput, end);
    }
}

} // namespace

BoxFilter::BoxFilter(Image* input, long long kernelSize, bool normalize, bool rounding, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize), normalize(normalize), rounding(rounding),
      workBuffers(std::make_unique<WorkBufferPool>(retainedWorkValues))
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

    double const scale = normalize ? 1.0 / static_cast<double>(kernelSize * kernelSize) : 1.0;
    bool const inside = inputBox.intersected(Box(input->getExtent(level))) == inputBox;
    // A buffer kept from an earlier call saves faulting in fresh pages.
    WorkBufferPool::Loan loan = workBuffers->take();
    std::vector<double>& work = loan.buffer();

    // The running sums start at the grown box's corner, so a large request is not split into requests
    // of its own. But when it lies inside the image, over an input whose values do not depend on the
    // rows asked for, the grown box is read a band of rows at a time and the sums are carried from
    // band to band, which gives the same bits with the working set in the caches.
    long long const planeValues = inputExtent.x * numChannels * inputExtent.z;
    long long const bandRows = std::max(kernelSize, bandValues / std::max(1LL, planeValues));
    if (outputExtent.x >= minimumFastWidth && box.intersected(Box(input->getExtent(level))) == box &&
        inputExtent.y >= 2 * bandRows && numChannels * inputBox.getSize() > RequestBands::largeRequestValues &&
        RowBandExactness::splitsExactly(input))
    {
        sumBoxInBands(out, *input, level, inputBox, outputExtent, numChannels, kernelSize, scale, rounding, bandRows,
                      work);
        return;
    }

    // Every voxel of a box inside the image is written by the input; elsewhere a source may leave
    // some unwritten, and they read 0.0 as in a fresh buffer.
    if (inside)
        work.resize(static_cast<std::size_t>(numChannels * inputBox.getSize()));
    else
        work.assign(static_cast<std::size_t>(numChannels * inputBox.getSize()), 0.0);
    // A buffer beyond the retained size is freed rather than kept, also when the input throws.
    struct Release
    {
        std::vector<double>& work;
        ~Release()
        {
            if (work.capacity() > retainedWorkValues)
                std::vector<double>().swap(work);
        }
    } const release{work};
    input->openRegion(work.data(), level, inputBox);

    // Rows at least eight wide take the fast passes; they give the same bits as the ring passes,
    // which narrower boxes keep.
    if (outputExtent.x >= minimumFastWidth)
    {
        sumBoxFast(out, work.data(), outputExtent, inputExtent, numChannels, kernelSize, scale, rounding);
        return;
    }
    std::vector<double> ring(static_cast<std::size_t>(kernelSize), 0.0);
    sumAlongXInPlace(work.data(), inputExtent, numChannels, outputExtent.x, kernelSize, ring);
    sumAlongYInto(out, work.data(), outputExtent, inputExtent, numChannels, kernelSize, scale, rounding, ring);
}

} // namespace Nuvek
