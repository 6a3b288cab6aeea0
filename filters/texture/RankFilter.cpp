#include "filters/internal/RequestBands.h"
#include <nuvek/filters/texture/RankFilter.h>

#include "filters/internal/OrderSensitivity.h"
#include "filters/internal/TargetClones.h"

#include "filters/internal/RankPasses.h"
#include "filters/internal/SimdQuad.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Rows of fewer windows than one network pass of four: the plain pass serves them.
constexpr long long minimumFastWidth = 4;

// Keys whose unsigned order is the order of the values: the sign-magnitude bits made monotone, then
// rotated so that the NaNs with the sign bit set, which would come first, come last.
constexpr std::uint64_t signBit = 0x8000000000000000ULL;
constexpr std::uint64_t negativeNaNCount = (1ULL << 52) - 1;

inline std::uint64_t keyOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    std::uint64_t const monotone = (bits & signBit) != 0 ? ~bits : bits | signBit;
    return monotone - negativeNaNCount;
}

inline double valueOf(std::uint64_t key)
{
    std::uint64_t const monotone = key + negativeNaNCount;
    std::uint64_t const bits = (monotone & signBit) != 0 ? monotone & ~signBit : ~monotone;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// The windows of one plane as sets of distinct positions 0 .. M - 1 in the plane's sorted order,
// held in a two-level bitset, with a cursor kept on the element of the wanted rank (Huang's running
// rank, made exact by ranking positions rather than binned values). Each step of the window adds and
// removes k positions and moves the cursor by the few elements that the rank moved.
class RankedSet
{
public:
    explicit RankedSet(long long size)
        : words(static_cast<std::size_t>(size / 64 + 1), 0), summary(static_cast<std::size_t>(size / 4096 + 1), 0)
    {
    }

    void insert(std::uint32_t position)
    {
        std::uint64_t& word = words[position >> 6];
        if (word == 0)
            summary[position >> 12] |= 1ULL << ((position >> 6) & 63);
        word |= 1ULL << (position & 63);
        below += position < cursor;
    }

    void erase(std::uint32_t position)
    {
        std::uint64_t& word = words[position >> 6];
        word &= ~(1ULL << (position & 63));
        if (word == 0)
            summary[position >> 12] &= ~(1ULL << ((position >> 6) & 63));
        below -= position < cursor;
    }

    /// The position of the element with exactly `rank` elements below it; the set must hold more
    /// than rank elements.
    std::uint32_t select(long long rank)
    {
        for (;;)
        {
            if (below > rank)
            {
                cursor = previous(cursor - 1);
                --below;
            }
            else if (!contains(cursor))
                cursor = next(cursor);
            else if (below < rank)
            {
                ++below;
                cursor = next(cursor + 1);
            }
            else
                return cursor;
        }
    }

private:
    bool contains(std::uint32_t position) const { return (words[position >> 6] >> (position & 63) & 1) != 0; }

    // The first element at or after position; one exists.
    std::uint32_t next(std::uint32_t position) const
    {
        std::size_t word = position >> 6;
        std::uint64_t bits = words[word] & (~0ULL << (position & 63));
        if (bits == 0)
        {
            std::size_t const after = word + 1;
            std::size_t group = after >> 6;
            std::uint64_t groups = (after & 63) != 0 ? summary[group] & (~0ULL << (after & 63)) : summary[group];
            while (groups == 0)
                groups = summary[++group];
            word = group * 64 + static_cast<std::size_t>(__builtin_ctzll(groups));
            bits = words[word];
        }
        return static_cast<std::uint32_t>(word * 64 + static_cast<std::size_t>(__builtin_ctzll(bits)));
    }

    // The last element at or before position; one exists.
    std::uint32_t previous(std::uint32_t position) const
    {
        std::size_t word = position >> 6;
        std::uint64_t bits = words[word] & (~0ULL >> (63 - (position & 63)));
        if (bits == 0)
        {
            std::size_t const before = word - 1;
            std::size_t group = before >> 6;
            std::uint64_t groups = summary[group] & (~0ULL >> (63 - (before & 63)));
            while (groups == 0)
                groups = summary[--group];
            word = group * 64 + 63 - static_cast<std::size_t>(__builtin_clzll(groups));
            bits = words[word];
        }
        return static_cast<std::uint32_t>(word * 64 + 63 - static_cast<std::size_t>(__builtin_clzll(bits)));
    }

    std::vector<std::uint64_t> words;
    std::vector<std::uint64_t> summary;
    std::uint32_t cursor = 0;
    long long below = 0;
};

// The rank of every window of one channel's first slice, for any k. Every value of the plane gets its position
// in the plane's ascending order of keys (equal keys are equal bits, so their order among themselves
// does not matter); the window then slides in a snake, row by row, so that every step changes k
// positions.
void selectRanksBySlidingSet(double const* plane, long long width, double* out, Vector const& extent, long long k,
                             long long rank)
{
    long long const height = extent.y + k - 1;
    long long const count = width * height;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> order(static_cast<std::size_t>(count));
    for (long long i = 0; i < count; ++i)
        order[static_cast<std::size_t>(i)] = {keyOf(plane[i]), static_cast<std::uint32_t>(i)};
    std::sort(order.begin(), order.end(), [](auto const& a, auto const& b) { return a.first < b.first; });
    std::vector<std::uint32_t> positions(static_cast<std::size_t>(count));
    for (long long p = 0; p < count; ++p)
        positions[order[static_cast<std::size_t>(p)].second] = static_cast<std::uint32_t>(p);

    RankedSet window(count);
    auto column = [&](long long x, long long top, bool add) {
        std::uint32_t const* source = positions.data() + top * width + x;
        for (long long j = 0; j < k; ++j)
            add ? window.insert(source[j * width]) : window.erase(source[j * width]);
    };
    auto row = [&](long long y, long long left, bool add) {
        std::uint32_t const* source = positions.data() + y * width + left;
        for (long long i = 0; i < k; ++i)
            add ? window.insert(source[i]) : window.erase(source[i]);
    };
    auto emit = [&](long long x, long long y) { out[y * extent.x + x] = valueOf(order[window.select(rank)].first); };

    for (long long j = 0; j < k; ++j)
        row(j, 0, true);
    for (long long y = 0; y < extent.y; ++y)
    {
        if (y > 0)
        {
            // One row down, at the column where the previous row ended.
            long long const left = (y % 2 == 1) ? extent.x - 1 : 0;
            row(y - 1, left, false);
            row(y + k - 1, left, true);
        }
        if (y % 2 == 0)
            for (long long x = 0; x < extent.x; ++x)
            {
                if (x > 0)
                {
                    column(x - 1, y, false);
                    column(x + k - 1, y, true);
                }
                emit(x, y);
            }
        else
            for (long long x = extent.x - 1; x >= 0; --x)
            {
                if (x < extent.x - 1)
                {
                    column(x + k, y, false);
                    column(x, y, true);
                }
                emit(x, y);
            }
    }
}

// The rank of one window by selection among its keys: exact for any values.
double selectRankOfWindow(double const* topLeft, long long width, long long k, long long rank,
                          std::vector<std::uint64_t>& keys)
{
    for (long long j = 0; j < k; ++j)
        for (long long i = 0; i < k; ++i)
            keys[static_cast<std::size_t>(j * k + i)] = keyOf(topLeft[j * width + i]);
    std::nth_element(keys.begin(), keys.begin() + rank, keys.end());
    return valueOf(keys[static_cast<std::size_t>(rank)]);
}

struct Comparator
{
    int low;
    int high;
};

// Batcher's odd-even merge sort for the next power of two at or above n, without the comparators
// that touch an input at or beyond n (those inputs would be +infinity and never move): visit(low,
// high) for each comparator in order.
template <typename Visit>
constexpr void visitComparators(int n, Visit&& visit)
{
    int size = 1;
    while (size < n)
        size <<= 1;
    for (int p = 1; p < size; p <<= 1)
        for (int k = p; k >= 1; k >>= 1)
            for (int j = k % p; j + k < size; j += 2 * k)
                for (int i = 0; i < k && i + j + k < n; ++i)
                    if ((i + j) / (2 * p) == (i + j + k) / (2 * p))
                        visit(i + j, i + j + k);
}

constexpr int countComparators(int n)
{
    int count = 0;
    visitComparators(n, [&count](int, int) { ++count; });
    return count;
}

template <int n>
constexpr std::array<Comparator, countComparators(n)> sortingNetwork()
{
    std::array<Comparator, countComparators(n)> network{};
    std::size_t count = 0;
    visitComparators(n, [&](int low, int high) { network[count++] = Comparator{low, high}; });
    return network;
}

// Sorts the k * k values of four neighbouring windows, one per lane, with a fixed network and keeps
// the rank. Only valid where the windows hold neither NaN nor -0.0: there min and max order the
// values exactly as the keys do, and equal values have equal bits.
template <int k>
inline __attribute__((always_inline)) void rankOfFourWindows(double const* topLeft, long long width, long long rank,
                                                             double* target)
{
    static constexpr auto network = sortingNetwork<k * k>();
    Quad values[k * k];
    // Unrolled in full, so that the values stay in registers.
#pragma GCC unroll 64
    for (int j = 0; j < k; ++j)
#pragma GCC unroll 64
        for (int i = 0; i < k; ++i)
            std::memcpy(&values[j * k + i], topLeft + j * width + i, sizeof(Quad));
#pragma GCC unroll 1024
    for (Comparator const& comparator : network)
    {
        Quad const a = values[comparator.low];
        Quad const b = values[comparator.high];
        values[comparator.low] = b < a ? b : a;
        values[comparator.high] = a < b ? b : a;
    }
    std::memcpy(target, &values[rank], sizeof(Quad));
}

template <int k>
inline __attribute__((always_inline)) void rankRowByNetwork(double const* top, long long width, long long count,
                                                            long long rank, double* target)
{
    // The last group of four may overlap the one before; those windows are simply computed twice.
    for (long long x = 0; x < count; x += 4)
    {
        long long const start = x + 4 <= count ? x : count - 4;
        rankOfFourWindows<k>(top + start, width, rank, target + start);
    }
}

inline double lower(double a, double b)
{
    return b < a ? b : a;
}

inline double upper(double a, double b)
{
    return a < b ? b : a;
}

// The 3 x 3 median of one row of windows (valid without NaN and -0.0): every column of three is
// sorted once, and a window's median is the median of the largest low, the median middle and the
// smallest high of its three columns. `columns` has room for three rows of `width` values.
inline __attribute__((always_inline)) void medianRowOfThree(double const* top, long long width, long long count,
                                                            double* target, double* columns)
{
    double* lows = columns;
    double* middles = columns + width;
    double* highs = columns + 2 * width;
    for (long long c = 0; c < width; ++c)
    {
        double const a = top[c], b = top[width + c], d = top[2 * width + c];
        double const low = lower(a, b), high = upper(a, b);
        lows[c] = lower(low, d);
        double const rest = upper(low, d);
        middles[c] = lower(high, rest);
        highs[c] = upper(high, rest);
    }
    for (long long x = 0; x < count; ++x)
    {
        double const highestLow = upper(upper(lows[x], lows[x + 1]), lows[x + 2]);
        double const lowestHigh = lower(lower(highs[x], highs[x + 1]), highs[x + 2]);
        double const m0 = middles[x], m1 = middles[x + 1], m2 = middles[x + 2];
        double const middle = upper(lower(m0, m1), lower(upper(m0, m1), m2));
        target[x] = upper(lower(highestLow, middle), lower(upper(highestLow, middle), lowestHigh));
    }
}

// The rank of every window of one channel's first slice for k = 3, 5 or 7 and rows of at least four
// windows: sorting networks over four windows at a time, and exact selection among keys for windows
// holding NaN or -0.0.
NUVEK_TARGET_CLONES void selectRanksByNetwork(double const* plane, long long width, double* out, Vector const& extent,
                                              long long k, long long rank)
{
    long long const height = extent.y + k - 1;
    std::vector<std::uint64_t> keys(static_cast<std::size_t>(k * k));
    bool const median3 = k == 3 && rank == 4;
    std::vector<double> columns(static_cast<std::size_t>(median3 ? 3 * width : 0));
    bool const anySensitive = anyOrderSensitive(plane, width * height);
    // Per column, how many of the window's k rows hold NaN or -0.0.
    std::vector<long long> sensitiveInColumn(static_cast<std::size_t>(anySensitive ? width : 0), 0);
    for (long long r = 0; anySensitive && r + 1 < k; ++r)
        for (long long c = 0; c < width; ++c)
            sensitiveInColumn[static_cast<std::size_t>(c)] += isOrderSensitive(plane[r * width + c]);

    for (long long y = 0; y < extent.y; ++y)
    {
        double const* top = plane + y * width;
        double* target = out + y * extent.x;
        if (median3)
            medianRowOfThree(top, width, extent.x, target, columns.data());
        else
            switch (k)
            {
            case 3:
                rankRowByNetwork<3>(top, width, extent.x, rank, target);
                break;
            case 5:
                rankRowByNetwork<5>(top, width, extent.x, rank, target);
                break;
            default:
                rankRowByNetwork<7>(top, width, extent.x, rank, target);
                break;
            }
        if (!anySensitive)
            continue;
        double const* entering = plane + (y + k - 1) * width;
        for (long long c = 0; c < width; ++c)
            sensitiveInColumn[static_cast<std::size_t>(c)] += isOrderSensitive(entering[c]);
        long long inWindow = 0;
        for (long long c = 0; c + 1 < k; ++c)
            inWindow += sensitiveInColumn[static_cast<std::size_t>(c)];
        for (long long x = 0; x < extent.x; ++x)
        {
            inWindow += sensitiveInColumn[static_cast<std::size_t>(x + k - 1)];
            if (inWindow > 0)
                target[x] = selectRankOfWindow(top + x, width, k, rank, keys);
            inWindow -= sensitiveInColumn[static_cast<std::size_t>(x)];
        }
        for (long long c = 0; c < width; ++c)
            sensitiveInColumn[static_cast<std::size_t>(c)] -= isOrderSensitive(top[c]);
    }
}

// The plain pass over one channel's first slice: selection among the keys of every window.
void selectRanksPlain(double const* plane, long long width, double* out, Vector const& extent, long long k,
                      long long rank, std::vector<std::uint64_t>& keys)
{
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            out[y * extent.x + x] = selectRankOfWindow(plane + y * width + x, width, k, rank, keys);
}

// Whether the fast passes can serve a box: the networks take four windows of a row at a time, and
// the sliding set numbers the plane's values with 32-bit positions.
bool fastPassesServe(Vector const& inputExtent, Vector const& extent, long long k)
{
    if (k == 1)
        return true;
    if (k == 3 || k == 5 || k == 7)
        return extent.x >= minimumFastWidth;
    return inputExtent.x * inputExtent.y <= static_cast<long long>(UINT32_MAX);
}

// The fast pass over one channel's first slice, where fastPassesServe allows it.
void selectRanksFast(double const* plane, long long width, double* out, Vector const& extent, long long k,
                     long long rank)
{
    if (k == 1)
    {
        // Windows of one value: rank 0 is the value.
        for (long long y = 0; y < extent.y; ++y)
            std::copy(plane + y * width, plane + y * width + extent.x, out + y * extent.x);
        return;
    }
    // Up to k = 7 a sorting network of four windows at a time is quicker than ranking the plane.
    if (k == 3 || k == 5 || k == 7)
        selectRanksByNetwork(plane, width, out, extent, k, rank);
    else
        selectRanksBySlidingSet(plane, width, out, extent, k, rank);
}

} // namespace

