#include <nuvek/filters/texture/MorphologicFilter.h>

#include "filters/internal/OrderSensitivity.h"
#include "filters/internal/RequestBands.h"
#include "filters/internal/TargetClones.h"

#include "filters/internal/MorphologicPasses.h"
#include "filters/internal/WorkBufferPool.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Rows of fewer outputs than one vector of four leave the fast passes nothing to gain: the plain
// passes serve them.
constexpr long long minimumFastWidth = 4;

// Up to this kernel size a direct sweep of k - 1 comparisons per value, vectorised along the row,
// beats the three comparisons and two extra buffers of the running extrema.
constexpr long long directSweepLimit = 7;

// The best so far is replaced only by a strictly better candidate.
template <bool maximum>
inline double pick(double best, double candidate)
{
    if (maximum)
        return candidate > best ? candidate : best;
    return best > candidate ? candidate : best;
}

// The extreme of k values in ring-slot order: the value at position j (counted from the start of its
// row or column of the padded region) sits in slot j mod k; `first` is the position of values[0].
template <bool maximum>
double scanSlots(double const* values, long long stride, long long k, long long first)
{
    long long position = (k - first % k) % k;
    double best = values[position * stride];
    for (long long slot = 1; slot < k; ++slot)
    {
        position = position + 1 == k ? 0 : position + 1;
        best = pick<maximum>(best, values[position * stride]);
    }
    return best;
}

// The extreme of `width` consecutive values for each of `count` starts, for a small fixed width:
// unrolled, so that the loop along the row vectorises.
template <bool maximum, long long width>
inline __attribute__((always_inline)) void sweepAlongRow(double const* row, double* result, long long count)
{
    for (long long x = 0; x < count; ++x)
    {
        double best = row[x];
        for (long long j = 1; j < width; ++j)
            best = pick<maximum>(best, row[x + j]);
        result[x] = best;
    }
}

// The extreme of `width` rows for each of `count` columns.
template <bool maximum, long long width>
inline __attribute__((always_inline)) void sweepAcrossRows(double const* const* rows, double* result, long long count)
{
    for (long long x = 0; x < count; ++x)
    {
        double best = rows[0][x];
        for (long long j = 1; j < width; ++j)
            best = pick<maximum>(best, rows[j][x]);
        result[x] = best;
    }
}

// Pass 1 on one row, valid where a window holds neither NaN nor -0.0: there the extreme is the same
// value whichever way the window is reduced.
template <bool maximum>
inline __attribute__((always_inline)) void extremaAlongRowFast(double const* row, double* result, long long count,
                                                               long long k, double* prefix, double* suffix)
{
    switch (k)
    {
    case 1:
        std::copy(row, row + count, result);
        return;
    case 3:
        sweepAlongRow<maximum, 3>(row, result, count);
        return;
    case 5:
        sweepAlongRow<maximum, 5>(row, result, count);
        return;
    case 7:
        sweepAlongRow<maximum, 7>(row, result, count);
        return;
    default:
        break;
    }
    // Running extrema: blocks of k values, prefix extrema forwards and suffix extrema backwards
    // within each block; a window spans the end of one block and the start of the next.
    long long const length = count + k - 1;
    for (long long start = 0; start < length; start += k)
    {
        long long const end = std::min(start + k, length);
        prefix[start] = row[start];
        for (long long j = start + 1; j < end; ++j)
            prefix[j] = pick<maximum>(prefix[j - 1], row[j]);
        suffix[end - 1] = row[end - 1];
        for (long long j = end - 2; j >= start; --j)
            suffix[j] = pick<maximum>(suffix[j + 1], row[j]);
    }
    for (long long x = 0; x < count; ++x)
        result[x] = pick<maximum>(suffix[x], prefix[x + k - 1]);
}

