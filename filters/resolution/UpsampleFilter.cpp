#include <nuvek/filters/resolution/UpsampleFilter.h>

#include <nuvek/core/LockGuard.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

namespace Nuvek {

namespace {

constexpr std::size_t retainedCacheValues = 100000;

long long clampTo(long long value, long long low, long long high)
{
    return value < low ? low : (value > high ? high : value);
}

// The scale as a 32-bit power of two; only differences below 31 reach here, where it is exact.
double scaleFor(long long levelDifference)
{
    std::uint32_t const power = std::uint32_t{1} << (static_cast<std::uint32_t>(levelDifference) & 31u);
    return static_cast<double>(static_cast<std::int32_t>(power));
}

// Cuts the cache back when a call ends, also when the input throws, so that between calls it never
// holds more than retainedCacheValues values.
class CacheTrim
{
public:
    explicit CacheTrim(std::vector<double>& cache) : cache(cache) {}
    CacheTrim(CacheTrim const&) = delete;
    CacheTrim& operator=(CacheTrim const&) = delete;
    ~CacheTrim()
    {
        if (cache.size() > retainedCacheValues)
            cache.resize(retainedCacheValues);
    }

private:
    std::vector<double>& cache;
};

// Per output column of the bilinear path: the two source columns (as offsets in a cache row) and
// the weight of the second. These depend on x only, so they are worked out once per call.
struct BilinearColumns
{
    std::vector<long long> first;
    std::vector<long long> second;
    std::vector<double> weight;
    std::vector<double> complement;
};

// One source row interpolated along x for every output column: wx * P(x1) + (1 - wx) * P(x0), the
// inner bracket of the bilinear formula. Every output row that reads this source row reuses it.
void interpolateRowAlongX(double const* sourceRow, BilinearColumns const& columns, double* target)
{
    std::size_t const width = columns.weight.size();
    long long const* first = columns.first.data();
    long long const* second = columns.second.data();
    double const* weight = columns.weight.data();
    double const* complement = columns.complement.data();
    for (std::size_t i = 0; i < width; ++i)
        target[i] = weight[i] * sourceRow[second[i]] + complement[i] * sourceRow[first[i]];
}

// Two source rows interpolated along x, kept by source row index: consecutive output rows read the
// same or the next source rows, so two slots serve them all.
class RowPair
{
public:
    RowPair(std::size_t width, BilinearColumns const& columns)
        : columns(columns), rows{std::vector<double>(width), std::vector<double>(width)}
    {
    }

    void reset()
    {
        held[0] = held[1] = none;
    }

    // The interpolated row `row`, computing it from sourceRow when not held; never evicts `keep`.
    double const* get(long long row, double const* sourceRow, long long keep)
    {
        for (int slot = 0; slot < 2; ++slot)
            if (held[slot] == row)
                return rows[slot].data();
        int const slot = held[0] == keep ? 1 : 0;
        interpolateRowAlongX(sourceRow, columns, rows[slot].data());
        held[slot] = row;
        return rows[slot].data();
    }

private:
    static constexpr long long none = std::numeric_limits<long long>::min();
    BilinearColumns const& columns;
    std::vector<double> rows[2];
    long long held[2] = {none, none};
};

} // namespace

UpsampleFilter::UpsampleFilter(Image* input, long long sourceLevel, Interpolation interpolation, bool ownsInput)
    : Filter(input, ownsInput), sourceLevel(sourceLevel), interpolation(interpolation)
{
}

long long UpsampleFilter::getCacheSize() const
{
    LockGuard guard(lock);
    return static_cast<long long>(cache.size());
}

bool UpsampleFilter::readSource(long long level, Box const& box, double& scale, Box& sourceBox)
{
    long long const numChannels = input->getNumChannels();
    scale = scaleFor(sourceLevel - level);
    // One source voxel of margin on each side gives the interpolation its neighbours.
    Box const wanted(Vector(static_cast<long long>(static_cast<double>(box.min.x) / scale) - 1,
                            static_cast<long long>(static_cast<double>(box.min.y) / scale) - 1, box.min.z),
                     Vector(static_cast<long long>(static_cast<double>(box.max.x) / scale) + 1,
                            static_cast<long long>(static_cast<double>(box.max.y) / scale) + 1, box.max.z));
    sourceBox = wanted.intersected(Box(input->getExtent(sourceLevel)));
    if (sourceBox.isEmpty())
        return false;

    std::size_t const needed = static_cast<std::size_t>(sourceBox.getSize() * numChannels);
    if (cache.size() < needed)
        cache.resize(needed);
    // Zeroed like any work buffer, so that an input which leaves voxels unwritten cannot leak
    // values of an earlier request into this one.
    std::fill(cache.begin(), cache.begin() + static_cast<std::ptrdiff_t>(needed), 0.0);
    input->openRegion(cache.data(), sourceLevel, sourceBox);
    return true;
}

void UpsampleFilter::openRegion(double* out, long long level, Box const& box)
{
    if (sourceLevel <= level)
    {
        input->openRegion(out, level, box);
        return;
    }
    if (sourceLevel - level >= 31)
        throw std::runtime_error("UpsampleFilter: cannot upsample by 31 or more levels.");

    LockGuard guard(lock);
    CacheTrim trim(cache);
    if (interpolation == Bilinear)
        openRegionBilinear(out, level, box);
    else if (interpolation == NearestNeighbor)
        openRegionNearestNeighbor(out, level, box);
}

void UpsampleFilter::openRegionNearestNeighbor(double* out, long long level, Box const& box)
{
    double scale = 1.0;
    Box sourceBox;
    if (!readSource(level, box, scale, sourceBox))
        return;
    long long const numChannels = input->getNumChannels();
    Vector const boxExtent = box.getExtent();
    Vector const sourceExtent = sourceBox.getExtent();
    long long const slice = sourceExtent.x * sourceExtent.y;
    long long const channelSize = slice * sourceExtent.z;

    // Source column of every output column, as an offset in a cache row.
    std::vector<long long> columns(static_cast<std::size_t>(boxExtent.x));
    for (long long x = box.min.x; x <= box.max.x; ++x)
        columns[static_cast<std::size_t>(x - box.min.x)] =
            clampTo(static_cast<long long>(static_cast<double>(x) / scale), sourceBox.min.x, sourceBox.max.x) -
            sourceBox.min.x;

    double* target = out;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const sourceSlice = z - box.min.z;
            if (sourceSlice >= sourceExtent.z)
            {
                target += boxExtent.x * boxExtent.y;
                continue;
            }
            double const* planeOfSlice = cache.data() + c * channelSize + sourceSlice * slice;
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                long long const row =
                    clampTo(static_cast<long long>(static_cast<double>(y) / scale), sourceBox.min.y, sourceBox.max.y);
                double const* sourceRow = planeOfSlice + (row - sourceBox.min.y) * sourceExtent.x;
                for (long long i = 0; i < boxExtent.x; ++i)
                    target[i] = sourceRow[columns[static_cast<std::size_t>(i)]];
                target += boxExtent.x;
            }
        }
}

