#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/colour/PixelProcessingFilter.h>

#include "reference/ColourReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::ChannelBank;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

std::vector<std::string> const rgbaNames{"Red", "Green", "Blue", "Alpha"};

// Folds the values in selection order, so that order, duplicates and each value show in the result.
double fold(std::vector<double> const& values)
{
    double result = 0.0;
    for (double value : values)
        result = result * 3.0 + value;
    return result;
}

class FoldFilter : public Nuvek::PixelProcessingFilter
{
public:
    using PixelProcessingFilter::PixelProcessingFilter;

    double processPixel(std::vector<double> const& values) const override
    {
        ++calls;
        return fold(values);
    }
    std::string getChannelName(long long) override { return "fold"; }
    void raiseHash() { ++hashCounter; }

    mutable std::atomic<long long> calls{0};
};

std::shared_ptr<Nuvek::MemoryImage> rgbaImage(std::mt19937_64& random, Vector const& extent)
{
    auto image = NuvekTest::randomImage(random, extent, 4, {-50.0, 300.0, 0.03});
    image->setChannelNames(rgbaNames);
    return image;
}

// The selected planes of box, read from the image directly.
std::vector<std::vector<double>> selectedPlanes(Nuvek::Image& image, long long level, Box const& box,
                                                std::vector<std::string> const& names)
{
    std::vector<double> const all = openWhole(image, level, box);
    std::vector<std::vector<double>> planes;
    for (std::string const& name : names)
    {
        long long channel = 0;
        while (image.getChannelName(channel) != name)
            ++channel;
        auto const first = all.begin() + channel * box.getSize();
        planes.emplace_back(first, first + box.getSize());
    }
    return planes;
}

std::string messageOfConstruction(ChannelBank* bank, std::vector<std::string> const& names)
{
    return NuvekTest::messageOf([&] { FoldFilter filter(bank, names); });
}

} // namespace

TEST(FillBuffer, WritesExtentTimesChannelsValuesAndNothingForNonPositiveCounts)
{
    std::vector<double> buffer(30, -1.0);
    Nuvek::fillBuffer(buffer.data(), Vector(2, 3, 2), 2, 0.5);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        EXPECT_EQ(buffer[i], i < 24 ? 0.5 : -1.0) << i;
    std::vector<double> untouched(4, -1.0);
    for (auto const& [extent, channels] : std::vector<std::pair<Vector, long long>>{
             {Vector(2, 2, 1), 0}, {Vector(2, 0, 1), 3}, {Vector(2, -1, 1), 1}, {Vector(2, 2, 1), -1}})
    {
        Nuvek::fillBuffer(untouched.data(), extent, channels, 9.0);
        EXPECT_EQ(untouched, std::vector<double>(4, -1.0)) << extent.x << " " << extent.y << " " << channels;
    }
}

TEST(PixelProcessingFilter, UnknownChannelIsNamedInTheMessage)
{
    Nuvek::MemoryImage image(Vector(2, 2, 1), 4);
    image.setChannelNames(rgbaNames);
    ChannelBank bank(&image);
    EXPECT_EQ(messageOfConstruction(&bank, {"Red", "foo", "bar"}),
              "Cannot instantiate PixelProcessingFilter. No such channel \"foo\"");
    EXPECT_EQ(messageOfConstruction(&bank, {"red"}),
              "Cannot instantiate PixelProcessingFilter. No such channel \"red\"");
    EXPECT_EQ(messageOfConstruction(nullptr, {"Red"}),
              "Cannot instantiate PixelProcessingFilter without a channel bank.");
}

TEST(PixelProcessingFilter, EmptySelectionOrEmptyBoxWritesNothing)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 4);
    image.setChannelNames(rgbaNames);
    ChannelBank bank(&image);
    FoldFilter none(&bank, {});
    std::vector<double> out(20, -7.0);
    none.openRegion(out.data(), 0, Box(Vector(-1, -1, 0), Vector(2, 2, 0)));
    // Two negative sizes: a product of the sizes would count one voxel.
    FoldFilter red(&bank, {"Red"});
    red.openRegion(out.data(), 0, Box(Vector(3, 3, 0), Vector(1, 1, 0)));
    EXPECT_EQ(out, std::vector<double>(20, -7.0));
    EXPECT_EQ(none.calls.load() + red.calls.load(), 0);
}

