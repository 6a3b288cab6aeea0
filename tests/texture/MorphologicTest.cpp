#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/texture/MorphologicFilter.h>

#include "filters/internal/MorphologicPasses.h"
#include "reference/MorphologicReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"
#include "texture/TextureImages.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::DilationFilter;
using Nuvek::ErosionFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

using NuvekTest::messageOf;

namespace {

std::vector<double> openWith(bool maximum, Nuvek::Image& input, long long k, long long level, Box const& box)
{
    if (maximum)
    {
        DilationFilter filter(&input, k, false);
        return openWhole(filter, level, box);
    }
    ErosionFilter filter(&input, k, false);
    return openWhole(filter, level, box);
}

} // namespace

TEST(MorphologicFilter, EvenKernelIsRejectedAndNegativeOddOnlyWhenOpened)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    EXPECT_EQ(messageOf([&] { ErosionFilter(&image, 4, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { DilationFilter(&image, 0, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { DilationFilter(&image, -2, false); }), "Kernel size must be odd.");
    DilationFilter negative(&image, -3, false);
    EXPECT_EQ(messageOf([&] { openWhole(negative, 0, Box(Vector(2, 2, 1))); }), "Kernel size must not be negative.");
}

TEST(MorphologicFilter, TypesAreTheStatedEnumeratorValues)
{
    EXPECT_EQ(static_cast<int>(Nuvek::MorphologicType::Erosion), 0);
    EXPECT_EQ(static_cast<int>(Nuvek::MorphologicType::Dilation), 1);
}

TEST(MorphologicFilter, KernelOneReturnsTheInputRegion)
{
    std::mt19937_64 random(71);
    auto source = NuvekTest::trickyImage(random, Vector(11, 9, 2), 2, 0.2);
    Box const box(Vector(-2, 3, 0), Vector(12, 9, 2));
    for (bool maximum : {false, true})
        EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, 0, box), openWith(maximum, *source, 1, 0, box), box));
}

TEST(MorphologicFilter, BrightVoxelGrowsToASquareOrVanishesAndSlicesNeverMix)
{
    std::vector<double> values(9 * 9 * 2, 1.0);
    values[4 * 9 + 4] = 5.0; // slice 0, centre
    Nuvek::MemoryImage image(Vector(9, 9, 2), 1, values);
    Box const box(Vector(9, 9, 2));
    std::vector<double> const dilated = openWith(true, image, 5, 0, box);
    std::vector<double> const eroded = openWith(false, image, 5, 0, box);
    for (long long z = 0; z < 2; ++z)
        for (long long y = 0; y < 9; ++y)
            for (long long x = 0; x < 9; ++x)
            {
                std::size_t const i = static_cast<std::size_t>((z * 9 + y) * 9 + x);
                bool const square = z == 0 && std::abs(x - 4) <= 2 && std::abs(y - 4) <= 2;
                bool const nearBorder = x < 2 || x > 6 || y < 2 || y > 6;
                EXPECT_EQ(dilated[i], square ? 5.0 : 1.0) << x << "," << y << "," << z;
                // The source reads 0.0 outside, so erosion reaches 0 within two voxels of the border.
                EXPECT_EQ(eroded[i], nearBorder ? 0.0 : 1.0) << x << "," << y << "," << z;
            }
}

