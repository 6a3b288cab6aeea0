#pragma once

#include <nuvek/core/Vector.h>

#include <cstddef>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace Nuvek {

namespace detail {

/// downsampleBufferFullLevel on doubles: the block means the core also computes MemoryImage's
/// levels with. Not for direct use.
void averageBlocksOfDoubles(double const* src, double* dst, Vector const& extent, long long numChannels,
                            long long levels);

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
    if constexpr (std::is_same_v<std::remove_cv_t<TSource>, double> && std::is_same_v<TDestination, double>)
        detail::averageBlocksOfDoubles(src, dst, extent, numChannels, levels);
    else
    {
        Vector const target(extent.x >> levels, extent.y >> levels, extent.z);
        if (target.x < 1 || target.y < 1 || target.z < 1 || numChannels < 1)
            return;
        // Other value types go through doubles: the sums add every value as a double anyway, and the
        // mean is converted once at the end, so the results are the same.
        std::vector<double> values(src, src + extent.prod() * numChannels);
        std::vector<double> means(static_cast<std::size_t>(target.prod() * numChannels));
        detail::averageBlocksOfDoubles(values.data(), means.data(), extent, numChannels, levels);
        for (std::size_t i = 0; i < means.size(); ++i)
            dst[i] = static_cast<TDestination>(means[i]);
    }
}

} // namespace Nuvek
