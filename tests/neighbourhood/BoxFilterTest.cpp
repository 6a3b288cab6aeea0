#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/BoxFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "neighbourhood/NeighbourhoodTestHelpers.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>

using Nuvek::Box;
using Nuvek::BoxFilter;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

namespace {

// The plain definition: the k x k sum of input values around each voxel, read from the grown box.
std::vector<double> directBoxSums(Nuvek::Image& input, long long level, Box const& box, long long k, bool normalize)
{
    long long const h = k / 2;
    Box const grown = box.expanded(Vector(h, h, 0));
    std::vector<double> const in = openWhole(input, level, grown);
    Vector const gi = grown.getExtent(), go = box.getExtent();
    std::vector<double> out;
    for (long long c = 0; c < input.getNumChannels(); ++c)
        for (long long z = 0; z < go.z; ++z)
            for (long long y = 0; y < go.y; ++y)
                for (long long x = 0; x < go.x; ++x)
                {
                    double sum = 0.0;
                    for (long long dy = 0; dy < k; ++dy)
                        for (long long dx = 0; dx < k; ++dx)
                            sum += in[static_cast<std::size_t>(((c * gi.z + z) * gi.y + y + dy) * gi.x + x + dx)];
                    out.push_back(normalize ? sum / static_cast<double>(k * k) : sum);
                }
    return out;
}

} // namespace

TEST(BoxFilter, EvenKernelSizeIsRejectedBeforeNegativeOne)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    for (long long k : {0LL, 2LL, 4LL, -2LL})
        EXPECT_EQ(messageOf([&] { BoxFilter(&image, k, true, false, false); }), "Kernel size must be odd.") << k;
    for (long long k : {-1LL, -3LL})
        EXPECT_EQ(messageOf([&] { BoxFilter(&image, k, true, false, false); }), "Kernel size must not be negative.")
            << k;
    // An owned input is released when construction fails (the leak checker watches this).
    EXPECT_THROW(BoxFilter(new MemoryImage(Vector(2, 2, 1), 1), 2, true, false, true), std::runtime_error);
}

TEST(BoxFilter, AsksInputForBoxGrownByHalfKernelInXAndY)
{
    std::mt19937_64 random(41);
    NuvekTest::RecordingImage recording(NuvekTest::randomImage(random, Vector(30, 30, 2), 2));
    BoxFilter filter(&recording, 7, true, false, false);
    Box const box(Vector(-1, 4, 0), Vector(9, 20, 1));
    openWhole(filter, 1, box);
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(-4, 1, 0), Vector(12, 23, 1)));
    EXPECT_EQ(recording.requests()[0].level, 1);
}

TEST(BoxFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(42);
    // Widths around the vector widths, kernels of 1, small, and larger than the box.
    long long const kernels[] = {1, 3, 5, 7, 9, 15, 31};
    for (int round = 0; round < 140; ++round)
    {
        long long const numChannels = 1 + round % 4;
        double const specialShare = round % 3 == 0 ? 0.0 : 0.004;
        auto source = NuvekTest::randomImage(random, Vector(48, 40, 3), numChannels, {-100.0, 100.0, specialShare});
        long long const k = kernels[round % 7];
        bool const normalize = round % 2 == 0;
        bool const rounding = (round / 2) % 2 == 0;
        long long const level = round % 3;
        BoxFilter filter(source.get(), k, normalize, rounding, false);
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), 20, 3);
        std::string const context = "round " + std::to_string(round) + " k " + std::to_string(k) + " level " +
                                    std::to_string(level) + " normalize " + std::to_string(normalize) + " rounding " +
                                    std::to_string(rounding);
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::boxFilter(*source, level, box, k, normalize, rounding),
                                              openWhole(filter, level, box), box, context));
    }
}

