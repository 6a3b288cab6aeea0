#include <nuvek/filters/neighbourhood/LocalNormalizationFilter.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Nuvek {

namespace {

constexpr std::size_t retainedCacheValues = 100000;

long long clampTo(long long value, long long low, long long high)
{
    return value < low ? low : (value > high ? high : value);
}

// Conversion toward zero, refusing values whose box corners would not fit a 64-bit coordinate.
long long truncated(double value)
{
    constexpr double limit = 4611686018427387904.0; // 2^62
    if (!(value > -limit && value < limit))
        throw std::runtime_error(
            "LocalNormalizationFilter: the background box lies beyond the range of 64-bit coordinates.");
    return static_cast<long long>(value);
}

// Cuts the cache back when a call ends, also when the input throws.
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

// Where one output coordinate falls between two background voxels: the lower and upper index,
// clamped into the background box, and the weight of the upper one.
struct Between
{
    long long low;
    long long high;
    double weight;
};

Between locate(long long position, double f, long long first, long long last)
{
    double const scaled = static_cast<double>(position) / f;
    long long const below = static_cast<long long>(std::floor(scaled - 0.5));
    long long const low = clampTo(below, first, last);
    long long const high = clampTo(below + 1, first, last);
    return {low, high, scaled - (static_cast<double>(low) + 0.5)};
}

struct Normalization
{
    double rangeWidth;
    double rangeMin;
};

// The background geometry of one call: the clipped background box and the columns every output
// column reads, as offsets in a background row.
struct Geometry
{
    Box backgroundBox;
    Vector backgroundExtent;
    std::vector<long long> firstColumn;
    std::vector<long long> secondColumn;
    std::vector<double> weight;
    std::vector<double> complement;
};

// One background row interpolated along x for every output column: wx P(x1) + (1 - wx) P(x0).
void interpolateRowAlongX(double const* backgroundRow, Geometry const& geometry, double* target)
{
    std::size_t const width = geometry.weight.size();
    long long const* first = geometry.firstColumn.data();
    long long const* second = geometry.secondColumn.data();
    double const* weight = geometry.weight.data();
    double const* complement = geometry.complement.data();
    for (std::size_t i = 0; i < width; ++i)
        target[i] = weight[i] * backgroundRow[second[i]] + complement[i] * backgroundRow[first[i]];
}

// Pass for f >= 2, where every background row serves two or more output rows: each needed row is
// interpolated along x once, into one of two slots, and the output rows mix their two rows.
void normalizeSharingRows(double* out, Box const& box, double f, std::vector<double> const& cache, long long numChannels,
                          Geometry const& geometry, Normalization const& normalization)
{
    Vector const boxExtent = box.getExtent();
    Box const& background = geometry.backgroundBox;
    Vector const& backgroundExtent = geometry.backgroundExtent;
    long long const slice = backgroundExtent.x * backgroundExtent.y;
    long long const channelSize = slice * backgroundExtent.z;
    std::size_t const width = static_cast<std::size_t>(boxExtent.x);
    std::vector<double> rows[2] = {std::vector<double>(width), std::vector<double>(width)};
    long long held[2];

    double* target = out;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const backgroundSlice = z - box.min.z;
            if (backgroundSlice >= backgroundExtent.z)
            {
                target += boxExtent.x * boxExtent.y;
                continue;
            }
            double const* plane = cache.data() + c * channelSize + backgroundSlice * slice;
            held[0] = held[1] = std::numeric_limits<long long>::min();
            auto rowOf = [&](long long row, long long keep) -> double const* {
                for (int slot = 0; slot < 2; ++slot)
                    if (held[slot] == row)
                        return rows[slot].data();
                int const slot = held[0] == keep ? 1 : 0;
                interpolateRowAlongX(plane + (row - background.min.y) * backgroundExtent.x, geometry,
                                     rows[slot].data());
                held[slot] = row;
                return rows[slot].data();
            };
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                Between const along = locate(y, f, background.min.y, background.max.y);
                double const wy = along.weight;
                double const complement = 1 - wy;
                double const* lower = rowOf(along.low, along.high);
                double const* upper = rowOf(along.high, along.low);
                for (std::size_t i = 0; i < width; ++i)
                {
                    double const b = upper[i] * wy + lower[i] * complement;
                    target[i] = (target[i] - b + normalization.rangeWidth) * 0.5 + normalization.rangeMin;
                }
                target += boxExtent.x;
            }
        }
}

