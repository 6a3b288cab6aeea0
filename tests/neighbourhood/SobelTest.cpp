#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/SobelFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "neighbourhood/NeighbourhoodTestHelpers.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::SobelMagnitudeFilter;
using Nuvek::SobelVectorFilter;
using Nuvek::Vector;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

TEST(SobelFilter, KernelSizeBelowOneAndEvenSizesAreRejected)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    for (long long k : {0LL, -1LL, -4LL})
    {
        EXPECT_EQ(messageOf([&] { SobelVectorFilter(&image, k, false); }), "Kernel size must be at least 1.") << k;
        EXPECT_EQ(messageOf([&] { SobelMagnitudeFilter(&image, k, false); }), "Kernel size must be at least 1.") << k;
    }
    for (long long k : {2LL, 6LL})
        EXPECT_EQ(messageOf([&] { SobelVectorFilter(&image, k, false); }), "Kernel size must be odd.") << k;
    // An owned input is released when construction fails (the leak checker watches this).
    EXPECT_THROW(SobelMagnitudeFilter(new MemoryImage(Vector(2, 2, 1), 1), 4, true), std::runtime_error);
}

TEST(SobelFilter, EachGradientAsksInputForBoxGrownByHalfKernel)
{
    std::mt19937_64 random(61);
    NuvekTest::RecordingImage recording(NuvekTest::randomImage(random, Vector(30, 30, 1), 1));
    SobelMagnitudeFilter filter(&recording, 5, false);
    openWhole(filter, 1, Box(Vector(3, 4, 0), Vector(8, 9, 0)));
    ASSERT_EQ(recording.requests().size(), 2u);
    for (NuvekTest::Request const& request : recording.requests())
    {
        EXPECT_EQ(request.box, Box(Vector(1, 2, 0), Vector(10, 11, 0)));
        EXPECT_EQ(request.level, 1);
    }
}

TEST(SobelFilter, RampGivesGradientTwoAlongXAndMagnitudeFour)
{
    Vector const extent(14, 9, 1);
    std::vector<double> values;
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            values.push_back(static_cast<double>(x));
    MemoryImage image(extent, 1, values);
    Box const inside(Vector(2, 2, 0), Vector(11, 6, 0));
    long long const n = inside.getSize();
    SobelVectorFilter vector(&image, 3, false);
    std::vector<double> const gradient = openWhole(vector, 0, inside);
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(static_cast<std::size_t>(n), 2.0),
                                       std::vector<double>(gradient.begin(), gradient.begin() + n), inside, 1e-14));
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(static_cast<std::size_t>(n), 0.0),
                                       std::vector<double>(gradient.begin() + n, gradient.end()), inside, 1e-14));
    SobelMagnitudeFilter magnitude(&image, 3, false);
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(static_cast<std::size_t>(n), 4.0),
                                       openWhole(magnitude, 0, inside), inside, 1e-13));
}

TEST(SobelFilter, ChannelsNamesAndRanges)
{
    MemoryImage one(Vector(4, 4, 1), 1), two(Vector(4, 4, 1), 2);
    one.setValueRange({0.0, 255.0});
    two.setValueRange({-1.0, 3.0});
    SobelVectorFilter vectorOne(&one, 3, false), vectorTwo(&two, 3, false);
    SobelMagnitudeFilter magnitudeOne(&one, 3, false), magnitudeTwo(&two, 5, false);
    EXPECT_EQ(vectorOne.getNumChannels(), 2);
    EXPECT_EQ(vectorTwo.getNumChannels(), 4);
    EXPECT_EQ(magnitudeTwo.getNumChannels(), 2);
    EXPECT_EQ(vectorTwo.getChannelName(0), "VectorX");
    EXPECT_EQ(vectorTwo.getChannelName(1), "VectorY");
    EXPECT_EQ(magnitudeTwo.getChannelName(0), "Magnitude");
    // Only the first input channel's outputs are named, also when more channels exist.
    std::string const invalid = "Invalid channel index. Cannot determine its name.";
    EXPECT_EQ(messageOf([&] { vectorTwo.getChannelName(2); }), invalid);
    EXPECT_EQ(messageOf([&] { vectorOne.getChannelName(-1); }), invalid);
    EXPECT_EQ(messageOf([&] { magnitudeTwo.getChannelName(1); }), invalid);
    EXPECT_EQ(vectorOne.getValueRange().min, -255.0);
    EXPECT_EQ(vectorOne.getValueRange().max, 255.0);
    EXPECT_EQ(magnitudeOne.getValueRange().min, 0.0);
    EXPECT_EQ(magnitudeOne.getValueRange().max, 65025.0);
    // The 3 x 3 range, not scaled for a larger kernel.
    EXPECT_EQ(magnitudeTwo.getValueRange().max, 16.0);
}

TEST(SobelFilter, KernelSizeOneGivesNaNEverywhere)
{
    MemoryImage image(Vector(5, 5, 1), 1, std::vector<double>(25, 2.0));
    SobelVectorFilter filter(&image, 1, false);
    for (double value : openWhole(filter, 0, Box(Vector(5, 5, 1))))
        EXPECT_TRUE(std::isnan(value));
}

TEST(SobelFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(62);
    long long const kernels[] = {1, 3, 5, 7, 21};
    for (int round = 0; round < 60; ++round)
    {
        long long const numChannels = 1 + round % 3;
        auto source = NuvekTest::randomImage(random, Vector(40, 36, 2), numChannels, {-100.0, 100.0, 0.003});
        long long const k = kernels[round % 5];
        long long const level = round % 3;
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), 20, 2);
        std::string const context =
            "round " + std::to_string(round) + " k " + std::to_string(k) + " level " + std::to_string(level);
        SobelVectorFilter vector(source.get(), k, false);
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::sobel(*source, level, box, k, false),
                                              openWhole(vector, level, box), box, context + " vector"));
        SobelMagnitudeFilter magnitude(source.get(), k, false);
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::sobel(*source, level, box, k, true),
                                              openWhole(magnitude, level, box), box, context + " magnitude"));
    }
}

TEST(SobelFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(63);
    auto source = NuvekTest::randomImage(random, Vector(50, 41, 1), 2, {0.0, 255.0, 0.002});
    Nuvek::ClampingFilter clamped(source.get(), false);
    SobelVectorFilter filter(&clamped, 3, false);
    Box const box(Vector(50, 41, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads : {1, 4})
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(whole,
                                              NuvekTest::openTiled(filter, 0, box, {7, 8, 31}, {13, 40}, threads), box,
                                              "threads " + std::to_string(threads)));
}
