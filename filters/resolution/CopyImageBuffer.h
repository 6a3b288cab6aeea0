#pragma once

#include <nuvek/core/Box.h>

#include <algorithm>

namespace Nuvek {

/// \brief Copies the part srcBox of a channel-planar buffer of extent srcExtent into a channel-planar
/// buffer of extent dstExtent, the box's minimum landing at dstPos.
///
/// Both buffers are in region-buffer layout: channel c of src starts at c * srcExtent.prod(), channel
/// c of dst at c * dstExtent.prod(), x fastest, then y, then z. Values are converted from TSource to
/// TDestination by static_cast.
///
/// The destination side is clipped: where dstPos is negative, srcBox's minimum moves up by the
/// overhang and dstPos becomes 0; where the box would run past dstExtent, its maximum moves down. When
/// nothing is left, or dstPos lies past dstExtent on an axis, nothing is copied. The source side is
/// not clipped: srcBox must lie inside srcExtent.
///
/// One shortcut copies without any of this: when srcExtent equals dstExtent, srcBox.min and dstPos
/// are the origin and srcBox.max equals srcExtent itself (one past the last voxel on every axis), the
/// first srcBox.getSize() values of src are copied to the start of dst, whatever numChannels says.
/// That count is the box's size, not the extent's size times the channels, and both buffers must hold
/// at least that many values for this call.
///
/// Neither src nor dst may overlap the other. Thread-safe as far as the two buffers are.
template <typename TSource, typename TDestination>
void copyImageBuffer(TSource* src, Vector const& srcExtent, Box srcBox, TDestination* dst, Vector const& dstExtent,
                     Vector dstPos, long long numChannels)
{
    if (srcExtent == dstExtent && srcBox.min == Vector(0) && srcBox.max == srcExtent && dstPos == Vector(0))
    {
        long long const count = srcBox.getSize();
        for (long long i = 0; i < count; ++i)
            dst[i] = static_cast<TDestination>(src[i]);
        return;
    }

    // Clip against the destination: first the part hanging over its low edge, then its high edge.
    if (dstPos.x < 0)
    {
        srcBox.min.x -= dstPos.x;
        dstPos.x = 0;
    }
    if (dstPos.y < 0)
    {
        srcBox.min.y -= dstPos.y;
        dstPos.y = 0;
    }
    if (dstPos.z < 0)
    {
        srcBox.min.z -= dstPos.z;
        dstPos.z = 0;
    }
    Vector const over = dstPos + srcBox.getExtent() - dstExtent;
    if (over.x > 0)
        srcBox.max.x -= over.x;
    if (over.y > 0)
        srcBox.max.y -= over.y;
    if (over.z > 0)
        srcBox.max.z -= over.z;
    if (dstPos.x > dstExtent.x || dstPos.y > dstExtent.y || dstPos.z > dstExtent.z || srcBox.isEmpty())
        return;

    Vector const e = srcBox.getExtent();
    long long const srcChannel = srcExtent.prod();
    long long const dstChannel = dstExtent.prod();
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < e.z; ++z)
            for (long long y = 0; y < e.y; ++y)
            {
                TSource const* from = src + c * srcChannel + (srcBox.min.z + z) * srcExtent.x * srcExtent.y +
                                      (srcBox.min.y + y) * srcExtent.x + srcBox.min.x;
                TDestination* to = dst + c * dstChannel + (dstPos.z + z) * dstExtent.x * dstExtent.y +
                                   (dstPos.y + y) * dstExtent.x + dstPos.x;
                std::transform(from, from + e.x, to, [](TSource value) { return static_cast<TDestination>(value); });
            }
}

} // namespace Nuvek
