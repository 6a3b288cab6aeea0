#include <nuvek/filters/texture/MorphologicFilter.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Up to this kernel size a direct sweep of k - 1 comparisons per value, vectorised along the row,
// beats the three comparisons and two extra buffers of the running extrema.
constexpr long long directSweepLimit = 7;
// Columns handled together by the vertical running extrema: their buffers stay in cache.
constexpr long long stripWidth = 128;

// NaN and -0.0 are the values for which the slot order decides the result: NaN because comparisons
// with it fail, -0.0 because it compares equal to +0.0 but has other bits.
inline bool isOrderSensitive(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return (bits & 0x7FFFFFFFFFFFFFFFULL) > 0x7FF0000000000000ULL || bits == 0x8000000000000000ULL;
}

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

// Pass 1 on one row, valid where a window holds neither NaN nor -0.0: there the extreme is the same
// value whichever way the window is reduced.
template <bool maximum>
void extremaAlongRowFast(double const* row, double* result, long long count, long long k, double* prefix,
                         double* suffix)
{
    if (k <= directSweepLimit)
    {
        std::copy(row, row + count, result);
        for (long long j = 1; j < k; ++j)
            for (long long x = 0; x < count; ++x)
                result[x] = pick<maximum>(result[x], row[x + j]);
        return;
    }
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

// Pass 1 on every row of a plane of the padded region into rowExtremes (height rows of `count`
// values). Windows holding NaN or -0.0 are scanned in slot order. Returns whether any result is NaN
// or -0.0, which pass 2 then has to look for.
template <bool maximum>
__attribute__((target_clones("avx2", "default"))) bool
extremaAlongRows(double const* plane, long long width, long long height, double* rowExtremes, long long count,
                 long long k, std::vector<double>& prefix, std::vector<double>& suffix, std::vector<char>& sensitive)
{
    bool anySensitiveResult = false;
    for (long long r = 0; r < height; ++r)
    {
        double const* row = plane + r * width;
        double* result = rowExtremes + r * count;
        extremaAlongRowFast<maximum>(row, result, count, k, prefix.data(), suffix.data());

        bool anySensitive = false;
        for (long long j = 0; j < width; ++j)
        {
            sensitive[static_cast<std::size_t>(j)] = isOrderSensitive(row[j]);
            anySensitive |= sensitive[static_cast<std::size_t>(j)] != 0;
        }
        if (!anySensitive)
            continue;
        long long inWindow = 0;
        for (long long j = 0; j + 1 < k; ++j)
            inWindow += sensitive[static_cast<std::size_t>(j)];
        for (long long x = 0; x < count; ++x)
        {
            inWindow += sensitive[static_cast<std::size_t>(x + k - 1)];
            if (inWindow > 0)
                result[x] = scanSlots<maximum>(row + x, 1, k, x);
            inWindow -= sensitive[static_cast<std::size_t>(x)];
        }
        for (long long x = 0; x < count; ++x)
            anySensitiveResult |= isOrderSensitive(result[x]);
    }
    return anySensitiveResult;
}

// Pass 2 without NaN and -0.0: the extreme of k rows of rowExtremes for every output value.
template <bool maximum>
__attribute__((target_clones("avx2", "default"))) void
extremaAlongColumnsFast(double const* rowExtremes, long long height, long long count, double* out,
                        long long outHeight, long long k, std::vector<double>& prefix, std::vector<double>& suffix)
{
    if (k <= directSweepLimit)
    {
        for (long long y = 0; y < outHeight; ++y)
        {
            double* target = out + y * count;
            std::copy(rowExtremes + y * count, rowExtremes + (y + 1) * count, target);
            for (long long j = 1; j < k; ++j)
            {
                double const* source = rowExtremes + (y + j) * count;
                for (long long x = 0; x < count; ++x)
                    target[x] = pick<maximum>(target[x], source[x]);
            }
        }
        return;
    }
    // Running extrema down the columns, a strip of columns at a time, every column of the strip at
    // once: blocks of k rows, prefix extrema downwards and suffix extrema upwards within each block.
    for (long long x0 = 0; x0 < count; x0 += stripWidth)
    {
        long long const strip = std::min(stripWidth, count - x0);
        double* pre = prefix.data();
        double* suf = suffix.data();
        for (long long start = 0; start < height; start += k)
        {
            long long const end = std::min(start + k, height);
            std::copy(rowExtremes + start * count + x0, rowExtremes + start * count + x0 + strip, pre + start * strip);
            for (long long r = start + 1; r < end; ++r)
            {
                double const* source = rowExtremes + r * count + x0;
                double const* above = pre + (r - 1) * strip;
                double* target = pre + r * strip;
                for (long long x = 0; x < strip; ++x)
                    target[x] = pick<maximum>(above[x], source[x]);
            }
            std::copy(rowExtremes + (end - 1) * count + x0, rowExtremes + (end - 1) * count + x0 + strip,
                      suf + (end - 1) * strip);
            for (long long r = end - 2; r >= start; --r)
            {
                double const* source = rowExtremes + r * count + x0;
                double const* below = suf + (r + 1) * strip;
                double* target = suf + r * strip;
                for (long long x = 0; x < strip; ++x)
                    target[x] = pick<maximum>(below[x], source[x]);
            }
        }
        for (long long y = 0; y < outHeight; ++y)
        {
            double const* upper = suf + y * strip;
            double const* lower = pre + (y + k - 1) * strip;
            double* target = out + y * count + x0;
            for (long long x = 0; x < strip; ++x)
                target[x] = pick<maximum>(upper[x], lower[x]);
        }
    }
}

// Pass 2 where some results of pass 1 are NaN or -0.0: those columns' windows are scanned in slot
// order, the others keep the fast result.
template <bool maximum>
void rescanSensitiveColumns(double const* rowExtremes, long long count, double* out, long long outHeight, long long k)
{
    std::vector<long long> inWindow(static_cast<std::size_t>(count), 0);
    for (long long r = 0; r + 1 < k; ++r)
        for (long long x = 0; x < count; ++x)
            inWindow[static_cast<std::size_t>(x)] += isOrderSensitive(rowExtremes[r * count + x]);
    for (long long y = 0; y < outHeight; ++y)
    {
        double const* entering = rowExtremes + (y + k - 1) * count;
        double const* leaving = rowExtremes + y * count;
        for (long long x = 0; x < count; ++x)
        {
            long long& sensitive = inWindow[static_cast<std::size_t>(x)];
            sensitive += isOrderSensitive(entering[x]);
            if (sensitive > 0)
                out[y * count + x] = scanSlots<maximum>(leaving + x, count, k, y);
            sensitive -= isOrderSensitive(leaving[x]);
        }
    }
}

} // namespace

