#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/RGBToHSVFilter.h>

#include "reference/PixelwiseColourReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::RGBToHSVFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

// Converts each colour through both passes of the filter: every colour fills a block of four voxels,
// and is also opened as a box of its own, which the plain pass converts. Returns one voxel per
// colour, planes h, s, v (and any further planes after them).
std::vector<double> convertColours(std::vector<std::vector<double>> const& colours, double low, double high)
{
    long long const count = static_cast<long long>(colours.size());
    long long const numChannels = static_cast<long long>(colours.front().size());
    long long const width = 4 * count;
    std::vector<double> values(static_cast<std::size_t>(width * numChannels));
    for (long long x = 0; x < width; ++x)
        for (long long c = 0; c < numChannels; ++c)
            values[static_cast<std::size_t>(c * width + x)] =
                colours[static_cast<std::size_t>(x / 4)][static_cast<std::size_t>(c)];
    MemoryImage image(Vector(width, 1, 1), numChannels, values);
    image.setValueRange({low, high});
    RGBToHSVFilter filter(&image, false);
    std::vector<double> const blocks = openWhole(filter, 0, Box(Vector(width, 1, 1)));

    std::vector<double> result(static_cast<std::size_t>(count * numChannels));
    for (long long i = 0; i < count; ++i)
    {
        Box const single(Vector(4 * i + 2, 0, 0), Vector(4 * i + 2, 0, 0));
        std::vector<double> const alone = openWhole(filter, 0, single);
        for (long long c = 0; c < numChannels; ++c)
        {
            double const inBlock = blocks[static_cast<std::size_t>(c * width + 4 * i + 2)];
            EXPECT_EQ(NuvekTest::bitsOf(inBlock), NuvekTest::bitsOf(alone[static_cast<std::size_t>(c)]))
                << "colour " << i << " channel " << c << ": " << inBlock << " in a block, "
                << alone[static_cast<std::size_t>(c)] << " alone";
            result[static_cast<std::size_t>(c * count + i)] = inBlock;
        }
    }
    return result;
}

// Values that make ties between channels, signed zeros and non-finite inputs likely.
std::shared_ptr<MemoryImage> tieHeavyImage(std::mt19937_64& random, Vector const& extent, long long numChannels)
{
    double const palette[] = {0.0,
                              -0.0,
                              0.25,
                              0.5,
                              1.0,
                              255.0,
                              254.999,
                              1e-300,
                              -3.0,
                              std::numeric_limits<double>::quiet_NaN(),
                              std::numeric_limits<double>::infinity(),
                              -std::numeric_limits<double>::infinity()};
    std::uniform_int_distribution<int> pick(0, 2 * static_cast<int>(std::size(palette)) - 1);
    std::uniform_real_distribution<double> uniform(0.0, 255.0);
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * numChannels));
    for (double& value : values)
    {
        int const choice = pick(random);
        value = choice < static_cast<int>(std::size(palette)) ? palette[choice] : uniform(random);
    }
    return std::make_shared<MemoryImage>(extent, numChannels, values);
}

} // namespace

TEST(RGBToHSVFilter, KnownColoursAtTheRangeEnds)
{
    // Red, white, black, green, blue, yellow, with the range (0, 255).
    std::vector<double> const out =
        convertColours({{255, 0, 0}, {255, 255, 255}, {0, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}}, 0, 255);
    std::vector<double> const expected{0, 0, 0, 85, 170, 42, 255, 0, 0, 255, 255, 255, 255, 255, 0, 255, 255, 255};
    EXPECT_EQ(out, expected);
    // The range's low end is subtracted first: (10, 20) maps 20 to 1 and 10 to 0.
    EXPECT_EQ(convertColours({{20, 10, 10}, {15, 15, 15}}, 10, 20), (std::vector<double>{0, 0, 255, 0, 255, 127}));
}

TEST(RGBToHSVFilter, HueJustBelow360DegreesGives254)
{
    std::vector<double> const out = convertColours({{1.0, 0.0, 1e-9}, {1.0, 0.0, 1e-15}, {1.0, 0.0, 1e-17}}, 0, 1);
    EXPECT_EQ(out[0], 254.0);
    EXPECT_EQ(out[1], 254.0);
    // -6e-16 degrees plus 360 rounds to 360 itself, which wraps to 0.
    EXPECT_EQ(out[2], 0.0);
}

TEST(RGBToHSVFilter, ZeroSpanRangeDividesByZeroWithoutGuard)
{
    std::vector<double> const out = convertColours({{7, 7, 7}, {5, 5, 5}, {3, 7, 7}}, 5, 5);
    // 2 / 0 is +inf in every channel: the spread inf - inf is NaN, so hue and saturation are NaN.
    EXPECT_TRUE(std::isnan(out[0]));
    EXPECT_TRUE(std::isnan(out[3]));
    EXPECT_EQ(out[6], std::numeric_limits<double>::infinity());
    // 0 / 0 is NaN in every channel: NaN hue and value, and saturation 0 since NaN is not above 0.
    EXPECT_TRUE(std::isnan(out[1]));
    EXPECT_EQ(out[4], 0.0);
    EXPECT_TRUE(std::isnan(out[7]));
    // -inf, +inf, +inf: infinite spread, hue NaN from inf / inf.
    EXPECT_TRUE(std::isnan(out[2]));
    EXPECT_EQ(out[8], std::numeric_limits<double>::infinity());
}

