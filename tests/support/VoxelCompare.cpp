#include "support/VoxelCompare.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>

namespace NuvekTest {

std::string hexfloat(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

namespace {

std::string describe(Nuvek::Box const& box, long long index, double expected, double actual, std::string const& context)
{
    long long const size = box.getSize();
    Nuvek::Vector const extent = box.getExtent();
    long long const c = index / size;
    long long rest = index % size;
    long long const z = rest / (extent.x * extent.y);
    rest %= extent.x * extent.y;
    long long const y = rest / extent.x;
    long long const x = rest % extent.x;
    std::ostringstream message;
    message << context << (context.empty() ? "" : ": ") << "difference at (x, y, z, c) = (" << box.min.x + x << ", "
            << box.min.y + y << ", " << box.min.z + z << ", " << c << "): expected " << hexfloat(expected)
            << ", actual " << hexfloat(actual);
    return message.str();
}

::testing::AssertionResult sameSize(std::vector<double> const& expected, std::vector<double> const& actual,
                                    std::string const& context)
{
    if (expected.size() == actual.size())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << context << ": sizes differ, expected " << expected.size() << ", actual "
                                         << actual.size();
}

} // namespace

std::uint64_t bitsOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

::testing::AssertionResult sameBits(std::vector<double> const& expected, std::vector<double> const& actual,
                                    Nuvek::Box const& box, std::string const& context)
{
    ::testing::AssertionResult sizes = sameSize(expected, actual, context);
    if (!sizes)
        return sizes;
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (bitsOf(expected[i]) != bitsOf(actual[i]))
            return ::testing::AssertionFailure()
                   << describe(box, static_cast<long long>(i), expected[i], actual[i], context);
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult nearlyEqual(std::vector<double> const& expected, std::vector<double> const& actual,
                                       Nuvek::Box const& box, double tolerance, std::string const& context)
{
    ::testing::AssertionResult sizes = sameSize(expected, actual, context);
    if (!sizes)
        return sizes;
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        double const e = expected[i];
        double const a = actual[i];
        bool const same = std::isnan(e) ? std::isnan(a) : (std::isinf(e) ? e == a : std::fabs(e - a) <= tolerance);
        if (!same)
            return ::testing::AssertionFailure() << describe(box, static_cast<long long>(i), e, a, context);
    }
    return ::testing::AssertionSuccess();
}

std::vector<double> crop(std::vector<double> const& values, Nuvek::Box const& whole, Nuvek::Box const& part,
                         long long numChannels)
{
    std::vector<double> result;
    result.reserve(static_cast<std::size_t>(part.getSize() * numChannels));
    Nuvek::Vector const strides = whole.getExtent().getStrides();
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = part.min.z; z <= part.max.z; ++z)
            for (long long y = part.min.y; y <= part.max.y; ++y)
                for (long long x = part.min.x; x <= part.max.x; ++x)
                    result.push_back(values[static_cast<std::size_t>(
                        c * whole.getSize() + (Nuvek::Vector(x, y, z) - whole.min).dot(strides))]);
    return result;
}

void paste(std::vector<double>& values, Nuvek::Box const& whole, std::vector<double> const& partValues,
           Nuvek::Box const& part, long long numChannels)
{
    Nuvek::Vector const strides = whole.getExtent().getStrides();
    std::size_t i = 0;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = part.min.z; z <= part.max.z; ++z)
            for (long long y = part.min.y; y <= part.max.y; ++y)
                for (long long x = part.min.x; x <= part.max.x; ++x)
                    values[static_cast<std::size_t>(
                        c * whole.getSize() + (Nuvek::Vector(x, y, z) - whole.min).dot(strides))] = partValues[i++];
}

::testing::AssertionResult sameBitsAnyNaN(std::vector<double> expected, std::vector<double> actual,
                                          Nuvek::Box const& box, std::string const& context)
{
    for (std::vector<double>* values : {&expected, &actual})
        for (double& value : *values)
            if (std::isnan(value))
                value = std::numeric_limits<double>::quiet_NaN();
    return sameBits(expected, actual, box, context);
}

::testing::AssertionResult sameValue(double expected, double actual, std::string const& context)
{
    if ((std::isnan(expected) && std::isnan(actual)) || bitsOf(expected) == bitsOf(actual))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << context << (context.empty() ? "" : ": ") << "expected "
                                         << hexfloat(expected) << ", actual " << hexfloat(actual);
}

} // namespace NuvekTest
