#include <nuvek/filters/pixelwise/VoxelSizeModificationFilter.h>

#include <cstdint>
#include <stdexcept>

namespace Nuvek {

namespace {

// 2^level as a 32-bit signed shift by level modulo 32, widened afterwards: level 31 is -2^31 and
// level 32 is 1 again.
long long levelFactor(long long level)
{
    std::uint32_t const shifted = std::uint32_t{1} << (static_cast<std::uint64_t>(level) & 31u);
    return static_cast<long long>(static_cast<std::int32_t>(shifted));
}

long long scaled(long long size, long long factor)
{
    long long result = 0;
    if (__builtin_mul_overflow(size, factor, &result))
        throw std::runtime_error("The voxel size at this level does not fit in a 64-bit integer.");
    return result;
}

} // namespace

VoxelSizeModificationFilter::VoxelSizeModificationFilter(Image* input, bool ownsInput, Vector voxelSize)
    : Filter(input, ownsInput), voxelSizeAtLevel0(voxelSize)
{
}

VoxelSizeModificationFilter::VoxelSizeModificationFilter(Image* input, bool ownsInput)
    : Filter(input, ownsInput), voxelSizeAtLevel0(input->getVoxelSize(0))
{
}

Vector VoxelSizeModificationFilter::getVoxelSize(long long level) const
{
    long long const factor = levelFactor(level);
    return Vector(scaled(voxelSizeAtLevel0.x, factor), scaled(voxelSizeAtLevel0.y, factor), voxelSizeAtLevel0.z);
}

void VoxelSizeModificationFilter::setVoxelSizeAtLevel0(Vector voxelSize)
{
    voxelSizeAtLevel0 = voxelSize;
}

} // namespace Nuvek