TEST(RGBToHSVFilter, ChannelsAfterTheThirdKeepTheInputValues)
{
    std::vector<double> const out = convertColours({{255, 0, 0, -4.5}, {0, 0, 0, 1e300}}, 0, 255);
    EXPECT_EQ(out[6], -4.5);
    EXPECT_EQ(out[7], 1e300);
}

TEST(RGBToHSVFilter, RangeAndChannelNames)
{
    MemoryImage image(Vector(2, 2, 1), 4);
    image.setValueRange({-7.0, 3.0});
    RGBToHSVFilter filter(&image, false);
    EXPECT_EQ(filter.getValueRange().min, 0.0);
    EXPECT_EQ(filter.getValueRange().max, 255.0);
    EXPECT_EQ(filter.getChannelName(0), "Hue");
    EXPECT_EQ(filter.getChannelName(1), "Saturation");
    EXPECT_EQ(filter.getChannelName(2), "Value");
    EXPECT_EQ(filter.getNumChannels(), 4);
    for (long long index : {3LL, -1LL, 100LL})
    {
        try
        {
            filter.getChannelName(index);
            ADD_FAILURE() << "index " << index << " has a name";
        }
        catch (std::runtime_error const& error)
        {
            EXPECT_STREQ(error.what(), "Invalid channel index. Cannot determine its name.");
        }
    }
}

TEST(RGBToHSVFilter, FewerThanThreeChannelsAreRejectedWhenOpened)
{
    MemoryImage image(Vector(2, 2, 1), 2);
    RGBToHSVFilter filter(&image, false);
    try
    {
        openWhole(filter, 0, Box(Vector(2, 2, 1)));
        ADD_FAILURE() << "two channels were converted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Cannot convert RGB to HSV: the input has 2 channels, at least three are needed.");
    }
    std::vector<double> out(2, 3.0);
    EXPECT_NO_THROW(filter.openRegion(out.data(), 0, Box()));
}

TEST(RGBToHSVFilter, EmptyBoxReturnsWithoutAskingTheInput)
{
    auto source = std::make_shared<MemoryImage>(Vector(4, 4, 1), 3);
    NuvekTest::RecordingImage recording(source);
    RGBToHSVFilter filter(&recording, false);
    std::vector<double> out(3, 9.0);
    filter.openRegion(out.data(), 0, Box());
    EXPECT_EQ(out, std::vector<double>(3, 9.0));
    EXPECT_TRUE(recording.requests().empty());
}

// Box widths from 1 to 11 put voxels both in whole blocks and in the remainder after them.
TEST(RGBToHSVFilter, MatchesReferenceOnRandomBoxesWithTiesAndNonFiniteValues)
{
    std::mt19937_64 random(51);
    struct Range
    {
        double low, high;
    };
    for (Range const range : {Range{0.0, 255.0}, Range{-3.0, 1.0}, Range{255.0, 0.0}, Range{0.0, 1.0}})
        for (long long numChannels : {3LL, 4LL})
        {
            auto source = tieHeavyImage(random, Vector(29, 13, 3), numChannels);
            source->setValueRange({range.low, range.high});
            NuvekTest::RecordingImage recording(source);
            RGBToHSVFilter filter(&recording, false);
            for (int i = 0; i < 40; ++i)
            {
                long long const level = i % 3;
                Box box = NuvekTest::randomBox(random, source->getExtent(level), 11, 3);
                recording.clearRequests();
                std::vector<double> expected = openWhole(*source, level, box);
                NuvekReference::rgbToQuantisedHSV(expected, box.getSize(), range.low, range.high);
                std::string const context = "range (" + std::to_string(range.low) + ", " + std::to_string(range.high) +
                                            ") level " + std::to_string(level);
                EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, level, box), box, context));
                ASSERT_EQ(recording.requests().size(), 1u);
                EXPECT_EQ(recording.requests()[0].box, box);
                EXPECT_EQ(recording.requests()[0].level, level);
            }
        }
}

TEST(RGBToHSVFilter, MatchesReferenceOnUniformColours)
{
    std::mt19937_64 random(52);
    auto source = NuvekTest::randomImage(random, Vector(200, 150, 1), 3, {-10.0, 265.0, 0.001});
    source->setValueRange({0.0, 255.0});
    RGBToHSVFilter filter(source.get(), false);
    Box const box(Vector(-5, -5, 0), Vector(204, 154, 0));
    std::vector<double> expected = openWhole(*source, 0, box);
    NuvekReference::rgbToQuantisedHSV(expected, box.getSize(), 0.0, 255.0);
    std::vector<double> const out = openWhole(filter, 0, box);
    EXPECT_TRUE(NuvekTest::sameBits(expected, out, box));
    EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openTiled(filter, 0, box, {1, 50, 77, 133}, {3, 60}, 4), box));
}
