#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>
#include <nuvek/filters/pixelwise/ThresholdFilter.h>

#include "reference/ThresholdClampingReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using Nuvek::Box;
using Nuvek::ClampingFilter;
using Nuvek::ThresholdFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

// Level-0 value v(x, y, z, c) = 1000c + 100z + 10y + x, easy to read in a failure.
std::shared_ptr<Nuvek::MemoryImage> coordinateImage(Vector const& extent, long long numChannels)
{
    std::vector<double> values;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < extent.y; ++y)
                for (long long x = 0; x < extent.x; ++x)
                    values.push_back(static_cast<double>(1000 * c + 100 * z + 10 * y + x));
    return std::make_shared<Nuvek::MemoryImage>(extent, numChannels, values);
}

long long clampInto(long long value, long long extent)
{
    return value < 0 ? 0 : (value >= extent ? extent - 1 : value);
}

} // namespace

TEST(ThresholdFilter, ValueAtThresholdIsHighAndNaNIsLow)
{
    Nuvek::MemoryImage image(Vector(5, 1, 1), 1, {0.5, 1.0, 1.5, std::nan(""), -INFINITY});
    ThresholdFilter filter(&image, 1.0, -7.0, 3.0, false);
    EXPECT_EQ(openWhole(filter, 0, Box(Vector(5, 1, 1))), (std::vector<double>{-7, 3, 3, -7, -7}));
}

TEST(ThresholdFilter, RangeIsTheTwoOutputsUnsorted)
{
    Nuvek::MemoryImage image(Vector(1, 1, 1), 1);
    ThresholdFilter filter(&image, 0.5, 1.0, 0.0, false);
    EXPECT_EQ(filter.getValueRange().min, 1.0);
    EXPECT_EQ(filter.getValueRange().max, 0.0);
}

TEST(ThresholdFilter, MatchesReferenceOnAllChannelsAndForwardsTheRequest)
{
    std::mt19937_64 random(21);
    auto source = NuvekTest::randomImage(random, Vector(40, 30, 3), 3, {-10.0, 10.0, 0.05});
    NuvekTest::RecordingImage recording(source);
    ThresholdFilter filter(&recording, 0.0, 0.0, 1.0, false);
    for (int i = 0; i < 20; ++i)
    {
        Box const box = NuvekTest::randomBox(random, source->getExtent(0), 25, 3);
        long long const level = i % 3;
        recording.clearRequests();
        std::vector<double> expected = openWhole(*source, level, box);
        NuvekReference::threshold(expected, 0.0, 0.0, 1.0);
        EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, level, box), box));
        ASSERT_EQ(recording.requests().size(), 1u);
        EXPECT_EQ(recording.requests()[0].box, box);
        EXPECT_EQ(recording.requests()[0].level, level);
    }
    EXPECT_EQ(filter.getNumChannels(), 3);
    EXPECT_EQ(filter.getChannelName(2), "Channel 2");
}

TEST(ClampingFilter, BoxInsideTheImageIsTheInputUnchanged)
{
    std::mt19937_64 random(22);
    auto source = NuvekTest::randomImage(random, Vector(20, 20, 3), 2, {-1.0, 1.0, 0.1});
    ClampingFilter filter(source.get(), false);
    Box const box(Vector(2, 3, 0), Vector(19, 19, 2));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, 0, box), openWhole(filter, 0, box), box));
}

TEST(ClampingFilter, FrameAroundASingleSliceRepeatsEdgesAndCorners)
{
    Vector const extent(4, 3, 1);
    auto source = coordinateImage(extent, 2);
    ClampingFilter filter(source.get(), false);
    Box const box(Vector(-2, -2, 0), Vector(extent.x + 1, extent.y + 1, 0));
    std::vector<double> const out = openWhole(filter, 0, box);
    std::vector<double> expected;
    for (long long c = 0; c < 2; ++c)
        for (long long y = box.min.y; y <= box.max.y; ++y)
            for (long long x = box.min.x; x <= box.max.x; ++x)
                expected.push_back(
                    static_cast<double>(1000 * c + 10 * clampInto(y, extent.y) + clampInto(x, extent.x)));
    EXPECT_TRUE(NuvekTest::sameBits(expected, out, box));
}

