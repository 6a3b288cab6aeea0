#pragma once

// Optical-density unmixing and per-voxel processing over selected channels, one operation at a time.

#include <nuvek/core/Image.h>

#include <cmath>
#include <functional>
#include <vector>

namespace NuvekReference {

// -log10 of the transmitted share of 256; values below 1, and NaN, count as 1.
inline double opticalDensity(double value)
{
    double const raised = std::isnan(value) || value < 1.0 ? 1.0 : value;
    return -std::log10(raised * 0.00390625);
}

// One voxel: the weighted density sum d, then 1 - min(1, 10^-d).
inline double unmix(std::vector<double> const& values, std::vector<double> const& weights)
{
    double d = 0.0;
    for (std::size_t i = 0; i < weights.size(); ++i)
        d = d + opticalDensity(values[i]) * weights[i];
    double t = std::pow(10.0, -d);
    if (!(t < 1.0))
        t = 1.0;
    return 1.0 - t;
}

// Voxels of box inside the image get process(the values of the given channels, in that order); the
// others 0.0.
inline std::vector<double> processRegion(Nuvek::Image& input, long long level, Nuvek::Box const& box,
                                         std::vector<long long> const& channels,
                                         std::function<double(std::vector<double> const&)> const& process)
{
    Nuvek::Vector const extent = input.getExtent(level);
    std::vector<double> all(static_cast<std::size_t>(box.getSize() * input.getNumChannels()));
    input.openRegion(all.data(), level, box);
    std::vector<double> out, values(channels.size());
    long long index = 0;
    for (long long z = box.min.z; z <= box.max.z; ++z)
        for (long long y = box.min.y; y <= box.max.y; ++y)
            for (long long x = box.min.x; x <= box.max.x; ++x, ++index)
            {
                bool const inside = x >= 0 && y >= 0 && z >= 0 && x < extent.x && y < extent.y && z < extent.z;
                for (std::size_t k = 0; k < channels.size(); ++k)
                    values[k] = all[static_cast<std::size_t>(channels[k] * box.getSize() + index)];
                out.push_back(inside ? process(values) : 0.0);
            }
    return out;
}

} // namespace NuvekReference
