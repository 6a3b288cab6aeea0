#include <nuvek/core/Vector.h>

namespace Nuvek {

Vector& Vector::operator+=(Vector const& other)
{
    x += other.x;
    y += other.y;
    z += other.z;
    return *this;
}

Vector& Vector::operator-=(Vector const& other)
{
    x -= other.x;
    y -= other.y;
    z -= other.z;
    return *this;
}

} // namespace Nuvek
