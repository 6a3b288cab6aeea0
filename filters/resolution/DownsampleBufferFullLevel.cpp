#include <nuvek/filters/resolution/DownsampleBufferFullLevel.h>

#include "core/internal/BlockMeans.h"

namespace Nuvek {

namespace detail {

void averageBlocksOfDoubles(double const* src, double* dst, Vector const& extent, long long numChannels,
                            long long levels)
{
    averageBlocks(src, dst, extent, numChannels, levels);
}

} // namespace detail

} // namespace Nuvek
