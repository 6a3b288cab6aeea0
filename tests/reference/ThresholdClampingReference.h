#pragma once

// Clamp-to-edge, one element at a time, on plain vectors.

#include <nuvek/core/Box.h>

#include <vector>

namespace NuvekReference {

// `values` holds what the input wrote for box; extent is the image's extent at the level.
inline void clampToEdge(std::vector<double>& values, long long numChannels, Nuvek::Box const& box,
                        Nuvek::Vector const& extent)
{
    long long const x0 = box.min.x, y0 = box.min.y, z0 = box.min.z;
    long long const lowX = x0 < 0 ? -x0 : 0, lowY = y0 < 0 ? -y0 : 0, lowZ = z0 < 0 ? -z0 : 0;
    long long const highX = box.max.x + 1 - extent.x > 0 ? box.max.x + 1 - extent.x : 0;
    long long const highY = box.max.y + 1 - extent.y > 0 ? box.max.y + 1 - extent.y : 0;
    long long const highZ = box.max.z + 1 - extent.z > 0 ? box.max.z + 1 - extent.z : 0;
    if (lowX == 0 && lowY == 0 && lowZ == 0 && highX == 0 && highY == 0 && highZ == 0)
        return;
    long long const sx = box.max.x - x0 + 1, sy = box.max.y - y0 + 1, sz = box.max.z - z0 + 1;
    auto at = [&](long long c, long long x, long long y, long long z) -> double& {
        return values[static_cast<std::size_t>(c * sx * sy * sz + z * sx * sy + y * sx + x)];
    };
    for (long long c = 0; c < numChannels; ++c)
    {
        long long const z = lowZ;
        if (x0 < 0)
            for (long long y = lowY; y <= sy - highY - 1; ++y)
                for (long long x = 0; x < lowX; ++x)
                    at(c, x, y, z) = at(c, lowX, y, z);
        if (highX > 0)
            for (long long y = lowY; y <= sy - highY - 1; ++y)
                for (long long x = sx - highX; x < sx; ++x)
                    at(c, x, y, z) = at(c, x - 1, y, z);
        if (y0 < 0)
            for (long long y = 0; y < lowY; ++y)
                for (long long x = 0; x < sx; ++x)
                    at(c, x, y, z) = at(c, x, lowY, z);
        if (highY > 0)
            for (long long y = sy - highY; y < sy; ++y)
                for (long long x = 0; x < sx; ++x)
                    at(c, x, y, z) = at(c, x, y - 1, z);
        if (z0 < 0)
            for (long long zz = 0; zz < lowZ; ++zz)
                for (long long y = 0; y < sy; ++y)
                    for (long long x = 0; x < sx; ++x)
                        at(c, x, y, zz) = at(c, x, y, lowZ);
        if (highZ > 0)
            for (long long zz = sz - highZ; zz < sz; ++zz)
                for (long long y = 0; y < sy; ++y)
                    for (long long x = 0; x < sx; ++x)
                        at(c, x, y, zz) = at(c, x, y, zz - 1);
    }
}

} // namespace NuvekReference
