#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/HarrisEigenvaluesFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "neighbourhood/NeighbourhoodTestHelpers.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using Nuvek::Box;
using Nuvek::HarrisEigenvaluesFilter;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

TEST(HarrisEigenvaluesFilter, EvenOrNonPositiveKernelSizeIsRejected)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    for (long long k : {0LL, 2LL, -3LL})
        EXPECT_EQ(messageOf([&] { HarrisEigenvaluesFilter(&image, k, false); }), "Kernel size must be odd.") << k;
    // The input and the inner filters are released when construction fails (the leak checker watches this).
    EXPECT_THROW(HarrisEigenvaluesFilter(new MemoryImage(Vector(2, 2, 1), 1), 4, true), std::runtime_error);
}

TEST(HarrisEigenvaluesFilter, AsksInputForBoxGrownBySobelAndBlurMargins)
{
    std::mt19937_64 random(71);
    NuvekTest::RecordingImage recording(NuvekTest::randomImage(random, Vector(30, 30, 1), 1));
    HarrisEigenvaluesFilter filter(&recording, 5, false);
    openWhole(filter, 1, Box(Vector(3, 4, 0), Vector(8, 9, 0)));
    ASSERT_EQ(recording.requests().size(), 2u);
    for (NuvekTest::Request const& request : recording.requests())
    {
        EXPECT_EQ(request.box, Box(Vector(0, 1, 0), Vector(11, 12, 0)));
        EXPECT_EQ(request.level, 1);
    }
}

TEST(HarrisEigenvaluesFilter, RampGivesFourAndZeroAndConstantGivesZeros)
{
    Vector const extent(20, 20, 1);
    std::vector<double> ramp, constant(400, 9.0);
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            ramp.push_back(static_cast<double>(x));
    MemoryImage rampImage(extent, 1, ramp), constantImage(extent, 1, constant);
    Box const inside(Vector(5, 5, 0), Vector(14, 14, 0));
    long long const n = inside.getSize();
    HarrisEigenvaluesFilter onRamp(&rampImage, 5, false);
    std::vector<double> const out = openWhole(onRamp, 0, inside);
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(static_cast<std::size_t>(n), 4.0),
                                       std::vector<double>(out.begin(), out.begin() + n), inside, 1e-12));
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(static_cast<std::size_t>(n), 0.0),
                                       std::vector<double>(out.begin() + n, out.end()), inside, 1e-12));
    HarrisEigenvaluesFilter onConstant(&constantImage, 3, false);
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(std::vector<double>(static_cast<std::size_t>(2 * n), 0.0),
                                          openWhole(onConstant, 0, inside), inside));
}

TEST(HarrisEigenvaluesFilter, ChannelsNamesAndRange)
{
    MemoryImage image(Vector(4, 4, 1), 2);
    image.setValueRange({-2.0, 7.0});
    HarrisEigenvaluesFilter filter(&image, 3, false);
    EXPECT_EQ(filter.getNumChannels(), 4);
    EXPECT_EQ(filter.getChannelName(0), "");
    // The index equal to the channel count is accepted on purpose.
    EXPECT_EQ(filter.getChannelName(4), "");
    std::string const invalid = "Invalid channel index. Cannot determine its name.";
    EXPECT_EQ(messageOf([&] { filter.getChannelName(-1); }), invalid);
    EXPECT_EQ(messageOf([&] { filter.getChannelName(5); }), invalid);
    EXPECT_EQ(filter.getValueRange().min, -2.0);
    EXPECT_EQ(filter.getValueRange().max, 7.0);
}

TEST(HarrisEigenvaluesFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(72);
    long long const kernels[] = {1, 3, 5, 9};
    for (int round = 0; round < 40; ++round)
    {
        long long const numChannels = 1 + round % 2;
        auto source = NuvekTest::randomImage(random, Vector(36, 30, 2), numChannels, {-50.0, 50.0, 0.003});
        long long const k = kernels[round % 4];
        long long const level = round % 3;
        HarrisEigenvaluesFilter filter(source.get(), k, false);
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), 18, 2);
        std::string const context =
            "round " + std::to_string(round) + " k " + std::to_string(k) + " level " + std::to_string(level);
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::harris(*source, level, box, k),
                                              openWhole(filter, level, box), box, context));
    }
}

TEST(HarrisEigenvaluesFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(73);
    auto source = NuvekTest::randomImage(random, Vector(45, 38, 1), 1, {0.0, 255.0, 0.0});
    Nuvek::ClampingFilter clamped(source.get(), false);
    HarrisEigenvaluesFilter filter(&clamped, 7, false);
    Box const box(Vector(45, 38, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads : {1, 3})
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(whole,
                                              NuvekTest::openTiled(filter, 0, box, {11, 12, 30}, {6, 25}, threads), box,
                                              "threads " + std::to_string(threads)));
}
