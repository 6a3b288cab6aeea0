#include "io/internal/TileSamples.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

// The row conversion is compiled for AVX2 and for the baseline; the processor picks one at load
// time. Both do the same operations in the same order (-ffp-contract=off), so they give the same
// bits. ThreadSanitizer cannot run the load-time resolver, so that build has the baseline only.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__) && !defined(__SANITIZE_THREAD__)
#define NUVEK_IO_TARGET_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define NUVEK_IO_TARGET_CLONES
#endif

namespace Nuvek {

namespace {

// Maps a value onto 0..maxStored: the documented mapping, NaN to 0, halves rounded up. Counts
// the sample in statistics.
double scaledSample(double value, ValueRange<double> const& range, double maxStored, SampleStatistics& statistics)
{
    if (std::isnan(value))
        return 0.0;
    double const scaled = (value - range.min) / (range.max - range.min) * maxStored;
    double const rounded = std::floor(scaled + 0.5);
    double const stored = std::clamp(rounded, 0.0, maxStored);
    if (statistics.samples == 0)
    {
        statistics.lowestStored = stored;
        statistics.highestStored = stored;
    }
    ++statistics.samples;
    if (rounded != stored)
        ++statistics.saturated;
    statistics.lowestStored = std::min(statistics.lowestStored, stored);
    statistics.highestStored = std::max(statistics.highestStored, stored);
    return stored;
}

template <typename Sample>
void storeSample(unsigned char* tile, long long index, double value)
{
    // Finite doubles beyond float's range become infinities, as a float conversion rounds them.
    if (std::is_floating_point<Sample>::value && std::isfinite(value) &&
        std::fabs(value) > static_cast<double>(std::numeric_limits<float>::max()))
        value = value > 0 ? std::numeric_limits<double>::infinity() : -std::numeric_limits<double>::infinity();
    Sample const sample = static_cast<Sample>(value);
    std::memcpy(tile + index * static_cast<long long>(sizeof(Sample)), &sample, sizeof(Sample));
}

template <typename Sample>
double loadSample(unsigned char const* tile, long long index)
{
    Sample sample;
    std::memcpy(&sample, tile + index * static_cast<long long>(sizeof(Sample)), sizeof(Sample));
    return static_cast<double>(sample);
}

// Interleaves a planar region of doubles (size width x height) into the tile, mapped to the
// stored type; the rest of the tile is 0. One voxel at a time: the reference for the rows below.
template <typename Sample>
void storeRegionPlainAs(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                        long long height, unsigned char* tile, SampleStatistics& statistics, long long firstRow)
{
    long long const tileSize = layout.tileSize;
    long long const channels = layout.samples;
    long long const plane = width * height;
    double const maxStored = static_cast<double>(std::numeric_limits<Sample>::max());
    if (firstRow == 0)
        std::memset(tile, 0, static_cast<std::size_t>(layout.tileBytes()));
    for (long long y = 0; y < height; ++y)
        for (long long x = 0; x < width; ++x)
            for (long long c = 0; c < channels; ++c)
            {
                double const value = region[(firstChannel + c) * plane + y * width + x];
                long long const index = ((firstRow + y) * tileSize + x) * channels + c;
                if (layout.type == TiffSampleType::Float32)
                    storeSample<Sample>(tile, index, value);
                else
                    storeSample<Sample>(tile, index,
                                        scaledSample(value, layout.ranges[static_cast<std::size_t>(firstChannel + c)],
                                                     maxStored, statistics));
            }
}

// What one row adds to the statistics.
struct RowCounts
{
    long long nans = 0;
    long long saturated = 0;
    double lowest = 0.0;
    double highest = 0.0;
};

// Four doubles in one AVX register (two SSE registers without AVX), and the masks their
// comparisons give: every operation is the IEEE operation on each lane.
typedef double Quad __attribute__((vector_size(4 * sizeof(double))));
typedef long long QuadMask __attribute__((vector_size(4 * sizeof(long long))));

// scaledSample for a row of values, four at a time and without branches. For t = scaled + 0.5
// the stored value is floor(t) clamped to 0..top: 0 below 0 and top from top + 1 on (both
// saturated), and in between floor(t), found exactly by rounding through 2^52 and stepping down
// where that rounded up. NaN is stored as 0 and not counted. The span must be finite, so that only
// a NaN value gives a NaN t. `stored` gets whole numbers 0..top.
NUVEK_IO_TARGET_CLONES void scaleRow(double const* values, long long count, double min, double span, double top,
                                     double* stored, RowCounts& counts)
{
    double const limit = top + 1.0;
    double const magic = 4503599627370496.0; // 2^52: the spacing of doubles from here on is 1
    Quad const minQ = {min, min, min, min};
    Quad const spanQ = {span, span, span, span};
    Quad const topQ = {top, top, top, top};
    Quad const limitQ = {limit, limit, limit, limit};
    Quad const halfQ = {0.5, 0.5, 0.5, 0.5};
    Quad const zeroQ = {0.0, 0.0, 0.0, 0.0};
    Quad const oneQ = {1.0, 1.0, 1.0, 1.0};
    Quad const magicQ = {magic, magic, magic, magic};
    QuadMask nans = {0, 0, 0, 0};
    QuadMask saturated = {0, 0, 0, 0};
    Quad lowest = topQ;
    Quad highest = zeroQ;
    long long x = 0;
    for (; x + 4 <= count; x += 4)
    {
        Quad v;
        std::memcpy(&v, values + x, sizeof(Quad));
        Quad const t = (v - minQ) / spanQ * topQ + halfQ;
        QuadMask const isNan = t != t;
        QuadMask const below = t < zeroQ;
        QuadMask const over = t >= limitQ;
        Quad const inside = (isNan | below | over) ? zeroQ : t;
        Quad const nearest = (inside + magicQ) - magicQ;
        Quad const floored = nearest > inside ? nearest - oneQ : nearest;
        Quad const value = over ? topQ : floored;
        std::memcpy(stored + x, &value, sizeof(Quad));
        nans -= isNan;
        saturated -= below | over;
        lowest = (value < lowest) & ~isNan ? value : lowest;
        highest = (value > highest) & ~isNan ? value : highest;
    }
    counts = RowCounts{0, 0, top, 0.0};
    for (int lane = 0; lane < 4; ++lane)
    {
        counts.nans += nans[lane];
        counts.saturated += saturated[lane];
        counts.lowest = std::min(counts.lowest, lowest[lane]);
        counts.highest = std::max(counts.highest, highest[lane]);
    }
    for (; x < count; ++x)
    {
        double const t = (values[x] - min) / span * top + 0.5;
        if (std::isnan(t))
        {
            stored[x] = 0.0;
            ++counts.nans;
            continue;
        }
        double const value = std::clamp(std::floor(t), 0.0, top);
        stored[x] = value;
        if (t < 0.0 || t >= limit)
            ++counts.saturated;
        counts.lowest = std::min(counts.lowest, value);
        counts.highest = std::max(counts.highest, value);
    }
}

// storeRegionPlainAs for integer samples, a row of one channel at a time; the same bits and
// statistics.
template <typename Sample>
void storeRegionRowsAs(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                       long long height, unsigned char* tile, SampleStatistics& statistics, long long firstRow)
{
    long long const tileSize = layout.tileSize;
    long long const channels = layout.samples;
    long long const plane = width * height;
    double const maxStored = static_cast<double>(std::numeric_limits<Sample>::max());
    if (firstRow == 0)
        std::memset(tile, 0, static_cast<std::size_t>(layout.tileBytes()));
    std::vector<double> row(static_cast<std::size_t>(width));
    for (long long y = 0; y < height; ++y)
        for (long long c = 0; c < channels; ++c)
        {
            ValueRange<double> const& range = layout.ranges[static_cast<std::size_t>(firstChannel + c)];
            RowCounts counts;
            scaleRow(region + (firstChannel + c) * plane + y * width, width, range.min, range.max - range.min,
                     maxStored, row.data(), counts);
            unsigned char* const target =
                tile + ((firstRow + y) * tileSize * channels + c) * static_cast<long long>(sizeof(Sample));
            for (long long x = 0; x < width; ++x)
            {
                Sample const sample = static_cast<Sample>(row[static_cast<std::size_t>(x)]);
                std::memcpy(target + x * channels * static_cast<long long>(sizeof(Sample)), &sample, sizeof(Sample));
            }
            long long const samples = width - counts.nans;
            if (samples == 0)
                continue;
            if (statistics.samples == 0)
            {
                statistics.lowestStored = counts.lowest;
                statistics.highestStored = counts.highest;
            }
            statistics.samples += samples;
            statistics.saturated += counts.saturated;
            statistics.lowestStored = std::min(statistics.lowestStored, counts.lowest);
            statistics.highestStored = std::max(statistics.highestStored, counts.highest);
        }
}

// Whether the rows give the plain loop's bits: integer samples from ranges of finite span.
bool rowsApply(TileLayout const& layout, long long firstChannel)
{
    if (layout.type == TiffSampleType::Float32)
        return false;
    for (long long c = 0; c < layout.samples; ++c)
    {
        ValueRange<double> const& range = layout.ranges[static_cast<std::size_t>(firstChannel + c)];
        if (!std::isfinite(range.max - range.min))
            return false;
    }
    return true;
}

template <typename Sample>
void storeRegionAs(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                   long long height, unsigned char* tile, SampleStatistics& statistics, bool plain, long long firstRow)
{
    if (!plain && rowsApply(layout, firstChannel))
        storeRegionRowsAs<Sample>(layout, region, firstChannel, width, height, tile, statistics, firstRow);
    else
        storeRegionPlainAs<Sample>(layout, region, firstChannel, width, height, tile, statistics, firstRow);
}

// Fills the part of the tile that child (i, j) covers (i, j in 0..1), within width x height
// voxels, with the 2 x 2 means of the child's samples.
template <typename Sample>
void averageQuarterAs(TileLayout const& layout, unsigned char const* child, long long i, long long j, long long width,
                      long long height, unsigned char* tile)
{
    long long const tileSize = layout.tileSize;
    long long const half = tileSize / 2;
    long long const channels = layout.samples;
    double const maxStored = static_cast<double>(std::numeric_limits<Sample>::max());
    long long const endX = std::min(width, (i + 1) * half);
    long long const endY = std::min(height, (j + 1) * half);
    for (long long y = j * half; y < endY; ++y)
    {
        long long const sourceY = 2 * y - j * tileSize;
        for (long long x = i * half; x < endX; ++x)
        {
            long long const sourceX = 2 * x - i * tileSize;
            for (long long c = 0; c < channels; ++c)
            {
                long long const topLeft = (sourceY * tileSize + sourceX) * channels + c;
                long long const bottomLeft = topLeft + tileSize * channels;
                double sum = 0.0;
                sum += loadSample<Sample>(child, topLeft);
                sum += loadSample<Sample>(child, topLeft + channels);
                sum += loadSample<Sample>(child, bottomLeft);
                sum += loadSample<Sample>(child, bottomLeft + channels);
                double const mean = sum / 4.0;
                long long const index = (y * tileSize + x) * channels + c;
                if (layout.type == TiffSampleType::Float32)
                    storeSample<Sample>(tile, index, mean);
                else
                    storeSample<Sample>(tile, index, std::clamp(std::floor(mean + 0.5), 0.0, maxStored));
            }
        }
    }
}

} // namespace

void addStatistics(SampleStatistics& total, SampleStatistics const& part)
{
    if (part.samples == 0)
        return;
    if (total.samples == 0)
    {
        total.lowestStored = part.lowestStored;
        total.highestStored = part.highestStored;
    }
    total.samples += part.samples;
    total.saturated += part.saturated;
    total.lowestStored = std::min(total.lowestStored, part.lowestStored);
    total.highestStored = std::max(total.highestStored, part.highestStored);
}

std::vector<PyramidLevel> pyramidLevels(Vector const& extent, long long tileSize)
{
    std::vector<PyramidLevel> levels;
    long long width = extent.x;
    long long height = extent.y;
    while (true)
    {
        levels.push_back({width, height, (width + tileSize - 1) / tileSize, (height + tileSize - 1) / tileSize});
        if ((width <= tileSize && height <= tileSize) || width < 2 || height < 2)
            break;
        width /= 2;
        height /= 2;
    }
    return levels;
}

void storeRegion(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                 long long height, unsigned char* tile, SampleStatistics& statistics, bool plain, long long firstRow)
{
    switch (layout.type)
    {
    case TiffSampleType::UInt8:
        storeRegionAs<std::uint8_t>(layout, region, firstChannel, width, height, tile, statistics, plain, firstRow);
        break;
    case TiffSampleType::UInt16:
        storeRegionAs<std::uint16_t>(layout, region, firstChannel, width, height, tile, statistics, plain, firstRow);
        break;
    case TiffSampleType::Float32:
        storeRegionAs<float>(layout, region, firstChannel, width, height, tile, statistics, plain, firstRow);
        break;
    }
}

void averageQuarter(TileLayout const& layout, unsigned char const* child, long long i, long long j, long long width,
                    long long height, unsigned char* tile)
{
    switch (layout.type)
    {
    case TiffSampleType::UInt8:
        averageQuarterAs<std::uint8_t>(layout, child, i, j, width, height, tile);
        break;
    case TiffSampleType::UInt16:
        averageQuarterAs<std::uint16_t>(layout, child, i, j, width, height, tile);
        break;
    case TiffSampleType::Float32:
        averageQuarterAs<float>(layout, child, i, j, width, height, tile);
        break;
    }
}

void averageChildren(TileLayout const& layout, std::vector<unsigned char> const* children, long long width,
                     long long height, unsigned char* tile)
{
    std::memset(tile, 0, static_cast<std::size_t>(layout.tileBytes()));
    for (long long j = 0; j < 2; ++j)
        for (long long i = 0; i < 2; ++i)
            if (!children[j * 2 + i].empty())
                averageQuarter(layout, children[j * 2 + i].data(), i, j, width, height, tile);
}

} // namespace Nuvek
