#pragma once

// The sliding histogram as written down: per voxel, the count of every bin over its k x k window
// of what the input wrote (first channel), then bin 0 cleared over the slabs the filter clears
// when the box leaves the image.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <cmath>
#include <vector>

namespace NuvekReference {

/// (value - low) / width truncated toward zero, into [0, bins - 1]; NaN in bin 0.
inline long long histogramBin(double value, double low, double width, long long bins)
{
    double const t = std::trunc((value - low) / width);
    if (std::isnan(t) || t < 0.0)
        return 0;
    return t > static_cast<double>(bins - 1) ? bins - 1 : static_cast<long long>(t);
}

/// The bin width is (high - low + 1) / bins.
inline std::vector<double> histogram(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k,
                                     long long bins, double low, double high)
{
    double const width = (high - low + 1.0) / static_cast<double>(bins);
    long long const h = k / 2;
    Nuvek::Box const grown = box.expanded(Nuvek::Vector(h, h, 0));
    std::vector<double> in(static_cast<std::size_t>(grown.getSize() * input.getNumChannels()));
    input.openRegion(in.data(), level, grown);
    Nuvek::Vector const e = box.getExtent(), g = grown.getExtent(), image = input.getExtent(level);
    bool const inside = box.intersected(Nuvek::Box(image)).getSize() >= box.getSize();
    std::vector<double> out(static_cast<std::size_t>(bins * box.getSize()), 0.0);
    for (long long z = 0; z < e.z; ++z)
        for (long long y = 0; y < e.y; ++y)
            for (long long x = 0; x < e.x; ++x)
            {
                long long const at = (z * e.y + y) * e.x + x;
                for (long long dy = 0; dy < k; ++dy)
                    for (long long dx = 0; dx < k; ++dx)
                        out[histogramBin(in[(z * g.y + y + dy) * g.x + x + dx], low, width, bins) * box.getSize() +
                            at] += 1.0;
                // The slabs reach one voxel past the outside strip at the low sides and start
                // box.max - extent + 1 voxels into the box at the high sides.
                bool const cleared = (box.min.x < 0 && x <= -box.min.x) || (box.min.y < 0 && y <= -box.min.y) ||
                                     (box.min.z < 0 && z <= -box.min.z) ||
                                     (box.max.x >= image.x && x >= image.x + 1 - box.max.x) ||
                                     (box.max.y >= image.y && y >= image.y + 1 - box.max.y) ||
                                     (box.max.z >= image.z && z >= image.z + 1 - box.max.z);
                if (!inside && cleared)
                    out[at] = 0.0;
            }
    return out;
}

} // namespace NuvekReference
