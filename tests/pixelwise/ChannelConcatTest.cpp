#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/ChannelFilter.h>
#include <nuvek/filters/pixelwise/ConcatFilter.h>

#include "reference/PixelwiseChannelReference.h"
#include "support/DeletionProbe.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::ChannelFilter;
using Nuvek::ConcatFilter;
using Nuvek::Image;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using NuvekTest::DeletionProbe;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

namespace {

std::shared_ptr<MemoryImage> namedImage(std::vector<std::string> const& names, Vector const& extent = Vector(3, 2, 1))
{
    std::mt19937_64 random(names.size());
    auto image = NuvekTest::randomImage(random, extent, static_cast<long long>(names.size()));
    image->setChannelNames(names);
    return image;
}

class OtherCoarseExtent : public Nuvek::Filter
{
public:
    explicit OtherCoarseExtent(Image* image) : Filter(image, false) {}
    Vector getExtent(long long level) const override
    {
        return level == 0 ? input->getExtent(0) : input->getExtent(level) + Vector(2, 0, 0);
    }
};

std::string const invalidIndex = "Invalid channel index. Cannot determine its name.";

} // namespace

TEST(ChannelFilter, LookupByNameIsExactAndTakesTheLowestIndex)
{
    auto image = namedImage({"Red", "green", "Green", "Green"});
    // Names are looked up at index - firstChannel: index 1 of a selection at channel 1 is channel 0.
    EXPECT_EQ(ChannelFilter(image.get(), "green", false).getChannelName(1), "Red");
    Box const box(image->getExtent(0));
    std::vector<double> const all = openWhole(*image, 0, box);
    ChannelFilter green(image.get(), "Green", false);
    EXPECT_TRUE(
        NuvekTest::sameBits(NuvekReference::selectChannels(all, box.getSize(), 2, 1), openWhole(green, 0, box), box));
    ChannelFilter lower(image.get(), "green", false);
    EXPECT_TRUE(
        NuvekTest::sameBits(NuvekReference::selectChannels(all, box.getSize(), 1, 1), openWhole(lower, 0, box), box));
}

TEST(ChannelFilter, UnknownNamesAreRejectedWithTheNameInQuotes)
{
    auto image = namedImage({"Red", "Green"});
    EXPECT_EQ(messageOf([&] { ChannelFilter(image.get(), "red", false); }), "No channel named \"red\" found.");
    EXPECT_EQ(messageOf([&] { ChannelFilter(image.get(), "Red ", false); }), "No channel named \"Red \" found.");
    MemoryImage empty(Vector(2, 2, 1), 0);
    EXPECT_EQ(messageOf([&] { ChannelFilter(&empty, "", false); }), "No channel named \"\" found.");
}

TEST(ChannelFilter, ChannelNamesAcceptTheCountAndLookUpIndexMinusFirstChannel)
{
    auto image = namedImage({"c0", "c1", "c2"});
    ChannelFilter first(image.get(), 0LL, false);
    EXPECT_EQ(first.getNumChannels(), 1);
    EXPECT_EQ(first.getChannelName(0), "c0");
    EXPECT_EQ(first.getChannelName(1), "c1");
    EXPECT_EQ(messageOf([&] { first.getChannelName(2); }), invalidIndex);
    EXPECT_EQ(messageOf([&] { first.getChannelName(-1); }), invalidIndex);

    ChannelFilter block(image.get(), 1, 2, false);
    EXPECT_EQ(block.getNumChannels(), 2);
    EXPECT_EQ(block.getChannelName(1), "c0");
    EXPECT_EQ(block.getChannelName(2), "c1");
    EXPECT_EQ(messageOf([&] { block.getChannelName(3); }), invalidIndex);
    // Index 0 asks the input for channel -1, which it rejects itself.
    EXPECT_EQ(messageOf([&] { block.getChannelName(0); }), invalidIndex);
}

TEST(ChannelFilter, SelectionsMatchReferenceOnRandomBoxesAndForwardTheRequest)
{
    std::mt19937_64 random(41);
    auto source = NuvekTest::randomImage(random, Vector(19, 23, 3), 4, {-9.0, 9.0, 0.05});
    NuvekTest::RecordingImage recording(source);
    struct Selection
    {
        long long first, count;
    };
    for (Selection const selection :
         {Selection{0, 1}, Selection{3, 1}, Selection{1, 2}, Selection{0, 4}, Selection{1, 3}, Selection{2, 0}})
    {
        ChannelFilter filter(&recording, selection.first, selection.count, false);
        for (int i = 0; i < 8; ++i)
        {
            long long const level = i % 3;
            Box const box = NuvekTest::randomBox(random, source->getExtent(level), 11, 3);
            recording.clearRequests();
            std::vector<double> const expected = NuvekReference::selectChannels(
                openWhole(*source, level, box), box.getSize(), selection.first, selection.count);
            EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, level, box), box,
                                            "first " + std::to_string(selection.first) + " count " +
                                                std::to_string(selection.count)));
            ASSERT_EQ(recording.requests().size(), 1u);
            EXPECT_EQ(recording.requests()[0].box, box);
            EXPECT_EQ(recording.requests()[0].level, level);
        }
    }
    // The single-index constructor.
    ChannelFilter single(source.get(), 2LL, false);
    Box const box(Vector(-2, 3, 1), Vector(20, 9, 2));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::selectChannels(openWhole(*source, 0, box), box.getSize(), 2, 1),
                                    openWhole(single, 0, box), box));
}

