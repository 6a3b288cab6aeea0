#include "filters/internal/RequestBands.h"
#include "filters/internal/TargetClones.h"
#include <nuvek/filters/neighbourhood/DistanceTransformFilter.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Nuvek {

namespace {

// Stands for infinity, both as a sample ("no target here") and as an envelope bound.
constexpr double farAway = 1e20;

// Columns gathered at once, so that every cache line read down a column serves them all.
constexpr long long columnBlock = 8;

// The work arrays of one lower envelope, sized once per call and reused for every row and column.
struct Envelope
{
    explicit Envelope(long long length)
        : positions(static_cast<std::size_t>(std::max(length, 1LL))),
          lifted(static_cast<std::size_t>(std::max(length, 1LL))),
          bounds(static_cast<std::size_t>(std::max(length, 1LL) + 1))
    {
    }

    // Builds the lower envelope of the parabolas y = (q - p)^2 + f[p] for p in [0, n), n >= 1.
    // A new parabola that lies below the first one even at -farAway replaces it: the first bound
    // only stands for minus infinity and can be beaten by samples of -infinity or near it.
    void build(double const* f, long long n)
    {
        long long* v = positions.data();
        double* h = lifted.data();
        double* z = bounds.data();
        long long k = 0;
        v[0] = 0;
        h[0] = f[0] + 0.0;
        z[0] = -farAway;
        z[1] = farAway;
        for (long long q = 1; q < n; ++q)
        {
            double const hq = f[q] + static_cast<double>(q * q);
            double s;
            for (;;)
            {
                s = (hq - h[k]) / static_cast<double>(2 * q - 2 * v[k]);
                if (!(s <= z[k]) || --k < 0)
                    break;
            }
            ++k;
            v[k] = q;
            h[k] = hq;
            z[k] = s;
            z[k + 1] = farAway;
        }
    }

    // The envelope at q for q in [first, end), written to d[q - first]. Starting the walk at
    // `first` finds the same parabolas as a walk from 0: every bound it skips lies below first.
    void sample(double const* f, long long first, long long end, double* d) const
    {
        long long const* v = positions.data();
        double const* z = bounds.data();
        long long k = 0;
        for (long long q = first; q < end; ++q)
        {
            double const position = static_cast<double>(q);
            while (z[k + 1] < position)
                ++k;
            long long const offset = q - v[k];
            d[q - first] = static_cast<double>(offset * offset) + f[v[k]];
        }
    }