template <MorphologicType type>
MorphologicFilter<type>::MorphologicFilter(Image* input, long long kernelSize, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize)
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
}

template <MorphologicType type>
void MorphologicFilter<type>::openRegion(double* out, long long level, Box const& box)
{
    constexpr bool maximum = type == MorphologicType::Dilation;
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    if (box.isEmpty())
        return;
    long long const k = kernelSize;
    long long const half = k / 2;
    long long const numChannels = getNumChannels();
    // Not clipped to the extent: what lies beyond the border is the input's decision.
    Box const inputBox = box.expanded(Vector(half, half, 0));
    long long const inputSize = inputBox.getSize();
    std::vector<double> work(static_cast<std::size_t>(inputSize * numChannels), 0.0);
    input->openRegion(work.data(), level, inputBox);

    Vector const extent = box.getExtent();
    Vector const inputExtent = inputBox.getExtent();
    long long const size = box.getSize();
    long long const sliceSize = extent.x * extent.y;
    long long const inputSliceSize = inputExtent.x * inputExtent.y;

    // Pass 1 results, one plane at a time: every row of the padded region, box width.
    std::vector<double> rowExtremes(static_cast<std::size_t>(inputExtent.y * extent.x));
    long long const scratch = std::max(inputExtent.x, inputExtent.y * stripWidth);
    std::vector<double> prefix(static_cast<std::size_t>(scratch));
    std::vector<double> suffix(static_cast<std::size_t>(scratch));
    std::vector<char> sensitive(static_cast<std::size_t>(inputExtent.x));
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < extent.z; ++z)
        {
            double const* plane = work.data() + c * inputSize + z * inputSliceSize;
            double* target = out + c * size + z * sliceSize;
            // Pass 1: along x, every row of the padded region.
            bool const sensitiveRows = extremaAlongRows<maximum>(plane, inputExtent.x, inputExtent.y,
                                                                 rowExtremes.data(), extent.x, k, prefix, suffix,
                                                                 sensitive);
            // Pass 2: along y, into out; windows touching NaN or -0.0 are then scanned in slot order.
            extremaAlongColumnsFast<maximum>(rowExtremes.data(), inputExtent.y, extent.x, target, extent.y, k, prefix,
                                             suffix);
            if (sensitiveRows)
                rescanSensitiveColumns<maximum>(rowExtremes.data(), extent.x, target, extent.y, k);
        }
}

template class MorphologicFilter<MorphologicType::Erosion>;
template class MorphologicFilter<MorphologicType::Dilation>;

} // namespace Nuvek