// Pass for f < 2, where hardly any background row serves two output rows: the four background
// values are read for every voxel.
void normalizePerVoxel(double* out, Box const& box, double f, std::vector<double> const& cache, long long numChannels,
                       Geometry const& geometry, Normalization const& normalization)
{
    Vector const boxExtent = box.getExtent();
    Box const& background = geometry.backgroundBox;
    Vector const& backgroundExtent = geometry.backgroundExtent;
    long long const slice = backgroundExtent.x * backgroundExtent.y;
    long long const channelSize = slice * backgroundExtent.z;
    std::size_t const width = static_cast<std::size_t>(boxExtent.x);

    double* target = out;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const backgroundSlice = z - box.min.z;
            if (backgroundSlice >= backgroundExtent.z)
            {
                target += boxExtent.x * boxExtent.y;
                continue;
            }
            double const* plane = cache.data() + c * channelSize + backgroundSlice * slice;
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                Between const along = locate(y, f, background.min.y, background.max.y);
                double const wy = along.weight;
                double const complement = 1 - wy;
                double const* lower = plane + (along.low - background.min.y) * backgroundExtent.x;
                double const* upper = plane + (along.high - background.min.y) * backgroundExtent.x;
                for (std::size_t i = 0; i < width; ++i)
                {
                    long long const x0 = geometry.firstColumn[i];
                    long long const x1 = geometry.secondColumn[i];
                    double const wx = geometry.weight[i];
                    double const b = (wx * upper[x1] + geometry.complement[i] * upper[x0]) * wy +
                                     (wx * lower[x1] + geometry.complement[i] * lower[x0]) * complement;
                    target[i] = (target[i] - b + normalization.rangeWidth) * 0.5 + normalization.rangeMin;
                }
                target += boxExtent.x;
            }
        }
}

} // namespace

LocalNormalizationFilter::LocalNormalizationFilter(Image* input, long long backgroundLevel, bool ownsInput)
    : Filter(input, ownsInput), backgroundLevel(backgroundLevel)
{
}

long long LocalNormalizationFilter::getCacheSize() const
{
    return static_cast<long long>(cache.size());
}

void LocalNormalizationFilter::openRegion(double* out, long long level, Box const& box)
{
    input->openRegion(out, level, box);
    long long const numChannels = input->getNumChannels();

    // The size of one background voxel in voxels of the requested level.
    double const f = std::exp2(static_cast<double>(backgroundLevel - level));
    Box const wanted(Vector(truncated(static_cast<double>(box.min.x) / f) - 1,
                            truncated(static_cast<double>(box.min.y) / f) - 1, box.min.z),
                     Vector(truncated(static_cast<double>(box.max.x) / f) + 1,
                            truncated(static_cast<double>(box.max.y) / f) + 1, box.max.z));
    Geometry geometry;
    geometry.backgroundBox = wanted.intersected(Box(input->getExtent(backgroundLevel)));
    if (geometry.backgroundBox.isEmpty())
        return;
    geometry.backgroundExtent = geometry.backgroundBox.getExtent();

    CacheTrim trim(cache);
    std::size_t const needed = static_cast<std::size_t>(geometry.backgroundBox.getSize() * numChannels);
    if (cache.size() < needed)
        cache.resize(needed);
    ValueRange<double> const range = input->getValueRange();
    Normalization const normalization{range.max - range.min, range.min};
    // Zeroed like any work buffer, so that an input which leaves voxels unwritten cannot leak values
    // of an earlier request into this one.
    std::fill(cache.begin(), cache.begin() + static_cast<std::ptrdiff_t>(needed), 0.0);
    input->openRegion(cache.data(), backgroundLevel, geometry.backgroundBox);

    // Columns depend on x only: worked out once per call.
    for (long long x = box.min.x; x <= box.max.x; ++x)
    {
        Between const along = locate(x, f, geometry.backgroundBox.min.x, geometry.backgroundBox.max.x);
        geometry.firstColumn.push_back(along.low - geometry.backgroundBox.min.x);
        geometry.secondColumn.push_back(along.high - geometry.backgroundBox.min.x);
        geometry.weight.push_back(along.weight);
        geometry.complement.push_back(1 - along.weight);
    }

    // Both passes give the same bits; sharing rows pays only when rows repeat.
    if (f >= 2.0)
        normalizeSharingRows(out, box, f, cache, numChannels, geometry, normalization);
    else
        normalizePerVoxel(out, box, f, cache, numChannels, geometry, normalization);
}

} // namespace Nuvek
