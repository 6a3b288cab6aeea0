#pragma once

// RGB to quantised HSV and exact colour replacement, voxel by voxel, on plain vectors.

#include <nuvek/core/Conversions.h>

#include <cmath>
#include <cstddef>
#include <map>
#include <vector>

namespace NuvekReference {

// `values` holds the input's region buffer of `size` voxels per plane, three planes or more; the
// input's value range is (low, high).
inline void rgbToQuantisedHSV(std::vector<double>& values, long long size, double low, double high)
{
    double const span = high - low;
    for (long long i = 0; i < size; ++i)
    {
        double& r = values[static_cast<std::size_t>(i)];
        double& g = values[static_cast<std::size_t>(size + i)];
        double& b = values[static_cast<std::size_t>(2 * size + i)];
        r = (r - low) / span;
        g = (g - low) / span;
        b = (b - low) / span;
        double h = 0.0, s = 0.0, v = 0.0;
        Nuvek::convertRGBToHSV(r, g, b, h, s, v);
        h = h / 360.0;
        h = h * 255.0;
        s = s * 255.0;
        v = v * 255.0;
        r = std::floor(h);
        g = std::floor(s);
        b = std::floor(v);
    }
}

// Every voxel compared with every colour in map order; the first that equals it in all channels
// replaces all of them.
inline void replaceColours(std::vector<double>& values, long long size, long long numChannels,
                           std::map<std::vector<double>, std::vector<double>> const& replacements)
{
    for (long long i = 0; i < size; ++i)
        for (auto const& entry : replacements)
        {
            bool matches = true;
            for (long long c = 0; c < numChannels; ++c)
                if (!(values[static_cast<std::size_t>(c * size + i)] == entry.first[static_cast<std::size_t>(c)]))
                    matches = false;
            if (!matches)
                continue;
            for (long long c = 0; c < numChannels; ++c)
                values[static_cast<std::size_t>(c * size + i)] = entry.second[static_cast<std::size_t>(c)];
            break;
        }
}

} // namespace NuvekReference