    // Per parabola of the envelope: its position p, f[p] + p^2 and the lower end of its interval.
    std::vector<long long> positions;
    std::vector<double> lifted;
    std::vector<double> bounds;
};

// What a voxel becomes before the passes: farAway where it holds the value, 0.0 at a target;
// beyond the first `compared` voxels of the slice, the value as read.
inline double seed(double read, long long index, long long compared, double value)
{
    if (index >= compared)
        return read;
    return read == value ? farAway : 0.0;
}

// Pass 1: squared distances down every column of the slice (width x height). Only the rows
// [firstRow, endRow) are written back: the row pass reads no others.
void transformColumns(double* slice, long long width, long long height, long long compared, double value,
                      long long firstRow, long long endRow)
{
    long long const rows = endRow - firstRow;
    std::vector<double> columns(static_cast<std::size_t>(columnBlock * height));
    std::vector<double> results(static_cast<std::size_t>(columnBlock * rows));
    Envelope envelope(height);
    for (long long x0 = 0; x0 < width; x0 += columnBlock)
    {
        long long const count = std::min(columnBlock, width - x0);
        for (long long y = 0; y < height; ++y)
            for (long long j = 0; j < count; ++j)
            {
                long long const index = y * width + x0 + j;
                columns[static_cast<std::size_t>(j * height + y)] = seed(slice[index], index, compared, value);
            }
        for (long long j = 0; j < count; ++j)
        {
            double const* column = columns.data() + j * height;
            envelope.build(column, height);
            envelope.sample(column, firstRow, endRow, results.data() + j * rows);
        }
        for (long long y = 0; y < rows; ++y)
            for (long long j = 0; j < count; ++j)
                slice[(firstRow + y) * width + x0 + j] = results[static_cast<std::size_t>(j * rows + y)];
    }
}

// Pass 1 when every seed of the slice is 0.0 or farAway. In a column holding a target, the lower
// envelope of those parabolas is the nearest target's parabola at every row: the boundary between
// two targets is their exact midpoint, and every boundary of a farAway parabola lies beyond
// 1e20 / (2 * height) in magnitude, outside the column while height stays below 2^20, so none of
// them owns a row. Its value there, (q - p)^2 + 0.0, is the squared distance found by two sweeps,
// to the bit. A column without a target gets the envelope of an all-farAway column, built once.
constexpr long long longestBinaryColumn = 1LL << 20;

NUVEK_TARGET_CLONES void transformBinaryColumns(double* slice, long long width, long long height, double value,
                                                long long firstRow, long long endRow)
{
    // A position beyond any column, on either side.
    constexpr double none = 1e15;
    std::vector<double> const seeds(static_cast<std::size_t>(height), farAway);
    std::vector<double> farColumn(static_cast<std::size_t>(endRow - firstRow));
    Envelope envelope(height);
    envelope.build(seeds.data(), height);
    envelope.sample(seeds.data(), firstRow, endRow, farColumn.data());

    // Sweep up: the nearest target at or below every row, stored in place of the rows written.
    std::vector<double> below(static_cast<std::size_t>(width), none);
    double* __restrict nearestBelow = below.data();
    for (long long y = height - 1; y >= firstRow; --y)
    {
        double* __restrict row = slice + y * width;
        double const position = static_cast<double>(y);
        if (y < endRow)
            for (long long x = 0; x < width; ++x)
            {
                nearestBelow[x] = row[x] == value ? nearestBelow[x] : position;
                row[x] = nearestBelow[x];
            }
        else
            for (long long x = 0; x < width; ++x)
                nearestBelow[x] = row[x] == value ? nearestBelow[x] : position;
    }

    // Sweep down: the nearest target at or above. In a written row a target is where the nearest
    // target below is the row itself.
    std::vector<double> above(static_cast<std::size_t>(width), -none);
    double* __restrict nearestAbove = above.data();
    for (long long y = 0; y < firstRow; ++y)
    {
        double const* __restrict row = slice + y * width;
        double const position = static_cast<double>(y);
        for (long long x = 0; x < width; ++x)
            nearestAbove[x] = row[x] == value ? nearestAbove[x] : position;
    }
    for (long long y = firstRow; y < endRow; ++y)
    {
        double* __restrict row = slice + y * width;
        double const position = static_cast<double>(y);
        double const withoutTarget = farColumn[static_cast<std::size_t>(y - firstRow)];
        for (long long x = 0; x < width; ++x)
        {
            double const down = row[x];
            double const up = down == position ? position : nearestAbove[x];
            nearestAbove[x] = up;
            double const upDistance = position - up;
            double const downDistance = down - position;
            double const distance = upDistance < downDistance ? upDistance : downDistance;
            double const squared = distance * distance;
            // No target above and none below: the column has none.
            double const unlessBelow = up == -none ? withoutTarget : squared;
            row[x] = down == none ? unlessBelow : squared;
        }
    }
}

// Square roots capped at `cap`, NaN becoming the cap. minpd yields its first operand only when
// that is smaller than the second, the same rule as the scalar loop.
void takeCappedSquareRoots(double const* squared, long long count, double cap, double* out)
{
    long long x = 0;
#if defined(__SSE2__)
    __m128d const capLanes = _mm_set1_pd(cap);
    for (; x + 2 <= count; x += 2)
        _mm_storeu_pd(out + x, _mm_min_pd(_mm_sqrt_pd(_mm_loadu_pd(squared + x)), capLanes));
#endif
    for (; x < count; ++x)
    {
        double const distance = std::sqrt(squared[x]);
        out[x] = distance < cap ? distance : cap;
    }
}

// Pass 2: squared distances along the rows [firstRow, firstRow + rows) of the slice, then their
// capped square roots, written to the first `columns` voxels of consecutive output rows starting
// at `target`. Only the columns [firstColumn, firstColumn + columns) are evaluated.
void transformRowsInto(double* target, long long targetWidth, double const* slice, long long width, long long firstRow,
                       long long rows, long long firstColumn, long long columns, long long maxDistance)
{
    double const cap = static_cast<double>(maxDistance);
    std::vector<double> squared(static_cast<std::size_t>(columns));
    Envelope envelope(width);
    for (long long y = 0; y < rows; ++y)
    {
        double const* row = slice + (firstRow + y) * width;
        envelope.build(row, width);
        envelope.sample(row, firstColumn, firstColumn + columns, squared.data());
        takeCappedSquareRoots(squared.data(), columns, cap, target + y * targetWidth);
    }
}

} // namespace