// Running extrema along four rows at once: four independent chains, so that each comparison does
// not wait for the one before it. Results of row l go to results + l * count.
template <bool maximum>
inline __attribute__((always_inline)) void runningExtremaOfFourRows(double const* row, long long width,
                                                                    double* const* results, long long count,
                                                                    long long k, double* prefix, double* suffix)
{
    double const* r0 = row;
    double const* r1 = row + width;
    double const* r2 = row + 2 * width;
    double const* r3 = row + 3 * width;
    double* p0 = prefix;
    double* p1 = prefix + width;
    double* p2 = prefix + 2 * width;
    double* p3 = prefix + 3 * width;
    double* s0 = suffix;
    double* s1 = suffix + width;
    double* s2 = suffix + 2 * width;
    double* s3 = suffix + 3 * width;
    long long const length = count + k - 1;
    for (long long start = 0; start < length; start += k)
    {
        long long const end = std::min(start + k, length);
        double a0 = r0[start], a1 = r1[start], a2 = r2[start], a3 = r3[start];
        p0[start] = a0;
        p1[start] = a1;
        p2[start] = a2;
        p3[start] = a3;
        for (long long j = start + 1; j < end; ++j)
        {
            a0 = pick<maximum>(a0, r0[j]);
            a1 = pick<maximum>(a1, r1[j]);
            a2 = pick<maximum>(a2, r2[j]);
            a3 = pick<maximum>(a3, r3[j]);
            p0[j] = a0;
            p1[j] = a1;
            p2[j] = a2;
            p3[j] = a3;
        }
        double b0 = r0[end - 1], b1 = r1[end - 1], b2 = r2[end - 1], b3 = r3[end - 1];
        s0[end - 1] = b0;
        s1[end - 1] = b1;
        s2[end - 1] = b2;
        s3[end - 1] = b3;
        for (long long j = end - 2; j >= start; --j)
        {
            b0 = pick<maximum>(b0, r0[j]);
            b1 = pick<maximum>(b1, r1[j]);
            b2 = pick<maximum>(b2, r2[j]);
            b3 = pick<maximum>(b3, r3[j]);
            s0[j] = b0;
            s1[j] = b1;
            s2[j] = b2;
            s3[j] = b3;
        }
    }
    for (long long l = 0; l < 4; ++l)
    {
        double const* pre = prefix + l * width;
        double const* suf = suffix + l * width;
        double* result = results[l];
        for (long long x = 0; x < count; ++x)
            result[x] = pick<maximum>(suf[x], pre[x + k - 1]);
    }
}

// Buffers of one call, reused for every plane.
struct Scratch
{
    Scratch(long long width, long long count, long long k)
        : rowPrefix(static_cast<std::size_t>(k > directSweepLimit ? 4 * width : 0)), rowSuffix(rowPrefix.size()),
          sensitive(static_cast<std::size_t>(width)), pool(static_cast<std::size_t>((k + 4) * count)),
          ring(static_cast<std::size_t>(k)),
          columnSuffix(static_cast<std::size_t>(k > directSweepLimit ? k * count : 0)),
          columnPrefix(static_cast<std::size_t>(k > directSweepLimit ? count : 0)),
          rowHasSensitive(static_cast<std::size_t>(k), 0), sensitiveInWindow(static_cast<std::size_t>(count), 0)
    {
    }

    std::vector<double> rowPrefix;
    std::vector<double> rowSuffix;
    std::vector<char> sensitive;
    // Pass 1 results of k + 4 rows: the k rows of the window and up to four taken ahead. Row r
    // lives in pool row r mod (k + 4), so the rows taken ahead never replace a row of the window.
    std::vector<double> pool;
    // The window's rows by slot: row r is ring[r mod k], its slot in the ring of the scan.
    std::vector<double const*> ring;
    std::vector<double> columnSuffix;
    std::vector<double> columnPrefix;
    std::vector<char> rowHasSensitive;
    std::vector<long long> sensitiveInWindow;
    // How many rows of the window hold NaN or -0.0 among their pass 1 results.
    long long rowsWithSensitive = 0;

    double* poolRow(long long r, long long k, long long count) { return pool.data() + (r % (k + 4)) * count; }

    void startPlane()
    {
        rowsWithSensitive = 0;
        std::fill(rowHasSensitive.begin(), rowHasSensitive.end(), 0);
        std::fill(sensitiveInWindow.begin(), sensitiveInWindow.end(), 0);
    }
};