bool ranksOfRegionFast(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                       long long rank, double* out, Vector const& extent)
{
    if (!fastPassesServe(inputExtent, extent, k))
        return false;
    long long const inputSize = inputExtent.prod();
    long long const size = extent.prod();
    for (long long c = 0; c < numChannels; ++c)
        selectRanksFast(work + c * inputSize, inputExtent.x, out + c * size, extent, k, rank);
    return true;
}

void ranksOfRegionPlain(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                        long long rank, double* out, Vector const& extent)
{
    long long const inputSize = inputExtent.prod();
    long long const size = extent.prod();
    std::vector<std::uint64_t> keys(static_cast<std::size_t>(k * k));
    for (long long c = 0; c < numChannels; ++c)
        selectRanksPlain(work + c * inputSize, inputExtent.x, out + c * size, extent, k, rank, keys);
}

RankFilter::RankFilter(Image* input, long long kernelSize, long long rankIndex, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize), rankIndex(rankIndex)
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
    long long windowSize = 0;
    // A square beyond the integers exceeds every rank index.
    bool const huge = __builtin_mul_overflow(kernelSize, kernelSize, &windowSize);
    if (!huge && windowSize <= rankIndex)
        throw std::runtime_error("Rank index must be within [0, kernel size ^ 2].");
    if (rankIndex < 0)
        throw std::runtime_error("Rank index must not be negative.");
}

