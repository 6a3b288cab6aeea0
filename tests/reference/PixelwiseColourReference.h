#pragma once

// RGB to quantised HSV by the hexcone definition and exact colour replacement, on region buffers.

#include <cmath>
#include <cstddef>
#include <map>
#include <vector>

namespace NuvekReference {

// `values` holds a region buffer of `size` voxels per plane, three planes or more (further planes
// stay); the input's value range is (low, high). Hue in degrees from the largest channel, each
// output quantised to floor(255 * fraction).
inline void rgbToQuantisedHSV(std::vector<double>& values, long long size, double low, double high)
{
    for (long long i = 0; i < size; ++i)
    {
        double& red = values[static_cast<std::size_t>(i)];
        double& green = values[static_cast<std::size_t>(size + i)];
        double& blue = values[static_cast<std::size_t>(2 * size + i)];
        double const r = (red - low) / (high - low), g = (green - low) / (high - low), b = (blue - low) / (high - low);
        double const top = r > g ? (r > b ? r : b) : (g > b ? g : b);
        double const bottom = r < g ? (r < b ? r : b) : (g < b ? g : b);
        double const spread = top - bottom;
        double hue = spread == 0.0 ? 0.0 : spread;
        if (spread > 0.0)
        {
            hue = 60.0 * (top == r ? (g - b) / spread : top == g ? (b - r) / spread + 2.0 : (r - g) / spread + 4.0);
            hue = hue < 0.0 ? hue + 360.0 : hue;
            hue = hue >= 360.0 ? hue - 360.0 : hue;
        }
        red = std::floor(hue / 360.0 * 255.0);
        green = std::floor((top > 0.0 ? spread / top : 0.0) * 255.0);
        blue = std::floor(top * 255.0);
    }
}

// Every voxel compared with every colour in map order; the first equal in all channels (NaN never
// equal, -0.0 equal to 0.0) replaces all of them.
inline void replaceColours(std::vector<double>& values, long long size, long long numChannels,
                           std::map<std::vector<double>, std::vector<double>> const& replacements)
{
    for (long long i = 0; i < size; ++i)
        for (auto const& [from, to] : replacements)
        {
            bool equal = true;
            for (long long c = 0; c < numChannels; ++c)
                equal = equal && values[static_cast<std::size_t>(c * size + i)] == from[static_cast<std::size_t>(c)];
            if (!equal)
                continue;
            for (long long c = 0; c < numChannels; ++c)
                values[static_cast<std::size_t>(c * size + i)] = to[static_cast<std::size_t>(c)];
            break;
        }
}

} // namespace NuvekReference
