#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/MemoryImage.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::ChannelBank;
using Nuvek::Vector;

namespace {

std::vector<double> channelOf(std::vector<double> const& values, long long size, long long channel)
{
    return std::vector<double>(values.begin() + channel * size, values.begin() + (channel + 1) * size);
}

} // namespace

TEST(ChannelBank, ChannelsAreTheImagesChannelsByNameFirstWins)
{
    std::mt19937_64 random(1);
    auto image = NuvekTest::randomImage(random, Vector(6, 5, 2), 3);
    image->setChannelNames({"Red", "Green", "Red"});
    ChannelBank bank(image.get());
    EXPECT_EQ(bank.getImage(), image.get());
    EXPECT_EQ(bank.getChannel("Blue"), nullptr);

    Nuvek::Image* red = bank.getChannel("Red");
    ASSERT_NE(red, nullptr);
    EXPECT_EQ(red->getNumChannels(), 1);
    EXPECT_EQ(red->getChannelName(0), "Red");
    EXPECT_EQ(red->getExtent(0), image->getExtent(0));

    Box const box(Vector(-1, 2, 0), Vector(7, 4, 1));
    std::vector<double> const all = NuvekTest::openWhole(*image, 0, box);
    EXPECT_EQ(NuvekTest::openWhole(*red, 0, box), channelOf(all, box.getSize(), 0));
    EXPECT_EQ(NuvekTest::openWhole(*bank.getChannel("Green"), 0, box), channelOf(all, box.getSize(), 1));
}

TEST(ChannelBank, OpenRegionReturnsTheNamedChannelsInTheOrderAsked)
{
    std::mt19937_64 random(2);
    auto image = NuvekTest::randomImage(random, Vector(9, 4, 1), 3);
    image->setChannelNames({"a", "b", "c"});
    ChannelBank bank(image.get());
    Box const box(Vector(1, -1, 0), Vector(10, 2, 0));
    std::unique_ptr<Nuvek::Buffer<double>> buffer = bank.openRegion({"c", "a", "c"}, box, 1);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->getBounds(), box);
    EXPECT_EQ(buffer->getLevel(), 1);
    ASSERT_EQ(buffer->getNumChannels(), 3);
    std::vector<double> const all = NuvekTest::openWhole(*image, 1, box);
    long long const size = box.getSize();
    for (long long i = 0; i < size; ++i)
    {
        EXPECT_EQ(buffer->getPtr(0)[i], all[static_cast<std::size_t>(2 * size + i)]);
        EXPECT_EQ(buffer->getPtr(1)[i], all[static_cast<std::size_t>(i)]);
        EXPECT_EQ(buffer->getPtr(2)[i], all[static_cast<std::size_t>(2 * size + i)]);
    }
    // All channels in the image's order take the direct path; the values are the same.
    std::unique_ptr<Nuvek::Buffer<double>> const ordered = bank.openRegion({"a", "b", "c"}, box, 1);
    EXPECT_EQ(std::vector<double>(ordered->getPtr(0), ordered->getPtr(0) + 3 * size), all);
    try
    {
        bank.openRegion({"a", "z"}, box, 0);
        FAIL() << "an unknown channel was opened";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Channel bank has no channel named \"z\".");
    }
}

TEST(ChannelBank, ChannelStampIsTheImagesStamp)
{
    Nuvek::MemoryImage image(Vector(2, 2, 1), 2);
    ChannelBank bank(&image);
    Nuvek::Image* channel = bank.getChannel("Channel 1");
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->getHash(), image.getHash());
    image.setValues({1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(channel->getHash(), image.getHash());
    EXPECT_THROW(channel->getChannelName(1), std::runtime_error);
}

TEST(ChannelBank, ConcurrentChannelRequestsGiveTheSerialResult)
{
    std::mt19937_64 random(4);
    auto image = NuvekTest::randomImage(random, Vector(120, 80, 1), 3);
    ChannelBank bank(image.get());
    Nuvek::Image* channel = bank.getChannel("Channel 2");
    Box const box(Vector(-5, -5, 0), Vector(124, 84, 0));
    std::vector<double> const serial = NuvekTest::openWhole(*channel, 0, box);
    EXPECT_TRUE(NuvekTest::sameBits(serial, NuvekTest::openTiled(*channel, 0, box, {13, 40, 77}, {21, 50}, 4), box));
}
