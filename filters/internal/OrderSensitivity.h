#pragma once

// Internal to the library: not installed.

#include <cstdint>
#include <cstring>

namespace Nuvek {

/// Whether value is NaN or -0.0: the values whose place in an order plain comparisons get wrong.
/// Comparisons with NaN fail, and -0.0 compares equal to +0.0 although its bits differ, so where
/// such values meet, the order of the slots decides the result.
inline bool isOrderSensitive(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return (bits & 0x7FFFFFFFFFFFFFFFULL) > 0x7FF0000000000000ULL || bits == 0x8000000000000000ULL;
}

/// Whether any of the values is NaN or -0.0; written on the bits, without branches, so that it
/// vectorises.
inline __attribute__((always_inline)) bool anyOrderSensitive(double const* values, long long count)
{
    std::int64_t found = 0;
    for (long long i = 0; i < count; ++i)
    {
        std::int64_t bits;
        std::memcpy(&bits, &values[i], sizeof bits);
        std::int64_t const magnitude = bits & 0x7FFFFFFFFFFFFFFFLL;
        found |= (magnitude > 0x7FF0000000000000LL ? 1 : 0) | (bits == INT64_MIN ? 1 : 0);
    }
    return found != 0;
}

} // namespace Nuvek
