// Core: boxes and vectors, level conversion, the filter base, the memory image and the channel bank.
#include "support/NuvekTest.h"

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

using Nuvek::Box;
using Nuvek::ChannelBank;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using namespace NuvekTest;

TEST(Vector, ArithmeticIsComponentWise)
{
    Vector a(1, -2, 3);
    Vector const b(10, 20, -30);
    EXPECT_EQ(a + b, Vector(11, 18, -27));
    EXPECT_EQ(a - b, Vector(-9, -22, 33));
    EXPECT_EQ(a * -1, Vector(-1, 2, -3));
    a += b;
    EXPECT_EQ(a, Vector(11, 18, -27));
    a -= b;
    EXPECT_EQ(a, Vector(1, -2, 3));
    EXPECT_EQ(Vector(), Vector(0));
    EXPECT_EQ(Vector(7), Vector(7, 7, 7));
    EXPECT_NE(Vector(1, 2, 3), Vector(1, 2, 4));
}

TEST(Vector, StridesAndDotGiveTheRegionBufferOffset)
{
    Vector const extent(5, 4, 3);
    EXPECT_EQ(extent.getStrides(), Vector(1, 5, 20));
    EXPECT_EQ(extent.prod(), 60);
    // (x, y, z) = (2, 3, 1) lies at 2 + 3 * 5 + 1 * 20.
    EXPECT_EQ(Vector(2, 3, 1).dot(extent.getStrides()), 37);
}

TEST(Box, DefaultBoxIsEmpty)
{
    Box const box;
    EXPECT_TRUE(box.isEmpty());
    EXPECT_EQ(box.getSize(), 0);
}

TEST(Box, SizeAndExtentCountBothEnds)
{
    Box const box(Vector(-2, 3, 0), Vector(2, 3, 1));
    EXPECT_EQ(box.getExtent(), Vector(5, 1, 2));
    EXPECT_EQ(box.getSize(), 10);
    EXPECT_EQ(Box(Vector(4, 3, 2)), Box(Vector(0, 0, 0), Vector(3, 2, 1)));
}

TEST(Box, EmptyOnAnyAxisHasSizeZeroEvenWhenTwoAxesAreNegative)
{
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-1, 5, 5)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-2, -2, 0)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0)).getSize(), 0);
}

TEST(Box, ExpandTranslateShiftIntersect)
{
    Box box(Vector(0, 0, 0), Vector(9, 9, 0));
    EXPECT_EQ(box.expanded(Vector(2, 3, 0)), Box(Vector(-2, -3, 0), Vector(11, 12, 0)));
    EXPECT_EQ(box.translated(Vector(1, -1, 2)), Box(Vector(1, -1, 2), Vector(10, 8, 2)));
    box.shift(Vector(5, 5, 0));
    EXPECT_EQ(box, Box(Vector(5, 5, 0), Vector(14, 14, 0)));
    EXPECT_EQ(box.intersected(Box(Vector(0, 10, 0), Vector(7, 20, 3))), Box(Vector(5, 10, 0), Vector(7, 14, 0)));
    EXPECT_TRUE(box.intersected(Box(Vector(20, 0, 0), Vector(30, 30, 0))).isEmpty());
    EXPECT_TRUE(box != Box());
}

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

TEST(ConvertRGBToHSV, NaNGivesNaNHueInsteadOfACrash)
{
    EXPECT_TRUE(std::isnan(hsv(std::nan(""), 0.5, 0.2).h));
}

namespace {

// An application's own image: only the eight pure operations, each with a distinctive answer.
class PlainImage : public Nuvek::Image
{
public:
    explicit PlainImage(int* deletions = nullptr) : deletions(deletions) {}
    ~PlainImage() override
    {
        if (deletions != nullptr)
            ++*deletions;
    }

