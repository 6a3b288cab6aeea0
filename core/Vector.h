#pragma once

namespace Nuvek {

/// \brief Three signed 64-bit integers: a position, a per-axis size (an "extent"), a margin, a
/// stride or an integer voxel size.
class Vector
{
public:
    long long x = 0;
    long long y = 0;
    long long z = 0;

    Vector() = default;
    /// (v, v, v).
    explicit Vector(long long v) : x(v), y(v), z(v) {}
    Vector(long long x, long long y, long long z) : x(x), y(y), z(z) {}
    Vector(Vector const&) = default;
    Vector& operator=(Vector const&) = default;

    Vector operator+(Vector const& other) const { return Vector(x + other.x, y + other.y, z + other.z); }
    Vector operator-(Vector const& other) const { return Vector(x - other.x, y - other.y, z - other.z); }
    Vector& operator+=(Vector const& other);
    Vector& operator-=(Vector const& other);
    Vector operator*(long long k) const { return Vector(x * k, y * k, z * k); }

    /// (1, x, x*y): the region-buffer strides of a box whose extent is this vector.
    Vector getStrides() const { return Vector(1, x, x * y); }
    long long dot(Vector const& other) const { return x * other.x + y * other.y + z * other.z; }
    long long prod() const { return x * y * z; }

    bool operator==(Vector const& other) const { return x == other.x && y == other.y && z == other.z; }
    bool operator!=(Vector const& other) const { return !(*this == other); }
};

} // namespace Nuvek
