#pragma once

// Step-by-step matrix functions, optical-density unmixing and per-voxel processing over named
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

inline Matrix transpose(Matrix const& m)
{
    Matrix result(columns(m), std::vector<double>(m.size(), 0.0));
    for (std::size_t i = 0; i < m.size(); ++i)
        for (std::size_t j = 0; j < columns(m); ++j)
            result[j][i] = m[i][j];
    return result;
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

inline Matrix minor(Matrix const& m, std::size_t row, std::size_t col)
{
    Matrix withoutRow;
    for (std::size_t i = 0; i < m.size(); ++i)
        if (i != row)
            withoutRow.push_back(m[i]);
    for (std::vector<double>& r : withoutRow)
        r.erase(r.begin() + static_cast<std::ptrdiff_t>(col));
    return withoutRow;
}

inline double determinant(Matrix const& m)
{
    if (m.size() == 1)
        return m[0][0];
    if (m.empty())
        return 0.0;
    double det = 0.0;
    for (std::size_t j = 0; j < m.size(); ++j)
    {
        double const sign = j % 2 == 0 ? 1.0 : -1.0;
        double const term = m[0][j] * sign;
        det = det + term * determinant(minor(m, 0, j));
    }
    return det;
}

inline double flipSignBit(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    bits ^= std::uint64_t(1) << 63;
    std::memcpy(&value, &bits, sizeof bits);
    return value;
}

// Square, non-empty input.
inline Matrix inverse(Matrix const& m)
{
    std::size_t const n = m.size();
    double const det = determinant(m);
    Matrix result(n, std::vector<double>(n, 0.0));
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
        {
            double value = determinant(minor(m, j, i)) / det;
            if ((i + j) % 2 == 1)
                value = flipSignBit(value);
            result[i][j] = value;
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

inline Matrix matrixFromColors(Matrix const& colors)
{
    Matrix od(colors.size(), std::vector<double>(columns(colors), 0.0));
    for (std::size_t i = 0; i < colors.size(); ++i)
        for (std::size_t j = 0; j < columns(colors); ++j)
            od[i][j] = opticalDensity(colors[i][j]);
    for (std::vector<double>& row : od)
    {
        double squares = 0.0;
        for (double v : row)
            squares = squares + v * v;
        double const length = std::sqrt(squares);
        for (double& v : row)
            v = v / length;
    }
    Matrix const t = transpose(od);
    Matrix const product = multiply(od, t);
    Matrix const inv = product.empty() || product[0].empty() ? Matrix() : inverse(product);
    return transpose(multiply(t, inv));
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
