#pragma once

// Buffer copy, block means, upsampling and background normalization, one voxel at a time.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include "support/VoxelCompare.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace NuvekReference {

using Nuvek::Box;
using Nuvek::Vector;

inline long long indexIn(Vector const& extent, long long c, long long x, long long y, long long z)
{
    return ((c * extent.z + z) * extent.y + y) * extent.x + x;
}

/// Copies every voxel of srcBox to dstPos + (voxel - srcBox.min) where that lies inside dst.
inline void copyBuffer(std::vector<double> const& src, Vector const& srcExtent, Box const& srcBox,
                       std::vector<double>& dst, Vector const& dstExtent, Vector const& dstPos, long long numChannels)
{
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = srcBox.min.z; z <= srcBox.max.z; ++z)
            for (long long y = srcBox.min.y; y <= srcBox.max.y; ++y)
                for (long long x = srcBox.min.x; x <= srcBox.max.x; ++x)
                {
                    Vector const to = dstPos + Vector(x, y, z) - srcBox.min;
                    if (Box(dstExtent).contains(to))
                        dst[indexIn(dstExtent, c, to.x, to.y, to.z)] = src[indexIn(srcExtent, c, x, y, z)];
                }
}

/// The mean of every whole 2^levels x 2^levels block, summed from 0.0 row by row.
inline std::vector<double> averageBlocks(std::vector<double> const& src, Vector const& extent, long long numChannels,
                                         long long levels)
{
    long long const f = 1LL << levels;
    Vector const target(extent.x / f, extent.y / f, extent.z);
    std::vector<double> dst;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < target.z; ++z)
            for (long long y = 0; y < target.y; ++y)
                for (long long x = 0; x < target.x; ++x)
                {
                    double sum = 0.0;
                    for (long long by = 0; by < f; ++by)
                        for (long long bx = 0; bx < f; ++bx)
                            sum += src[indexIn(extent, c, x * f + bx, y * f + by, z)];
                    dst.push_back(sum / static_cast<double>(f * f));
                }
    return dst;
}

/// Levels up to sourceLevel are the input's; at coarser ones every voxel of box inside the image
/// is the mean of its block at sourceLevel, the others 0.0.
inline std::vector<double> downsample(Nuvek::Image& input, long long sourceLevel, long long level, Box const& box)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
    Box const inside = box.intersected(Box(input.getExtent(level)));
    if (level <= sourceLevel)
        input.openRegion(out.data(), level, box);
    if (level <= sourceLevel || inside.isEmpty())
        return out;
    long long const f = 1LL << (level - sourceLevel), numChannels = input.getNumChannels();
    Box const blocks(Vector(inside.min.x * f, inside.min.y * f, inside.min.z),
                     Vector(inside.max.x * f + f - 1, inside.max.y * f + f - 1, inside.max.z));
    std::vector<double> values(static_cast<std::size_t>(blocks.getSize() * numChannels));
    input.openRegion(values.data(), sourceLevel, blocks);
    NuvekTest::paste(out, box, averageBlocks(values, blocks.getExtent(), numChannels, level - sourceLevel), inside,
                     numChannels);
    return out;
}

/// The source voxels a request reads: the box divided by scale, one voxel more on every side in
/// x and y, clipped to the source image; output slice i reads its slice i.
struct SourceRegion
{
    SourceRegion(Nuvek::Image& input, long long sourceLevel, Box const& box, double scale)
    {
        auto down = [&](long long v) { return static_cast<long long>(static_cast<double>(v) / scale); };
        region = Box(Vector(down(box.min.x) - 1, down(box.min.y) - 1, box.min.z),
                     Vector(down(box.max.x) + 1, down(box.max.y) + 1, box.max.z))
                     .intersected(Box(input.getExtent(sourceLevel)));
        values.assign(static_cast<std::size_t>(std::max(region.getSize(), 0LL) * input.getNumChannels()), 0.0);
        if (!region.isEmpty())
            input.openRegion(values.data(), sourceLevel, region);
    }

    /// Source voxel (u, v) clamped into the region.
    double at(long long c, long long slice, long long u, long long v) const
    {
        u = std::clamp(u, region.min.x, region.max.x) - region.min.x;
        v = std::clamp(v, region.min.y, region.max.y) - region.min.y;
        return values[indexIn(region.getExtent(), c, u, v, slice)];
    }

    /// Bilinear between the source centres around (x + 0.5, y + 0.5) / scale - 0.5 (edges clamped).
    double bilinear(long long c, long long slice, long long x, long long y, double scale) const
    {
        double const fx = static_cast<double>(x) / scale, fy = static_cast<double>(y) / scale;
        long long const ix = static_cast<long long>(std::floor(fx - 0.5));
        long long const iy = static_cast<long long>(std::floor(fy - 0.5));
        double const wx = fx - (static_cast<double>(std::clamp(ix, region.min.x, region.max.x)) + 0.5);
        double const wy = fy - (static_cast<double>(std::clamp(iy, region.min.y, region.max.y)) + 0.5);
        return (wx * at(c, slice, ix + 1, iy + 1) + (1 - wx) * at(c, slice, ix, iy + 1)) * wy +
               (wx * at(c, slice, ix + 1, iy) + (1 - wx) * at(c, slice, ix, iy)) * (1 - wy);
    }

    Box region;
    std::vector<double> values;
};

/// Calls write(value at that voxel, c, slice, x, y) for every voxel of box whose slice the source
/// region holds; none when the region is empty.
template <class Write>
void forEachVoxelWithSource(Nuvek::Image& input, SourceRegion const& source, Box const& box, Write write)
{
    if (source.region.isEmpty())
        return;
    for (long long c = 0; c < input.getNumChannels(); ++c)
        for (long long slice = 0; slice < std::min(box.getExtent().z, source.region.getExtent().z); ++slice)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                    write(indexIn(box.getExtent(), c, x - box.min.x, y - box.min.y, slice), c, slice, x, y);
}

/// Levels from sourceLevel on are the input's; finer ones are resampled from sourceLevel, voxels
/// without a source 0.0.
inline std::vector<double> upsample(Nuvek::Image& input, long long sourceLevel, bool bilinear, long long level,
                                    Box const& box)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
    if (level >= sourceLevel)
    {
        input.openRegion(out.data(), level, box);
        return out;
    }
    double const scale = static_cast<double>(std::int32_t{1} << (sourceLevel - level));
    SourceRegion const source(input, sourceLevel, box, scale);
    forEachVoxelWithSource(input, source, box, [&](long long i, long long c, long long z, long long x, long long y) {
        out[i] = bilinear ? source.bilinear(c, z, x, y, scale)
                          : source.at(c, z, static_cast<long long>(static_cast<double>(x) / scale),
                                      static_cast<long long>(static_cast<double>(y) / scale));
    });
    return out;
}

/// The input's values minus the bilinear background from backgroundLevel, mapped back into the
/// input's range; voxels without a background keep the input's values.
inline std::vector<double> normalizeLocally(Nuvek::Image& input, long long backgroundLevel, long long level,
                                            Box const& box)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
    input.openRegion(out.data(), level, box);
    double const f = std::exp2(static_cast<double>(backgroundLevel - level));
    double const low = input.getValueRange().min, width = input.getValueRange().max - low;
    SourceRegion const background(input, backgroundLevel, box, f);
    forEachVoxelWithSource(input, background, box,
                           [&](long long i, long long c, long long z, long long x, long long y) {
                               out[i] = (out[i] - background.bilinear(c, z, x, y, f) + width) * 0.5 + low;
                           });
    return out;
}

} // namespace NuvekReference
