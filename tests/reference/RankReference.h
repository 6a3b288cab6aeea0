#pragma once

// The rank filter as written down: the k x k window of every voxel of the first slice, sorted, and
// the value at the rank taken. The order: numbers ascending with -0.0 before +0.0, then NaNs with
// the sign bit clear by ascending bits, then NaNs with the sign bit set by descending bits.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace NuvekReference {

inline bool rankBefore(double a, double b)
{
    if (!std::isnan(a) && !std::isnan(b))
        return a != b ? a < b : std::signbit(a) && !std::signbit(b);
    if (std::isnan(a) != std::isnan(b))
        return std::isnan(b);
    std::uint64_t bitsA, bitsB;
    std::memcpy(&bitsA, &a, sizeof a);
    std::memcpy(&bitsB, &b, sizeof b);
    if (std::signbit(a) != std::signbit(b))
        return std::signbit(b);
    return std::signbit(a) ? bitsA > bitsB : bitsA < bitsB;
}

/// Writes the first slice of box into out; the other slices become 0.0 when the window box leaves
/// the image, and nothing is written when it lies wholly outside.
inline void rank(Nuvek::Image& input, long long k, long long rankIndex, Nuvek::Box const& box, long long level,
                 std::vector<double>& out)
{
    Nuvek::Box const grown = box.expanded(Nuvek::Vector(k / 2, k / 2, 0));
    Nuvek::Box const clipped = grown.intersected(Nuvek::Box(input.getExtent(level)));
    if (clipped.isEmpty())
        return;
    long long const C = input.getNumChannels(), N = box.getSize(), M = grown.getSize(), W = grown.getExtent().x;
    std::vector<double> in(static_cast<std::size_t>(M * C));
    input.openRegion(in.data(), level, grown);
    if (M != clipped.getSize())
        std::fill(out.begin(), out.end(), 0.0);
    std::vector<double> window;
    for (long long c = 0; c < C; ++c)
        for (long long y = 0; y < box.getExtent().y; ++y)
            for (long long x = 0; x < box.getExtent().x; ++x)
            {
                window.clear();
                for (long long j = 0; j < k; ++j)
                    for (long long i = 0; i < k; ++i)
                        window.push_back(in[c * M + (y + j) * W + x + i]);
                std::sort(window.begin(), window.end(), rankBefore);
                out[c * N + y * box.getExtent().x + x] = window[rankIndex];
            }
}

} // namespace NuvekReference