    Vector getExtent(long long level) const override { return Vector(10 >> level, 20 >> level, 3); }
    long long getNumChannels() const override { return 2; }
    long long getNumLevels() const override { return 4; }
    Nuvek::ValueRange<double> getValueRange() const override { return Nuvek::ValueRange<double>(-1.5, 7.0); }
    Vector getVoxelSize(long long level) const override { return Vector(100 << level, 100 << level, 500); }
    void openRegion(double* out, long long level, Box const& box) override
    {
        for (long long i = 0; i < box.getSize() * getNumChannels(); ++i)
            out[i] = static_cast<double>(level * 1000 + i);
    }
    std::string getChannelName(long long index) override { return "plain " + std::to_string(index); }
    std::uint64_t getHash() override { return hash; }

    std::uint64_t hash = 41;

private:
    int* deletions;
};

// A filter that changes nothing: everything it answers is the base's forwarding.
class PassFilter : public Nuvek::Filter
{
public:
    PassFilter(Nuvek::Image* input, bool ownsInput) : Nuvek::Filter(input, ownsInput) {}
};

} // namespace

TEST(Image, DefaultsOfTheOptionalOperations)
{
    PlainImage image;
    EXPECT_EQ(image.getURL(), "");
    EXPECT_EQ(image.getTileExtent(), Vector(256, 256, 1));
    EXPECT_EQ(image.getSliceName(3), "");
    EXPECT_EQ(image.getId(), "");
    EXPECT_EQ(image.getGroupId(), "");
    EXPECT_EQ(image.getViewableRepresentation(), &image);
}

TEST(Filter, ForwardsEveryOperationToItsInput)
{
    PlainImage image;
    PassFilter filter(&image, false);
    EXPECT_EQ(filter.getExtent(1), Vector(5, 10, 3));
    EXPECT_EQ(filter.getNumChannels(), 2);
    EXPECT_EQ(filter.getNumLevels(), 4);
    EXPECT_EQ(filter.getValueRange().min, -1.5);
    EXPECT_EQ(filter.getValueRange().max, 7.0);
    EXPECT_EQ(filter.getVoxelSize(2), Vector(400, 400, 500));
    EXPECT_EQ(filter.getTileExtent(), Vector(256, 256, 1));
    EXPECT_EQ(filter.getChannelName(1), "plain 1");
    EXPECT_EQ(filter.getViewableRepresentation(), &image);

    Box const box(Vector(-1, -1, 0), Vector(0, 0, 0));
    std::vector<double> values(8);
    filter.openRegion(values.data(), 2, box);
    EXPECT_EQ(values[0], 2000.0);
    EXPECT_EQ(values[7], 2007.0);
}

TEST(Filter, HashFollowsTheInputStamp)
{
    PlainImage image;
    PassFilter inner(&image, false);
    PassFilter outer(&inner, false);
    std::uint64_t const first = outer.getHash();
    EXPECT_EQ(outer.getHash(), first);
    image.hash = 99;
    EXPECT_NE(outer.getHash(), first);
    std::uint64_t const second = outer.getHash();
    EXPECT_EQ(outer.getHash(), second);
}

TEST(Filter, DeletesItsInputOnlyWhenItOwnsIt)
{
    int deletions = 0;
    {
        PlainImage kept(&deletions);
        PassFilter filter(&kept, false);
    }
    EXPECT_EQ(deletions, 1); // only kept's own destructor
    deletions = 0;
    {
        PassFilter outer(new PassFilter(new PlainImage(&deletions), true), true);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(Filter, NullInputIsRejected)
{
    try
    {
        PassFilter filter(nullptr, true);
        FAIL() << "a filter without input was built";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Cannot instantiate a filter without an input image.");
    }
}

TEST(LockGuard, SerialisesWorkOnOneLock)
{
    Nuvek::Lock lock;
    long long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&]() {
            for (int i = 0; i < 20000; ++i)
            {
                Nuvek::LockGuard guard(lock);
                ++counter;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);
}

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