TEST(ChannelFilter, EmptyBoxReturnsWithoutAskingTheInput)
{
    auto source = std::make_shared<MemoryImage>(Vector(4, 4, 1), 2);
    NuvekTest::RecordingImage recording(source);
    ChannelFilter filter(&recording, 1LL, false);
    std::vector<double> out(3, -1.25);
    filter.openRegion(out.data(), 0, Box(Vector(2, 2, 0), Vector(1, 3, 0)));
    EXPECT_EQ(out, std::vector<double>(3, -1.25));
    EXPECT_TRUE(recording.requests().empty());
}

TEST(ChannelFilter, SelectionsBeyondTheInputAreRejectedWhenOpenedNotBuilt)
{
    auto source = std::make_shared<MemoryImage>(Vector(4, 4, 1), 3);
    Box const box(Vector(2, 2, 1));
    ChannelFilter pastTheEnd(source.get(), 3LL, false);
    EXPECT_EQ(messageOf([&] { openWhole(pastTheEnd, 0, box); }),
              "Cannot select 1 channels from index 3 of an input with 3 channels.");
    ChannelFilter tooMany(source.get(), 1, 3, false);
    EXPECT_EQ(messageOf([&] { openWhole(tooMany, 0, box); }),
              "Cannot select 3 channels from index 1 of an input with 3 channels.");
    ChannelFilter negative(source.get(), -1LL, false);
    EXPECT_EQ(messageOf([&] { openWhole(negative, 0, box); }),
              "Cannot select 1 channels from index -1 of an input with 3 channels.");
}

TEST(ChannelFilter, VoxelsTheInputLeavesUnwrittenReadZeroEveryTime)
{
    // Some inputs write only part of a request (the distance transform leaves voxels outside the
    // image alone). A selection must then give zeros there, not whatever its work buffer held:
    // found by fuzzing as two equal requests giving different bytes.
    class WritesNothing : public MemoryImage
    {
    public:
        WritesNothing() : MemoryImage(Vector(4, 4, 1), 3) {}
        void openRegion(double*, long long, Box const&) override {}
    };
    WritesNothing input;
    ChannelFilter filter(&input, 1, false);
    Box const box(Vector(0, 0, 0), Vector(63, 63, 0));
    for (int round = 0; round < 3; ++round)
    {
        // Leave junk in freed memory that the filter's work buffer may reuse.
        std::vector<double> junk(static_cast<std::size_t>(3 * box.getSize()), 12345.0);
        junk.clear();
        junk.shrink_to_fit();
        std::vector<double> out(static_cast<std::size_t>(box.getSize()), -1.0);
        filter.openRegion(out.data(), 0, box);
        EXPECT_EQ(out, std::vector<double>(static_cast<std::size_t>(box.getSize()), 0.0)) << "round " << round;
    }
}

TEST(ConcatFilter, ChannelsFollowTheInputsByDataAndByName)
{
    std::mt19937_64 random(42);
    auto two = NuvekTest::randomImage(random, Vector(9, 7, 2), 2, {-3.0, 3.0, 0.05});
    auto one = NuvekTest::randomImage(random, Vector(9, 7, 2), 1, {-3.0, 3.0, 0.05});
    two->setChannelNames({"a", "b"});
    one->setChannelNames({"c"});
    ConcatFilter filter({two.get(), one.get()}, false);
    EXPECT_EQ(filter.getNumChannels(), 3);
    EXPECT_EQ(filter.getChannelName(0), "a");
    EXPECT_EQ(filter.getChannelName(1), "b");
    EXPECT_EQ(filter.getChannelName(2), "c");
    EXPECT_EQ(messageOf([&] { filter.getChannelName(3); }), invalidIndex);
    EXPECT_EQ(messageOf([&] { filter.getChannelName(-1); }), invalidIndex);

    Box const box(Vector(-1, 2, 0), Vector(10, 6, 1));
    std::vector<double> const expected =
        NuvekReference::concatenate({openWhole(*two, 0, box), openWhole(*one, 0, box)});
    EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, 0, box), box));
}

