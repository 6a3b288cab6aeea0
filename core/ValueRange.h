#pragma once

namespace Nuvek {

/// \brief The nominal lower and upper end of an image's values.
///
/// No ordering is enforced: min may exceed max (a threshold filter whose low output lies above its
/// high output reports exactly its two outputs).
template <typename T>
class ValueRange
{
public:
    T min;
    T max;

    ValueRange() : min(0), max(0) {}
    ValueRange(ValueRange const&) = default;
    ValueRange& operator=(ValueRange const&) = default;
    ValueRange(T min, T max) : min(min), max(max) {}
};

} // namespace Nuvek
