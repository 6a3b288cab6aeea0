#include <nuvek/core/Conversions.h>

namespace Nuvek {

namespace {

long long floorDivide(long long value, long long divisor)
{
    long long quotient = value / divisor;
    if ((value % divisor != 0) && (value < 0))
        --quotient;
    return quotient;
}

} // namespace

Box convertToLevel(Box const& box, long long fromLevel, long long toLevel)
{
    long long const steps = fromLevel - toLevel;
    if (steps >= 0)
    {
        long long const factor = 1LL << steps;
        return Box(Vector(box.min.x * factor, box.min.y * factor, box.min.z),
                   Vector((box.max.x + 1) * factor - 1, (box.max.y + 1) * factor - 1, box.max.z));
    }
    long long const factor = 1LL << -steps;
    return Box(Vector(floorDivide(box.min.x, factor), floorDivide(box.min.y, factor), box.min.z),
               Vector(floorDivide(box.max.x, factor), floorDivide(box.max.y, factor), box.max.z));
}

} // namespace Nuvek
