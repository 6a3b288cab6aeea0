#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>
#include <nuvek/filters/neighbourhood/SeparableConvolutionFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "neighbourhood/NeighbourhoodTestHelpers.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

using Nuvek::Box;
using Nuvek::GaussianBlurFilter;
using Nuvek::MemoryImage;
using Nuvek::SeparableConvolutionFilter;
using Nuvek::Vector;
using NuvekTest::messageOf;
using NuvekTest::openWhole;

namespace {

// Weights with zeros, negative values and -0.0 among them, which a kernel may hold.
std::vector<double> randomKernel(std::mt19937_64& random, long long length)
{
    std::vector<double> kernel = NuvekTest::randomValues(random, length, {-1.0, 1.0, 0.0});
    std::uniform_int_distribution<int> pick(0, 5);
    for (double& weight : kernel)
    {
        int const choice = pick(random);
        if (choice == 0)
            weight = 0.0;
        else if (choice == 1)
            weight = -0.0;
    }
    return kernel;
}

std::vector<double> rampImageValues(Vector const& extent)
{
    std::vector<double> values;
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            values.push_back(static_cast<double>(x));
    return values;
}

} // namespace

TEST(SeparableConvolutionFilter, UnequalLengthsAreRejectedBeforeEvenOnes)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    std::vector<double> const three(3, 1.0), four(4, 1.0), five(5, 1.0);
    EXPECT_EQ(messageOf([&] { SeparableConvolutionFilter(&image, three, five, false); }),
              "Kernel sizes for x and y must be equal.");
    EXPECT_EQ(messageOf([&] { SeparableConvolutionFilter(&image, four, five, false); }),
              "Kernel sizes for x and y must be equal.");
    EXPECT_EQ(messageOf([&] { SeparableConvolutionFilter(&image, four, four, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { SeparableConvolutionFilter(&image, std::vector<double>(), false); }),
              "Kernel size must be odd.");
    for (long long k : {0LL, -3LL, 4LL})
        EXPECT_EQ(messageOf([&] { GaussianBlurFilter(&image, k, false); }), "Kernel size must be odd.") << k;
    // Owned inputs are released when construction fails (the leak checker watches this).
    EXPECT_THROW(SeparableConvolutionFilter(new MemoryImage(Vector(2, 2, 1), 1), four, true), std::runtime_error);
    EXPECT_THROW(GaussianBlurFilter(new MemoryImage(Vector(2, 2, 1), 1), -1, true), std::runtime_error);
}

TEST(SeparableConvolutionFilter, AsksInputForBoxGrownByHalfKernelInXAndY)
{
    std::mt19937_64 random(51);
    NuvekTest::RecordingImage recording(NuvekTest::randomImage(random, Vector(30, 30, 3), 1));
    GaussianBlurFilter filter(&recording, 9, false);
    openWhole(filter, 2, Box(Vector(0, 0, 1), Vector(5, 6, 2)));
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(-4, -4, 1), Vector(9, 10, 2)));
    EXPECT_EQ(recording.requests()[0].level, 2);
}

TEST(SeparableConvolutionFilter, CentredUnitKernelReproducesTheInput)
{
    std::mt19937_64 random(52);
    auto source = NuvekTest::randomImage(random, Vector(25, 19, 2), 3);
    SeparableConvolutionFilter filter(source.get(), {0.0, 1.0, 0.0}, false);
    Box const box(Vector(-2, -3, 0), Vector(26, 20, 1));
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(openWhole(*source, 0, box), openWhole(filter, 0, box), box));
}

TEST(SeparableConvolutionFilter, KernelElementZeroWeighsTheLowestCoordinate)
{
    MemoryImage image(Vector(12, 6, 1), 1, rampImageValues(Vector(12, 6, 1)));
    SeparableConvolutionFilter filter(&image, {1.0, 0.0, -1.0}, {0.0, 1.0, 0.0}, false);
    Box const box(Vector(1, 0, 0), Vector(10, 5, 0));
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(std::vector<double>(60, -2.0), openWhole(filter, 0, box), box));
}

TEST(SeparableConvolutionFilter, RangeIsTheInputsWhateverTheKernels)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    image.setValueRange({-3.0, 8.0});
    SeparableConvolutionFilter filter(&image, {-5.0, 2.0, -7.0}, {1.0, -1.0, 1.0}, false);
    EXPECT_EQ(filter.getValueRange().min, -3.0);
    EXPECT_EQ(filter.getValueRange().max, 8.0);
    EXPECT_EQ(GaussianBlurFilter(&image, 5, false).getValueRange().max, 8.0);
}

TEST(SeparableConvolutionFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(53);
    long long const lengths[] = {1, 3, 5, 7, 9, 15, 31};
    for (int round = 0; round < 140; ++round)
    {
        long long const numChannels = 1 + round % 4;
        auto source = NuvekTest::randomImage(random, Vector(48, 40, 3), numChannels, {-100.0, 100.0, 0.003});
        long long const n = lengths[round % 7];
        std::vector<double> const kernelX = randomKernel(random, n), kernelY = randomKernel(random, n);
        long long const level = round % 3;
        SeparableConvolutionFilter filter(source.get(), kernelX, kernelY, false);
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), 20, 3);
        std::string const context =
            "round " + std::to_string(round) + " n " + std::to_string(n) + " level " + std::to_string(level);
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::separableFilter(*source, level, box, kernelX, kernelY),
                                              openWhole(filter, level, box), box, context));
    }
}

