#pragma once

// The local binary pattern filter step by step: the clipped box, the grown temporary, and per voxel a
// neighbour vector, a code and its class. The class is taken from the circular definition of a
// uniform pattern (at most two changes around the full circle of eight bits), which must agree with
// the library's count of seven neighbouring pairs.

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

inline std::vector<double> lbp(Nuvek::Image& input, double radiusArgument, Nuvek::Box const& box, long long level)
{
    long long const r = static_cast<long long>(std::fabs(radiusArgument) + 0.5);
    long long const d = static_cast<long long>(std::fabs(radiusArgument) / 1.4142135623730951 + 0.5);
    Nuvek::Box const clipped = box.intersected(Nuvek::Box(input.getExtent(level)));
    long long const N = box.getSize();
    std::vector<double> out(N, -12345.0);
    if (clipped.getSize() != N)
        for (double& value : out)
            value = 0.0;
    if (clipped.isEmpty())
        return out;
    Nuvek::Box const expanded(clipped.min - Nuvek::Vector(r, r, 0), clipped.max + Nuvek::Vector(r, r, 0));
    std::vector<double> temp(expanded.getSize(), 0.0);
    input.openRegion(temp.data(), level, expanded);
    Nuvek::Vector const te = expanded.getExtent(), be = box.getExtent();
    auto at = [&](long long x, long long y, long long z) { return temp[(z * te.y + y) * te.x + x]; };
    for (long long z = clipped.min.z; z <= clipped.max.z; ++z)
        for (long long y = clipped.min.y; y <= clipped.max.y; ++y)
            for (long long x = clipped.min.x; x <= clipped.max.x; ++x)
            {
                long long const tx = x - expanded.min.x, ty = y - expanded.min.y, tz = z - expanded.min.z;
                double const centre = at(tx, ty, tz);
                std::vector<double> const n{at(tx - d, ty - d, tz), at(tx, ty - r, tz),     at(tx + d, ty - d, tz),
                                            at(tx + r, ty, tz),     at(tx + d, ty + d, tz), at(tx, ty + r, tz),
                                            at(tx - d, ty + d, tz), at(tx - r, ty, tz)};
                long long code = 0;
                for (int i = 0; i < 8; ++i)
                    if (n[i] >= centre)
                        code += 1LL << i;
                out[((z - box.min.z) * be.y + (y - box.min.y)) * be.x + (x - box.min.x)] =
                    static_cast<double>(circularUniformClass(code));
            }
    return out;
}

} // namespace NuvekReference
