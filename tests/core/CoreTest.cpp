// Core: boxes, level conversion, the filter base, the memory image and the channel bank.
#include "support/NuvekTest.h"

using namespace Nuvek;
using namespace NuvekTest;

TEST(Box, SizeCountsBothEndsIsZeroWhenEmptyOnAnyAxisBoxesMoveAndIntersectAndLevelsScaleRoundingOutwards)
{
    EXPECT_TRUE(Box().isEmpty());
    EXPECT_EQ(Box().getSize(), 0);
    Box const box(Vector(-2, 3, 0), Vector(2, 3, 1));
    EXPECT_EQ(box.getExtent(), Vector(5, 1, 2));
    EXPECT_EQ(box.getSize(), 10);
    EXPECT_EQ(Box(Vector(4, 3, 2)), Box(Vector(0, 0, 0), Vector(3, 2, 1)));
    // Two negative axes must not multiply to a positive size.
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-1, 5, 5)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-2, -2, 0)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0)).getSize(), 0);
    Box moved(Vector(0, 0, 0), Vector(9, 9, 0));
    EXPECT_EQ(moved.expanded(Vector(2, 3, 0)), Box(Vector(-2, -3, 0), Vector(11, 12, 0)));
    EXPECT_EQ(moved.translated(Vector(1, -1, 2)), Box(Vector(1, -1, 2), Vector(10, 8, 2)));
    moved.shift(Vector(5, 5, 0));
    EXPECT_EQ(moved, Box(Vector(5, 5, 0), Vector(14, 14, 0)));
    EXPECT_EQ(moved.intersected(Box(Vector(0, 10, 0), Vector(7, 20, 3))), Box(Vector(5, 10, 0), Vector(7, 14, 0)));
    EXPECT_TRUE(moved.intersected(Box(Vector(20, 0, 0), Vector(30, 30, 0))).isEmpty());
    EXPECT_TRUE(moved != Box());
    Box const coarse(Vector(3, -2, 4), Vector(5, 1, 6));
    EXPECT_EQ(convertToLevel(coarse, 2, 0), Box(Vector(12, -8, 4), Vector(23, 7, 6)));
    EXPECT_EQ(convertToLevel(Box(Vector(12, -8, 4), Vector(23, 7, 6)), 0, 2), coarse);
    EXPECT_EQ(convertToLevel(coarse, 3, 3), coarse);
    // Partial blocks at either end are still covered; negative coordinates round towards minus infinity.
    EXPECT_EQ(convertToLevel(Box(Vector(-1, 1, 0), Vector(5, 6, 0)), 0, 1), Box(Vector(-1, 0, 0), Vector(2, 3, 0)));
    double h = 0, s = 0, v = 0;
    convertRGBToHSV(NaN, 0.5, 0.2, h, s, v);
    EXPECT_TRUE(std::isnan(h));
}

namespace {

// A filter that changes nothing: everything it answers is the base's forwarding.
struct PassFilter : Filter
{
    using Filter::Filter;
};

} // namespace

TEST(Filter, ForwardsEveryOperationFollowsTheInputStampAndDeletesOnlyAnOwnedInput)
{
    std::mt19937_64 random(6);
    auto source = randomImage(random, Vector(10, 20, 3), 2);
    source->setVoxelSize(Vector(3, 5, 7));
    source->setValueRange({-1.5, 7.0});
    RecordingImage image(source); // only the eight pure operations
    EXPECT_EQ(image.getURL() + image.getSliceName(3) + image.getId() + image.getGroupId(), "");
    PassFilter filter(&image, false);
    EXPECT_EQ(filter.getExtent(1), Vector(5, 10, 3));
    EXPECT_EQ(filter.getNumChannels(), 2);
    EXPECT_EQ(filter.getNumLevels(), 4);
    EXPECT_EQ(std::make_pair(filter.getValueRange().min, filter.getValueRange().max), std::make_pair(-1.5, 7.0));
    EXPECT_EQ(filter.getVoxelSize(2), Vector(12, 20, 7));
    EXPECT_EQ(filter.getTileExtent(), Vector(256, 256, 1));
    EXPECT_EQ(filter.getChannelName(1), "Channel 1");
    EXPECT_EQ(filter.getViewableRepresentation(), &image);
    Box const box(Vector(-1, -1, 0), Vector(3, 4, 1));
    EXPECT_EQ(openWhole(filter, 2, box), openWhole(*source, 2, box));
    PassFilter outer(&filter, false);
    std::uint64_t const first = outer.getHash();
    EXPECT_EQ(outer.getHash(), first);
    image.touch();
    std::uint64_t const second = outer.getHash();
    EXPECT_NE(second, first);
    EXPECT_EQ(outer.getHash(), second);

    int deletions = 0;
    DeletionProbe kept(&image, deletions);
    delete new PassFilter(&kept, false);
    EXPECT_EQ(deletions, 0);
    delete new PassFilter(new PassFilter(new DeletionProbe(&image, deletions), true), true);
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(messageOf([] { PassFilter filter(nullptr, true); }),
              "Cannot instantiate a filter without an input image.");
}

