#pragma once

// Channel selection and concatenation on region buffers, plane by plane and value by value.

#include <cstddef>
#include <vector>

namespace NuvekReference {

// Planes first to first + count - 1 of a region buffer of `size` voxels per plane.
inline std::vector<double> selectChannels(std::vector<double> const& values, long long size, long long first,
                                          long long count)
{
    std::vector<double> result;
    for (long long c = first; c < first + count; ++c)
        for (long long i = 0; i < size; ++i)
            result.push_back(values[static_cast<std::size_t>(c * size + i)]);
    return result;
}

// The planes of every buffer, buffer after buffer.
inline std::vector<double> concatenate(std::vector<std::vector<double>> const& buffers)
{
    std::vector<double> result;
    for (std::vector<double> const& buffer : buffers)
        for (double value : buffer)
            result.push_back(value);
    return result;
}

} // namespace NuvekReference
