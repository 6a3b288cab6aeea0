#pragma once

// Voxel-wise difference and sum of two region buffers, one element at a time.

#include <cstddef>
#include <vector>

namespace NuvekReference {

inline std::vector<double> difference(std::vector<double> const& first, std::vector<double> const& second)
{
    std::vector<double> result(first.size());
    for (std::size_t i = 0; i < first.size(); ++i)
        result[i] = first[i] - second[i];
    return result;
}

inline std::vector<double> sum(std::vector<double> const& first, std::vector<double> const& second)
{
    std::vector<double> result(first.size());
    for (std::size_t i = 0; i < first.size(); ++i)
        result[i] = first[i] + second[i];
    return result;
}

} // namespace NuvekReference
