#pragma once

// Inputs for the texture filters' tests: values with many ties, both zeros, infinities and NaNs of
// several bit patterns, so that every order-sensitive case occurs in small windows.

#include <nuvek/core/MemoryImage.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace NuvekTest {

inline double nanWithBits(std::uint64_t payload, bool negative)
{
    std::uint64_t const bits =
        (negative ? 0xFFF0000000000000ULL : 0x7FF0000000000000ULL) | (payload & 0xFFFFFFFFFFFFFULL);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

/// Values drawn from a small set of integers, -0.0 and +0.0, +-infinity and NaNs of four patterns
/// (`specialShare` of them special), or, with `ties` false, continuous values in [-50, 50).
inline std::vector<double> trickyValues(std::mt19937_64& random, long long count, double specialShare, bool ties = true)
{
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    std::uniform_real_distribution<double> continuous(-50.0, 50.0);
    std::uniform_int_distribution<int> small(-3, 3);
    std::uniform_int_distribution<int> special(0, 7);
    double const specials[] = {nanWithBits(1ULL << 51, false),
                               nanWithBits(7, false),
                               nanWithBits(1ULL << 51, true),
                               nanWithBits(3, true),
                               INFINITY,
                               -INFINITY,
                               -0.0,
                               0.0};
    std::vector<double> values(static_cast<std::size_t>(count));
    for (double& value : values)
        if (chance(random) < specialShare)
            value = specials[special(random)];
        else
            value = ties ? static_cast<double>(small(random)) : continuous(random);
    return values;
}

inline std::shared_ptr<Nuvek::MemoryImage> trickyImage(std::mt19937_64& random, Nuvek::Vector const& extent,
                                                       long long numChannels, double specialShare, bool ties = true)
{
    return std::make_shared<Nuvek::MemoryImage>(extent, numChannels,
                                                trickyValues(random, extent.prod() * numChannels, specialShare, ties));
}

} // namespace NuvekTest
