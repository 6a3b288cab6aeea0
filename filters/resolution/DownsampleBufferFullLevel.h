#pragma once

#include <nuvek/core/Vector.h>

#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace detail {

// Both passes below give every destination value by the same operations in the same order: a
// double sum that starts at 0.0 and adds the block's values row by row of the block, columns inner,
// then one division by the block's voxel count. They differ only in how they walk memory.

// The block members as displacements from the block's first voxel, visited for every destination
// voxel in turn.
template <typename TSource, typename TDestination>
void averageBlocksByDisplacements(TSource* src, TDestination* dst, Vector const& extent, long long numChannels,
                                  long long levels)
{
    long long const f = 1LL << levels;
    long long const sourceSlice = extent.x * extent.y;
    long long const sourceChannel = extent.prod();
    Vector const target(extent.x / f, extent.y / f, extent.z);
    long long const targetChannel = target.prod();
    // Nothing to write; returning here also keeps the list from growing to f * f for huge blocks.
    if (target.x < 1 || target.y < 1)
        return;

    std::vector<long long> displacements;
    for (long long by = 0; by < f; ++by)
        for (long long bx = 0; bx < f; ++bx)
            displacements.push_back(extent.x * by + bx);
    double const divisor = static_cast<double>(displacements.size());

    for (long long k = 0; k < numChannels; ++k)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < target.y; ++y)
                for (long long x = 0; x < target.x; ++x)
                {
                    long long const first = k * sourceChannel + z * sourceSlice + y * f * extent.x + x * f;
                    double sum = 0.0;
                    for (long long displacement : displacements)
                        sum += static_cast<double>(src[first + displacement]);
                    dst[k * targetChannel + z * target.x * target.y + y * target.x + x] =
                        static_cast<TDestination>(sum / divisor);
                }
}

// One destination row at a time, several columns side by side: their sums are independent, so
// they advance together (vectorised across columns for blocks of 2, interleaved in registers for
// larger blocks) instead of one long chain of additions per voxel. A value of the row is written only
// after its whole block has been read, and every source value still to be read lies at or after it,
// so src and dst may be the same buffer.
template <typename TSource, typename TDestination>
void averageBlocksByRows(TSource* src, TDestination* dst, Vector const& extent, long long numChannels,
                         long long levels)
{
    long long const f = 1LL << levels;
    long long const sourceSlice = extent.x * extent.y;
    long long const sourceChannel = extent.prod();
    Vector const target(extent.x / f, extent.y / f, extent.z);
    long long const targetChannel = target.prod();
    // Nothing to write; returning here also keeps f * f from overflowing for huge blocks.
    if (target.x < 1 || target.y < 1)
        return;
    double const divisor = static_cast<double>(f * f);

    for (long long k = 0; k < numChannels; ++k)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < target.y; ++y)
            {
                TSource const* block = src + k * sourceChannel + z * sourceSlice + y * f * extent.x;
                TDestination* row = dst + k * targetChannel + z * target.x * target.y + y * target.x;
                if (f == 2)
                {
                    TSource const* upper = block;
                    TSource const* lower = block + extent.x;
                    for (long long x = 0; x < target.x; ++x)
                    {
                        double sum = 0.0;
                        sum += static_cast<double>(upper[2 * x]);
                        sum += static_cast<double>(upper[2 * x + 1]);
                        sum += static_cast<double>(lower[2 * x]);
                        sum += static_cast<double>(lower[2 * x + 1]);
                        row[x] = static_cast<TDestination>(sum / divisor);
                    }
                    continue;
                }
                long long x = 0;
                for (; x + 4 <= target.x; x += 4)
                {
                    double sum0 = 0.0, sum1 = 0.0, sum2 = 0.0, sum3 = 0.0;
                    for (long long by = 0; by < f; ++by)
                    {
                        TSource const* first = block + by * extent.x + x * f;
                        for (long long bx = 0; bx < f; ++bx)
                        {
                            sum0 += static_cast<double>(first[bx]);
                            sum1 += static_cast<double>(first[f + bx]);
                            sum2 += static_cast<double>(first[2 * f + bx]);
                            sum3 += static_cast<double>(first[3 * f + bx]);
                        }
                    }
                    row[x] = static_cast<TDestination>(sum0 / divisor);
                    row[x + 1] = static_cast<TDestination>(sum1 / divisor);
                    row[x + 2] = static_cast<TDestination>(sum2 / divisor);
                    row[x + 3] = static_cast<TDestination>(sum3 / divisor);
                }
                for (; x < target.x; ++x)
                {
                    double sum = 0.0;
                    for (long long by = 0; by < f; ++by)
                    {
                        TSource const* first = block + by * extent.x + x * f;
                        for (long long bx = 0; bx < f; ++bx)
                            sum += static_cast<double>(first[bx]);
                    }
                    row[x] = static_cast<TDestination>(sum / divisor);
                }
            }
}

} // namespace detail

/// \brief Reduces a channel-planar buffer of the given extent by 2^levels in x and y: every
/// destination voxel is the mean of a 2^levels x 2^levels block of source voxels.
///
/// The destination extent is (extent.x / 2^levels, extent.y / 2^levels, extent.z) with truncating
/// division, so source rows and columns that do not fill a whole block are not used. Each mean is a
/// double sum starting at 0.0 that adds the block's rows in turn, the columns of a row in turn, and
/// is then divided by the block's voxel count; z slices are never mixed. With levels 0 every value
/// goes through 0.0 + v and a division by 1, so -0.0 comes back as +0.0.
///
/// src and dst may be the same buffer (every destination value lies at or before the source values
/// still to be read); otherwise they must not overlap. Throws std::runtime_error when levels lies
/// outside 0 to 62, where the block size 2^levels does not fit a 64-bit integer.
template <typename TSource, typename TDestination>
void downsampleBufferFullLevel(TSource* src, TDestination* dst, Vector extent, long long numChannels, long long levels)
{
    if (levels < 0)
        throw std::runtime_error("downsampleBufferFullLevel: the number of levels must not be negative.");
    if (levels > 62)
        throw std::runtime_error("downsampleBufferFullLevel: the number of levels must not exceed 62.");
    // A block of one voxel has no rows to share; the displacement walk is as quick there.
    if (levels == 0)
        detail::averageBlocksByDisplacements(src, dst, extent, numChannels, levels);
    else
        detail::averageBlocksByRows(src, dst, extent, numChannels, levels);
}

} // namespace Nuvek