TEST(SeparableConvolutionFilter, MatchesReferenceAtWidthsAroundTheFastPathsBlocks)
{
    // Widths just below, at and above the fast path's threshold and block widths, kernels of 1 and
    // larger than the box.
    std::mt19937_64 random(56);
    auto source = NuvekTest::randomImage(random, Vector(90, 40, 1), 2, {-100.0, 100.0, 0.002});
    for (long long width : {7LL, 8LL, 9LL, 15LL, 16LL, 17LL, 31LL, 32LL, 33LL, 63LL, 64LL, 65LL})
        for (long long n : {1LL, 3LL, 9LL, 41LL})
        {
            std::vector<double> const kernelX = randomKernel(random, n), kernelY = randomKernel(random, n);
            SeparableConvolutionFilter filter(source.get(), kernelX, kernelY, false);
            Box const box(Vector(-2, 1, 0), Vector(width - 3, 1 + (width + n) % 13, 0));
            EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::separableFilter(*source, 0, box, kernelX, kernelY),
                                                  openWhole(filter, 0, box), box,
                                                  "width " + std::to_string(width) + " n " + std::to_string(n)));
        }
}

TEST(SeparableConvolutionFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(54);
    auto source = NuvekTest::randomImage(random, Vector(61, 43, 2), 2, {-10.0, 10.0, 0.002});
    Nuvek::ClampingFilter clamped(source.get(), false);
    SeparableConvolutionFilter filter(&clamped, randomKernel(random, 7), randomKernel(random, 7), false);
    Box const box(Vector(61, 43, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads : {1, 4})
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(whole,
                                              NuvekTest::openTiled(filter, 0, box, {9, 10, 37}, {3, 22}, threads), box,
                                              "threads " + std::to_string(threads)));
}

TEST(SeparableConvolutionFilter, EmptyBoxLeavesOutputUntouched)
{
    MemoryImage image(Vector(8, 8, 1), 2);
    GaussianBlurFilter filter(&image, 3, false);
    std::vector<double> out(4, -7.0);
    filter.openRegion(out.data(), 0, Box(Vector(0, 3, 0), Vector(5, 2, 0)));
    EXPECT_EQ(out, std::vector<double>(4, -7.0));
}

TEST(GaussianBlurFilter, KernelIsTheNormalisedSampledGaussian)
{
    std::vector<double> const kernel = GaussianBlurFilter::getGaussianKernel(5);
    ASSERT_EQ(kernel.size(), 5u);
    double const sum = 2 * std::exp(-2.0) + 2 * std::exp(-0.5) + 1.0;
    double const expected[] = {std::exp(-2.0) / sum, std::exp(-0.5) / sum, 1.0 / sum, std::exp(-0.5) / sum,
                               std::exp(-2.0) / sum};
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_NEAR(kernel[i], expected[i], 2e-16) << i;
    EXPECT_NEAR(kernel[0] + kernel[1] + kernel[2] + kernel[3] + kernel[4], 1.0, 1e-15);
    // Size 3: sigma 0.5, weights exp(-2), 1, exp(-2).
    std::vector<double> const three = GaussianBlurFilter::getGaussianKernel(3);
    ASSERT_EQ(three.size(), 3u);
    EXPECT_NEAR(three[0], 0.10650697891920077, 2e-16);
    EXPECT_NEAR(three[1], 0.78698604216159850, 2e-16);
    EXPECT_EQ(three[0], three[2]);

    EXPECT_TRUE(GaussianBlurFilter::getGaussianKernel(0).empty());
    EXPECT_TRUE(GaussianBlurFilter::getGaussianKernel(-4).empty());
    std::vector<double> const one = GaussianBlurFilter::getGaussianKernel(1);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_TRUE(std::isnan(one[0]));
}

TEST(GaussianBlurFilter, ComputeGaussianIsUnnormalised)
{
    EXPECT_EQ(GaussianBlurFilter::computeGaussian(0.0, 3.0), 1.0);
    EXPECT_DOUBLE_EQ(GaussianBlurFilter::computeGaussian(1.0, 1.0), std::exp(-0.5));
    EXPECT_DOUBLE_EQ(GaussianBlurFilter::computeGaussian(-4.0, 2.0), std::exp(-2.0));
}

TEST(GaussianBlurFilter, SizeOneGivesNaNEverywhere)
{
    MemoryImage image(Vector(5, 5, 1), 1, std::vector<double>(25, 1.0));
    GaussianBlurFilter filter(&image, 1, false);
    for (double value : openWhole(filter, 0, Box(Vector(5, 5, 1))))
        EXPECT_TRUE(std::isnan(value));
}

TEST(GaussianBlurFilter, MatchesReferenceAndKeepsAConstantImage)
{
    std::mt19937_64 random(55);
    auto source = NuvekTest::randomImage(random, Vector(40, 40, 2), 2, {-100.0, 100.0, 0.003});
    for (long long k : {3LL, 5LL, 21LL})
    {
        GaussianBlurFilter filter(source.get(), k, false);
        std::vector<double> const kernel = NuvekReference::gaussianKernel(k);
        for (int i = 0; i < 6; ++i)
        {
            long long const level = i % 2;
            Box const box = NuvekTest::randomBox(random, source->getExtent(level), 24, 2);
            EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(NuvekReference::separableFilter(*source, level, box, kernel, kernel),
                                                  openWhole(filter, level, box), box, "k " + std::to_string(k)));
        }
    }
    MemoryImage constant(Vector(9, 9, 1), 1, std::vector<double>(81, 5.0));
    Nuvek::ClampingFilter clamped(&constant, false);
    GaussianBlurFilter blur(&clamped, 7, false);
    Box const box(Vector(9, 9, 1));
    EXPECT_TRUE(NuvekTest::nearlyEqual(std::vector<double>(81, 5.0), openWhole(blur, 0, box), box, 1e-14));
}
