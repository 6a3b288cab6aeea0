#include <nuvek/filters/neighbourhood/LocalNormalizationFilter.h>

#include "filters/internal/BilinearRowPair.h"
#include "filters/internal/SourcePlanes.h"
#include "filters/internal/WorkBufferPool.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Nuvek {

namespace {

// Between calls a cache holds at most this many values.
constexpr std::size_t retainedCacheValues = 100000;

// Conversion toward zero, refusing values whose box corners would not fit a 64-bit coordinate.
long long truncated(double value)
{
    constexpr double limit = 4611686018427387904.0; // 2^62
    if (!(value > -limit && value < limit))
        throw std::runtime_error(
            "LocalNormalizationFilter: the background box lies beyond the range of 64-bit coordinates.");
    return static_cast<long long>(value);
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
    BilinearColumns columns;
};

// Pass for f >= 2, where every background row serves two or more output rows: each needed row is
// interpolated along x once, into one of two slots, and the output rows mix their two rows.
void normalizeSharingRows(double* out, Box const& box, double f, std::vector<double> const& cache,
                          long long numChannels, Geometry const& geometry, Normalization const& normalization)
{
    Box const& background = geometry.backgroundBox;
    long long const backgroundWidth = geometry.backgroundExtent.x;
    std::size_t const width = static_cast<std::size_t>(box.getExtent().x);
    BilinearRowPair rows(geometry.columns);

    forEachPlaneWithSource(
        out, box, cache.data(), geometry.backgroundExtent, numChannels, [&](double* target, double const* plane) {
            rows.reset();
            auto rowOf = [&](long long row, long long keep) {
                return rows.get(row, plane + (row - background.min.y) * backgroundWidth, keep);
            };
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                Between const along(y, f, background.min.y, background.max.y);
                double const wy = along.weight;
                double const complement = 1 - wy;
                double const* lower = rowOf(along.low, along.high);
                double const* upper = rowOf(along.high, along.low);
                for (std::size_t i = 0; i < width; ++i)
                {
                    double const b = upper[i] * wy + lower[i] * complement;
                    target[i] = (target[i] - b + normalization.rangeWidth) * 0.5 + normalization.rangeMin;
                }
                target += width;
            }
        });
}

// Pass for f < 2, where hardly any background row serves two output rows: the four background
// values are read for every voxel.
void normalizePerVoxel(double* out, Box const& box, double f, std::vector<double> const& cache, long long numChannels,
                       Geometry const& geometry, Normalization const& normalization)
{
    Box const& background = geometry.backgroundBox;
    long long const backgroundWidth = geometry.backgroundExtent.x;
    std::size_t const width = static_cast<std::size_t>(box.getExtent().x);
    BilinearColumns const& columns = geometry.columns;

    forEachPlaneWithSource(
        out, box, cache.data(), geometry.backgroundExtent, numChannels, [&](double* target, double const* plane) {
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                Between const along(y, f, background.min.y, background.max.y);
                double const wy = along.weight;
                double const complement = 1 - wy;
                double const* lower = plane + (along.low - background.min.y) * backgroundWidth;
                double const* upper = plane + (along.high - background.min.y) * backgroundWidth;
                for (std::size_t i = 0; i < width; ++i)
                {
                    long long const x0 = columns.low[i];
                    long long const x1 = columns.high[i];
                    double const wx = columns.weight[i];
                    double const b = (wx * upper[x1] + columns.complement[i] * upper[x0]) * wy +
                                     (wx * lower[x1] + columns.complement[i] * lower[x0]) * complement;
                    target[i] = (target[i] - b + normalization.rangeWidth) * 0.5 + normalization.rangeMin;
                }
                target += width;
            }
        });
}

} // namespace

LocalNormalizationFilter::LocalNormalizationFilter(Image* input, long long backgroundLevel, bool ownsInput)
    : Filter(input, ownsInput), backgroundLevel(backgroundLevel),
      caches(std::make_unique<WorkBufferPool>(retainedCacheValues))
{
}

LocalNormalizationFilter::~LocalNormalizationFilter() = default;

long long LocalNormalizationFilter::getCacheSize() const
{
    return static_cast<long long>(caches->getLastReturnedSize());
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
    Box const backgroundBox = wanted.intersected(Box(input->getExtent(backgroundLevel)));
    if (backgroundBox.isEmpty())
        return;
    // Columns depend on x only: worked out once per call.
    Geometry const geometry{backgroundBox, backgroundBox.getExtent(),
                            BilinearColumns(box.min.x, box.max.x, f, backgroundBox.min.x, backgroundBox.max.x)};

    // The borrowed cache goes back, cut to its retained size, also when the input throws.
    WorkBufferPool::Loan loan = caches->take();
    std::vector<double>& cache = loan.buffer();
    std::size_t const needed = static_cast<std::size_t>(backgroundBox.getSize() * numChannels);
    if (cache.size() < needed)
        cache.resize(needed);
    ValueRange<double> const range = input->getValueRange();
    Normalization const normalization{range.max - range.min, range.min};
    // Zeroed like any work buffer, so that an input which leaves voxels unwritten cannot leak values
    // of an earlier request into this one.
    std::fill(cache.begin(), cache.begin() + static_cast<std::ptrdiff_t>(needed), 0.0);
    input->openRegion(cache.data(), backgroundLevel, backgroundBox);

    // Both passes give the same bits; sharing rows pays only when rows repeat.
    if (f >= 2.0)
        normalizeSharingRows(out, box, f, cache, numChannels, geometry, normalization);
    else
        normalizePerVoxel(out, box, f, cache, numChannels, geometry, normalization);
}

} // namespace Nuvek
