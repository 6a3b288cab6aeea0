#include "core/internal/BlockMeans.h"

#include <vector>

namespace Nuvek {

// Both walks give every destination value by the same operations in the same order; they differ
// only in how they walk memory.

void averageBlocksByDisplacements(double const* src, double* dst, Vector const& extent, long long numChannels,
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
                        sum += src[first + displacement];
                    dst[k * targetChannel + z * target.x * target.y + y * target.x + x] = sum / divisor;
                }
}

// Several columns side by side: their sums are independent, so they advance together (vectorised
// across columns for blocks of 2, interleaved in registers for larger blocks) instead of one long
// chain of additions per voxel. A value of the row is written only after its whole block has been
// read, and every source value still to be read lies at or after it, so src and dst may be the same
// buffer.
void averageBlocksByRows(double const* src, double* dst, Vector const& extent, long long numChannels, long long levels)
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
                double const* block = src + k * sourceChannel + z * sourceSlice + y * f * extent.x;
                double* row = dst + k * targetChannel + z * target.x * target.y + y * target.x;
                if (f == 2)
                {
                    double const* upper = block;
                    double const* lower = block + extent.x;
                    for (long long x = 0; x < target.x; ++x)
                    {
                        double sum = 0.0;
                        sum += upper[2 * x];
                        sum += upper[2 * x + 1];
                        sum += lower[2 * x];
                        sum += lower[2 * x + 1];
                        row[x] = sum / divisor;
                    }
                    continue;
                }
                long long x = 0;
                for (; x + 4 <= target.x; x += 4)
                {
                    double sum0 = 0.0, sum1 = 0.0, sum2 = 0.0, sum3 = 0.0;
                    for (long long by = 0; by < f; ++by)
                    {
                        double const* first = block + by * extent.x + x * f;
                        for (long long bx = 0; bx < f; ++bx)
                        {
                            sum0 += first[bx];
                            sum1 += first[f + bx];
                            sum2 += first[2 * f + bx];
                            sum3 += first[3 * f + bx];
                        }
                    }
                    row[x] = sum0 / divisor;
                    row[x + 1] = sum1 / divisor;
                    row[x + 2] = sum2 / divisor;
                    row[x + 3] = sum3 / divisor;
                }
                for (; x < target.x; ++x)
                {
                    double sum = 0.0;
                    for (long long by = 0; by < f; ++by)
                    {
                        double const* first = block + by * extent.x + x * f;
                        for (long long bx = 0; bx < f; ++bx)
                            sum += first[bx];
                    }
                    row[x] = sum / divisor;
                }
            }
}

void averageBlocks(double const* src, double* dst, Vector const& extent, long long numChannels, long long levels)
{
    // A block of one voxel has no rows to share; the displacement walk is as quick there.
    if (levels == 0)
        averageBlocksByDisplacements(src, dst, extent, numChannels, levels);
    else
        averageBlocksByRows(src, dst, extent, numChannels, levels);
}

} // namespace Nuvek