TEST(PixelProcessingFilter, BoxInsideTheImageIsWrittenOnlyByProcessPixel)
{
    std::mt19937_64 random(92);
    auto image = rgbaImage(random, Vector(20, 20, 2));
    ChannelBank bank(image.get());
    FoldFilter filter(&bank, {"Green", "Alpha"});
    EXPECT_EQ(filter.getNumChannels(), 1);
    EXPECT_EQ(filter.getChannelSelection(), (std::vector<std::string>{"Green", "Alpha"}));
    Box const box(Vector(3, 4, 0), Vector(19, 12, 1));
    // A caller buffer longer than one plane: only the first plane may be written.
    std::vector<double> out(static_cast<std::size_t>(box.getSize()) + 5, -7.0);
    filter.openRegion(out.data(), 0, box);
    EXPECT_EQ(filter.calls.load(), box.getSize());
    std::vector<double> const plane(out.begin(), out.begin() + box.getSize());
    std::vector<double> const expected = NuvekReference::processRegion(
        selectedPlanes(*image, 0, box, {"Green", "Alpha"}), box, image->getExtent(0), fold);
    EXPECT_TRUE(NuvekTest::sameBits(expected, plane, box));
    for (std::size_t i = static_cast<std::size_t>(box.getSize()); i < out.size(); ++i)
        EXPECT_EQ(out[i], -7.0) << i;
}

TEST(PixelProcessingFilter, OutsideVoxelsAreZeroAndNeverProcessed)
{
    std::mt19937_64 random(93);
    auto image = rgbaImage(random, Vector(10, 8, 1));
    ChannelBank bank(image.get());
    FoldFilter filter(&bank, {"Red"});

    Box const straddling(Vector(-3, 5, 0), Vector(4, 10, 1));
    std::vector<double> out(static_cast<std::size_t>(straddling.getSize()), -7.0);
    filter.openRegion(out.data(), 0, straddling);
    EXPECT_EQ(filter.calls.load(), straddling.intersected(Box(image->getExtent(0))).getSize());
    std::vector<double> const expected = NuvekReference::processRegion(selectedPlanes(*image, 0, straddling, {"Red"}),
                                                                       straddling, image->getExtent(0), fold);
    EXPECT_TRUE(NuvekTest::sameBits(expected, out, straddling));

    filter.calls = 0;
    Box const beside(Vector(12, 0, 0), Vector(15, 3, 0));
    std::vector<double> zeros(static_cast<std::size_t>(beside.getSize()), -7.0);
    filter.openRegion(zeros.data(), 0, beside);
    EXPECT_EQ(filter.calls.load(), 0);
    EXPECT_TRUE(NuvekTest::sameBits(std::vector<double>(zeros.size(), 0.0), zeros, beside));
}

TEST(PixelProcessingFilter, MatchesReferenceOnRandomBoxesLevelsAndSelections)
{
    std::mt19937_64 random(94);
    std::vector<std::vector<std::string>> const selections{
        {"Red"}, {"Blue", "Green"}, {"Alpha", "Red", "Alpha"}, {"Red", "Green", "Blue", "Alpha"}};
    for (int round = 0; round < 48; ++round)
    {
        Vector const extent(5 + round % 13, 4 + (round * 5) % 17, 1 + round % 3);
        auto image = rgbaImage(random, extent);
        NuvekTest::RecordingImage recording(image);
        ChannelBank bank(&recording);
        std::vector<std::string> const& names = selections[static_cast<std::size_t>(round) % selections.size()];
        FoldFilter filter(&bank, names);
        long long const level = round % 3;
        Vector const levelExtent = image->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, 12, 3);

        recording.clearRequests();
        std::vector<double> const actual = openWhole(filter, level, box);
        ASSERT_EQ(recording.requests().size(), 1u);
        EXPECT_EQ(recording.requests()[0].box, box);
        EXPECT_EQ(recording.requests()[0].level, level);

        std::vector<double> const expected =
            NuvekReference::processRegion(selectedPlanes(*image, level, box, names), box, levelExtent, fold);
        EXPECT_TRUE(NuvekTest::sameBits(expected, actual, box, "round " + std::to_string(round)));
    }
}