TEST(BoxFilter, MatchesReferenceAtWidthsAroundTheFastPathsBlocks)
{
    // Widths just below, at and above the fast path's threshold and vector widths, heights that
    // leave whole groups of rows and remainders, kernels of 1 and larger than the box.
    std::mt19937_64 random(46);
    auto source = NuvekTest::randomImage(random, Vector(80, 60, 2), 2, {-100.0, 100.0, 0.002});
    for (long long width : {7LL, 8LL, 9LL, 15LL, 16LL, 17LL, 31LL, 32LL, 33LL, 65LL})
        for (long long k : {1LL, 3LL, 7LL, 41LL})
        {
            long long const height = 1 + (width * 7 + k) % 23;
            Box const box(Vector(-3, 2, 0), Vector(width - 4, height + 1, 1));
            BoxFilter filter(source.get(), k, k % 3 == 1, k == 7, false);
            EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::boxFilter(*source, 0, box, k, k % 3 == 1, k == 7),
                                                  openWhole(filter, 0, box), box,
                                                  "width " + std::to_string(width) + " k " + std::to_string(k)));
        }
}

TEST(BoxFilter, MatchesDirectSumsWithinRunningSumRounding)
{
    std::mt19937_64 random(43);
    auto source = NuvekTest::randomImage(random, Vector(60, 50, 2), 2, {-100.0, 100.0, 0.0});
    auto clamped = std::make_unique<Nuvek::ClampingFilter>(source.get(), false);
    for (long long k : {1LL, 3LL, 9LL, 25LL})
        for (bool normalize : {false, true})
        {
            BoxFilter filter(clamped.get(), k, normalize, false, false);
            Box const box(Vector(-3, -2, 0), Vector(61, 45, 0));
            EXPECT_TRUE(NuvekTest::nearlyEqual(directBoxSums(*clamped, 0, box, k, normalize), openWhole(filter, 0, box),
                                               box, 1e-10 * static_cast<double>(k * k), "k " + std::to_string(k)));
        }
}

TEST(BoxFilter, ConstantInputGivesMeanOrKSquaredTimesValueAndRange)
{
    MemoryImage image(Vector(9, 9, 1), 1, std::vector<double>(81, 3.0));
    image.setValueRange({-1.0, 4.0});
    Nuvek::ClampingFilter clamped(&image, false);
    Box const box(Vector(9, 9, 1));
    BoxFilter mean(&clamped, 5, true, false, false);
    BoxFilter sum(&clamped, 5, false, false, false);
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(81, 3.0), openWhole(mean, 0, box), box, 1e-13));
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(std::vector<double>(81, 75.0), openWhole(sum, 0, box), box));
    EXPECT_EQ(mean.getValueRange().min, -1.0);
    EXPECT_EQ(mean.getValueRange().max, 4.0);
    EXPECT_EQ(sum.getValueRange().min, -25.0);
    EXPECT_EQ(sum.getValueRange().max, 100.0);
    EXPECT_EQ(BoxFilter(&clamped, 5, false, true, false).getValueRange().max, 100.0);
}

TEST(BoxFilter, KernelOneCopiesAndRoundingTakesFloorOfValuePlusHalf)
{
    std::vector<double> const values{2.5, -2.5, 0.49999999999999994, -0.5, 7.25, 1e300};
    MemoryImage image(Vector(6, 1, 1), 1, values);
    Box const box(Vector(6, 1, 1));
    BoxFilter copy(&image, 1, false, false, false);
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(values, openWhole(copy, 0, box), box));
    BoxFilter rounded(&image, 1, false, true, false);
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN({3.0, -2.0, 1.0, 0.0, 7.0, 1e300}, openWhole(rounded, 0, box), box));
}

