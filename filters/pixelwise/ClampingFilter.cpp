#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Nuvek {

namespace {

struct Margins
{
    long long lowX, lowY, lowZ, highX, highY, highZ;
};

long long below(long long min)
{
    return min < 0 ? -min : 0;
}

long long beyond(long long max, long long extent)
{
    return max + 1 - extent > 0 ? max + 1 - extent : 0;
}

void copyValues(double* target, double const* source, long long count)
{
    std::memmove(target, source, static_cast<std::size_t>(count) * sizeof(double));
}

// One channel plane, in the order rows' x margins, y margins, z margins.
void clampPlane(double* plane, Vector const& size, Margins const& m)
{
    long long const rowLength = size.x;
    long long const sliceLength = size.x * size.y;
    double* slice = plane + m.lowZ * sliceLength;

    // Pass 1: the x margins of every inside row of the first inside slice.
    if (m.lowX > 0 || m.highX > 0)
        for (long long y = m.lowY; y < size.y - m.highY; ++y)
        {
            double* row = slice + y * rowLength;
            std::fill(row, row + m.lowX, row[m.lowX]);
            double const last = row[size.x - m.highX - 1];
            std::fill(row + size.x - m.highX, row + size.x, last);
        }

    // Pass 2: the y margins of that slice, whole rows.
    for (long long y = 0; y < m.lowY; ++y)
        copyValues(slice + y * rowLength, slice + m.lowY * rowLength, rowLength);
    for (long long y = size.y - m.highY; y < size.y; ++y)
        copyValues(slice + y * rowLength, slice + (y - 1) * rowLength, rowLength);

    // Pass 3: the z margins, whole slices.
    for (long long z = 0; z < m.lowZ; ++z)
        copyValues(plane + z * sliceLength, slice, sliceLength);
    for (long long z = size.z - m.highZ; z < size.z; ++z)
        copyValues(plane + z * sliceLength, plane + (z - 1) * sliceLength, sliceLength);
}

long long clampCoordinate(long long value, long long extent)
{
    return std::min(std::max(value, 0LL), extent - 1);
}

// A box with no voxel inside the image along some axis: every voxel takes the value at its
// coordinates clamped into the image, read from the input separately.
void clampFromNearestInside(Image& input, double* out, long long level, Box const& box, Vector const& extent)
{
    Box const nearest(Vector(clampCoordinate(box.min.x, extent.x), clampCoordinate(box.min.y, extent.y),
                             clampCoordinate(box.min.z, extent.z)),
                      Vector(clampCoordinate(box.max.x, extent.x), clampCoordinate(box.max.y, extent.y),
                             clampCoordinate(box.max.z, extent.z)));
    long long const numChannels = input.getNumChannels();
    std::vector<double> inside(static_cast<std::size_t>(nearest.getSize() * numChannels), 0.0);
    input.openRegion(inside.data(), level, nearest);

    Vector const size = box.getExtent();
    Vector const insideStrides = nearest.getExtent().getStrides();
    for (long long c = 0; c < numChannels; ++c)
    {
        double const* source = inside.data() + c * nearest.getSize();
        double* target = out + c * box.getSize();
        for (long long z = 0; z < size.z; ++z)
            for (long long y = 0; y < size.y; ++y)
                for (long long x = 0; x < size.x; ++x)
                {
                    Vector const at(clampCoordinate(box.min.x + x, extent.x) - nearest.min.x,
                                    clampCoordinate(box.min.y + y, extent.y) - nearest.min.y,
                                    clampCoordinate(box.min.z + z, extent.z) - nearest.min.z);
                    *target++ = source[at.dot(insideStrides)];
                }
    }
}

} // namespace

ClampingFilter::ClampingFilter(Image* input, bool ownsInput) : Filter(input, ownsInput)
{
}

void ClampingFilter::openRegion(double* out, long long level, Box const& box)
{
    input->openRegion(out, level, box);
    if (box.isEmpty())
        return;

    Vector const extent = input->getExtent(level);
    Margins const margins{below(box.min.x),
                          below(box.min.y),
                          below(box.min.z),
                          beyond(box.max.x, extent.x),
                          beyond(box.max.y, extent.y),
                          beyond(box.max.z, extent.z)};
    if (margins.lowX == 0 && margins.lowY == 0 && margins.lowZ == 0 && margins.highX == 0 && margins.highY == 0 &&
        margins.highZ == 0)
        return;
    if (extent.x < 1 || extent.y < 1 || extent.z < 1)
        return;

    Vector const size = box.getExtent();
    if (margins.lowX + margins.highX >= size.x || margins.lowY + margins.highY >= size.y ||
        margins.lowZ + margins.highZ >= size.z)
    {
        clampFromNearestInside(*input, out, level, box, extent);
        return;
    }

    long long const numChannels = input->getNumChannels();
    for (long long c = 0; c < numChannels; ++c)
        clampPlane(out + c * box.getSize(), size, margins);
}

} // namespace Nuvek
