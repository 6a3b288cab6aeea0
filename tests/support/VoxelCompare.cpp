#include "support/VoxelCompare.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>

namespace NuvekTest {

namespace {

// The first voxel where equal(expected, actual) fails, named by (x, y, z, c) in box coordinates.
::testing::AssertionResult compare(std::vector<double> const& expected, std::vector<double> const& actual,
                                   Nuvek::Box const& box, std::string const& context,
                                   std::function<bool(double, double)> const& equal)
{
    std::string const prefix = context + (context.empty() ? "" : ": ");
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure()
               << prefix << "sizes differ, expected " << expected.size() << ", actual " << actual.size();
    Nuvek::Vector const extent = box.getExtent();
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        if (equal(expected[i], actual[i]))
            continue;
        long long const voxel = static_cast<long long>(i) % box.getSize();
        return ::testing::AssertionFailure()
               << prefix << "difference at (x, y, z, c) = (" << box.min.x + voxel % extent.x << ", "
               << box.min.y + voxel / extent.x % extent.y << ", " << box.min.z + voxel / (extent.x * extent.y) << ", "
               << static_cast<long long>(i) / box.getSize() << "): expected " << hexfloat(expected[i]) << ", actual "
               << hexfloat(actual[i]);
    }
    return ::testing::AssertionSuccess();
}

// The index into a region buffer of whole of every voxel of part, in region buffer order.
std::vector<std::size_t> indicesOf(Nuvek::Box const& whole, Nuvek::Box const& part, long long numChannels)
{
    std::vector<std::size_t> indices;
    Nuvek::Vector const strides = whole.getExtent().getStrides();
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = part.min.z; z <= part.max.z; ++z)
            for (long long y = part.min.y; y <= part.max.y; ++y)
                for (long long x = part.min.x; x <= part.max.x; ++x)
                    indices.push_back(static_cast<std::size_t>(c * whole.getSize() +
                                                               (Nuvek::Vector(x, y, z) - whole.min).dot(strides)));
    return indices;
}

bool sameOrBothNaN(double a, double b)
{
    return (std::isnan(a) && std::isnan(b)) || bitsOf(a) == bitsOf(b);
}

} // namespace

std::string hexfloat(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

std::uint64_t bitsOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

::testing::AssertionResult sameBits(std::vector<double> const& expected, std::vector<double> const& actual,
                                    Nuvek::Box const& box, std::string const& context)
{
    return compare(expected, actual, box, context, [](double e, double a) { return bitsOf(e) == bitsOf(a); });
}

::testing::AssertionResult sameBitsAnyNaN(std::vector<double> expected, std::vector<double> actual,
                                          Nuvek::Box const& box, std::string const& context)
{
    return compare(expected, actual, box, context, sameOrBothNaN);
}

::testing::AssertionResult nearlyEqual(std::vector<double> const& expected, std::vector<double> const& actual,
                                       Nuvek::Box const& box, double tolerance, std::string const& context)
{
    return compare(expected, actual, box, context, [tolerance](double e, double a) {
        return std::isnan(e) ? std::isnan(a) : (std::isinf(e) ? e == a : std::fabs(e - a) <= tolerance);
    });
}

::testing::AssertionResult sameValue(double expected, double actual, std::string const& context)
{
    if (sameOrBothNaN(expected, actual))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << context << (context.empty() ? "" : ": ") << "expected "
                                         << hexfloat(expected) << ", actual " << hexfloat(actual);
}

std::vector<double> crop(std::vector<double> const& values, Nuvek::Box const& whole, Nuvek::Box const& part,
                         long long numChannels)
{
    std::vector<double> result;
    for (std::size_t i : indicesOf(whole, part, numChannels))
        result.push_back(values[i]);
    return result;
}

void paste(std::vector<double>& values, Nuvek::Box const& whole, std::vector<double> const& partValues,
           Nuvek::Box const& part, long long numChannels)
{
    std::size_t next = 0;
    for (std::size_t i : indicesOf(whole, part, numChannels))
        values[i] = partValues[next++];
}

} // namespace NuvekTest
