#include <nuvek/core/Conversions.h>
#include <nuvek/core/MemoryImage.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

// Level `level` of one channel from level-0 values: the literal block mean.
double blockMean(std::vector<double> const& values, Vector const& extent, long long c, long long x, long long y,
                 long long z, long long level)
{
    long long const f = 1LL << level;
    double sum = 0.0;
    for (long long by = 0; by < f; ++by)
        for (long long bx = 0; bx < f; ++bx)
            sum += values[static_cast<std::size_t>(c * extent.prod() + z * extent.x * extent.y +
                                                   (y * f + by) * extent.x + x * f + bx)];
    return sum / static_cast<double>(f * f);
}

} // namespace

TEST(MemoryImage, ServesLevelZeroInRegionLayoutAndZerosOutside)
{
    Vector const extent(3, 2, 2);
    std::vector<double> values(12 * 2);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>(i + 1);
    MemoryImage image(extent, 2, values);

    Box const box(Vector(-1, 1, 1), Vector(3, 2, 1));
    std::vector<double> const out = openWhole(image, 0, box);
    // Channel 0, slice 1, row 1 is 10 11 12; everything else of the box is outside.
    std::vector<double> const expected = {0, 10, 11, 12, 0, 0, 0, 0, 0, 0, 0, 22, 23, 24, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(out, expected);

    std::vector<double> const outside = openWhole(image, 0, Box(Vector(5, 5, 5), Vector(6, 6, 5)));
    EXPECT_EQ(outside, std::vector<double>(8, 0.0));
}

TEST(MemoryImage, CoarserLevelsAreBlockMeansAndAgreeWithConvertToLevel)
{
    std::mt19937_64 random(3);
    // Odd sizes: the last row or column that does not fill a block is dropped.
    for (Vector const extent : {Vector(13, 7, 2), Vector(16, 9, 1), Vector(5, 31, 3)})
    {
        auto image = NuvekTest::randomImage(random, extent, 2);
        std::vector<double> const& values = image->getValues();
        for (long long level = 1; level < image->getNumLevels(); ++level)
        {
            Vector const levelExtent = image->getExtent(level);
            EXPECT_EQ(levelExtent, Vector(extent.x >> level, extent.y >> level, extent.z));
            Box const whole(levelExtent);
            // The finer box that convertToLevel names has exactly 2^level times the extent.
            Box const fine = Nuvek::convertToLevel(whole, level, 0);
            EXPECT_EQ(fine.getExtent(), Vector(levelExtent.x << level, levelExtent.y << level, extent.z));
            EXPECT_TRUE(Box(extent).intersected(fine) == fine);

            std::vector<double> const out = openWhole(*image, level, whole);
            std::vector<double> expected;
            for (long long c = 0; c < 2; ++c)
                for (long long z = 0; z < levelExtent.z; ++z)
                    for (long long y = 0; y < levelExtent.y; ++y)
                        for (long long x = 0; x < levelExtent.x; ++x)
                            expected.push_back(blockMean(values, extent, c, x, y, z, level));
            EXPECT_TRUE(NuvekTest::sameBits(expected, out, whole, "level " + std::to_string(level)));
        }
        // Levels stop at the first whose x or y extent is 1.
        Vector const last = image->getExtent(image->getNumLevels() - 1);
        EXPECT_TRUE(last.x == 1 || last.y == 1);
        Vector const beyond = image->getExtent(image->getNumLevels());
        EXPECT_TRUE(beyond.x == 0 || beyond.y == 0);
        EXPECT_EQ(openWhole(*image, image->getNumLevels(), Box(Vector(0, 0, 0), Vector(1, 1, 0))),
                  std::vector<double>(8, 0.0));
    }
}

TEST(MemoryImage, MetadataDefaultsAndSetters)
{
    std::vector<double> values = {3.0, -2.0, std::nan(""), 8.0, 1.0, -std::numeric_limits<double>::infinity()};
    MemoryImage image(Vector(3, 1, 1), 2, values);
    EXPECT_EQ(image.getValueRange().min, -2.0);
    EXPECT_EQ(image.getValueRange().max, 8.0);
    EXPECT_EQ(image.getChannelName(0), "Channel 0");
    EXPECT_EQ(image.getChannelName(1), "Channel 1");
    EXPECT_EQ(image.getVoxelSize(2), Vector(4, 4, 1));

    std::uint64_t stamp = image.getHash();
    EXPECT_EQ(image.getHash(), stamp);
    image.setValueRange(Nuvek::ValueRange<double>(0, 255));
    EXPECT_NE(image.getHash(), stamp);
    stamp = image.getHash();
    image.setValues(std::vector<double>(6, 1000.0));
    EXPECT_NE(image.getHash(), stamp);
    EXPECT_EQ(image.getValueRange().max, 255.0); // a set range stays
    stamp = image.getHash();
    image.setValue(Vector(2, 0, 0), 1, 5.0);
    EXPECT_NE(image.getHash(), stamp);
    EXPECT_EQ(openWhole(image, 0, Box(Vector(2, 0, 0), Vector(2, 0, 0)))[1], 5.0);
    stamp = image.getHash();
    image.setChannelNames({"Red", "Green"});
    EXPECT_NE(image.getHash(), stamp);
    EXPECT_EQ(image.getChannelName(1), "Green");
    image.setVoxelSize(Vector(250, 250, 1000));
    EXPECT_EQ(image.getVoxelSize(1), Vector(500, 500, 1000));
}

TEST(MemoryImage, BadInputIsRejectedWithAMessage)
{
    auto message = [](auto&& action) {
        try
        {
            action();
        }
        catch (std::runtime_error const& error)
        {
            return std::string(error.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(message([] { MemoryImage(Vector(2, 2, 1), 1, std::vector<double>(3)); }),
              "MemoryImage: expected 4 values, got 3.");
    EXPECT_EQ(message([] { MemoryImage(Vector(-2, 2, 1), 1); }), "MemoryImage: the extent must not be negative.");
    MemoryImage image(Vector(2, 2, 1), 2);
    EXPECT_EQ(message([&] { image.getChannelName(2); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(message([&] { image.getChannelName(-1); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(message([&] { image.setChannelNames({"one"}); }), "MemoryImage: expected 2 channel names, got 1.");
    EXPECT_EQ(message([&] { image.setValue(Vector(2, 0, 0), 0, 1.0); }),
              "MemoryImage: the position lies outside the image.");
    EXPECT_EQ(message([&] { image.getExtent(-1); }), "MemoryImage: the level must not be negative.");
}

TEST(MemoryImage, ConcurrentRequestsGiveTheSerialResult)
{
    std::mt19937_64 random(5);
    auto image = NuvekTest::randomImage(random, Vector(300, 200, 2), 3);
    for (long long level = 0; level < 3; ++level)
    {
        Box const box(Vector(-20, -10, 0), Vector(310 >> level, 215 >> level, 1));
        std::vector<double> const serial = openWhole(*image, level, box);
        std::vector<double> const parallel = NuvekTest::openTiled(*image, level, box, {7, 50, 133}, {3, 90}, 4);
        EXPECT_TRUE(NuvekTest::sameBits(serial, parallel, box));
    }
}
