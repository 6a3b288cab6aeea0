#pragma once

// Internal to the library: not installed.

#include <cmath>
#include <cstddef>
#include <vector>

namespace Nuvek {

/// Where one output coordinate falls between two voxels of a coarser level, f output voxels to one
/// coarse voxel: position / f lies between the coarse centres low + 0.5 and high + 0.5, both clamped
/// into [first, last], with `weight` the share of high.
struct Between
{
    long long low;
    long long high;
    double weight;

    Between(long long position, double f, long long first, long long last)
    {
        double const scaled = static_cast<double>(position) / f;
        long long const below = static_cast<long long>(std::floor(scaled - 0.5));
        low = below < first ? first : (below > last ? last : below);
        high = below + 1 < first ? first : (below + 1 > last ? last : below + 1);
        weight = scaled - (static_cast<double>(low) + 0.5);
    }
};

/// The columns every output column of [outputFirst, outputLast] reads from a coarse row covering
/// [first, last], as offsets in that row, and their weights: they depend on x only, so a call works
/// them out once.
struct BilinearColumns
{
    std::vector<long long> low;
    std::vector<long long> high;
    std::vector<double> weight;
    std::vector<double> complement;

    BilinearColumns(long long outputFirst, long long outputLast, double f, long long first, long long last)
    {
        for (long long x = outputFirst; x <= outputLast; ++x)
        {
            Between const along(x, f, first, last);
            low.push_back(along.low - first);
            high.push_back(along.high - first);
            weight.push_back(along.weight);
            complement.push_back(1 - along.weight);
        }
    }

    /// One coarse row interpolated along x for every output column: wx P(x1) + (1 - wx) P(x0).
    void interpolate(double const* row, double* target) const
    {
        std::size_t const width = weight.size();
        for (std::size_t i = 0; i < width; ++i)
            target[i] = weight[i] * row[high[i]] + complement[i] * row[low[i]];
    }
};

} // namespace Nuvek