TEST(PixelProcessingFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(95);
    auto image = rgbaImage(random, Vector(45, 38, 2));
    ChannelBank bank(image.get());
    FoldFilter filter(&bank, {"Alpha", "Green", "Red"});
    Box const box(Vector(-5, -3, 0), Vector(49, 40, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads = 1; threads <= 4; threads += 3)
        EXPECT_TRUE(NuvekTest::sameBits(whole,
                                        NuvekTest::openTiled(filter, 0, box, {-2, 9, 31, 44}, {1, 17, 39}, threads),
                                        box, "threads " + std::to_string(threads)));
}

TEST(PixelProcessingFilter, HashRisesOncePerChangeHoweverManyChannelsChanged)
{
    std::mt19937_64 random(96);
    auto image = rgbaImage(random, Vector(4, 4, 1));
    NuvekTest::RecordingImage recording(image);
    ChannelBank bank(&recording);
    FoldFilter filter(&bank, {"Red", "Green", "Blue"});

    std::uint64_t const first = filter.getHash();
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(filter.getHash(), first);
    // Every channel of the image changes at once: still one step.
    recording.touch();
    EXPECT_EQ(filter.getHash(), first + 1);
    EXPECT_EQ(filter.getHash(), first + 1);
    recording.touch();
    recording.touch();
    EXPECT_EQ(filter.getHash(), first + 2);
    // A subclass's own change adds to the same counter.
    filter.raiseHash();
    EXPECT_EQ(filter.getHash(), first + 3);
    recording.touch();
    filter.raiseHash();
    EXPECT_EQ(filter.getHash(), first + 5);

    // Without channels only the subclass's own changes count.
    FoldFilter none(&bank, {});
    recording.touch();
    EXPECT_EQ(none.getHash(), 0u);
    none.raiseHash();
    EXPECT_EQ(none.getHash(), 1u);
}

namespace {

// Records the first selected value of every voxel it processes, in the order processed.
class OrderFilter : public FoldFilter
{
public:
    using FoldFilter::FoldFilter;

    double processPixel(std::vector<double> const& values) const override
    {
        order.push_back(values[0]);
        return FoldFilter::processPixel(values);
    }

    mutable std::vector<double> order;
};

} // namespace

// A request whose channels would need more than 2^21 values is read in strips of whole rows of the
// image's 256-row tiles, one slice at a time; nothing else changes.
TEST(PixelProcessingFilter, LargeRequestsAreReadInStripsOfTileRows)
{
    std::mt19937_64 random(97);
    Vector const extent(800, 700, 2);
    auto image = rgbaImage(random, extent);
    // Red holds each voxel's index in the image, so that the order of processing shows.
    std::vector<double> values = image->getValues();
    for (long long i = 0; i < extent.prod(); ++i)
        values[static_cast<std::size_t>(i)] = static_cast<double>(i);
    image->setValues(values);
    NuvekTest::RecordingImage recording(image);
    ChannelBank bank(&recording);
    OrderFilter filter(&bank, {"Red", "Alpha", "Green", "Blue"});

    // 804 x 706 x 2 voxels of 4 channels; 2^21 values hold two tile rows of 804 x 256.
    Box const box(Vector(-3, -5, 0), Vector(800, 700, 1));
    std::vector<double> const actual = openWhole(filter, 0, box);
    std::vector<double> const expected = NuvekReference::processRegion(
        selectedPlanes(*image, 0, box, {"Red", "Alpha", "Green", "Blue"}), box, extent, fold);
    EXPECT_TRUE(NuvekTest::sameBits(expected, actual, box));

    std::vector<Box> strips;
    for (NuvekTest::Request const& request : recording.requests())
    {
        EXPECT_EQ(request.level, 0);
        strips.push_back(request.box);
    }
    std::vector<Box> expectedStrips;
    for (long long z = 0; z <= 1; ++z)
        for (auto const& rows : {std::pair<long long, long long>{-5, -1}, {0, 511}, {512, 700}})
            expectedStrips.emplace_back(Vector(-3, rows.first, z), Vector(800, rows.second, z));
    EXPECT_EQ(strips, expectedStrips);

    ASSERT_EQ(static_cast<long long>(filter.order.size()), extent.prod());
    for (std::size_t i = 0; i < filter.order.size(); ++i)
        ASSERT_EQ(filter.order[i], static_cast<double>(i)) << "voxel " << i << " processed out of order";
}