TEST(ClampingFilter, DeeperBoxesClampXAndYInTheFirstInsideSliceOnly)
{
    Vector const extent(3, 3, 3);
    auto source = coordinateImage(extent, 1);
    ClampingFilter filter(source.get(), false);
    // z from -1 to 3: slice 0 and 4 of the box lie outside, slices 1 to 3 inside.
    Box const box(Vector(-1, 0, -1), Vector(3, 2, 3));
    std::vector<double> const out = openWhole(filter, 0, box);
    auto at = [&](long long x, long long y, long long z) {
        return out[static_cast<std::size_t>((z - box.min.z) * 15 + (y - box.min.y) * 5 + (x - box.min.x))];
    };
    // Slice 0 of the image: x margins clamped.
    EXPECT_EQ(at(-1, 1, 0), 10.0);
    EXPECT_EQ(at(3, 1, 0), 12.0);
    // Slices 1 and 2: the margins keep what the source wrote outside its extent (0.0).
    EXPECT_EQ(at(-1, 1, 1), 0.0);
    EXPECT_EQ(at(3, 2, 2), 0.0);
    EXPECT_EQ(at(1, 1, 2), 211.0);
    // Outside slices copy the nearest inside slice, margins and all.
    EXPECT_EQ(at(-1, 1, -1), 10.0);
    EXPECT_EQ(at(3, 2, 3), 0.0);
    EXPECT_EQ(at(1, 2, 3), 221.0);
}

TEST(ClampingFilter, MatchesReferenceOnRandomOverlappingBoxes)
{
    std::mt19937_64 random(23);
    for (int round = 0; round < 60; ++round)
    {
        long long const numChannels = 1 + round % 4;
        Vector const extent(1 + round % 9, 1 + (round * 7) % 11, 1 + round % 3);
        auto source = NuvekTest::randomImage(random, extent, numChannels, {-5.0, 5.0, 0.05});
        NuvekTest::RecordingImage recording(source);
        ClampingFilter filter(&recording, false);
        for (long long level = 0; level < 2; ++level)
        {
            Vector const levelExtent = source->getExtent(level);
            if (levelExtent.x < 1 || levelExtent.y < 1)
                continue;
            Box const box = NuvekTest::randomOverlappingBox(random, levelExtent, 14, 4);
            std::vector<double> expected = openWhole(*source, level, box);
            NuvekReference::clampToEdge(expected, numChannels, box, levelExtent);
            recording.clearRequests();
            std::string const context = "round " + std::to_string(round) + " level " + std::to_string(level);
            EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, level, box), box, context));
            ASSERT_EQ(recording.requests().size(), 1u);
            EXPECT_EQ(recording.requests()[0].box, box);
        }
    }
}

TEST(ClampingFilter, BoxWhollyBesideTheImageTakesTheNearestEdgeValues)
{
    Vector const extent(4, 3, 2);
    auto source = coordinateImage(extent, 2);
    ClampingFilter filter(source.get(), false);
    for (Box const box : {Box(Vector(-5, 0, 0), Vector(-2, 4, 0)), Box(Vector(1, 7, -3), Vector(6, 9, -1)),
                          Box(Vector(-3, -3, 2), Vector(-1, -1, 4))})
    {
        std::vector<double> expected;
        for (long long c = 0; c < 2; ++c)
            for (long long z = box.min.z; z <= box.max.z; ++z)
                for (long long y = box.min.y; y <= box.max.y; ++y)
                    for (long long x = box.min.x; x <= box.max.x; ++x)
                        expected.push_back(static_cast<double>(1000 * c + 100 * clampInto(z, extent.z) +
                                                               10 * clampInto(y, extent.y) + clampInto(x, extent.x)));
        EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, 0, box), box));
    }
}

TEST(ClampingFilter, TilesAgreeWithOneLargeRequestOnSingleSlices)
{
    std::mt19937_64 random(24);
    auto source = NuvekTest::randomImage(random, Vector(37, 29, 1), 2, {-1.0, 1.0, 0.02});
    ClampingFilter filter(source.get(), false);
    Box const box(Vector(-6, -4, 0), Vector(41, 33, 0));
    std::vector<double> const whole = openWhole(filter, 0, box);
    // Tiles cut so that every tile still overlaps the image.
    for (int threads = 1; threads <= 4; ++threads)
        EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(filter, 0, box, {3, 17, 30}, {5, 11, 28}, threads),
                                        box, "threads " + std::to_string(threads)));
}
