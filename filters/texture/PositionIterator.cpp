#include <nuvek/filters/texture/PositionIterator.h>

namespace Nuvek {

PositionIterator::PositionIterator(Vector const& extent, Box const& box)
    : extent(extent), box(box.intersected(Box(extent))), strides(extent.getStrides())
{
    if (this->box.isEmpty())
        this->box = Box();
    current = Vector(this->box.min.x - 1, this->box.min.y, this->box.min.z);
}

bool PositionIterator::next(long long& result)
{
    long long const x = current.x;
    current.x += 1;
    if (x >= box.max.x)
    {
        index = 0;
        current.x = box.min.x;
        long long const y = current.y;
        current.y += 1;
        if (y >= box.max.y)
        {
            current.y = box.min.y;
            long long const z = current.z;
            current.z += 1;
            if (z >= box.max.z)
            {
                // Stay at the end: later calls report the end again.
                current = Vector(box.max.x, box.max.y, box.max.z);
                return false;
            }
        }
        index = current.dot(strides);
    }
    else if (index != 0)
        index += 1;
    else
        index = current.dot(strides);
    result = index;
    return true;
}

} // namespace Nuvek
