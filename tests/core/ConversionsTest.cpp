#include <nuvek/core/Check.h>
#include <nuvek/core/Conversions.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::Vector;

TEST(Check, ThrowsTheMessageOnlyWhenTheConditionFails)
{
    EXPECT_NO_THROW(Nuvek::check(true, "never"));
    try
    {
        Nuvek::check(false, "Image extents must match");
        FAIL() << "check(false) returned";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Image extents must match");
    }
}

TEST(ConvertToLevel, FinerLevelScalesTheExtentByThePowerOfTwo)
{
    Box const coarse(Vector(3, -2, 4), Vector(5, 1, 6));
    Box const fine = Nuvek::convertToLevel(coarse, 2, 0);
    EXPECT_EQ(fine, Box(Vector(12, -8, 4), Vector(23, 7, 6)));
    EXPECT_EQ(fine.getExtent(), Vector(12, 16, 3));
    EXPECT_EQ(Nuvek::convertToLevel(coarse, 3, 3), coarse);
}

TEST(ConvertToLevel, CoarserLevelCoversTheBoxRoundingDown)
{
    EXPECT_EQ(Nuvek::convertToLevel(Box(Vector(12, -8, 4), Vector(23, 7, 6)), 0, 2),
              Box(Vector(3, -2, 4), Vector(5, 1, 6)));
    // Partial blocks at either end are still covered; negative coordinates round towards minus infinity.
    EXPECT_EQ(Nuvek::convertToLevel(Box(Vector(-1, 1, 0), Vector(5, 6, 0)), 0, 1),
              Box(Vector(-1, 0, 0), Vector(2, 3, 0)));
}

TEST(ConvertToLevel, RoundTripThroughAFinerLevelIsExact)
{
    std::mt19937_64 random(7);
    std::uniform_int_distribution<long long> coordinate(-50, 50);
    for (int i = 0; i < 200; ++i)
    {
        Vector const a(coordinate(random), coordinate(random), coordinate(random));
        Vector const b(coordinate(random), coordinate(random), coordinate(random));
        Box const box(Vector(std::min(a.x, b.x), std::min(a.y, b.y), std::min(a.z, b.z)),
                      Vector(std::max(a.x, b.x), std::max(a.y, b.y), std::max(a.z, b.z)));
        for (long long steps = 0; steps < 4; ++steps)
            EXPECT_EQ(Nuvek::convertToLevel(Nuvek::convertToLevel(box, 5, 5 - steps), 5 - steps, 5), box);
    }
}

namespace {

struct Hsv
{
    double h, s, v;
};

Hsv hsv(double r, double g, double b)
{
    Hsv result{};
    Nuvek::convertRGBToHSV(r, g, b, result.h, result.s, result.v);
    return result;
}

} // namespace

TEST(ConvertRGBToHSV, PrimariesAndGreys)
{
    Hsv const red = hsv(1, 0, 0);
    EXPECT_EQ(red.h, 0.0);
    EXPECT_EQ(red.s, 1.0);
    EXPECT_EQ(red.v, 1.0);
    EXPECT_EQ(hsv(0, 1, 0).h, 120.0);
    EXPECT_EQ(hsv(0, 0, 1).h, 240.0);
    EXPECT_EQ(hsv(1, 1, 0).h, 60.0);
    EXPECT_EQ(hsv(1, 0, 1).h, 300.0);
    for (double grey : {0.0, 0.25, 1.0})
    {
        Hsv const result = hsv(grey, grey, grey);
        EXPECT_EQ(result.h, 0.0);
        EXPECT_EQ(result.s, 0.0);
        EXPECT_EQ(result.v, grey);
    }
    Hsv const half = hsv(0.5, 0.25, 0.25);
    EXPECT_EQ(half.h, 0.0);
    EXPECT_EQ(half.s, 0.5);
    EXPECT_EQ(half.v, 0.5);
}

TEST(ConvertRGBToHSV, HueStaysBelow360AndInRangeOnRandomColours)
{
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 100000; ++i)
    {
        double const r = unit(random);
        Hsv const result = hsv(r, r * 1e-17, r * 2e-17 + (i % 7 == 0 ? 0.0 : unit(random) * 1e-3));
        EXPECT_GE(result.h, 0.0);
        EXPECT_LT(result.h, 360.0);
        EXPECT_GE(result.s, 0.0);
        EXPECT_LE(result.s, 1.0);
    }
    // A magenta-red a hair below 360 degrees.
    EXPECT_LT(hsv(1.0, 0.0, 1e-12).h, 360.0);
}

TEST(ConvertRGBToHSV, NaNGivesNaNHueInsteadOfACrash)
{
    EXPECT_TRUE(std::isnan(hsv(std::nan(""), 0.5, 0.2).h));
}
