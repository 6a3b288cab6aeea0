#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/LocalNormalizationFilter.h>

#include "reference/ResolutionReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::LocalNormalizationFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

// Bit for bit, except that any NaN matches any NaN (see withOneNaN).
::testing::AssertionResult sameValues(std::vector<double> const& expected, std::vector<double> const& actual,
                                      Box const& box, std::string const& context = "")
{
    return NuvekTest::sameBits(NuvekReference::withOneNaN(expected), NuvekReference::withOneNaN(actual), box, context);
}

} // namespace

TEST(LocalNormalizationFilter, ConstantImageGivesTheMiddleOfTheRangeEverywhere)
{
    Nuvek::MemoryImage image(Vector(40, 24, 2), 2, std::vector<double>(40 * 24 * 2 * 2, 40.0));
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    for (long long backgroundLevel : {0, 2, 3})
    {
        LocalNormalizationFilter filter(&image, backgroundLevel, false);
        for (long long level : {0, 1})
        {
            Box const inside(Vector(0, 0, 0), Vector(39 >> level, 23 >> level, 1));
            EXPECT_EQ(openWhole(filter, level, inside),
                      std::vector<double>(static_cast<std::size_t>(inside.getSize() * 2), 127.5))
                << "background level " << backgroundLevel << " level " << level;
        }
    }
}

TEST(LocalNormalizationFilter, AtTheBackgroundLevelItselfTheBackgroundMixesFourNeighbours)
{
    // v(x, y) = x^2 + 7y: with f = 1 voxel (x, y) sits at the corner shared by the background voxels
    // x - 1, x and y - 1, y, each weighted 1/4, so b is their mean, not v(x, y).
    std::vector<double> values;
    for (long long y = 0; y < 6; ++y)
        for (long long x = 0; x < 6; ++x)
            values.push_back(static_cast<double>(x * x + 7 * y));
    Nuvek::MemoryImage image(Vector(6, 6, 1), 1, values);
    image.setValueRange(Nuvek::ValueRange<double>(-10.0, 90.0));
    LocalNormalizationFilter filter(&image, 0, false);
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(3, 2, 0), Vector(3, 2, 0)));
    double const b = (4.0 + 9.0 + 4.0 + 9.0 + 7.0 + 7.0 + 14.0 + 14.0) / 4.0;
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0], (23.0 - b + 100.0) * 0.5 - 10.0);
}

TEST(LocalNormalizationFilter, AsksForTheBoxAndTheClippedBackgroundBox)
{
    std::mt19937_64 random(81);
    auto source = NuvekTest::randomImage(random, Vector(64, 48, 3), 2);
    NuvekTest::RecordingImage recording(source);
    LocalNormalizationFilter filter(&recording, 3, false);
    Box const box(Vector(-5, 9, 1), Vector(30, 60, 4));
    openWhole(filter, 0, box);
    ASSERT_EQ(recording.requests().size(), 2u);
    EXPECT_EQ(recording.requests()[0].level, 0);
    EXPECT_EQ(recording.requests()[0].box, box);
    EXPECT_EQ(recording.requests()[1].level, 3);
    // trunc(-5 / 8) - 1 = -1 to trunc(30 / 8) + 1 = 4; y 0 to 8; clipped to the 8 x 6 x 3 level 3.
    EXPECT_EQ(recording.requests()[1].box, Box(Vector(0, 0, 1), Vector(4, 5, 2)));
    EXPECT_EQ(filter.getCacheSize(), 5 * 6 * 2 * 2);
}

TEST(LocalNormalizationFilter, WithoutBackgroundVoxelsTheInputComesBackUnchanged)
{
    std::mt19937_64 random(82);
    auto source = NuvekTest::randomImage(random, Vector(64, 64, 1), 2, {-5.0, 5.0, 0.05});
    // Level 9 of a 64 x 64 image has no voxels.
    LocalNormalizationFilter beyondTheLevels(source.get(), 9, false);
    Box const box(Vector(-3, 5, 0), Vector(70, 40, 0));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, 0, box), openWhole(beyondTheLevels, 0, box), box));
    // A box far beside the image: its background box misses level 2 as well.
    LocalNormalizationFilter beside(source.get(), 2, false);
    Box const far(Vector(200, 0, 0), Vector(230, 10, 0));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, 0, far), openWhole(beside, 0, far), far));
    EXPECT_EQ(beside.getCacheSize(), 0);
}

