#include "filters/internal/Absorptance.h"

#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

// The expression the fast paths stand in for, with the C library's pow.
double reference(double density)
{
    return 1.0 - std::min(1.0, std::pow(10.0, -density));
}

std::string hex(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

// Densities where mistakes would show: uniform over the range that needs an exponential and where
// half or more of the light passes (there the result keeps every bit of the power), spread over
// many binades, at the powers of two and the table steps of 10^-d, around 16.5, and the special
// values.
std::vector<double> testDensities()
{
    std::mt19937_64 random(111);
    std::uniform_real_distribution<double> wide(-1.0, 17.0);
    std::uniform_real_distribution<double> light(0.0, 0.302);
    std::uniform_real_distribution<double> exponent(-1070.0, 10.0);
    std::vector<double> densities;
    for (int i = 0; i < 600000; ++i)
    {
        densities.push_back(wide(random));
        densities.push_back(light(random));
        densities.push_back(std::exp2(exponent(random)));
    }
    double const log10Of2 = std::log10(2.0);
    std::uniform_int_distribution<int> step(0, 56000);
    for (int m = 0; m <= 56; ++m)
        for (double at : {m * log10Of2, step(random) * log10Of2 / 1024.0})
        {
            double below = at;
            double above = at;
            for (int ulps = 0; ulps < 4; ++ulps)
            {
                densities.push_back(below);
                densities.push_back(above);
                below = std::nextafter(below, 0.0);
                above = std::nextafter(above, 100.0);
            }
        }
    for (double special : {0.0, -0.0, 16.5, std::nextafter(16.5, 0.0), std::nextafter(16.5, 20.0), 16.26, 16.25,
                           DBL_MIN, DBL_TRUE_MIN, DBL_MAX, -DBL_MAX, HUGE_VAL, -HUGE_VAL, std::nan(""), -std::nan("")})
        densities.push_back(special);
    return densities;
}

} // namespace

TEST(Absorptance, EqualsOneMinusPowBitForBit)
{
    for (double density : testDensities())
    {
        double const expected = reference(density);
        double const actual = Nuvek::absorptance(density);
        ASSERT_EQ(NuvekTest::bitsOf(expected), NuvekTest::bitsOf(actual))
            << "density " << hex(density) << ": expected " << hex(expected) << ", found " << hex(actual);
    }
}

TEST(Absorptance, BlocksOfEveryLengthEqualOneMinusPowBitForBit)
{
    std::vector<double> const densities = testDensities();
    std::vector<double> out(densities.size(), -7.0);
    // Lengths from 0 to a whole block, so that the padding of short blocks is never copied out.
    std::size_t start = 0;
    for (std::size_t length = 0; start < densities.size(); length = (length + 37) % (Nuvek::absorptanceBlockSize + 1))
    {
        std::size_t const count = std::min(length, densities.size() - start);
        std::fill(out.begin() + static_cast<std::ptrdiff_t>(start + count),
                  out.begin() + static_cast<std::ptrdiff_t>(std::min(densities.size(), start + count + 4)), -7.0);
        Nuvek::absorptanceOfBlock(densities.data() + start, out.data() + start, count);
        for (std::size_t i = start + count; i < std::min(densities.size(), start + count + 4); ++i)
            ASSERT_EQ(out[i], -7.0) << "written past a block of " << count;
        start += count;
    }
    for (std::size_t i = 0; i < densities.size(); ++i)
    {
        double const expected = reference(densities[i]);
        ASSERT_EQ(NuvekTest::bitsOf(expected), NuvekTest::bitsOf(out[i]))
            << "density " << hex(densities[i]) << ": expected " << hex(expected) << ", found " << hex(out[i]);
    }
}

TEST(Absorptance, SelfCheckAcceptsThisPlatformsPowAndRefusesOneOffByAUnit)
{
    // The C library's pow stays within the 0.53 units the fast exponential relies on.
    EXPECT_TRUE(
        Nuvek::fastExponentialAgreesWith([](double base, double exponent) { return std::pow(base, exponent); }));
    EXPECT_TRUE(Nuvek::fastExponentialIsUsed());
    // A pow one unit off for densities from 0.1 to 0.11, where every bit of the power reaches the
    // result, and one a unit off at one density in 256 (by its bits) anywhere.
    EXPECT_FALSE(Nuvek::fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return exponent <= -0.1 && exponent >= -0.11 ? std::nextafter(power, 2.0) : power;
    }));
    EXPECT_FALSE(Nuvek::fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return (NuvekTest::bitsOf(exponent) & 0xFF) == 0x5A ? std::nextafter(power, 0.0) : power;
    }));
}

TEST(Absorptance, WithoutTheFastExponentialBlocksGivePowsBits)
{
    std::vector<double> const densities = testDensities();
    for (bool fast : {false, true})
    {
        std::vector<double> out(densities.size(), -7.0);
        for (std::size_t start = 0; start < densities.size(); start += Nuvek::absorptanceBlockSize)
        {
            std::size_t const count = std::min(Nuvek::absorptanceBlockSize, densities.size() - start);
            Nuvek::absorptanceOfBlockUsing(fast, densities.data() + start, out.data() + start, count);
        }
        for (std::size_t i = 0; i < densities.size(); ++i)
            ASSERT_EQ(NuvekTest::bitsOf(reference(densities[i])), NuvekTest::bitsOf(out[i]))
                << (fast ? "fast" : "pow") << " density " << hex(densities[i]);
    }
}