TEST(MorphologicFilter, NaNCountsOnlyInSlotZeroAndTheEarlierSlotWinsBetweenZeros)
{
    // One row, k = 3: the window at output x holds positions x .. x + 2 of the padded row, and
    // position j sits in slot j mod 3.
    double const nan = std::nan("");
    Nuvek::MemoryImage image(Vector(6, 1, 1), 1, {nan, 2.0, 1.0, 0.0, -0.0, 7.0});
    Box const row(Vector(0, 0, 0), Vector(5, 0, 0));
    // Padded positions: 0 is outside (0.0), then the six values, then 0.0. NaN sits at position 1.
    std::vector<double> const eroded = openWith(false, image, 3, 0, Box(Vector(0, 0, 0), Vector(5, 0, 0)));
    // Vertical windows also take the outside rows (0.0), so compare against the reference only.
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(image, 3, false, row, 0), eroded, row));
    // Horizontal only, through a tall image whose rows are equal: slot order decides.
    std::vector<double> tall;
    for (int y = 0; y < 5; ++y)
        for (double v : {2.0, nan, 1.0, -0.0, 0.0, 3.0, nan, 5.0, 4.0})
            tall.push_back(v);
    Nuvek::MemoryImage tallImage(Vector(9, 5, 1), 1, tall);
    Box const inner(Vector(1, 2, 0), Vector(7, 2, 0));
    // Output x = 1 .. 7 uses padded positions x - 1 .. x + 1 of the image row (the box's own padding
    // starts at image x = 0). Positions in multiples of 3 sit in slot 0.
    std::vector<double> const minimum = openWith(false, tallImage, 3, 0, inner);
    std::vector<double> const maximum = openWith(true, tallImage, 3, 0, inner);
    // x=1: {2, NaN, 1}: slot 0 holds 2, NaN passed over -> 1 / 2.
    EXPECT_EQ(minimum[0], 1.0);
    EXPECT_EQ(maximum[0], 2.0);
    // x=2: {NaN, 1, -0}: positions 1,2,3 -> slot 0 holds -0 (position 3), NaN passed over.
    EXPECT_EQ(NuvekTest::bitsOf(minimum[1]), NuvekTest::bitsOf(-0.0));
    EXPECT_EQ(maximum[1], 1.0);
    // x=4: {-0, 0, 3}: -0 in slot 0 wins the tie.
    EXPECT_EQ(NuvekTest::bitsOf(minimum[3]), NuvekTest::bitsOf(-0.0));
    // x=6: {3, NaN, 5}: positions 5, 6, 7 -> NaN sits in slot 0 and is the result.
    EXPECT_TRUE(std::isnan(minimum[5]));
    EXPECT_TRUE(std::isnan(maximum[5]));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(tallImage, 3, false, inner, 0), minimum, inner));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(tallImage, 3, true, inner, 0), maximum, inner));
}

TEST(MorphologicFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(72);
    long long const kernels[] = {1, 3, 5, 7, 9, 11, 15, 21};
    for (int round = 0; round < 160; ++round)
    {
        long long const k = kernels[round % 8];
        bool const maximum = (round / 8) % 2 == 1;
        // A third of the images hold no NaN or -0.0 at all, so that only the running extrema work.
        double const specialShare = round % 3 == 0 ? 0.0 : (round % 3 == 1 ? 0.02 : 0.3);
        Vector const extent(4 + (round * 7) % 40, 3 + (round * 5) % 30, 1 + round % 3);
        long long const numChannels = 1 + round % 4;
        auto source = NuvekTest::trickyImage(random, extent, numChannels, specialShare, round % 4 < 2);
        long long const level = round % 3;
        Vector const levelExtent = source->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, round % 5 == 0 ? 40 : 14, 3);
        std::string const context = "round " + std::to_string(round) + " k " + std::to_string(k) +
                                    (maximum ? " dilation" : " erosion") + " level " + std::to_string(level);
        EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(*source, k, maximum, box, level),
                                        openWith(maximum, *source, k, level, box), box, context));
    }
}

TEST(MorphologicFilter, WideRowsMatchTheReferenceWithAndWithoutNaN)
{
    std::mt19937_64 random(73);
    for (double specialShare : {0.0, 0.001, 0.05})
    {
        auto source = NuvekTest::trickyImage(random, Vector(300, 40, 1), 1, specialShare, false);
        for (long long k : {3, 9, 17})
            for (bool maximum : {false, true})
            {
                Box const box(Vector(-5, -3, 0), Vector(290, 36, 0));
                EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(*source, k, maximum, box, 0),
                                                openWith(maximum, *source, k, 0, box), box,
                                                "k " + std::to_string(k) + " share " + std::to_string(specialShare)));
            }
    }
}