void UpsampleFilter::openRegionBilinear(double* out, long long level, Box const& box)
{
    double scale = 1.0;
    Box sourceBox;
    if (!readSource(level, box, scale, sourceBox))
        return;
    long long const numChannels = input->getNumChannels();
    Vector const boxExtent = box.getExtent();
    Vector const sourceExtent = sourceBox.getExtent();
    long long const slice = sourceExtent.x * sourceExtent.y;
    long long const channelSize = slice * sourceExtent.z;

    BilinearColumns columns;
    for (long long x = box.min.x; x <= box.max.x; ++x)
    {
        double const fx = static_cast<double>(x) / scale;
        long long const below = static_cast<long long>(std::floor(fx - 0.5));
        long long const x0 = clampTo(below, sourceBox.min.x, sourceBox.max.x);
        long long const x1 = clampTo(below + 1, sourceBox.min.x, sourceBox.max.x);
        double const wx = fx - (static_cast<double>(x0) + 0.5);
        columns.first.push_back(x0 - sourceBox.min.x);
        columns.second.push_back(x1 - sourceBox.min.x);
        columns.weight.push_back(wx);
        columns.complement.push_back(1 - wx);
    }
    RowPair rows(static_cast<std::size_t>(boxExtent.x), columns);

    double* target = out;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const sourceSlice = z - box.min.z;
            if (sourceSlice >= sourceExtent.z)
            {
                target += boxExtent.x * boxExtent.y;
                continue;
            }
            double const* planeOfSlice = cache.data() + c * channelSize + sourceSlice * slice;
            rows.reset();
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                double const fy = static_cast<double>(y) / scale;
                long long const below = static_cast<long long>(std::floor(fy - 0.5));
                long long const y0 = clampTo(below, sourceBox.min.y, sourceBox.max.y);
                long long const y1 = clampTo(below + 1, sourceBox.min.y, sourceBox.max.y);
                double const wy = fy - (static_cast<double>(y0) + 0.5);
                double const complement = 1 - wy;
                double const* lower =
                    rows.get(y0, planeOfSlice + (y0 - sourceBox.min.y) * sourceExtent.x, y1);
                double const* upper =
                    rows.get(y1, planeOfSlice + (y1 - sourceBox.min.y) * sourceExtent.x, y0);
                // (wx v(x1, y1) + (1 - wx) v(x0, y1)) wy + (wx v(x1, y0) + (1 - wx) v(x0, y0)) (1 - wy)
                for (long long i = 0; i < boxExtent.x; ++i)
                    target[i] = upper[i] * wy + lower[i] * complement;
                target += boxExtent.x;
            }
        }
}

} // namespace Nuvek
