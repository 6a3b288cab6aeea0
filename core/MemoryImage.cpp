#include <nuvek/core/MemoryImage.h>

#include "core/internal/BlockMeans.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace Nuvek {

namespace {

void checkExtent(Vector const& extent, long long numChannels)
{
    if (extent.x < 0 || extent.y < 0 || extent.z < 0)
        throw std::runtime_error("MemoryImage: the extent must not be negative.");
    if (numChannels < 0)
        throw std::runtime_error("MemoryImage: the number of channels must not be negative.");
}

void checkLevel(long long level)
{
    if (level < 0)
        throw std::runtime_error("MemoryImage: the level must not be negative.");
}

Vector extentAtLevel(Vector const& extent, long long level)
{
    // Beyond 62 halvings every extent is 0; shifting further would be undefined.
    if (level > 62)
        return Vector(0, 0, extent.z);
    return Vector(extent.x >> level, extent.y >> level, extent.z);
}

// Level `level` from level 0: the means of its blocks, exactly as the downsample filter takes them.
std::vector<double> averageBlocksOfLevelZero(std::vector<double> const& source, Vector const& sourceExtent,
                                             long long numChannels, long long level)
{
    std::vector<double> result(static_cast<std::size_t>(extentAtLevel(sourceExtent, level).prod() * numChannels));
    averageBlocks(source.data(), result.data(), sourceExtent, numChannels, level);
    return result;
}

} // namespace

MemoryImage::MemoryImage(Vector const& extent, long long numChannels)
    : MemoryImage(extent, numChannels,
                  std::vector<double>(extent.x < 0 || extent.y < 0 || extent.z < 0 || numChannels < 0
                                          ? 0
                                          : static_cast<std::size_t>(extent.prod() * numChannels),
                                      0.0))
{
}

MemoryImage::MemoryImage(Vector const& extent, long long numChannels, std::vector<double> values)
    : extent(extent), numChannels(numChannels)
{
    checkExtent(extent, numChannels);
    for (long long c = 0; c < numChannels; ++c)
        channelNames.push_back("Channel " + std::to_string(c));
    levels.emplace_back();
    setValues(std::move(values));
    hash = 0;
}

Vector MemoryImage::getExtent(long long level) const
{
    checkLevel(level);
    return extentAtLevel(extent, level);
}

long long MemoryImage::getNumChannels() const
{
    return numChannels;
}

long long MemoryImage::getNumLevels() const
{
    return static_cast<long long>(levels.size());
}

ValueRange<double> MemoryImage::getValueRange() const
{
    return valueRange;
}

Vector MemoryImage::getVoxelSize(long long level) const
{
    checkLevel(level);
    if (level > 62)
        throw std::runtime_error("MemoryImage: the level is too large for an integer voxel size.");
    return Vector(voxelSize.x << level, voxelSize.y << level, voxelSize.z);
}

Vector MemoryImage::getTileExtent() const
{
    return tileExtent;
}

void MemoryImage::openRegion(double* out, long long level, Box const& box)
{
    checkLevel(level);
    long long const size = box.getSize();
    if (size == 0)
        return;
    Vector const levelExtent = extentAtLevel(extent, level);
    std::vector<double> const* values = level < getNumLevels() ? &levels[static_cast<std::size_t>(level)] : nullptr;
    Box const inside = values == nullptr ? Box() : box.intersected(Box(levelExtent));
    Vector const boxExtent = box.getExtent();
    long long const plane = levelExtent.prod();

    for (long long c = 0; c < numChannels; ++c)
    {
        double* channelOut = out + c * size;
        if (inside.isEmpty())
        {
            std::fill(channelOut, channelOut + size, 0.0);
            continue;
        }
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
            {
                double* row = channelOut + (z - box.min.z) * boxExtent.x * boxExtent.y + (y - box.min.y) * boxExtent.x;
                if (z < inside.min.z || z > inside.max.z || y < inside.min.y || y > inside.max.y)
                {
                    std::fill(row, row + boxExtent.x, 0.0);
                    continue;
                }
                long long const before = inside.min.x - box.min.x;
                long long const count = inside.max.x - inside.min.x + 1;
                std::fill(row, row + before, 0.0);
                double const* source =
                    values->data() + c * plane + z * levelExtent.x * levelExtent.y + y * levelExtent.x + inside.min.x;
                std::copy(source, source + count, row + before);
                std::fill(row + before + count, row + boxExtent.x, 0.0);
            }
    }
}

std::string MemoryImage::getChannelName(long long index)
{
    if (index < 0 || index >= numChannels)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return channelNames[static_cast<std::size_t>(index)];
}

std::uint64_t MemoryImage::getHash()
{
    return hash;
}

std::vector<double> const& MemoryImage::getValues() const
{
    return levels[0];
}

void MemoryImage::setValues(std::vector<double> values)
{
    if (static_cast<long long>(values.size()) != extent.prod() * numChannels)
        throw std::runtime_error("MemoryImage: expected " + std::to_string(extent.prod() * numChannels) +
                                 " values, got " + std::to_string(values.size()) + ".");
    levels[0] = std::move(values);
    rebuildLevels();
}

void MemoryImage::setValue(Vector const& position, long long channel, double value)
{
    if (!Box(extent).contains(position))
        throw std::runtime_error("MemoryImage: the position lies outside the image.");
    if (channel < 0 || channel >= numChannels)
        throw std::runtime_error("MemoryImage: the channel index is out of range.");
    levels[0][static_cast<std::size_t>(channel * extent.prod() + Box(extent).getExtent().getStrides().dot(position))] =
        value;
    rebuildLevels();
}

void MemoryImage::setValueRange(ValueRange<double> const& range)
{
    valueRange = range;
    valueRangeSet = true;
    ++hash;
}

void MemoryImage::setChannelNames(std::vector<std::string> names)
{
    if (static_cast<long long>(names.size()) != numChannels)
        throw std::runtime_error("MemoryImage: expected " + std::to_string(numChannels) + " channel names, got " +
                                 std::to_string(names.size()) + ".");
    channelNames = std::move(names);
    ++hash;
}

void MemoryImage::setVoxelSize(Vector const& levelZeroVoxelSize)
{
    voxelSize = levelZeroVoxelSize;
    ++hash;
}

void MemoryImage::setTileExtent(Vector const& extentOfTiles)
{
    tileExtent = extentOfTiles;
}

void MemoryImage::rebuildLevels()
{
    std::vector<std::vector<double>> rebuilt;
    rebuilt.push_back(std::move(levels[0]));
    for (long long level = 1;; ++level)
    {
        Vector const levelExtent = extentAtLevel(extent, level);
        if (levelExtent.x < 1 || levelExtent.y < 1)
            break;
        rebuilt.push_back(averageBlocksOfLevelZero(rebuilt[0], extent, numChannels, level));
    }
    levels = std::move(rebuilt);
    std::vector<double> const& base = levels[0];
    if (!valueRangeSet)
    {
        double low = 0.0;
        double high = 0.0;
        bool any = false;
        for (double value : base)
        {
            if (!std::isfinite(value))
                continue;
            low = any ? std::min(low, value) : value;
            high = any ? std::max(high, value) : value;
            any = true;
        }
        valueRange = ValueRange<double>(low, high);
    }
    ++hash;
}

} // namespace Nuvek
