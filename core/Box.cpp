#include <nuvek/core/Box.h>

#include <algorithm>

namespace Nuvek {

Box::Box() : min(0, 0, 0), max(-1, -1, -1)
{
}

Box::Box(Vector const& extent) : min(0, 0, 0), max(extent - Vector(1, 1, 1))
{
}

Box::Box(Vector const& min, Vector const& max) : min(min), max(max)
{
}

long long Box::getSize() const
{
    // An empty box may have two negative sizes whose product is positive.
    if (isEmpty())
        return 0;
    return getExtent().prod();
}

Box Box::intersected(Box const& other) const
{
    return Box(Vector(std::max(min.x, other.min.x), std::max(min.y, other.min.y), std::max(min.z, other.min.z)),
               Vector(std::min(max.x, other.max.x), std::min(max.y, other.max.y), std::min(max.z, other.max.z)));
}

void Box::shift(Vector const& offset)
{
    min += offset;
    max += offset;
}

bool Box::contains(Vector const& position) const
{
    return position.x >= min.x && position.x <= max.x && position.y >= min.y && position.y <= max.y &&
           position.z >= min.z && position.z <= max.z;
}

} // namespace Nuvek
