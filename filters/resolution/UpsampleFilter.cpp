#include <nuvek/filters/resolution/UpsampleFilter.h>

#include "filters/internal/BilinearRowPair.h"
#include "filters/internal/SourcePlanes.h"
#include "filters/internal/WorkBufferPool.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace Nuvek {

namespace {

// Between calls a cache holds at most this many values.
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

} // namespace

UpsampleFilter::UpsampleFilter(Image* input, long long sourceLevel, Interpolation interpolation, bool ownsInput)
    : Filter(input, ownsInput), sourceLevel(sourceLevel), interpolation(interpolation),
      caches(std::make_unique<WorkBufferPool>(retainedCacheValues))
{
}

UpsampleFilter::~UpsampleFilter() = default;

long long UpsampleFilter::getCacheSize() const
{
    return static_cast<long long>(caches->getLastReturnedSize());
}

bool UpsampleFilter::readSource(long long level, Box const& box, std::vector<double>& cache, double& scale,
                                Box& sourceBox)
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

    // The borrowed cache goes back, cut to its retained size, also when the input throws.
    WorkBufferPool::Loan loan = caches->take();
    if (interpolation == Bilinear)
        openRegionBilinear(out, level, box, loan.buffer());
    else if (interpolation == NearestNeighbor)
        openRegionNearestNeighbor(out, level, box, loan.buffer());
}

void UpsampleFilter::openRegionNearestNeighbor(double* out, long long level, Box const& box, std::vector<double>& cache)
{
    double scale = 1.0;
    Box sourceBox;
    if (!readSource(level, box, cache, scale, sourceBox))
        return;
    long long const sourceWidth = sourceBox.getExtent().x;
    long long const width = box.getExtent().x;

    // Source column of every output column, as an offset in a cache row.
    std::vector<long long> columns(static_cast<std::size_t>(width));
    for (long long x = box.min.x; x <= box.max.x; ++x)
        columns[static_cast<std::size_t>(x - box.min.x)] =
            clampTo(static_cast<long long>(static_cast<double>(x) / scale), sourceBox.min.x, sourceBox.max.x) -
            sourceBox.min.x;

    forEachPlaneWithSource(out, box, cache.data(), sourceBox.getExtent(), input->getNumChannels(),
                           [&](double* target, double const* plane) {
                               for (long long y = box.min.y; y <= box.max.y; ++y)
                               {
                                   long long const row = clampTo(static_cast<long long>(static_cast<double>(y) / scale),
                                                                 sourceBox.min.y, sourceBox.max.y);
                                   double const* sourceRow = plane + (row - sourceBox.min.y) * sourceWidth;
                                   for (long long i = 0; i < width; ++i)
                                       target[i] = sourceRow[columns[static_cast<std::size_t>(i)]];
                                   target += width;
                               }
                           });
}

void UpsampleFilter::openRegionBilinear(double* out, long long level, Box const& box, std::vector<double>& cache)
{
    double scale = 1.0;
    Box sourceBox;
    if (!readSource(level, box, cache, scale, sourceBox))
        return;
    long long const sourceWidth = sourceBox.getExtent().x;
    long long const width = box.getExtent().x;
    BilinearColumns const columns(box.min.x, box.max.x, scale, sourceBox.min.x, sourceBox.max.x);
    BilinearRowPair rows(columns);

    forEachPlaneWithSource(out, box, cache.data(), sourceBox.getExtent(), input->getNumChannels(),
                           [&](double* target, double const* plane) {
                               rows.reset();
                               for (long long y = box.min.y; y <= box.max.y; ++y)
                               {
                                   Between const along(y, scale, sourceBox.min.y, sourceBox.max.y);
                                   long long const y0 = along.low;
                                   long long const y1 = along.high;
                                   double const wy = along.weight;
                                   double const complement = 1 - wy;
                                   double const* lower = rows.get(y0, plane + (y0 - sourceBox.min.y) * sourceWidth, y1);
                                   double const* upper = rows.get(y1, plane + (y1 - sourceBox.min.y) * sourceWidth, y0);
                                   // (wx v(x1, y1) + (1 - wx) v(x0, y1)) wy + (wx v(x1, y0) + (1 - wx) v(x0, y0)) (1 - wy)
                                   for (long long i = 0; i < width; ++i)
                                       target[i] = upper[i] * wy + lower[i] * complement;
                                   target += width;
                               }
                           });
}

} // namespace Nuvek