TEST(LocalNormalizationFilter, MatchesTheReferenceOnRandomBoxesAndLevels)
{
    // Requests finer than, at and coarser than the background level: f from 1/4 to 16.
    std::mt19937_64 random(83);
    for (int round = 0; round < 60; ++round)
    {
        long long const numChannels = 1 + round % 4;
        Vector const extent(1 + (round * 17) % 97, 1 + (round * 11) % 83, 1 + round % 3);
        auto image = NuvekTest::randomImage(random, extent, numChannels, {-100.0, 100.0, 0.03});
        if (round % 3 == 0)
            image->setValueRange(Nuvek::ValueRange<double>(-200.0, 50.0));
        long long const backgroundLevel = round % 5;
        LocalNormalizationFilter filter(image.get(), backgroundLevel, false);
        for (long long level = 0; level <= 2; ++level)
        {
            Box const box = NuvekTest::randomBox(random, image->getExtent(level), 40, 4);
            std::vector<double> const expected = NuvekReference::normalizeLocally(*image, backgroundLevel, level, box);
            EXPECT_TRUE(sameValues(expected, openWhole(filter, level, box), box,
                                   "round " + std::to_string(round) + " background level " +
                                       std::to_string(backgroundLevel) + " level " + std::to_string(level)));
        }
    }
}

TEST(LocalNormalizationFilter, SlicesCountFromTheRequestedBoxAndMissingOnesKeepTheInput)
{
    // Two slices of constants 10 and 50, range (0, 100). The box starts one slice before the image:
    // output slice -1 (input 0.0) is normalized against slice 0, slice 0 (input 10) against slice 1,
    // and slice 1 (input 50) has no background slice and keeps its value.
    std::vector<double> values(4 * 4 * 2, 10.0);
    std::fill(values.begin() + 16, values.end(), 50.0);
    Nuvek::MemoryImage image(Vector(4, 4, 2), 1, values);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 100.0));
    LocalNormalizationFilter filter(&image, 1, false);
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(1, 1, -1), Vector(1, 1, 1)));
    EXPECT_EQ(out, (std::vector<double>{(0.0 - 10.0 + 100.0) * 0.5, (10.0 - 50.0 + 100.0) * 0.5, 50.0}));
}

TEST(LocalNormalizationFilter, CacheIsCutTo100000ValuesAndStillServesLaterRequests)
{
    std::mt19937_64 random(84);
    auto image = NuvekTest::randomImage(random, Vector(400, 300, 1), 1);
    LocalNormalizationFilter filter(image.get(), 0, false);
    // At f = 1 the background box is the whole image, 120000 values.
    Box const large(Vector(0, 0, 0), Vector(399, 299, 0));
    std::vector<double> const whole = openWhole(filter, 0, large);
    EXPECT_EQ(filter.getCacheSize(), 100000);
    Box const small(Vector(101, 202, 0), Vector(140, 231, 0));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::crop(whole, large, small, 1), openWhole(filter, 0, small), small));
    EXPECT_EQ(filter.getCacheSize(), 100000);
}

TEST(LocalNormalizationFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(85);
    auto image = NuvekTest::randomImage(random, Vector(150, 122, 2), 2, {-1.0, 1.0, 0.02});
    for (long long backgroundLevel : {1, 3})
    {
        LocalNormalizationFilter filter(image.get(), backgroundLevel, false);
        Box const box(Vector(-5, -3, 0), Vector(152, 130, 1));
        std::vector<double> const whole = openWhole(filter, 0, box);
        // Three threads share the filter.
        std::vector<double> const tiled = NuvekTest::openTiled(filter, 0, box, {1, 8, 23, 101}, {3, 17, 30, 99}, 3);
        EXPECT_TRUE(sameValues(whole, tiled, box, "background level " + std::to_string(backgroundLevel)));
    }
}

TEST(LocalNormalizationFilter, CoordinatesBeyondSixtyFourBitsAreRejected)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    // A request 62 levels coarser than the background level scales its corners by 2^62.
    LocalNormalizationFilter filter(&image, 0, false);
    try
    {
        openWhole(filter, 62, Box(Vector(1, 0, 0), Vector(1, 0, 0)));
        ADD_FAILURE() << "overflowing background box accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(),
                     "LocalNormalizationFilter: the background box lies beyond the range of 64-bit coordinates.");
    }
}