TEST(MorphologicFilter, AsksForTheBoxGrownByHalfKernelAndKeepsTheInputsMetadata)
{
    std::mt19937_64 random(74);
    auto source = NuvekTest::randomImage(random, Vector(20, 20, 3), 2);
    NuvekTest::RecordingImage recording(source);
    ErosionFilter filter(&recording, 7, false);
    openWhole(filter, 1, Box(Vector(2, -1, 1), Vector(5, 4, 2)));
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].level, 1);
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(-1, -4, 1), Vector(8, 7, 2)));
    EXPECT_EQ(filter.getNumChannels(), 2);
    EXPECT_EQ(filter.getChannelName(1), "Channel 1");
    EXPECT_EQ(filter.getValueRange().max, source->getValueRange().max);
}

TEST(MorphologicFilter, TilesAgreeWithOneLargeRequestWithoutNaN)
{
    // Slots count from the start of the requested box's padding, so where NaN or -0.0 take part the
    // result depends on where a request starts; without them it does not.
    std::mt19937_64 random(75);
    auto source = NuvekTest::trickyImage(random, Vector(70, 50, 2), 2, 0.0, true);
    Box const box(Vector(-4, -4, 0), Vector(73, 53, 1));
    for (bool maximum : {false, true})
    {
        std::vector<double> const whole = openWith(maximum, *source, 9, 0, box);
        DilationFilter dilation(source.get(), 9, false);
        ErosionFilter erosion(source.get(), 9, false);
        Nuvek::Image& filter = maximum ? static_cast<Nuvek::Image&>(dilation) : static_cast<Nuvek::Image&>(erosion);
        for (int threads : {1, 4})
            EXPECT_TRUE(NuvekTest::sameBits(whole,
                                            NuvekTest::openTiled(filter, 0, box, {1, 2, 33, 60}, {7, 8, 40}, threads),
                                            box, "threads " + std::to_string(threads)));
    }
}

TEST(MorphologicFilter, FastAndPlainPassesGiveTheSameBitsAsTheReference)
{
    // Output widths below, at and above the four-value vectors (the fast passes refuse rows of fewer
    // than four), kernels of one and larger than the box, NaN, infinities and both zeros.
    std::mt19937_64 random(76);
    int round = 0;
    for (long long k : {1, 3, 5, 7, 9, 15, 23})
        for (long long width : {1, 3, 4, 5, 7, 8, 9, 13})
        {
            ++round;
            long long const rows = 1 + round % 6;
            double const specialShare = round % 3 == 0 ? 0.0 : (round % 3 == 1 ? 0.04 : 0.3);
            Vector const inputExtent(width + k - 1, rows + k - 1, 2);
            long long const numChannels = 1 + round % 2;
            auto padded = NuvekTest::trickyImage(random, inputExtent, numChannels, specialShare, round % 4 < 2);
            std::vector<double> const work = openWhole(*padded, 0, Box(inputExtent));
            // The box whose padded region is exactly the image.
            Box const box(Vector(k / 2, k / 2, 0), Vector(k / 2 + width - 1, k / 2 + rows - 1, 1));
            for (bool maximum : {false, true})
            {
                std::string const context =
                    "k " + std::to_string(k) + " width " + std::to_string(width) + (maximum ? " dilation" : " erosion");
                std::vector<double> plain(static_cast<std::size_t>(box.getSize() * numChannels), 0.5);
                Nuvek::extremaOfRegionPlain(maximum, work.data(), inputExtent, numChannels, k, plain.data());
                EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(*padded, k, maximum, box, 0), plain, box,
                                                context + " plain"));
                std::vector<double> fast(plain.size(), 0.5);
                bool const served =
                    Nuvek::extremaOfRegionFast(maximum, work.data(), inputExtent, numChannels, k, fast.data());
                EXPECT_EQ(served, width >= 4) << context;
                if (served)
                    EXPECT_TRUE(NuvekTest::sameBits(plain, fast, box, context + " fast"));
                else
                    EXPECT_EQ(fast, std::vector<double>(plain.size(), 0.5)) << context;
            }
        }
}
