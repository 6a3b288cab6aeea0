#include "support/ReferenceHarness.h"

#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace NuvekTest {

namespace {

long long between(std::mt19937_64& random, long long low, long long high)
{
    return std::uniform_int_distribution<long long>(low, high)(random);
}

// One span of a box along an axis of the given size: inside, across the low or high border, or
// wholly outside.
std::pair<long long, long long> span(std::mt19937_64& random, long long extent, long long length)
{
    long long const pick = between(random, 0, 3);
    long long min = 0;
    if (pick == 0)
        min = length <= extent ? between(random, 0, extent - length) : -between(random, 0, length - extent);
    else if (pick == 1)
        min = -between(random, 1, length);
    else if (pick == 2)
        min = extent - between(random, 1, std::min(length, extent + 1));
    else
        min = between(random, 0, 1) == 0 ? -length - between(random, 0, 3) : extent + between(random, 0, 3);
    return {min, min + length - 1};
}

} // namespace

long long Draw::integer(long long low, long long high, char const* name)
{
    long long const value = between(random, low, high);
    parameters += std::string(name) + "=" + std::to_string(value) + " ";
    return value;
}

double Draw::number(double low, double high, char const* name)
{
    double const value = std::uniform_real_distribution<double>(low, high)(random);
    parameters += std::string(name) + "=" + hexfloat(value) + " ";
    return value;
}

long long Draw::kernel(char const* name)
{
    long long const pick = between(random, 0, 3);
    long long k = 1;
    if (pick == 1 || pick == 2)
        k = 2 * between(random, 1, 4) + 1;
    else if (pick == 3) // the next odd size above the shorter side, at most 41
        k = std::min((std::min(box.getExtent().x, box.getExtent().y) + 1 + 2 * between(random, 0, 3)) | 1, 41LL);
    parameters += std::string(name) + "=" + std::to_string(k) + " ";
    return k;
}

void expectMatchesReference(MakeFilter const& make, Reference const& reference, HarnessOptions const& options)
{
    static long long const widths[] = {7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65};
    for (int round = 0; round < options.rounds; ++round)
    {
        std::uint64_t const seed = options.seed * 1000003u + static_cast<std::uint64_t>(round);
        std::mt19937_64 random(seed);
        long long const channels = options.channelCounts[static_cast<std::size_t>(
            between(random, 0, static_cast<long long>(options.channelCounts.size()) - 1))];
        long long const slices = between(random, 1, options.maxSlices);
        long long const level = between(random, 0, options.maxLevel);
        Nuvek::Vector const extent(options.width, options.height, slices);
        std::vector<double> values = randomValues(random, extent.prod() * channels, options.valueMix);
        if (options.integerValues)
            for (double& value : values)
                value = std::floor(value);
        if (options.reshapeValues)
            options.reshapeValues(values, random);
        auto input = std::make_shared<Nuvek::MemoryImage>(extent, channels, values);

        Nuvek::Vector const at = input->getExtent(level);
        long long const width = between(random, 0, 1) == 0 ? widths[between(random, 0, 11)] : between(random, 1, 24);
        auto const [x0, x1] = span(random, at.x, width);
        auto const [y0, y1] = span(random, at.y, between(random, 1, 20));
        long long const z0 = between(random, -1, slices - 1);
        long long const z1 = z0 + between(random, 0, 2);
        Nuvek::Box const box(Nuvek::Vector(x0, y0, z0), Nuvek::Vector(x1, y1, z1));

        Draw draw(seed ^ 0x9e3779b97f4a7c15ULL, box);
        std::unique_ptr<Nuvek::Image> filter = make(input.get(), draw);
        std::ostringstream context;
        context << "seed " << seed << " (round " << round << "), level " << level << ", " << channels << " channels, "
                << slices << " slices, box (" << x0 << ", " << y0 << ", " << z0 << ")-(" << x1 << ", " << y1 << ", "
                << z1 << "), " << draw.parameters;
        std::vector<double> const expected = reference(*input, level, box);
        std::vector<double> const actual = openWhole(*filter, level, box);
        if (options.nanBits)
            EXPECT_TRUE(sameBits(expected, actual, box, context.str()));
        else if (options.absoluteTolerance < 0.0)
            EXPECT_TRUE(sameBitsAnyNaN(expected, actual, box, context.str()));
        else
            EXPECT_TRUE(nearlyEqual(expected, actual, box, options.absoluteTolerance, context.str()));
        if (::testing::Test::HasFailure())
            return;
    }
}

} // namespace NuvekTest
