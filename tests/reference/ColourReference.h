#pragma once

// The matrix product, optical-density unmixing and per-voxel processing over named
// channels, on plain vectors, one operation at a time.

#include <nuvek/core/Box.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace NuvekReference {

using Matrix = std::vector<std::vector<double>>;

inline std::size_t columns(Matrix const& m)
{
    return m.empty() ? 0 : m[0].size();
}

// Callers check the sizes.
inline Matrix multiply(Matrix const& a, Matrix const& b)
{
    Matrix result(a.size(), std::vector<double>(columns(b), 0.0));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < columns(b); ++j)
        {
            double sum = 0.0;
            for (std::size_t k = 0; k < b.size(); ++k)
                sum = sum + a[i][k] * b[k][j];
            result[i][j] = sum;
        }
    return result;
}

inline double opticalDensity(double value)
{
    double const raised = std::isnan(value) || value < 1.0 ? 1.0 : value;
    return -std::log10(raised * 0.00390625);
}

// One voxel: the logarithm taken afresh for every value.
inline double unmix(std::vector<double> const& values, std::vector<double> const& weights)
{
    double d = 0.0;
    for (std::size_t i = 0; i < weights.size(); ++i)
    {
        double const raised = std::isnan(values[i]) || values[i] < 1.0 ? 1.0 : values[i];
        d = d - std::log10(raised * 0.00390625) * weights[i];
    }
    double t = std::pow(10.0, -d);
    if (!(t < 1.0))
        t = 1.0;
    return 1.0 - t;
}

// The pixel-processing walk: `planes` holds the selected channels of box (one plane each, region
// buffer layout); voxels inside `extent` get process(values), the others 0.0.
inline std::vector<double> processRegion(std::vector<std::vector<double>> const& planes, Nuvek::Box const& box,
                                         Nuvek::Vector const& extent,
                                         std::function<double(std::vector<double> const&)> const& process)
{
    std::vector<double> out;
    std::vector<double> values(planes.size());
    std::size_t index = 0;
    for (long long z = box.min.z; z <= box.max.z; ++z)
        for (long long y = box.min.y; y <= box.max.y; ++y)
            for (long long x = box.min.x; x <= box.max.x; ++x, ++index)
            {
                bool const inside = x >= 0 && y >= 0 && z >= 0 && x < extent.x && y < extent.y && z < extent.z;
                if (!inside)
                {
                    out.push_back(0.0);
                    continue;
                }
                for (std::size_t k = 0; k < planes.size(); ++k)
                    values[k] = planes[k][index];
                out.push_back(process(values));
            }
    return out;
}

} // namespace NuvekReference