// Pass 1 on one row: `result` holds the fast results; windows holding NaN or -0.0 are rescanned in
// slot order. Returns whether any result is NaN or -0.0.
template <bool maximum>
inline __attribute__((always_inline)) bool rescanSensitiveWindows(double const* row, long long width, double* result,
                                                                  long long count, long long k, Scratch& scratch)
{
    if (!anyOrderSensitive(row, width))
        return false;
    char* sensitive = scratch.sensitive.data();
    for (long long j = 0; j < width; ++j)
        sensitive[j] = isOrderSensitive(row[j]);
    long long inWindow = 0;
    for (long long j = 0; j + 1 < k; ++j)
        inWindow += sensitive[j];
    for (long long x = 0; x < count; ++x)
    {
        inWindow += sensitive[x + k - 1];
        if (inWindow > 0)
            result[x] = scanSlots<maximum>(row + x, 1, k, x);
        inWindow -= sensitive[x];
    }
    return anyOrderSensitive(result, count);
}

// Step 1 of row r: its pass 1 results enter the ring, taken fast and rescanned in slot order where
// NaN or -0.0 decide a window. Returns the row of results.
template <bool maximum>
inline __attribute__((always_inline)) double const* takeExtremaAlongRow(double const* plane, long long width,
                                                                        long long height, long long r, long long count,
                                                                        long long k, Scratch& scratch)
{
    double const* row = plane + r * width;
    double* entering = scratch.poolRow(r, k, count);
    // Large windows: the fast results of four rows at a time, where four rows remain.
    bool const inFours = k > directSweepLimit && (r & ~3LL) + 4 <= height;
    if (inFours && (r & 3) == 0)
    {
        double* const results[4] = {entering, scratch.poolRow(r + 1, k, count), scratch.poolRow(r + 2, k, count),
                                    scratch.poolRow(r + 3, k, count)};
        runningExtremaOfFourRows<maximum>(row, width, results, count, k, scratch.rowPrefix.data(),
                                          scratch.rowSuffix.data());
    }
    else if (!inFours)
        extremaAlongRowFast<maximum>(row, entering, count, k, scratch.rowPrefix.data(), scratch.rowSuffix.data());
    bool const sensitive = rescanSensitiveWindows<maximum>(row, width, entering, count, k, scratch);
    long long const slot = r % k;
    scratch.ring[static_cast<std::size_t>(slot)] = entering;
    scratch.rowHasSensitive[static_cast<std::size_t>(slot)] = sensitive;
    if (sensitive)
    {
        ++scratch.rowsWithSensitive;
        long long* sensitiveInWindow = scratch.sensitiveInWindow.data();
        for (long long x = 0; x < count; ++x)
            sensitiveInWindow[x] += isOrderSensitive(entering[x]);
    }
    return entering;
}

// Step 2, for large windows: running extrema down the columns. The prefix of the current block of k
// rows grows row by row (at the block's first row it is that row); when a block is complete its
// suffixes are taken upwards (at its last row, that row). Returns the prefix up to the entering row.
template <bool maximum>
inline __attribute__((always_inline)) double const* growColumnExtrema(double const* entering, long long slot,
                                                                      long long count, long long k, Scratch& scratch)
{
    double const* const* ring = scratch.ring.data();
    double const* prefix = entering;
    if (slot > 0)
    {
        double* grown = scratch.columnPrefix.data();
        double const* before = slot == 1 ? ring[0] : grown;
        for (long long x = 0; x < count; ++x)
            grown[x] = pick<maximum>(before[x], entering[x]);
        prefix = grown;
    }
    if (slot == k - 1)
    {
        double* suffix = scratch.columnSuffix.data();
        double const* below = entering;
        for (long long t = k - 2; t >= 0; --t)
        {
            double* target = suffix + t * count;
            for (long long x = 0; x < count; ++x)
                target[x] = pick<maximum>(below[x], ring[t][x]);
            below = target;
        }
    }
    return prefix;
}

