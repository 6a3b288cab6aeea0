#pragma once

// The distance transform as defined: per channel, over the first slice of the box grown by the
// cap m, the least squared distance plus seed, as dx^2 + (dy^2 + seed). Taking the least over
// columns first and then over rows gives the same value as a search over every voxel, since adding
// a number keeps the order.

#include <nuvek/core/Box.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace NuvekReference {

/// work holds what the input wrote for the grown box. Seeds: over the first 1 / numChannels of the
/// grown box's voxels 0.0 where a voxel differs from value, else 1e20; beyond, the value as read.
/// The overlap of box and image, from the box's first voxel, gets the root, capped at m (NaN too).
inline void distanceTransform(std::vector<double>& out, std::vector<double> work, Nuvek::Box const& box,
                              Nuvek::Vector const& levelExtent, long long numChannels, double value, long long m)
{
    Nuvek::Box const grown = box.expanded(Nuvek::Vector(m, m, 0));
    long long const W = grown.getExtent().x, H = grown.getExtent().y, N = box.getSize();
    Nuvek::Vector const written = box.intersected(Nuvek::Box(levelExtent)).getExtent();
    double const cap = static_cast<double>(m);
    for (long long c = 0; c < numChannels; ++c)
    {
        double* const seeds = work.data() + c * grown.getSize();
        for (long long p = 0; p < std::min(grown.getSize() / numChannels, W * H); ++p)
            seeds[p] = seeds[p] == value ? 1e20 : 0.0;
        std::vector<double> columns(static_cast<std::size_t>(W * H), std::numeric_limits<double>::infinity());
        for (long long y = 0; y < H; ++y)
            for (long long x = 0; x < W; ++x)
                for (long long from = 0; from < H; ++from)
                    columns[y * W + x] = std::min(columns[y * W + x],
                                                  static_cast<double>((y - from) * (y - from)) + seeds[from * W + x]);
        for (long long y = 0; y < written.y; ++y)
            for (long long x = 0; x < written.x; ++x)
            {
                double best = std::numeric_limits<double>::infinity();
                for (long long from = 0; from < W; ++from)
                    best = std::min(best,
                                    static_cast<double>((x + m - from) * (x + m - from)) + columns[(y + m) * W + from]);
                double const distance = std::sqrt(best);
                out[c * N + y * box.getExtent().x + x] = distance < cap ? distance : cap;
            }
    }
}

} // namespace NuvekReference
