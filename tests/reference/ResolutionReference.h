#pragma once

// Step-by-step buffer copy, block averaging, upsampling and background normalization, one voxel at
// a time, on plain vectors. Every function states the coordinates it works in; none shares code
// with the library.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace NuvekReference {

using Nuvek::Box;
using Nuvek::Vector;

inline std::size_t at(long long index)
{
    return static_cast<std::size_t>(index);
}

// Which NaN a sum or product yields when NaNs of different sign or payload meet depends on the
// operand order the compiler picks for a commutative operation, which C++ does not pin down. Both
// sides of a comparison go through this, so that NaN compares as NaN and every other value, -0.0
// and the infinities included, is still compared bit for bit.
inline std::vector<double> withOneNaN(std::vector<double> values)
{
    for (double& value : values)
        if (std::isnan(value))
            value = std::nan("");
    return values;
}

inline long long clampInto(long long value, long long low, long long high)
{
    if (value < low)
        return low;
    if (value > high)
        return high;
    return value;
}

// The buffer copy: the shortcut, then clipping against the destination, then the voxel copy.
inline void copyBuffer(std::vector<double> const& src, Vector const& srcExtent, Box srcBox, std::vector<double>& dst,
                       Vector const& dstExtent, Vector dstPos, long long numChannels)
{
    if (srcExtent == dstExtent && srcBox.min == Vector(0, 0, 0) && srcBox.max == srcExtent && dstPos == Vector(0, 0, 0))
    {
        long long const count =
            (srcBox.max.x - srcBox.min.x + 1) * (srcBox.max.y - srcBox.min.y + 1) * (srcBox.max.z - srcBox.min.z + 1);
        for (long long i = 0; i < count; ++i)
            dst[at(i)] = src[at(i)];
        return;
    }
    long long* positions[3] = {&dstPos.x, &dstPos.y, &dstPos.z};
    long long* mins[3] = {&srcBox.min.x, &srcBox.min.y, &srcBox.min.z};
    long long* maxs[3] = {&srcBox.max.x, &srcBox.max.y, &srcBox.max.z};
    long long const dstSizes[3] = {dstExtent.x, dstExtent.y, dstExtent.z};
    for (int axis = 0; axis < 3; ++axis)
        if (*positions[axis] < 0)
        {
            *mins[axis] -= *positions[axis];
            *positions[axis] = 0;
        }
    for (int axis = 0; axis < 3; ++axis)
    {
        long long const over = *positions[axis] + (*maxs[axis] - *mins[axis] + 1) - dstSizes[axis];
        if (over > 0)
            *maxs[axis] -= over;
    }
    for (int axis = 0; axis < 3; ++axis)
        if (*positions[axis] > dstSizes[axis] || *maxs[axis] < *mins[axis])
            return;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z <= srcBox.max.z - srcBox.min.z; ++z)
            for (long long y = 0; y <= srcBox.max.y - srcBox.min.y; ++y)
                for (long long x = 0; x <= srcBox.max.x - srcBox.min.x; ++x)
                    dst[at(c * dstExtent.x * dstExtent.y * dstExtent.z + (dstPos.z + z) * dstExtent.x * dstExtent.y +
                           (dstPos.y + y) * dstExtent.x + dstPos.x + x)] =
                        src[at(c * srcExtent.x * srcExtent.y * srcExtent.z +
                               (srcBox.min.z + z) * srcExtent.x * srcExtent.y + (srcBox.min.y + y) * srcExtent.x +
                               srcBox.min.x + x)];
}

// Block means of a buffer of `extent` into a new buffer of the reduced extent: for every target
// voxel a sum from 0.0 over the block's rows, columns inner, divided by the number of members.
inline std::vector<double> averageBlocks(std::vector<double> const& src, Vector const& extent, long long numChannels,
                                         long long levels)
{
    long long const f = 1LL << levels;
    Vector const target(extent.x / f, extent.y / f, extent.z);
    std::vector<double> dst(at(target.x * target.y * target.z * numChannels), 0.0);
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < target.z; ++z)
            for (long long y = 0; y < target.y; ++y)
                for (long long x = 0; x < target.x; ++x)
                {
                    double sum = 0.0;
                    double members = 0.0;
                    for (long long by = 0; by < f; ++by)
                        for (long long bx = 0; bx < f; ++bx)
                        {
                            sum += src[at(c * extent.x * extent.y * extent.z + z * extent.x * extent.y +
                                          (y * f + by) * extent.x + x * f + bx)];
                            members += 1.0;
                        }
                    dst[at(c * target.x * target.y * target.z + z * target.x * target.y + y * target.x + x)] =
                        sum / members;
                }
    return dst;
}

// The downsample filter for a level coarser than sourceLevel, voxel by voxel: every voxel of box
// inside the image at `level` is the mean of its block at sourceLevel; others keep what `out` holds.
inline void downsample(Nuvek::Image& input, long long sourceLevel, long long level, Box const& box,
                       std::vector<double>& out)
{
    long long const f = 1LL << (level - sourceLevel);
    long long const numChannels = input.getNumChannels();
    Vector const extent = input.getExtent(level);
    Vector const size = box.getExtent();
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    if (x < 0 || y < 0 || z < 0 || x >= extent.x || y >= extent.y || z >= extent.z)
                        continue;
                    Box const block(Vector(x * f, y * f, z), Vector(x * f + f - 1, y * f + f - 1, z));
                    std::vector<double> values(at(f * f * numChannels));
                    input.openRegion(values.data(), sourceLevel, block);
                    double sum = 0.0;
                    for (long long i = 0; i < f * f; ++i)
                        sum += values[at(c * f * f + i)];
                    out[at(c * box.getSize() + (z - box.min.z) * size.x * size.y + (y - box.min.y) * size.x +
                           (x - box.min.x))] = sum / static_cast<double>(f * f);
                }
}