// Step 3: output row y, the extreme across the window's k rows: a suffix and a prefix of the column
// extrema for large windows, a direct sweep for small ones.
template <bool maximum>
inline __attribute__((always_inline)) void combineWindowRows(double* target, double const* prefix, long long y,
                                                             long long count, long long k, Scratch& scratch)
{
    double const* const* ring = scratch.ring.data();
    if (k > directSweepLimit)
    {
        long long const offset = y % k;
        double const* suffix = offset == k - 1 ? ring[k - 1] : scratch.columnSuffix.data() + offset * count;
        for (long long x = 0; x < count; ++x)
            target[x] = pick<maximum>(suffix[x], prefix[x]);
        return;
    }
    switch (k)
    {
    case 1:
        sweepAcrossRows<maximum, 1>(ring, target, count);
        break;
    case 3:
        sweepAcrossRows<maximum, 3>(ring, target, count);
        break;
    case 5:
        sweepAcrossRows<maximum, 5>(ring, target, count);
        break;
    default:
        sweepAcrossRows<maximum, 7>(ring, target, count);
        break;
    }
}

// Step 4, while rows with NaN or -0.0 are in the window: the columns whose window holds one are
// scanned in slot order, then row y leaves the window.
template <bool maximum>
inline __attribute__((always_inline)) void rescanSensitiveColumns(double* target, long long y, long long count,
                                                                  long long k, Scratch& scratch)
{
    double const* const* ring = scratch.ring.data();
    long long* sensitiveInWindow = scratch.sensitiveInWindow.data();
    for (long long x = 0; x < count; ++x)
        if (sensitiveInWindow[x] > 0)
        {
            double best = ring[0][x];
            for (long long s = 1; s < k; ++s)
                best = pick<maximum>(best, ring[s][x]);
            target[x] = best;
        }
    long long const leavingSlot = y % k;
    if (scratch.rowHasSensitive[static_cast<std::size_t>(leavingSlot)] != 0)
    {
        --scratch.rowsWithSensitive;
        scratch.rowHasSensitive[static_cast<std::size_t>(leavingSlot)] = 0;
        double const* leaving = ring[leavingSlot];
        for (long long x = 0; x < count; ++x)
            sensitiveInWindow[x] -= isOrderSensitive(leaving[x]);
    }
}

// Both passes over one plane of the padded region, a row at a time: each row's pass 1 result enters
// a ring of k rows, and as soon as k rows are in, one output row is taken across them. Where a
// window of pass 1 results holds NaN or -0.0, its output is the slot-order scan of the ring.
template <bool maximum>
NUVEK_TARGET_CLONES void extremaOfPlane(double const* plane, long long width, long long height, double* out,
                                        long long count, long long k, Scratch& scratch)
{
    scratch.startPlane();
    for (long long r = 0; r < height; ++r)
    {
        double const* entering = takeExtremaAlongRow<maximum>(plane, width, height, r, count, k, scratch);
        double const* prefix =
            k > directSweepLimit ? growColumnExtrema<maximum>(entering, r % k, count, k, scratch) : entering;
        long long const y = r - k + 1;
        if (y < 0)
            continue;
        double* target = out + y * count;
        combineWindowRows<maximum>(target, prefix, y, count, k, scratch);
        if (scratch.rowsWithSensitive > 0)
            rescanSensitiveColumns<maximum>(target, y, count, k, scratch);
    }
}

// The plain passes over one plane, step by step: the slot-order extreme of every window along x,
// every row, into alongX, then of every window of those down the columns.
template <bool maximum>
void extremaOfPlanePlain(double const* plane, long long width, long long height, double* out, long long count,
                         long long k, std::vector<double>& alongX)
{
    for (long long r = 0; r < height; ++r)
        for (long long x = 0; x < count; ++x)
            alongX[static_cast<std::size_t>(r * count + x)] = scanSlots<maximum>(plane + r * width + x, 1, k, x);
    for (long long y = 0; y + k <= height; ++y)
        for (long long x = 0; x < count; ++x)
            out[y * count + x] = scanSlots<maximum>(alongX.data() + y * count + x, count, k, y);
}

template <bool maximum>
bool extremaOfRegionFastAs(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                           double* out)
{
    long long const count = inputExtent.x - k + 1;
    if (count < minimumFastWidth)
        return false;
    long long const rows = inputExtent.y - k + 1;
    long long const inputSliceSize = inputExtent.x * inputExtent.y;
    long long const sliceSize = count * rows;
    if (k == 1)
    {
        // Windows of one value: the padded region is the box itself, and the result is the input.
        std::copy(work, work + inputSliceSize * inputExtent.z * numChannels, out);
        return true;
    }
    Scratch scratch(inputExtent.x, count, k);
    for (long long plane = 0; plane < numChannels * inputExtent.z; ++plane)
        extremaOfPlane<maximum>(work + plane * inputSliceSize, inputExtent.x, inputExtent.y, out + plane * sliceSize,
                                count, k, scratch);
    return true;
}

