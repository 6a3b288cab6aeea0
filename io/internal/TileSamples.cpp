#include "io/internal/TileSamples.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

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
// stored type; the rest of the tile is 0.
template <typename Sample>
void storeRegionAs(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                   long long height, unsigned char* tile, SampleStatistics& statistics)
{
    long long const tileSize = layout.tileSize;
    long long const channels = layout.samples;
    long long const plane = width * height;
    double const maxStored = static_cast<double>(std::numeric_limits<Sample>::max());
    std::memset(tile, 0, static_cast<std::size_t>(layout.tileBytes()));
    for (long long y = 0; y < height; ++y)
        for (long long x = 0; x < width; ++x)
            for (long long c = 0; c < channels; ++c)
            {
                double const value = region[(firstChannel + c) * plane + y * width + x];
                long long const index = (y * tileSize + x) * channels + c;
                if (layout.type == TiffSampleType::Float32)
                    storeSample<Sample>(tile, index, value);
                else
                    storeSample<Sample>(tile, index,
                                        scaledSample(value, layout.ranges[static_cast<std::size_t>(firstChannel + c)],
                                                     maxStored, statistics));
            }
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
                 long long height, unsigned char* tile, SampleStatistics& statistics)
{
    switch (layout.type)
    {
    case TiffSampleType::UInt8:
        storeRegionAs<std::uint8_t>(layout, region, firstChannel, width, height, tile, statistics);
        break;
    case TiffSampleType::UInt16:
        storeRegionAs<std::uint16_t>(layout, region, firstChannel, width, height, tile, statistics);
        break;
    case TiffSampleType::Float32:
        storeRegionAs<float>(layout, region, firstChannel, width, height, tile, statistics);
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
