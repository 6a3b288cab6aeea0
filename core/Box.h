#pragma once

#include <nuvek/core/Vector.h>

namespace Nuvek {

/// \brief An integer box in voxel coordinates of one resolution level, min and max both inclusive.
///
/// A box whose max lies below its min on any axis is empty and holds no voxels.
class Box
{
public:
    Vector min;
    Vector max;

    /// The empty box from (0, 0, 0) to (-1, -1, -1).
    Box();
    Box(Box const&) = default;
    Box& operator=(Box const&) = default;
    /// The box from the origin to extent - 1: the whole image of that extent.
    explicit Box(Vector const& extent);
    Box(Vector const& min, Vector const& max);

    /// The number of voxels; 0 for an empty box.
    long long getSize() const;
    /// max - min + 1 per axis.
    Vector getExtent() const { return max - min + Vector(1, 1, 1); }
    Box expanded(Vector const& margin) const { return Box(min - margin, max + margin); }
    /// Per axis the larger min and the smaller max; may be empty.
    Box intersected(Box const& other) const;
    bool isEmpty() const { return max.x < min.x || max.y < min.y || max.z < min.z; }
    Box translated(Vector const& offset) const { return Box(min + offset, max + offset); }
    void shift(Vector const& offset);
    /// Whether the position lies inside the box.
    bool contains(Vector const& position) const;

    bool operator==(Box const& other) const { return min == other.min && max == other.max; }
    bool operator!=(Box const& other) const { return !(*this == other); }
};

} // namespace Nuvek