template <bool maximum>
void extremaOfRegionPlainAs(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                            double* out)
{
    long long const count = inputExtent.x - k + 1;
    long long const rows = inputExtent.y - k + 1;
    long long const inputSliceSize = inputExtent.x * inputExtent.y;
    std::vector<double> alongX(static_cast<std::size_t>(count * inputExtent.y));
    for (long long plane = 0; plane < numChannels * inputExtent.z; ++plane)
        extremaOfPlanePlain<maximum>(work + plane * inputSliceSize, inputExtent.x, inputExtent.y,
                                     out + plane * count * rows, count, k, alongX);
}

} // namespace

bool extremaOfRegionFast(bool maximum, double const* work, Vector const& inputExtent, long long numChannels,
                         long long k, double* out)
{
    return maximum ? extremaOfRegionFastAs<true>(work, inputExtent, numChannels, k, out)
                   : extremaOfRegionFastAs<false>(work, inputExtent, numChannels, k, out);
}

void extremaOfRegionPlain(bool maximum, double const* work, Vector const& inputExtent, long long numChannels,
                          long long k, double* out)
{
    if (maximum)
        extremaOfRegionPlainAs<true>(work, inputExtent, numChannels, k, out);
    else
        extremaOfRegionPlainAs<false>(work, inputExtent, numChannels, k, out);
}

namespace {

// Work buffers up to this many values (64 MiB) are kept for the next call; larger ones are freed.
constexpr std::size_t retainedWorkValues = std::size_t(1) << 23;

} // namespace

template <MorphologicType type>
MorphologicFilter<type>::MorphologicFilter(Image* input, long long kernelSize, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize),
      workBuffers(std::make_unique<WorkBufferPool>(retainedWorkValues))
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
}

template <MorphologicType type>
MorphologicFilter<type>::~MorphologicFilter() = default;

template <MorphologicType type>
void MorphologicFilter<type>::openRegion(double* out, long long level, Box const& box)
{
    constexpr bool maximum = type == MorphologicType::Dilation;
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    if (box.isEmpty())
        return;
    long long const k = kernelSize;
    // Where NaN or -0.0 decide, a result depends on the slots of its window, counted from the start of
    // the padded request; bands a multiple of k rows apart keep every slot, so they give the same bits.
    if (RequestBands::splits(input, box, getNumChannels(), getExtent(level), k))
    {
        RequestBands::run(
            out, box, getNumChannels(),
            [&](double* bandOut, Box const& band) { MorphologicFilter<type>::openRegion(bandOut, level, band); }, k);
        return;
    }
    long long const half = k / 2;
    long long const numChannels = getNumChannels();
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const inputBox = box.expanded(Vector(half, half, 0));
    long long const inputSize = inputBox.getSize();
    // A request that is not split (one reaching beyond the image, where bands could not be proven the
    // same) may still be large: a buffer kept from an earlier call saves faulting in fresh pages.
    WorkBufferPool::Loan loan = workBuffers->take();
    std::vector<double>& work = loan.buffer();
    // Every voxel of a box inside the image is written by the input; elsewhere a source may leave
    // some unwritten, and they read 0.0 as in a fresh buffer.
    if (inputBox.intersected(Box(input->getExtent(level))) == inputBox)
        work.resize(static_cast<std::size_t>(inputSize * numChannels));
    else
        work.assign(static_cast<std::size_t>(inputSize * numChannels), 0.0);
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

    // Same bits: the fast passes pick the same extremes and scan in slot order what NaN or -0.0 decide.
    if (!extremaOfRegionFast(maximum, work.data(), inputBox.getExtent(), numChannels, k, out))
        extremaOfRegionPlain(maximum, work.data(), inputBox.getExtent(), numChannels, k, out);
}

template class MorphologicFilter<MorphologicType::Erosion>;
template class MorphologicFilter<MorphologicType::Dilation>;

} // namespace Nuvek