TEST(BoxFilter, FirstSumOfARowCarriesWhatThePreviousRowLeftInItsWindow)
{
    // Two slices of 3 x 3; k = 3 and a one-voxel box per slice. The last row of slice 0 ends in 1e17,
    // which enters the first row sum of slice 1 and is subtracted again, taking that row's first
    // values with it: 0.25 + 0.25 + 1e17 - 1e17 + 0.25 is 0.25, not 0.75.
    std::vector<double> values(18, 0.0);
    values[8] = 1e17;
    for (int i = 9; i < 18; ++i)
        values[static_cast<std::size_t>(i)] = 0.25;
    MemoryImage image(Vector(3, 3, 2), 1, values);
    BoxFilter filter(&image, 3, false, false, false);
    Box const box(Vector(1, 1, 0), Vector(1, 1, 1));
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN({1e17, 1.75}, openWhole(filter, 0, box), box));

    // The same eight voxels wide: the slot is last filled at window position 6, input column 8.
    std::vector<double> wide(60, 0.0);
    wide[28] = 1e17;
    for (int i = 30; i < 60; ++i)
        wide[static_cast<std::size_t>(i)] = 0.25;
    MemoryImage wideImage(Vector(10, 3, 2), 1, wide);
    BoxFilter wideFilter(&wideImage, 3, false, false, false);
    Box const wideBox(Vector(1, 1, 0), Vector(8, 1, 1));
    std::vector<double> expected(16, 1.75);
    std::fill(expected.begin(), expected.begin() + 8, 0.0);
    expected[6] = expected[7] = 1e17;
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(expected, openWhole(wideFilter, 0, wideBox), wideBox));

    // With k = 1 the carried value cancels unless it is infinite: then the next row is NaN.
    double const inf = std::numeric_limits<double>::infinity();
    MemoryImage ramp(Vector(2, 2, 1), 1, {1.0, inf, 2.0, 3.0});
    BoxFilter copy(&ramp, 1, false, false, false);
    std::vector<double> const out = openWhole(copy, 0, Box(Vector(2, 2, 1)));
    EXPECT_EQ(out[0], 1.0);
    EXPECT_EQ(out[1], inf);
    EXPECT_TRUE(std::isnan(out[2]) && std::isnan(out[3]));
}

TEST(BoxFilter, SlicesNeverMix)
{
    // Small integers keep every running sum exact, so each slice must equal its own request.
    std::mt19937_64 random(44);
    std::vector<double> values = NuvekTest::randomValues(random, 20 * 20 * 3, {-50.0, 50.0, 0.0});
    for (double& value : values)
        value = std::floor(value);
    MemoryImage image(Vector(20, 20, 3), 1, values);
    BoxFilter filter(&image, 5, false, false, false);
    Box const box(Vector(-2, 3, 0), Vector(17, 19, 2));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (long long z = 0; z < 3; ++z)
    {
        Box const slice(Vector(box.min.x, box.min.y, z), Vector(box.max.x, box.max.y, z));
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekTest::crop(whole, box, slice, 1), openWhole(filter, 0, slice), slice,
                                              "slice " + std::to_string(z)));
    }
}

TEST(BoxFilter, TilesAgreeWithOneLargeRequestOnIntegerValues)
{
    // The carried window slot makes the first sum of a row depend on the row before it; with
    // integers the sums are exact and tiles must agree with one request bit for bit.
    std::mt19937_64 random(45);
    std::vector<double> values = NuvekTest::randomValues(random, 53 * 47 * 2, {0.0, 256.0, 0.0});
    for (double& value : values)
        value = std::floor(value);
    MemoryImage image(Vector(53, 47, 1), 2, values);
    Nuvek::ClampingFilter clamped(&image, false);
    for (long long k : {3LL, 11LL})
    {
        BoxFilter filter(&clamped, k, false, false, false);
        Box const box(Vector(53, 47, 1));
        std::vector<double> const whole = openWhole(filter, 0, box);
        for (int threads : {1, 3})
            EXPECT_TRUE(
                NuvekTest::sameBitsAnyNaN(whole, NuvekTest::openTiled(filter, 0, box, {5, 16, 33}, {7, 8, 29}, threads),
                                          box, "k " + std::to_string(k) + " threads " + std::to_string(threads)));
    }
}

TEST(BoxFilter, EmptyBoxLeavesOutputUntouched)
{
    MemoryImage image(Vector(8, 8, 1), 1, std::vector<double>(64, 1.0));
    BoxFilter filter(&image, 3, true, false, false);
    std::vector<double> out(4, -7.0);
    filter.openRegion(out.data(), 0, Box(Vector(2, 2, 0), Vector(1, 5, 0)));
    EXPECT_EQ(out, std::vector<double>(4, -7.0));
    EXPECT_EQ(filter.getNumChannels(), 1);
    EXPECT_EQ(filter.getChannelName(0), "Channel 0");
}
