#pragma once

// Step-by-step distance transform on plain vectors: the one-dimensional lower envelope exactly as
// described, then the filter's threshold, column pass, row pass and copy, each over the whole slice.

#include <nuvek/core/Box.h>

#include <cmath>
#include <cstddef>
#include <vector>

namespace NuvekReference {

inline std::vector<double> dt(std::vector<double> const& f)
{
    long long const n = static_cast<long long>(f.size());
    std::vector<double> d(f.size());
    if (n == 0)
        return d;
    auto at = [](auto& values, long long i) -> auto&
    {
        return values[static_cast<std::size_t>(i)];
    };
    std::vector<long long> v(f.size());
    std::vector<double> z(f.size() + 1);
    long long k = 0;
    v[0] = 0;
    z[0] = -1e20;
    z[1] = +1e20;
    for (long long q = 1; q < n; ++q)
    {
        long long const q2 = q * q;
        long long vk = at(v, k);
        long long vk2 = vk * vk;
        double s = ((at(f, q) + static_cast<double>(q2)) - (at(f, vk) + static_cast<double>(vk2))) /
                   static_cast<double>(2 * q - 2 * vk);
        while (s <= at(z, k))
        {
            k = k - 1;
            // Below the first parabola: the new one replaces it (the bound -1e20 was beaten).
            if (k < 0)
                break;
            vk = at(v, k);
            vk2 = vk * vk;
            s = ((at(f, q) + static_cast<double>(q2)) - (at(f, vk) + static_cast<double>(vk2))) /
                static_cast<double>(2 * q - 2 * vk);
        }
        k = k + 1;
        at(v, k) = q;
        at(z, k) = s;
        at(z, k + 1) = +1e20;
    }
    k = 0;
    for (long long q = 0; q < n; ++q)
    {
        while (at(z, k + 1) < static_cast<double>(q))
            k = k + 1;
        long long const offset = q - at(v, k);
        at(d, q) = static_cast<double>(offset * offset) + at(f, at(v, k));
    }
    return d;
}

// `work` holds what the input wrote for grownBox (box grown by m in x and y); `out` is the caller's
// buffer for box, numChannels * box.getSize() values, of which only the written voxels change.
inline void distanceTransform(std::vector<double>& out, std::vector<double> work, Nuvek::Box const& box,
                              Nuvek::Vector const& levelExtent, long long numChannels, double value, long long m)
{
    if (numChannels < 1)
        return;
    Nuvek::Box const grownBox(box.min - Nuvek::Vector(m, m, 0), box.max + Nuvek::Vector(m, m, 0));
    long long const W = grownBox.max.x - grownBox.min.x + 1;
    long long const H = grownBox.max.y - grownBox.min.y + 1;
    long long const Ng = grownBox.getSize();
    long long const N = box.getSize();
    auto at = [&](long long i) -> double& { return work[static_cast<std::size_t>(i)]; };
    for (long long c = 0; c < numChannels; ++c)
    {
        long long const start = c * Ng;
        // Threshold: the first Ng / C values of the channel.
        for (long long i = 0; i < Ng / numChannels; ++i)
            at(start + i) = at(start + i) == value ? 1e20 : 0.0;
        // Columns of the first slice.
        for (long long x = 0; x < W; ++x)
        {
            std::vector<double> column;
            for (long long y = 0; y < H; ++y)
                column.push_back(at(start + y * W + x));
            std::vector<double> const transformed = dt(column);
            for (long long y = 0; y < H; ++y)
                at(start + y * W + x) = transformed[static_cast<std::size_t>(y)];
        }
        // Rows of the first slice, then square roots.
        for (long long y = 0; y < H; ++y)
        {
            std::vector<double> row;
            for (long long x = 0; x < W; ++x)
                row.push_back(at(start + y * W + x));
            std::vector<double> const transformed = dt(row);
            for (long long x = 0; x < W; ++x)
                at(start + y * W + x) = std::sqrt(transformed[static_cast<std::size_t>(x)]);
        }
        // Copy the block of the overlap's size, from the box's first voxel, capped.
        Nuvek::Box const target = box.intersected(Nuvek::Box(levelExtent));
        long long const Wt = target.max.x - target.min.x + 1;
        long long const Ht = target.max.y - target.min.y + 1;
        long long const Wo = box.max.x - box.min.x + 1;
        double const cap = static_cast<double>(m);
        for (long long y = 0; y < Ht; ++y)
            for (long long x = 0; x < Wt; ++x)
            {
                double const source = at(start + (m + y) * W + (m + x));
                out[static_cast<std::size_t>(c * N + y * Wo + x)] = source < cap ? source : cap;
            }
    }
}

} // namespace NuvekReference
