#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/ValueReplacementFilter.h>

#include "reference/PixelwiseColourReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::ValueReplacementFilter;
using Nuvek::Vector;
using NuvekTest::messageOf;
using NuvekTest::openWhole;
using Replacements = ValueReplacementFilter::Replacements;

namespace {

double const missing = std::numeric_limits<double>::quiet_NaN();

std::string const wrongSize = "Replacement color channels do not fit number of channels in image";

// Voxels (planes of `voxels.size()` values), two channels.
std::vector<double> replaceInTwoChannels(std::vector<std::vector<double>> const& voxels,
                                         Replacements const& replacements)
{
    long long const count = static_cast<long long>(voxels.size());
    std::vector<double> values(static_cast<std::size_t>(2 * count));
    for (long long i = 0; i < count; ++i)
        for (long long c = 0; c < 2; ++c)
            values[static_cast<std::size_t>(c * count + i)] =
                voxels[static_cast<std::size_t>(i)][static_cast<std::size_t>(c)];
    MemoryImage image(Vector(count, 1, 1), 2, values);
    ValueReplacementFilter filter(&image, false, replacements);
    return openWhole(filter, 0, Box(Vector(count, 1, 1)));
}

// Colours drawn from a small palette, so that many voxels match one of them.
std::vector<double> paletteColour(std::mt19937_64& random, long long numChannels)
{
    double const palette[] = {0.0, -0.0, 1.0, 2.0, 3.0, missing, -1.5};
    std::uniform_int_distribution<int> pick(0, static_cast<int>(std::size(palette)) - 1);
    std::vector<double> colour(static_cast<std::size_t>(numChannels));
    for (double& value : colour)
        value = palette[pick(random)];
    return colour;
}

} // namespace

TEST(ValueReplacementFilter, ColoursOfTheWrongLengthAreRejected)
{
    MemoryImage image(Vector(2, 2, 1), 2);
    EXPECT_EQ(messageOf([&] { ValueReplacementFilter(&image, false, {1, 2, 3}, {4, 5}); }), wrongSize);
    EXPECT_EQ(messageOf([&] { ValueReplacementFilter(&image, false, {1, 2}, {4}); }), wrongSize);
    EXPECT_EQ(messageOf([&] {
                  ValueReplacementFilter(&image, false, Replacements{{{1, 2}, {3, 4}}, {{5}, {6, 7}}});
              }),
              wrongSize);
    EXPECT_NO_THROW(ValueReplacementFilter(&image, false, {1, 2}, {3, 4}));
    ValueReplacementFilter valid(&image, false, Replacements{{{1, 2}, {3, 4}}, {{5, 6}, {7, 8}}});
    EXPECT_TRUE(valid.isValid());
}

TEST(ValueReplacementFilter, EmptyMapIsValidAndChangesNothing)
{
    std::mt19937_64 random(61);
    auto source = NuvekTest::randomImage(random, Vector(7, 5, 2), 3, {-2.0, 2.0, 0.1});
    ValueReplacementFilter filter(source.get(), false, Replacements());
    EXPECT_TRUE(filter.isValid());
    Box const box(Vector(-1, -1, 0), Vector(7, 5, 1));
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, 0, box), openWhole(filter, 0, box), box));
}

