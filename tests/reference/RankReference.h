#pragma once

// The rank filter step by step: a window of k * k values per voxel of the first slice, fully sorted,
// and the value at the rank taken. The order: numbers ascending with -0.0 before +0.0, then NaNs with
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
    bool const nanA = std::isnan(a), nanB = std::isnan(b);
    if (!nanA && !nanB)
    {
        if (a != b)
            return a < b;
        return std::signbit(a) && !std::signbit(b);
    }
    if (nanA != nanB)
        return nanB;
    std::uint64_t bitsA, bitsB;
    std::memcpy(&bitsA, &a, sizeof a);
    std::memcpy(&bitsB, &b, sizeof b);
    bool const negativeA = std::signbit(a), negativeB = std::signbit(b);
    if (negativeA != negativeB)
        return negativeB;
    return negativeA ? bitsA > bitsB : bitsA < bitsB;
}

// out is the caller's buffer as passed in (so that untouched voxels can be checked).
inline void rank(Nuvek::Image& input, long long k, long long rankIndex, Nuvek::Box const& box, long long level,
                 std::vector<double>& out)
{
    long long const h = k / 2;
    Nuvek::Box const inBox(box.min - Nuvek::Vector(h, h, 0), box.max + Nuvek::Vector(h, h, 0));
    Nuvek::Box const clipped = inBox.intersected(Nuvek::Box(input.getExtent(level)));
    if (clipped.isEmpty())
        return;
    long long const C = input.getNumChannels(), N = box.getSize(), M = inBox.getSize();
    long long const Wx = inBox.getExtent().x, ex = box.getExtent().x, ey = box.getExtent().y;
    std::vector<double> temp(M * C, 0.0);
    input.openRegion(temp.data(), level, inBox);
    if (M != clipped.getSize())
        std::fill(out.begin(), out.begin() + C * N, 0.0);
    std::vector<double> window(k * k);
    for (long long c = 0; c < C; ++c)
        for (long long y = 0; y < ey; ++y)
            for (long long x = 0; x < ex; ++x)
            {
                for (long long j = 0; j < k; ++j)
                    for (long long i = 0; i < k; ++i)
                        window[j * k + i] = temp[c * M + (y + j) * Wx + x + i];
                std::sort(window.begin(), window.end(), rankBefore);
                out[c * N + y * ex + x] = window[rankIndex];
            }
}

} // namespace NuvekReference