// What the upsample filter and the background of the normalization share: the source box of a
// request and its values.
struct SourceRegion
{
    Box box;
    std::vector<double> values;
    bool empty = true;

    double value(long long c, long long slice, long long u, long long v) const
    {
        Vector const e = box.getExtent();
        return values[at(c * e.x * e.y * e.z + slice * e.x * e.y + (v - box.min.y) * e.x + (u - box.min.x))];
    }
};

inline SourceRegion readSourceRegion(Nuvek::Image& input, long long sourceLevel, Box const& box, double scale)
{
    SourceRegion region;
    Box const wanted(Vector(static_cast<long long>(static_cast<double>(box.min.x) / scale) - 1,
                            static_cast<long long>(static_cast<double>(box.min.y) / scale) - 1, box.min.z),
                     Vector(static_cast<long long>(static_cast<double>(box.max.x) / scale) + 1,
                            static_cast<long long>(static_cast<double>(box.max.y) / scale) + 1, box.max.z));
    region.box = wanted.intersected(Box(input.getExtent(sourceLevel)));
    if (region.box.isEmpty())
        return region;
    region.empty = false;
    region.values.assign(at(region.box.getSize() * input.getNumChannels()), 0.0);
    input.openRegion(region.values.data(), sourceLevel, region.box);
    return region;
}

// The bilinear background at output (x, y) in slice `slice` of the source region.
inline double bilinear(SourceRegion const& region, long long c, long long slice, long long x, long long y, double scale)
{
    double const fy = static_cast<double>(y) / scale;
    long long const iy = static_cast<long long>(std::floor(fy - 0.5));
    long long const y0 = clampInto(iy, region.box.min.y, region.box.max.y);
    long long const y1 = clampInto(iy + 1, region.box.min.y, region.box.max.y);
    double const wy = fy - (static_cast<double>(y0) + 0.5);
    double const fx = static_cast<double>(x) / scale;
    long long const ix = static_cast<long long>(std::floor(fx - 0.5));
    long long const x0 = clampInto(ix, region.box.min.x, region.box.max.x);
    long long const x1 = clampInto(ix + 1, region.box.min.x, region.box.max.x);
    double const wx = fx - (static_cast<double>(x0) + 0.5);
    return (wx * region.value(c, slice, x1, y1) + (1 - wx) * region.value(c, slice, x0, y1)) * wy +
           (wx * region.value(c, slice, x1, y0) + (1 - wx) * region.value(c, slice, x0, y0)) * (1 - wy);
}

// The upsample filter for a level finer than sourceLevel, voxel by voxel. Output slices without a
// source slice, and every voxel when the source box is empty, keep what `out` holds.
inline void upsample(Nuvek::Image& input, long long sourceLevel, bool bilinearMode, long long level, Box const& box,
                     std::vector<double>& out)
{
    double const scale = static_cast<double>(std::int32_t{1} << (sourceLevel - level));
    SourceRegion const region = readSourceRegion(input, sourceLevel, box, scale);
    if (region.empty)
        return;
    Vector const size = box.getExtent();
    long long const depth = region.box.getExtent().z;
    for (long long c = 0; c < input.getNumChannels(); ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const slice = z - box.min.z;
            if (slice >= depth)
                continue;
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    double value;
                    if (bilinearMode)
                        value = bilinear(region, c, slice, x, y, scale);
                    else
                        value = region.value(c, slice,
                                             clampInto(static_cast<long long>(static_cast<double>(x) / scale),
                                                       region.box.min.x, region.box.max.x),
                                             clampInto(static_cast<long long>(static_cast<double>(y) / scale),
                                                       region.box.min.y, region.box.max.y));
                    out[at(c * box.getSize() + slice * size.x * size.y + (y - box.min.y) * size.x + (x - box.min.x))] =
                        value;
                }
        }
}

// The local normalization: the input's values at level, minus the bilinear background from
// backgroundLevel, mapped back into the input's range. Slices without a background slice, and
// everything when the background box is empty, keep the input's values.
inline std::vector<double> normalizeLocally(Nuvek::Image& input, long long backgroundLevel, long long level,
                                            Box const& box)
{
    std::vector<double> out(at(box.getSize() * input.getNumChannels()), 0.0);
    input.openRegion(out.data(), level, box);
    double const f = std::exp2(static_cast<double>(backgroundLevel - level));
    SourceRegion const background = readSourceRegion(input, backgroundLevel, box, f);
    if (background.empty)
        return out;
    double const low = input.getValueRange().min;
    double const width = input.getValueRange().max - low;
    Vector const size = box.getExtent();
    long long const depth = background.box.getExtent().z;
    for (long long c = 0; c < input.getNumChannels(); ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
        {
            long long const slice = z - box.min.z;
            if (slice >= depth)
                continue;
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    double& value = out[at(c * box.getSize() + slice * size.x * size.y + (y - box.min.y) * size.x +
                                           (x - box.min.x))];
                    double const b = bilinear(background, c, slice, x, y, f);
                    value = (value - b + width) * 0.5 + low;
                }
        }
    return out;
}

} // namespace NuvekReference