void RankFilter::openRegion(double* out, long long level, Box const& box)
{
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    if (box.isEmpty())
        return;
    // Every voxel's rank depends only on the input around it, so bands give the same bits; only for
    // one slice, as the slices after the first keep what out held.
    if (box.getExtent().z == 1 && RequestBands::splits(input, box, getNumChannels(), getExtent(level)))
    {
        RequestBands::run(out, box, getNumChannels(),
                          [&](double* bandOut, Box const& band) { RankFilter::openRegion(bandOut, level, band); });
        return;
    }
    long long const k = kernelSize;
    long long const half = k / 2;
    Box const inputBox(box.min - Vector(half, half, 0), box.max + Vector(half, half, 0));
    Box const clipped = inputBox.intersected(Box(input->getExtent(level)));
    if (clipped.isEmpty())
        return;

    long long const numChannels = input->getNumChannels();
    long long const size = box.getSize();
    long long const inputSize = inputBox.getSize();
    // Not clipped: what lies beyond the border is the input's decision.
    std::vector<double> work(static_cast<std::size_t>(inputSize * numChannels), 0.0);
    input->openRegion(work.data(), level, inputBox);
    if (inputSize != clipped.getSize())
        std::fill(out, out + numChannels * size, 0.0);

    // Only the first slice is computed; the others keep what out held.
    // Same bits: the fast passes order values as the keys do and select by keys where NaN or -0.0 are.
    Vector const inputExtent = inputBox.getExtent();
    if (!ranksOfRegionFast(work.data(), inputExtent, numChannels, k, rankIndex, out, box.getExtent()))
        ranksOfRegionPlain(work.data(), inputExtent, numChannels, k, rankIndex, out, box.getExtent());
}

} // namespace Nuvek