TEST(ValueReplacementFilter, OnlyWholeExactMatchesReplace)
{
    Replacements const replacements{{{1.0, 2.0}, {10.0, 20.0}},
                                    {{0.0, 5.0}, {-1.0, -2.0}},
                                    {{missing, 3.0}, {7.0, 7.0}},
                                    {{4.0, missing}, {8.0, 8.0}}};
    std::vector<double> const out = replaceInTwoChannels(
        {{1.0, 2.0}, {1.0, 2.5}, {9.0, 2.0}, {-0.0, 5.0}, {missing, 3.0}, {4.0, missing}, {1.0, 2.0 + 1e-15}},
        replacements);
    // Plane 0, then plane 1.
    std::vector<double> const expected{10.0, 1.0, 9.0, -1.0, missing, 4.0,     1.0,
                                       20.0, 2.5, 2.0, -2.0, 3.0,     missing, 2.0 + 1e-15};
    EXPECT_TRUE(NuvekTest::sameBits(expected, out, Box(Vector(7, 1, 1))));
    // The same with one colour, through the single-entry constructor.
    MemoryImage image(Vector(2, 1, 1), 2, {0.0, 1.0, 5.0, 5.0});
    ValueReplacementFilter single(&image, false, {-0.0, 5.0}, {8.0, 9.0});
    EXPECT_EQ(openWhole(single, 0, Box(Vector(2, 1, 1))), (std::vector<double>{8.0, 1.0, 9.0, 5.0}));
}

TEST(ValueReplacementFilter, MatchesTheScanForFewAndManyColoursWithNaNKeys)
{
    std::mt19937_64 random(62);
    for (long long numChannels = 1; numChannels <= 4; ++numChannels)
        for (std::size_t numColours : {1u, 2u, 3u, 8u, 40u, 500u})
        {
            Replacements replacements;
            // A NaN key compares equivalent to many others, so a map may stay smaller than asked.
            for (int attempt = 0; replacements.size() < numColours && attempt < 20 * static_cast<int>(numColours);
                 ++attempt)
            {
                std::vector<double> colour = paletteColour(random, numChannels);
                std::vector<double> substitute = NuvekTest::randomValues(random, numChannels, {-9.0, 9.0, 0.1});
                // Once the palette is used up, colours off the palette keep large maps growing.
                if (attempt > 30)
                    colour[0] = std::uniform_real_distribution<double>(0.0, 1.0)(random);
                replacements.emplace(std::move(colour), std::move(substitute));
            }
            Vector const extent(17, 13, 2);
            std::vector<double> values;
            for (long long i = 0; i < extent.prod(); ++i)
            {
                // Half the voxels copy a colour of the map, the others come from the palette.
                std::vector<double> colour = paletteColour(random, numChannels);
                if (i % 2 == 0)
                {
                    auto entry = replacements.begin();
                    std::advance(entry, static_cast<long>(random() % replacements.size()));
                    colour = entry->first;
                }
                values.insert(values.end(), colour.begin(), colour.end());
            }
            // Interleaved colours to channel planes.
            std::vector<double> planar(values.size());
            for (long long i = 0; i < extent.prod(); ++i)
                for (long long c = 0; c < numChannels; ++c)
                    planar[static_cast<std::size_t>(c * extent.prod() + i)] =
                        values[static_cast<std::size_t>(i * numChannels + c)];
            auto source = std::make_shared<MemoryImage>(extent, numChannels, planar);
            NuvekTest::RecordingImage recording(source);
            ValueReplacementFilter filter(&recording, false, replacements);
            for (int i = 0; i < 6; ++i)
            {
                long long const level = i % 2;
                Box const box = NuvekTest::randomBox(random, source->getExtent(level), 20, 2);
                recording.clearRequests();
                std::vector<double> expected = openWhole(*source, level, box);
                NuvekReference::replaceColours(expected, box.getSize(), numChannels, replacements);
                std::string const context =
                    "channels " + std::to_string(numChannels) + " colours " + std::to_string(replacements.size());
                EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, level, box), box, context));
                ASSERT_EQ(recording.requests().size(), 1u);
                EXPECT_EQ(recording.requests()[0].box, box);
                EXPECT_EQ(recording.requests()[0].level, level);
            }
            Box const whole(Vector(-2, -1, 0), Vector(18, 13, 1));
            EXPECT_TRUE(NuvekTest::sameBits(openWhole(filter, 0, whole),
                                            NuvekTest::openTiled(filter, 0, whole, {3, 10}, {4, 9}, 3), whole));
        }
}