double* dt(double* f, long long n)
{
    if (n < 0)
        throw std::runtime_error("dt needs a non-negative number of samples.");
    if (n > 0 && f == nullptr)
        throw std::runtime_error("dt needs samples to transform.");
    double* d = new double[static_cast<std::size_t>(n)];
    if (n == 0)
        return d;
    try
    {
        Envelope envelope(n);
        envelope.build(f, n);
        envelope.sample(f, 0, n, d);
    }
    catch (...)
    {
        delete[] d;
        throw;
    }
    return d;
}

DistanceTransformFilter::DistanceTransformFilter(Image* input, double value, long long maxDistance, bool ownsInput)
    : Filter(input, ownsInput), value(value), maxDistance(maxDistance)
{
    if (maxDistance < 0)
        throw std::runtime_error("Maximum distance must not be negative.");
}

ValueRange<double> DistanceTransformFilter::getValueRange() const
{
    return ValueRange<double>(0.0, static_cast<double>(maxDistance));
}

void DistanceTransformFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const numChannels = input->getNumChannels();
    if (numChannels < 1)
        return;
    // Every distance is capped at the margin read around the box, so bands give the same bits; only
    // for one channel of one slice, as the column passes of several depend on the box's height.
    if (numChannels == 1 && box.getExtent().z == 1 && RequestBands::splits(input, box, numChannels, getExtent(level)))
    {
        RequestBands::run(out, box, numChannels, [&](double* bandOut, Box const& band) {
            DistanceTransformFilter::openRegion(bandOut, level, band);
        });
        return;
    }
    long long const margin = maxDistance;
    // Not clipped: the margin is what keeps distances exact up to the cap at tile borders.
    Box const grownBox = box.expanded(Vector(margin, margin, 0));
    if (grownBox.isEmpty())
        return;
    Vector const grownExtent = grownBox.getExtent();
    long long const grownSize = grownBox.getSize();

    std::vector<double> work(static_cast<std::size_t>(numChannels * grownSize), 0.0);
    input->openRegion(work.data(), level, grownBox);

    // Written: a block the size of the box's overlap with the extent, from the box's first voxel.
    Vector const written = box.intersected(Box(input->getExtent(level))).getExtent();
    if (written.x < 1 || written.y < 1)
        return;

    long long const width = grownExtent.x;
    long long const height = grownExtent.y;
    long long const boxSize = box.getSize();
    long long const compared = grownSize / numChannels;
    for (long long c = 0; c < numChannels; ++c)
    {
        double* slice = work.data() + c * grownSize;
        // Both column passes give the same bits where every seed is 0.0 or farAway.
        if (compared >= width * height && height <= longestBinaryColumn)
            transformBinaryColumns(slice, width, height, value, margin, margin + written.y);
        else
            transformColumns(slice, width, height, compared, value, margin, margin + written.y);
        transformRowsInto(out + c * boxSize, box.getExtent().x, slice, width, margin, written.y, margin, written.x,
                          maxDistance);
    }
}

} // namespace Nuvek
