#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/AdditionFilter.h>
#include <nuvek/filters/pixelwise/DifferenceFilter.h>

#include "reference/PixelwiseBinaryOperatorReference.h"
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

using Nuvek::AdditionFilter;
using Nuvek::Box;
using Nuvek::DifferenceFilter;
using Nuvek::Image;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using NuvekTest::DeletionProbe;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

namespace {

// The wrapped image with a different extent at every level but 0.
class OtherCoarseExtent : public Nuvek::Filter
{
public:
    explicit OtherCoarseExtent(Image* image) : Filter(image, false) {}
    Vector getExtent(long long level) const override
    {
        return level == 0 ? input->getExtent(0) : input->getExtent(level) + Vector(1, 1, 0);
    }
};

using Combine = std::function<std::vector<double>(std::vector<double> const&, std::vector<double> const&)>;

struct Operation
{
    std::string name;
    std::function<Image*(Image*, Image*)> make;
    Combine reference;
};

std::vector<Operation> operations()
{
    return {{"difference", [](Image* a, Image* b) -> Image* { return new DifferenceFilter(a, b, false); },
             NuvekReference::difference},
            {"addition", [](Image* a, Image* b) -> Image* { return new AdditionFilter(a, b, false); },
             NuvekReference::sum}};
}

} // namespace

TEST(BinaryOperatorFilter, UnequalInputsAreRejectedWithTheDifferenceFilterWordingForBothOperators)
{
    MemoryImage oneChannel(Vector(4, 4, 1), 1);
    MemoryImage twoChannels(Vector(4, 4, 1), 2);
    MemoryImage wider(Vector(5, 4, 1), 1);
    MemoryImage widerTwoChannels(Vector(5, 4, 1), 2);
    std::string const channels = "Cannot instantiate difference filter from images with unequal numbers of channels.";
    std::string const extents = "Cannot instantiate difference filter from images with unequal extents.";
    EXPECT_EQ(messageOf([&] { DifferenceFilter(&oneChannel, &twoChannels, false); }), channels);
    EXPECT_EQ(messageOf([&] { AdditionFilter(&oneChannel, &twoChannels, false); }), channels);
    EXPECT_EQ(messageOf([&] { DifferenceFilter(&oneChannel, &wider, false, false); }), extents);
    EXPECT_EQ(messageOf([&] { AdditionFilter(&oneChannel, &wider, false, false); }), extents);
    // The channel counts are compared first.
    EXPECT_EQ(messageOf([&] { AdditionFilter(&oneChannel, &widerTwoChannels, false); }), channels);
}

TEST(BinaryOperatorFilter, NullInputsAreRejectedBeforeUse)
{
    MemoryImage image(Vector(2, 2, 1), 1);
    EXPECT_EQ(messageOf([&] { DifferenceFilter(nullptr, &image, false); }),
              "Cannot instantiate a filter without an input image.");
    EXPECT_EQ(messageOf([&] { AdditionFilter(&image, nullptr, false); }),
              "Cannot instantiate a filter without a second input image.");
}

TEST(BinaryOperatorFilter, OnlyLevelZeroExtentsAreCompared)
{
    MemoryImage image(Vector(8, 8, 2), 1);
    OtherCoarseExtent other(&image);
    ASSERT_NE(other.getExtent(1), image.getExtent(1));
    EXPECT_NO_THROW(DifferenceFilter(&image, &other, false));
    EXPECT_NO_THROW(AdditionFilter(&other, &image, false));
}

TEST(BinaryOperatorFilter, OwnershipFlagsDecideWhichInputsAreDeleted)
{
    MemoryImage image(Vector(2, 2, 1), 1);
    for (bool ownsFirst : {false, true})
        for (bool ownsSecond : {false, true})
        {
            int firstDeletions = 0, secondDeletions = 0;
            auto* first = new DeletionProbe(&image, firstDeletions);
            auto* second = new DeletionProbe(&image, secondDeletions);
            delete new AdditionFilter(first, second, ownsFirst, ownsSecond);
            EXPECT_EQ(firstDeletions, ownsFirst ? 1 : 0);
            EXPECT_EQ(secondDeletions, ownsSecond ? 1 : 0);
            if (!ownsFirst)
                delete first;
            if (!ownsSecond)
                delete second;
        }
    // One flag for both; an image passed twice is deleted once.
    int deletions = 0;
    auto* both = new DeletionProbe(&image, deletions);
    delete new DifferenceFilter(both, both, true);
    EXPECT_EQ(deletions, 1);
}

TEST(BinaryOperatorFilter, FailedConstructionDeletesNeitherInput)
{
    MemoryImage oneChannel(Vector(2, 2, 1), 1);
    MemoryImage twoChannels(Vector(2, 2, 1), 2);
    int firstDeletions = 0, secondDeletions = 0;
    auto* first = new DeletionProbe(&oneChannel, firstDeletions);
    auto* second = new DeletionProbe(&twoChannels, secondDeletions);
    EXPECT_THROW(DifferenceFilter(first, second, true), std::runtime_error);
    EXPECT_EQ(firstDeletions, 0);
    EXPECT_EQ(secondDeletions, 0);
    delete first;
    delete second;
}