TEST(ConcatFilter, MatchesReferenceOnRandomBoxesWithEveryInputAskedOnce)
{
    std::mt19937_64 random(43);
    Vector const extent(21, 18, 3);
    std::vector<std::shared_ptr<MemoryImage>> sources;
    std::vector<std::unique_ptr<NuvekTest::RecordingImage>> recordings;
    std::vector<Image*> inputs;
    for (long long channels : {1, 3, 0, 2})
    {
        sources.push_back(NuvekTest::randomImage(random, extent, channels, {-5.0, 5.0, 0.05}));
        recordings.push_back(std::make_unique<NuvekTest::RecordingImage>(sources.back()));
        inputs.push_back(recordings.back().get());
    }
    ConcatFilter filter(inputs, true);
    EXPECT_EQ(filter.getNumChannels(), 6);
    for (int i = 0; i < 15; ++i)
    {
        long long const level = i % 3;
        Box const box = NuvekTest::randomBox(random, extent, 10, 3);
        std::vector<std::vector<double>> parts;
        for (auto& recording : recordings)
        {
            recording->clearRequests();
            parts.push_back(openWhole(*recording, level, box));
            recording->clearRequests();
        }
        EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::concatenate(parts), openWhole(filter, level, box), box,
                                        "level " + std::to_string(level)));
        for (auto& recording : recordings)
        {
            ASSERT_EQ(recording->requests().size(), 1u);
            EXPECT_EQ(recording->requests()[0].box, box);
            EXPECT_EQ(recording->requests()[0].level, level);
        }
    }
    Box const box(Vector(-4, -4, 0), Vector(24, 20, 2));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(filter, 1, box),
                                    NuvekTest::openTiled(filter, 1, box, {0, 9, 17}, {3, 11}, 3), box));
}

TEST(ConcatFilter, MismatchedExtentsAtLevelZeroAreRejected)
{
    MemoryImage a(Vector(4, 4, 1), 1), b(Vector(4, 4, 1), 2), c(Vector(4, 5, 1), 1), d(Vector(4, 4, 2), 1);
    EXPECT_EQ(messageOf([&] { ConcatFilter({&a, &b, &c}, false); }), "Image extents must match");
    EXPECT_EQ(messageOf([&] { ConcatFilter({&a, &d}, false); }), "Image extents must match");
    OtherCoarseExtent coarse(&b);
    EXPECT_NO_THROW(ConcatFilter({&a, &coarse}, false));
}

TEST(ConcatFilter, EmptyAndNullInputsAreRejected)
{
    MemoryImage image(Vector(2, 2, 1), 1);
    EXPECT_EQ(messageOf([&] { ConcatFilter({}, false); }), "Cannot instantiate a concat filter without input images.");
    EXPECT_EQ(messageOf([&] {
                  ConcatFilter({&image, nullptr}, false);
              }),
              "Cannot instantiate a filter without an input image.");
    EXPECT_EQ(messageOf([&] {
                  ConcatFilter({nullptr, &image}, false);
              }),
              "Cannot instantiate a filter without an input image.");
}

TEST(ConcatFilter, SingleInputBehavesLikeItAndMetadataIsTheFirstInputs)
{
    std::mt19937_64 random(44);
    auto first = NuvekTest::randomImage(random, Vector(6, 5, 1), 2);
    first->setValueRange({-1.0, 4.0});
    first->setVoxelSize(Vector(2, 3, 4));
    NuvekTest::RecordingImage recording(first);
    ConcatFilter single({&recording}, false);
    Box const box(Vector(-1, -1, 0), Vector(6, 5, 0));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(*first, 0, box), openWhole(single, 0, box), box));

    MemoryImage second(Vector(6, 5, 1), 1);
    second.setValueRange({-100.0, 100.0});
    ConcatFilter filter({&recording, &second}, false);
    EXPECT_EQ(filter.getValueRange().min, -1.0);
    EXPECT_EQ(filter.getValueRange().max, 4.0);
    EXPECT_EQ(filter.getVoxelSize(1), Vector(4, 6, 4));
    std::uint64_t const stamp = filter.getHash();
    second.setValue(Vector(0, 0, 0), 0, 5.0);
    EXPECT_EQ(filter.getHash(), stamp);
    recording.touch();
    EXPECT_NE(filter.getHash(), stamp);
}

TEST(ConcatFilter, NeverDeletesItsInputs)
{
    MemoryImage image(Vector(2, 2, 1), 1);
    int deletions = 0;
    DeletionProbe first(&image, deletions), second(&image, deletions);
    delete new ConcatFilter({&first, &second}, true);
    EXPECT_EQ(deletions, 0);
}