TEST(MemoryImage, ServesLevelZeroInRegionLayoutZerosOutsideAndCoarserLevelsAreBlockMeans)
{
    std::vector<double> values(12 * 2);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>(i + 1);
    MemoryImage image(Vector(3, 2, 2), 2, values);
    // Channel 0, slice 1, row 1 is 10 11 12; everything else of the box is outside.
    EXPECT_EQ(openWhole(image, 0, Box(Vector(-1, 1, 1), Vector(3, 2, 1))),
              (std::vector<double>{0, 10, 11, 12, 0, 0, 0, 0, 0, 0, 0, 22, 23, 24, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(openWhole(image, 0, Box(Vector(5, 5, 5), Vector(6, 6, 5))), std::vector<double>(8, 0.0));
    std::mt19937_64 random(3);
    // Odd sizes: the last row or column that does not fill a block is dropped.
    for (Vector const extent : {Vector(13, 7, 2), Vector(16, 9, 1), Vector(5, 31, 3)})
    {
        auto image = randomImage(random, extent, 2);
        std::vector<double> const& values = image->getValues();
        for (long long level = 1; level < image->getNumLevels(); ++level)
        {
            Vector const e = image->getExtent(level);
            EXPECT_EQ(e, Vector(extent.x >> level, extent.y >> level, extent.z));
            // The finer box that convertToLevel names has exactly 2^level times the extent.
            EXPECT_EQ(convertToLevel(Box(e), level, 0).getExtent(), Vector(e.x << level, e.y << level, extent.z));
            long long const f = 1LL << level;
            std::vector<double> expected;
            for (long long c = 0; c < 2; ++c)
                for (long long z = 0; z < e.z; ++z)
                    for (long long y = 0; y < e.y; ++y)
                        for (long long x = 0; x < e.x; ++x)
                        {
                            double sum = 0.0;
                            for (long long by = 0; by < f; ++by)
                                for (long long bx = 0; bx < f; ++bx)
                                    sum += values[static_cast<std::size_t>(
                                        ((c * extent.z + z) * extent.y + y * f + by) * extent.x + x * f + bx)];
                            expected.push_back(sum / static_cast<double>(f * f));
                        }
            EXPECT_TRUE(sameBits(expected, openWhole(*image, level, Box(e)), Box(e), "level " + std::to_string(level)));
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

TEST(MemoryImage, BadInputIsRejectedWithAMessageAndEmptyExtentsAreNot)
{
    std::string const none = "(nothing thrown)";
    EXPECT_EQ(messageOf([] { MemoryImage(Vector(2, 2, 1), 1, std::vector<double>(3)); }),
              "MemoryImage: expected 4 values, got 3.");
    for (Vector const& extent : {Vector(-2, 2, 1), Vector(2, -1, 1), Vector(2, 2, -1)})
        EXPECT_EQ(messageOf([&] { MemoryImage(extent, 1); }), "MemoryImage: the extent must not be negative.");
    for (Vector const& extent : {Vector(0, 2, 1), Vector(2, 0, 1), Vector(2, 2, 0)})
        EXPECT_EQ(messageOf([&] { MemoryImage(extent, 1); }), none);
    EXPECT_EQ(messageOf([] { MemoryImage(Vector(2, 2, 1), -1); }),
              "MemoryImage: the number of channels must not be negative.");
    EXPECT_EQ(messageOf([] { MemoryImage(Vector(2, 2, 1), 0); }), none);
    MemoryImage image(Vector(2, 2, 1), 2);
    EXPECT_EQ(messageOf([&] { image.getChannelName(2); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(messageOf([&] { image.getChannelName(-1); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(messageOf([&] { image.setChannelNames({"one"}); }), "MemoryImage: expected 2 channel names, got 1.");
    EXPECT_EQ(messageOf([&] { image.setValue(Vector(2, 0, 0), 0, 1.0); }),
              "MemoryImage: the position lies outside the image.");
    EXPECT_EQ(messageOf([&] { image.getExtent(-1); }), "MemoryImage: the level must not be negative.");
}

TEST(ChannelBank, ChannelsAreTheImagesChannelsByNameFirstWinsFollowItsStampAndOpenAsABuffer)
{
    std::mt19937_64 random(1);
    auto image = randomImage(random, Vector(6, 5, 2), 3);
    image->setChannelNames({"Red", "Green", "Red"});
    ChannelBank bank(image.get());
    EXPECT_EQ(bank.getImage(), image.get());
    EXPECT_EQ(bank.getChannel("Blue"), nullptr);
    Image* red = bank.getChannel("Red");
    ASSERT_NE(red, nullptr);
    EXPECT_EQ(red->getNumChannels(), 1);
    EXPECT_EQ(red->getChannelName(0), "Red");
    EXPECT_EQ(messageOf([&] { red->getChannelName(1); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(red->getExtent(0), image->getExtent(0));

    Box const box(Vector(-1, 2, 0), Vector(7, 4, 1));
    std::vector<double> const all = openWhole(*image, 0, box);
    auto const size = static_cast<std::ptrdiff_t>(box.getSize());
    EXPECT_EQ(openWhole(*red, 0, box), std::vector<double>(all.begin(), all.begin() + size));
    EXPECT_EQ(openWhole(*bank.getChannel("Green"), 0, box),
              std::vector<double>(all.begin() + size, all.begin() + 2 * size));
    EXPECT_EQ(red->getHash(), image->getHash());
    image->setValue(Vector(0, 0, 0), 0, 1.0);
    EXPECT_EQ(red->getHash(), image->getHash());
    // The values in the order asked are checked through the pixel-processing filters, which read so.
    std::unique_ptr<Buffer<double>> const buffer = bank.openRegion({"Green", "Red", "Green"}, box, 1);
    EXPECT_EQ(buffer->getBounds(), box);
    EXPECT_EQ(buffer->getLevel(), 1);
    EXPECT_EQ(buffer->getNumChannels(), 3);
    EXPECT_EQ(messageOf([&] { bank.openRegion({"Red", "z"}, box, 0); }), "Channel bank has no channel named \"z\".");
}