TEST(BinaryOperatorFilter, HashRisesByOneOnEveryCallThatSeesANewInputStamp)
{
    auto source = std::make_shared<MemoryImage>(Vector(2, 2, 1), 1);
    NuvekTest::RecordingImage first(source);
    NuvekTest::RecordingImage second(source);
    first.touch(); // Stamps other than 0 at construction are the starting point, not a change.
    AdditionFilter filter(&first, &second, false);
    EXPECT_EQ(filter.getHash(), 0u);
    EXPECT_EQ(filter.getHash(), 0u);
    first.touch();
    EXPECT_EQ(filter.getHash(), 1u);
    EXPECT_EQ(filter.getHash(), 1u);
    second.touch();
    EXPECT_EQ(filter.getHash(), 2u);
    first.touch();
    second.touch();
    EXPECT_EQ(filter.getHash(), 3u);
    first.touch();
    first.touch();
    EXPECT_EQ(filter.getHash(), 4u);
    EXPECT_EQ(filter.getHash(), 4u);
}

TEST(BinaryOperatorFilter, ValueRangesCombineTheInputRanges)
{
    MemoryImage first(Vector(1, 1, 1), 1), second(Vector(1, 1, 1), 1);
    first.setValueRange({0.0, 255.0});
    second.setValueRange({0.0, 255.0});
    EXPECT_EQ(DifferenceFilter(&first, &second, false).getValueRange().min, -255.0);
    EXPECT_EQ(DifferenceFilter(&first, &second, false).getValueRange().max, 255.0);
    EXPECT_EQ(AdditionFilter(&first, &second, false).getValueRange().min, 0.0);
    EXPECT_EQ(AdditionFilter(&first, &second, false).getValueRange().max, 510.0);
    // Asymmetric ranges tell the operands apart.
    first.setValueRange({1.0, 10.0});
    second.setValueRange({2.0, 30.0});
    EXPECT_EQ(DifferenceFilter(&first, &second, false).getValueRange().min, -29.0);
    EXPECT_EQ(DifferenceFilter(&first, &second, false).getValueRange().max, 8.0);
    EXPECT_EQ(AdditionFilter(&first, &second, false).getValueRange().min, 3.0);
    EXPECT_EQ(AdditionFilter(&first, &second, false).getValueRange().max, 40.0);
}

TEST(BinaryOperatorFilter, MatchesReferenceOnRandomBoxesAndAsksBothInputsOnce)
{
    std::mt19937_64 random(31);
    for (Operation const& operation : operations())
        for (long long numChannels = 1; numChannels <= 4; ++numChannels)
        {
            Vector const extent(23, 17, 3);
            NuvekTest::ValueMix const mix{-50.0, 50.0, 0.03};
            auto firstSource = NuvekTest::randomImage(random, extent, numChannels, mix);
            auto secondSource = NuvekTest::randomImage(random, extent, numChannels, mix);
            NuvekTest::RecordingImage first(firstSource), second(secondSource);
            std::unique_ptr<Image> filter(operation.make(&first, &second));
            for (int i = 0; i < 12; ++i)
            {
                long long const level = i % 3;
                Box const box = NuvekTest::randomBox(random, firstSource->getExtent(level), 12, 3);
                first.clearRequests();
                second.clearRequests();
                std::vector<double> const expected =
                    operation.reference(openWhole(*firstSource, level, box), openWhole(*secondSource, level, box));
                std::string const context =
                    operation.name + " channels " + std::to_string(numChannels) + " level " + std::to_string(level);
                EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(*filter, level, box), box, context));
                for (auto const* recording : {&first, &second})
                {
                    ASSERT_EQ(recording->requests().size(), 1u);
                    EXPECT_EQ(recording->requests()[0].box, box);
                    EXPECT_EQ(recording->requests()[0].level, level);
                }
            }
        }
}

TEST(BinaryOperatorFilter, EmptyBoxIsPassedToBothInputsAndWritesNothing)
{
    auto source = std::make_shared<MemoryImage>(Vector(4, 4, 1), 1);
    NuvekTest::RecordingImage first(source), second(source);
    for (Operation const& operation : operations())
    {
        first.clearRequests();
        second.clearRequests();
        std::unique_ptr<Image> filter(operation.make(&first, &second));
        std::vector<double> out(4, 7.5);
        filter->openRegion(out.data(), 1, Box());
        EXPECT_EQ(out, std::vector<double>(4, 7.5)) << operation.name;
        EXPECT_EQ(first.requests().size(), 1u) << operation.name;
        EXPECT_EQ(second.requests().size(), 1u) << operation.name;
    }
}

TEST(BinaryOperatorFilter, TilesOnSeveralThreadsAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(32);
    auto firstSource = NuvekTest::randomImage(random, Vector(41, 37, 2), 3, {-1.0, 1.0, 0.02});
    auto secondSource = NuvekTest::randomImage(random, Vector(41, 37, 2), 3, {-1.0, 1.0, 0.02});
    for (Operation const& operation : operations())
    {
        std::unique_ptr<Image> filter(operation.make(firstSource.get(), secondSource.get()));
        Box const box(Vector(-3, -2, 0), Vector(44, 38, 1));
        std::vector<double> const whole = openWhole(*filter, 0, box);
        EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(*filter, 0, box, {5, 18, 31}, {7, 20}, 3), box,
                                        operation.name));
    }
}
