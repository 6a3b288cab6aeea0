#pragma once

// The local binary pattern filter as written down: eight neighbours at distance r on the axes and
// d = r / sqrt(2) on the diagonals, a bit set where the neighbour is not below the centre, and the
// class of the code: its count of ones when at most two bits change around the circle, else 9.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <cmath>
#include <vector>

namespace NuvekReference {

inline long long circularUniformClass(long long code)
{
    int changes = 0, ones = 0;
    for (int i = 0; i < 8; ++i)
    {
        ones += (code >> i) & 1;
        changes += ((code >> i) & 1) != ((code >> ((i + 1) % 8)) & 1);
    }
    return changes <= 2 ? ones : 9;
}

/// A box that leaves the image gives 0.0 outside it.
inline std::vector<double> lbp(Nuvek::Image& input, double radius, Nuvek::Box const& box, long long level)
{
    long long const r = static_cast<long long>(std::fabs(radius) + 0.5);
    long long const d = static_cast<long long>(std::fabs(radius) / 1.4142135623730951 + 0.5);
    Nuvek::Box const clipped = box.intersected(Nuvek::Box(input.getExtent(level)));
    std::vector<double> out(static_cast<std::size_t>(box.getSize()), 0.0);
    if (clipped.isEmpty())
        return out;
    Nuvek::Box const grown = clipped.expanded(Nuvek::Vector(r, r, 0));
    std::vector<double> in(static_cast<std::size_t>(grown.getSize()));
    input.openRegion(in.data(), level, grown);
    Nuvek::Vector const g = grown.getExtent(), e = box.getExtent();
    for (long long z = clipped.min.z; z <= clipped.max.z; ++z)
        for (long long y = clipped.min.y; y <= clipped.max.y; ++y)
            for (long long x = clipped.min.x; x <= clipped.max.x; ++x)
            {
                auto at = [&](long long dx, long long dy) {
                    return in[((z - grown.min.z) * g.y + y - grown.min.y + dy) * g.x + x - grown.min.x + dx];
                };
                long long const offsets[8][2] = {{-d, -d}, {0, -r}, {d, -d}, {r, 0}, {d, d}, {0, r}, {-d, d}, {-r, 0}};
                long long code = 0;
                for (int i = 0; i < 8; ++i)
                    code += at(offsets[i][0], offsets[i][1]) >= at(0, 0) ? 1LL << i : 0;
                out[((z - box.min.z) * e.y + y - box.min.y) * e.x + x - box.min.x] =
                    static_cast<double>(circularUniformClass(code));
            }
    return out;
}

} // namespace NuvekReference
