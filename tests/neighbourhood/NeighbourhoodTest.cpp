// Neighbourhood filters: the definitions, through the seeded harness, and one pinned example per deliberate oddity.
#include "reference/DistanceTransformReference.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "reference/RadialSymmetryReference.h"
#include "reference/ResolutionReference.h"
#include "support/NuvekTest.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

using namespace NuvekTest;
using Nuvek::Box;
using Nuvek::BoxFilter;
using Nuvek::DistanceTransformFilter;
using Nuvek::GaussianBlurFilter;
using Nuvek::HarrisEigenvaluesFilter;
using Nuvek::LocalNormalizationFilter;
using Nuvek::MemoryImage;
using Nuvek::RadialSymmetryFilter;
using Nuvek::SeparableConvolutionFilter;
using Nuvek::SobelMagnitudeFilter;
using Nuvek::SobelVectorFilter;
using Nuvek::Vector;
using namespace NuvekTest;

// Every neighbourhood filter against its plain definition, through the seeded harness.
namespace {

// Weights with zeros, -0.0 and negative values among them, which a kernel may hold.
std::vector<double> randomKernel(Draw& draw, long long length)
{
    std::vector<double> kernel = randomValues(draw.random, length, {-1.0, 1.0, 0.0});
    for (double& weight : kernel)
    {
        long long const choice = std::uniform_int_distribution<long long>(0, 5)(draw.random);
        weight = choice == 0 ? 0.0 : choice == 1 ? -0.0 : weight;
    }
    return kernel;
}

} // namespace

TEST(BoxFilter, MatchesReference)
{
    long long k = 1;
    bool normalize = false, rounding = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            normalize = draw.flip("normalize");
            rounding = draw.flip("rounding");
            return std::make_unique<Nuvek::BoxFilter>(input, k, normalize, rounding, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::boxFilter(input, level, box, k, normalize, rounding);
        },
        HarnessOptions(150, 11));
}

TEST(BoxFilter, MatchesTheDirectKByKSumWithinRunningSumRounding)
{
    // The definition itself, a k x k sum read from the grown box, within the rounding of running sums.
    long long k = 1;
    bool normalize = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            normalize = draw.flip("normalize");
            return std::make_unique<Nuvek::BoxFilter>(input, k, normalize, false, false);
        },
        [&](Image& input, long long level, Box const& box) {
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
                                    sum +=
                                        in[static_cast<std::size_t>(((c * gi.z + z) * gi.y + y + dy) * gi.x + x + dx)];
                            out.push_back(normalize ? sum / static_cast<double>(k * k) : sum);
                        }
            return out;
        },
        HarnessOptions(40, 12).mix({-100.0, 100.0, 0.0}).tolerance(1e-9));
}

TEST(SeparableConvolutionFilter, MatchesReference)
{
    std::vector<double> kx, ky;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            long long const n = draw.kernel("n");
            kx = randomKernel(draw, n);
            ky = draw.flip("same") ? kx : randomKernel(draw, n);
            return std::make_unique<Nuvek::SeparableConvolutionFilter>(input, kx, ky, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::separableFilter(input, level, box, kx, ky);
        },
        HarnessOptions(150, 13));
}

TEST(GaussianBlurFilter, MatchesReference)
{
    long long k = 1;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            return std::make_unique<Nuvek::GaussianBlurFilter>(input, k, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> const kernel = NuvekReference::gaussianKernel(k);
            return NuvekReference::separableFilter(input, level, box, kernel, kernel);
        },
        HarnessOptions(40, 14));
}

TEST(SobelFilter, MatchesReference)
{
    long long k = 1;
    bool magnitude = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) -> std::unique_ptr<Image> {
            k = draw.kernel();
            magnitude = draw.flip("magnitude");
            if (magnitude)
                return std::make_unique<Nuvek::SobelMagnitudeFilter>(input, k, false);
            return std::make_unique<Nuvek::SobelVectorFilter>(input, k, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::sobel(input, level, box, k, magnitude);
        },
        HarnessOptions(60, 15));
}

TEST(HarrisEigenvaluesFilter, MatchesReference)
{
    long long k = 1;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            return std::make_unique<Nuvek::HarrisEigenvaluesFilter>(input, k, false);
        },
        [&](Image& input, long long level, Box const& box) { return NuvekReference::harris(input, level, box, k); },
        HarnessOptions(40, 16).channels({1, 2}));
}

TEST(LocalNormalizationFilter, MatchesReference)
{
    // Requests finer than, at and coarser than the background level.
    long long background = 0;
    bool ownRange = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            background = draw.integer(0, 4, "background");
            ownRange = draw.flip("range");
            if (ownRange)
                static_cast<MemoryImage*>(input)->setValueRange({-200.0, 50.0});
            return std::make_unique<Nuvek::LocalNormalizationFilter>(input, background, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::normalizeLocally(input, background, level, box);
        },
        HarnessOptions(80, 17).mix({-100.0, 100.0, 0.03}));
}

TEST(DistanceTransformFilter, MatchesReference)
{
    // The later share of every channel goes into the passes as read, NaN and infinities included.
    long long cap = 0;
    double value = 0.0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            cap = std::vector<long long>{0, 1, 2, 3, 7, 20}[static_cast<std::size_t>(draw.integer(0, 5, "capIndex"))];
            value = std::vector<double>{1.0, 0.0, inf, NaN}[static_cast<std::size_t>(draw.integer(0, 3, "valueIndex"))];
            return std::make_unique<Nuvek::DistanceTransformFilter>(input, value, cap, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> expected(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            NuvekReference::distanceTransform(expected, openWhole(input, level, box.expanded(Vector(cap, cap, 0))), box,
                                              input.getExtent(level), input.getNumChannels(), value, cap);
            return expected;
        },
        HarnessOptions(120, 18).shape([](std::vector<double>& values, std::mt19937_64& random) {
            double const choices[] = {0.0, 1.0, 1.0, 1.0, 2.0, -3.0, NaN, inf, -inf, 1e30};
            for (double& v : values)
                v = choices[std::uniform_int_distribution<int>(0, 9)(random)];
        }));
}

TEST(DistanceTransformFilter, MatchesBruteForceNearestTarget)
{
    // The definition itself: the nearest voxel other than 1 among the voxels read, by direct search,
    // capped; written for the overlap of box and image, from the box's first voxel.
    long long cap = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            cap = draw.integer(1, 19, "cap");
            return std::make_unique<Nuvek::DistanceTransformFilter>(input, 1.0, cap, false);
        },
        [&](Image& input, long long level, Box const& box) {
            Box const grown = box.expanded(Vector(cap, cap, 0));
            std::vector<double> const in = openWhole(input, level, grown);
            std::vector<double> out(static_cast<std::size_t>(box.getSize()), 0.0);
            Vector const written = box.intersected(Box(input.getExtent(level))).getExtent();
            Vector const size = box.getExtent(), grownSize = grown.getExtent();
            for (long long y = 0; y < written.y; ++y)
                for (long long x = 0; x < written.x; ++x)
                {
                    long long best = std::numeric_limits<long long>::max();
                    for (long long ty = 0; ty < grownSize.y; ++ty)
                        for (long long tx = 0; tx < grownSize.x; ++tx)
                            if (in[static_cast<std::size_t>(ty * grownSize.x + tx)] != 1.0)
                                best =
                                    std::min(best, (tx - x - cap) * (tx - x - cap) + (ty - y - cap) * (ty - y - cap));
                    out[static_cast<std::size_t>(y * size.x + x)] =
                        std::min(std::sqrt(static_cast<double>(best)), static_cast<double>(cap));
                }
            return out;
        },
        HarnessOptions(30, 19).channels({1}).slices(1).shape([](std::vector<double>& values, std::mt19937_64& random) {
            for (double& v : values)
                v = std::uniform_int_distribution<int>(0, 9)(random) == 0 ? 0.0 : 1.0;
        }));
}

TEST(DistanceTransform, dtRefusesNegativeCountsAndMissingSamples)
{
    double f[1] = {0.0};
    EXPECT_EQ(messageOf([&] { Nuvek::dt(f, -1); }), "dt needs a non-negative number of samples.");
    EXPECT_EQ(messageOf([&] { Nuvek::dt(nullptr, 3); }), "dt needs samples to transform.");
}

namespace {

} // namespace

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
    MemoryImage ramp(Vector(2, 2, 1), 1, {1.0, inf, 2.0, 3.0});
    BoxFilter copy(&ramp, 1, false, false, false);
    std::vector<double> const out = openWhole(copy, 0, Box(Vector(2, 2, 1)));
    EXPECT_EQ(out[0], 1.0);
    EXPECT_EQ(out[1], inf);
    EXPECT_TRUE(std::isnan(out[2]) && std::isnan(out[3]));
}

namespace {

std::vector<double> rampImageValues(Vector const& extent)
{
    std::vector<double> values;
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            values.push_back(static_cast<double>(x));
    return values;
}

} // namespace

TEST(SeparableConvolutionFilter, KernelElementZeroWeighsTheLowestCoordinate)
{
    MemoryImage image(Vector(12, 6, 1), 1, rampImageValues(Vector(12, 6, 1)));
    SeparableConvolutionFilter filter(&image, {1.0, 0.0, -1.0}, {0.0, 1.0, 0.0}, false);
    Box const box(Vector(1, 0, 0), Vector(10, 5, 0));
    EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(std::vector<double>(60, -2.0), openWhole(filter, 0, box), box));
}

TEST(GaussianBlurFilter, SizeOneGivesNaNEverywhere)
{
    MemoryImage image(Vector(5, 5, 1), 1, std::vector<double>(25, 1.0));
    GaussianBlurFilter filter(&image, 1, false);
    for (double value : openWhole(filter, 0, Box(Vector(5, 5, 1))))
        EXPECT_TRUE(std::isnan(value));
}

TEST(SobelFilter, KernelSizeOneGivesNaNEverywhere)
{
    MemoryImage image(Vector(5, 5, 1), 1, std::vector<double>(25, 2.0));
    SobelVectorFilter filter(&image, 1, false);
    for (double value : openWhole(filter, 0, Box(Vector(5, 5, 1))))
        EXPECT_TRUE(std::isnan(value));
}

namespace {

} // namespace

TEST(LocalNormalizationFilter, AtTheBackgroundLevelItselfTheBackgroundMixesFourNeighbours)
{
    // v(x, y) = x^2 + 7y: with f = 1 voxel (x, y) sits at the corner shared by the background voxels
    // x - 1, x and y - 1, y, each weighted 1/4, so b is their mean, not v(x, y).
    std::vector<double> values;
    for (long long y = 0; y < 6; ++y)
        for (long long x = 0; x < 6; ++x)
            values.push_back(static_cast<double>(x * x + 7 * y));
    Nuvek::MemoryImage image(Vector(6, 6, 1), 1, values);
    image.setValueRange(Nuvek::ValueRange<double>(-10.0, 90.0));
    LocalNormalizationFilter filter(&image, 0, false);
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(3, 2, 0), Vector(3, 2, 0)));
    double const b = (4.0 + 9.0 + 4.0 + 9.0 + 7.0 + 7.0 + 14.0 + 14.0) / 4.0;
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0], (23.0 - b + 100.0) * 0.5 - 10.0);
}

TEST(LocalNormalizationFilter, SlicesCountFromTheRequestedBoxAndMissingOnesKeepTheInput)
{
    // Two slices of constants 10 and 50, range (0, 100). The box starts one slice before the image:
    // output slice -1 (input 0.0) is normalized against slice 0, slice 0 (input 10) against slice 1,
    // and slice 1 (input 50) has no background slice and keeps its value.
    std::vector<double> values(4 * 4 * 2, 10.0);
    std::fill(values.begin() + 16, values.end(), 50.0);
    Nuvek::MemoryImage image(Vector(4, 4, 2), 1, values);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 100.0));
    LocalNormalizationFilter filter(&image, 1, false);
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(1, 1, -1), Vector(1, 1, 1)));
    EXPECT_EQ(out, (std::vector<double>{(0.0 - 10.0 + 100.0) * 0.5, (10.0 - 50.0 + 100.0) * 0.5, 50.0}));
}

TEST(LocalNormalizationFilter, CacheIsCutTo100000ValuesAndStillServesLaterRequests)
{
    std::mt19937_64 random(84);
    auto image = NuvekTest::randomImage(random, Vector(400, 300, 1), 1);
    LocalNormalizationFilter filter(image.get(), 0, false);
    // At f = 1 the background box is the whole image, 120000 values.
    Box const large(Vector(0, 0, 0), Vector(399, 299, 0));
    std::vector<double> const whole = openWhole(filter, 0, large);
    EXPECT_EQ(filter.getCacheSize(), 100000);
    Box const small(Vector(101, 202, 0), Vector(140, 231, 0));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::crop(whole, large, small, 1), openWhole(filter, 0, small), small));
    EXPECT_EQ(filter.getCacheSize(), 100000);
}

namespace {

// Fills every voxel the filter must not write.
double const sentinel = -12345.5;

std::vector<double> transform(std::vector<double> f)
{
    std::unique_ptr<double[]> const d(Nuvek::dt(f.data(), static_cast<long long>(f.size())));
    return std::vector<double>(d.get(), d.get() + f.size());
}

// Random samples drawn from a few exact values and the special ones, so that equal samples,
// far-away samples and every special value occur in short profiles.
std::vector<double> randomProfile(std::mt19937_64& random, long long length)
{
    static double const choices[] = {0.0, 0.0, 1e20, 1e20, 1e20, 3.0, 17.0, -2.5, 1e300, -1e25, NaN, inf, -inf};
    std::uniform_int_distribution<std::size_t> pick(0, std::size(choices) - 1);
    std::vector<double> f(static_cast<std::size_t>(length));
    for (double& sample : f)
        sample = choices[pick(random)];
    return f;
}

std::vector<double> openInto(Nuvek::Image& image, long long level, Box const& box, double fill)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), fill);
    image.openRegion(out.data(), level, box);
    return out;
}

} // namespace

TEST(dt, GivesSquaredDistancesToTheNearestZero)
{
    EXPECT_EQ(transform({0.0, 1e20, 1e20, 0.0}), (std::vector<double>{0.0, 1.0, 1.0, 0.0}));
    EXPECT_EQ(transform({1e20, 1e20, 0.0}), (std::vector<double>{4.0, 1.0, 0.0}));
    EXPECT_EQ(transform({7.5}), (std::vector<double>{7.5}));
    // A low sample lifts its neighbours less than a zero further away.
    EXPECT_EQ(transform({0.0, 1e20, 1e20, 1e20, 1e20, 2.0}), (std::vector<double>{0.0, 1.0, 4.0, 6.0, 3.0, 2.0}));
}

TEST(dt, IsTheLowestParabolaAtEverySample)
{
    // Small integer samples keep every sum exact, so the envelope must equal the direct minimum.
    std::mt19937_64 random(701);
    std::uniform_int_distribution<int> sample(0, 60);
    std::bernoulli_distribution far(0.3);
    for (long long n = 1; n <= 48; ++n)
        for (int round = 0; round < 8; ++round)
        {
            std::vector<double> f(static_cast<std::size_t>(n));
            for (double& value : f)
                value = far(random) ? 1e20 : sample(random);
            std::vector<double> const d = transform(f);
            for (long long q = 0; q < n; ++q)
            {
                double best = inf;
                for (long long p = 0; p < n; ++p)
                    best = std::min(best, static_cast<double>((q - p) * (q - p)) + f[static_cast<std::size_t>(p)]);
                ASSERT_EQ(d[static_cast<std::size_t>(q)], best) << "n " << n << " round " << round << " q " << q;
            }
        }
}

TEST(dt, MatchesReferenceOnSamplesWithNaNAndInfinities)
{
    // Minus infinity beats even the envelope's first bound: nothing may be read before the envelope.
    EXPECT_TRUE(
        NuvekTest::sameBits(NuvekReference::dt({0.0, -inf, 1e20}), transform({0.0, -inf, 1e20}), Box(Vector(3, 1, 1))));
    std::mt19937_64 random(702);
    for (long long n = 1; n <= 70; ++n)
        for (int round = 0; round < 20; ++round)
        {
            std::vector<double> const f = randomProfile(random, n);
            ASSERT_TRUE(NuvekTest::sameBits(NuvekReference::dt(f), transform(f), Box(Vector(n, 1, 1)),
                                            "n " + std::to_string(n) + " round " + std::to_string(round)));
        }
}

TEST(DistanceTransformFilter, OnlyTheFirstSliceOfEachChannelIsWrittenAtItsPlace)
{
    // Two channels: channel 1 has its target at a different place, so a swapped or shifted plane shows.
    Vector const extent(8, 6, 3);
    Nuvek::MemoryImage image(extent, 2);
    image.setValue(Vector(0, 0, 0), 0, 1.0);
    image.setValue(Vector(7, 5, 0), 1, 1.0);
    DistanceTransformFilter filter(&image, 0.0, 20, false);
    Box const box(extent);
    std::vector<double> const out = openInto(filter, 0, box, sentinel);
    long long const planeSize = extent.x * extent.y;
    for (long long c = 0; c < 2; ++c)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < extent.y; ++y)
                for (long long x = 0; x < extent.x; ++x)
                {
                    double const actual =
                        out[static_cast<std::size_t>(c * box.getSize() + z * planeSize + y * extent.x + x)];
                    long long const dx = c == 0 ? x : 7 - x, dy = c == 0 ? y : 5 - y;
                    double const expected = z == 0 ? std::sqrt(static_cast<double>(dx * dx + dy * dy)) : sentinel;
                    ASSERT_EQ(actual, expected) << "at (" << x << ", " << y << ", " << z << ", " << c << ")";
                }
}

TEST(DistanceTransformFilter, WithSeveralChannelsOnlyTheFirstShareOfEachChannelIsCompared)
{
    // Grown box 24 x 24 of two channels: 576 / 2 = 288 values, rows 0 to 11, are compared; rows 12
    // on keep the 5.0 they read and act as squared distances of 5 in the passes.
    Nuvek::MemoryImage image(Vector(30, 30, 1), 2, std::vector<double>(1800, 5.0));
    DistanceTransformFilter filter(&image, 5.0, 10, false);
    Box const box(Vector(10, 10, 0), Vector(13, 13, 0));
    std::vector<double> const out = openWhole(filter, 0, box);
    double const rows[] = {3.0, std::sqrt(6.0), std::sqrt(5.0), std::sqrt(5.0)};
    for (long long c = 0; c < 2; ++c)
        for (long long y = 0; y < 4; ++y)
            for (long long x = 0; x < 4; ++x)
                ASSERT_EQ(out[static_cast<std::size_t>(c * 16 + y * 4 + x)], rows[y])
                    << "at (" << x << ", " << y << ", 0, " << c << ")";
}

TEST(DistanceTransformFilter, BinaryAndGeneralColumnPassesAgree)
{
    // Seeds of 0.0 and 1e20 compared with 1e20 stay as they are, so a two-channel slice, whose later
    // half goes into the passes as read, must give each channel what a one-channel image of it gives.
    // Some columns hold no target at all.
    std::mt19937_64 random(708);
    for (int round = 0; round < 150; ++round)
    {
        Vector const extent(1 + round % 11 * 3, 1 + round * 7 % 29, 1);
        long long const cap = round % 5 * 4;
        std::bernoulli_distribution target(round % 3 == 0 ? 0.02 : 0.2);
        std::bernoulli_distribution emptyColumn(0.3);
        std::vector<double> values(static_cast<std::size_t>(2 * extent.x * extent.y));
        for (long long c = 0; c < 2; ++c)
            for (long long x = 0; x < extent.x; ++x)
            {
                bool const empty = emptyColumn(random);
                for (long long y = 0; y < extent.y; ++y)
                    values[static_cast<std::size_t>((c * extent.y + y) * extent.x + x)] =
                        !empty && target(random) ? 0.0 : 1e20;
            }
        Nuvek::MemoryImage both(extent, 2, values);
        DistanceTransformFilter general(&both, 1e20, cap, false);
        Box const box = NuvekTest::randomOverlappingBox(random, extent, 30, 1);
        std::vector<double> const fromBoth = openInto(general, 0, box, sentinel);
        for (long long c = 0; c < 2; ++c)
        {
            long long const planeSize = extent.x * extent.y;
            Nuvek::MemoryImage one(
                extent, 1, std::vector<double>(values.begin() + c * planeSize, values.begin() + (c + 1) * planeSize));
            DistanceTransformFilter binary(&one, 1e20, cap, false);
            std::vector<double> const plane(fromBoth.begin() + c * box.getSize(),
                                            fromBoth.begin() + (c + 1) * box.getSize());
            ASSERT_TRUE(NuvekTest::sameBits(plane, openInto(binary, 0, box, sentinel), box,
                                            "round " + std::to_string(round) + " channel " + std::to_string(c)));
        }
    }
}

namespace {

// A disc of `value` with the given radius around `centre` on a field of zeros.
std::shared_ptr<Nuvek::MemoryImage> discImage(Vector const& extent, Vector const& centre, long long radius,
                                              double value)
{
    std::vector<double> values(static_cast<std::size_t>(extent.prod()), 0.0);
    for (long long z = 0; z < extent.z; ++z)
        for (long long y = 0; y < extent.y; ++y)
            for (long long x = 0; x < extent.x; ++x)
                if ((x - centre.x) * (x - centre.x) + (y - centre.y) * (y - centre.y) <= radius * radius)
                    values[static_cast<std::size_t>((z * extent.y + y) * extent.x + x)] = value;
    return std::make_shared<Nuvek::MemoryImage>(extent, 1, std::move(values));
}

// The gradients the filter's own Sobel filter delivers for box grown by the rounded radius.
std::vector<double> gradientsFor(Nuvek::Image& input, long long level, Box const& box, double radius)
{
    long long const r = static_cast<long long>(std::trunc(radius + 0.5));
    Nuvek::SobelVectorFilter sobel(&input, 3, false);
    return openWhole(sobel, level, box.expanded(Vector(r, r, 0)));
}

} // namespace

TEST(RadialSymmetryFilter, ClippingMatchesReferenceOnRandomSegments)
{
    std::mt19937_64 random(801);
    std::uniform_int_distribution<long long> coordinate(-30, 40);
    std::uniform_real_distribution<double> real(-30.0, 40.0);
    std::uniform_int_distribution<long long> size(1, 20);
    for (int round = 0; round < 20000; ++round)
    {
        Vector const extent(size(random), size(random), 1);
        std::string const context = "round " + std::to_string(round);
        double a[4] = {real(random), real(random), real(random), real(random)};
        if (round % 2 == 0)
            for (double& v : a)
                v = static_cast<double>(coordinate(random));
        double b[4] = {a[0], a[1], a[2], a[3]};
        bool const expected = NuvekReference::clampLine(extent, a[0], a[1], a[2], a[3]);
        ASSERT_EQ(RadialSymmetryFilter::clampLineToImageBounds(extent, b[0], b[1], b[2], b[3]), expected) << context;
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(NuvekTest::bitsOf(a[i]), NuvekTest::bitsOf(b[i])) << context << " value " << i;

        long long c[4] = {coordinate(random), coordinate(random), coordinate(random), coordinate(random)};
        long long d[4] = {c[0], c[1], c[2], c[3]};
        bool const expectedInteger = NuvekReference::clampLine(extent, c[0], c[1], c[2], c[3]);
        ASSERT_EQ(RadialSymmetryFilter::clampLineToImageBounds(extent, d[0], d[1], d[2], d[3]), expectedInteger)
            << context;
        ASSERT_EQ((std::vector<long long>(c, c + 4)), (std::vector<long long>(d, d + 4))) << context;
    }
}

TEST(RadialSymmetryFilter, LineSteepnessIsDecidedOn32BitDifferences)
{
    long long const wide = 1LL << 32;
    // |dX| = 2^32 reads as 0 in 32 bits, so a rise of 1 makes the line steep: two points, (0, 0)
    // and (2^32, 1), which a row stride of 10 - 2^32 places at 0 and 10.
    std::vector<double> plane(11, 0.0);
    RadialSymmetryFilter::drawLine(plane.data(), 10 - wide, 1.0, 0, wide, 0, 1);
    std::vector<double> expected(11, 0.0);
    expected[0] = expected[10] = 1.0;
    EXPECT_EQ(plane, expected);
    // |dY| = 2^32 reads as 0, so the line steps through x: (0, 0) and (1, 2^32), a row stride of 0
    // placing them at 0 and 1.
    plane.assign(2, 0.0);
    RadialSymmetryFilter::drawLine(plane.data(), 0, 1.0, 0, 1, 0, wide);
    EXPECT_EQ(plane, (std::vector<double>{1.0, 1.0}));
}

TEST(RadialSymmetryFilter, LinesMatchReferenceOnRandomSegments)
{
    std::mt19937_64 random(802);
    std::uniform_int_distribution<long long> x(0, 19), y(0, 14);
    std::uniform_real_distribution<double> value(-3.0, 3.0);
    for (int round = 0; round < 5000; ++round)
    {
        long long const x0 = x(random), x1 = x(random), y0 = y(random), y1 = y(random);
        double const v = value(random);
        std::vector<double> expected(300, 0.0), actual(300, 0.0);
        NuvekReference::drawLine(expected, 0, 20, v, x0, x1, y0, y1);
        RadialSymmetryFilter::drawLine(actual.data(), 20, v, x0, x1, y0, y1);
        ASSERT_TRUE(NuvekTest::sameBits(expected, actual, Box(Vector(20, 15, 1)),
                                        "from (" + std::to_string(x0) + ", " + std::to_string(y0) + ") to (" +
                                            std::to_string(x1) + ", " + std::to_string(y1) + ")"));
    }
}

TEST(RadialSymmetryFilter, FlatOrUndefinedGradientsCastNoVoteEvenWithoutThreshold)
{
    // A flat field casts no vote at a threshold of 0; an infinite and a NaN voxel in it give NaN and
    // infinite gradients around them, which have no direction and cast no vote either. (A vote along
    // such a direction would turn 0 / 0 into an integer offset, which the sanitizer build reports.)
    Vector const extent(16, 14, 1);
    Nuvek::MemoryImage image(extent, 1, std::vector<double>(static_cast<std::size_t>(extent.prod()), 7.0));
    Nuvek::ClampingFilter clamped(&image, false);
    RadialSymmetryFilter filter(&clamped, 3.0, 0.0, false);
    Box const box(extent);
    EXPECT_EQ(openWhole(filter, 0, box), std::vector<double>(static_cast<std::size_t>(box.getSize()), 0.0));
    image.setValue(Vector(4, 4, 0), 0, inf);
    image.setValue(Vector(11, 9, 0), 0, std::numeric_limits<double>::quiet_NaN());
    std::vector<double> const out = openWhole(filter, 0, box);
    EXPECT_TRUE(NuvekTest::sameBits(std::vector<double>(out.size(), 0.0), out, box));
}

TEST(RadialSymmetryFilter, VotesOfEverySliceLandInTheFirst)
{
    // Slices 0 and 2 are flat; slice 1 holds a disc. The box keeps clear of the border.
    Vector const extent(40, 40, 3);
    std::vector<double> values(static_cast<std::size_t>(extent.prod()), 0.0);
    auto disc = discImage(Vector(40, 40, 1), Vector(18, 21, 0), 6, 50.0);
    std::copy(disc->getValues().begin(), disc->getValues().end(), values.begin() + 1600);
    Nuvek::MemoryImage stack(extent, 1, values);
    RadialSymmetryFilter deep(&stack, 6.0, 1.0, false);
    RadialSymmetryFilter flat(disc.get(), 6.0, 1.0, false);
    Box const box(Vector(8, 9, 0), Vector(30, 31, 2));
    Box const firstSlice(Vector(8, 9, 0), Vector(30, 31, 0));
    std::vector<double> const out = openWhole(deep, 0, box);
    long long const sliceSize = firstSlice.getSize();
    std::vector<double> const first(out.begin(), out.begin() + sliceSize);
    std::vector<double> const rest(out.begin() + sliceSize, out.end());
    EXPECT_TRUE(NuvekTest::sameBits(openWhole(flat, 0, firstSlice), first, firstSlice));
    EXPECT_EQ(rest, std::vector<double>(rest.size(), 0.0));
    EXPECT_GT(*std::max_element(first.begin(), first.end()), 0.0);
}

TEST(RadialSymmetryFilter, MatchesReferenceOnRandomBoxes)
{
    // Inside, straddling and wholly outside boxes, 1 to 3 channels and slices, levels 0 to 2, with
    // NaN and infinities among the values.
    std::mt19937_64 random(804);
    double const radii[] = {0.3, 1.0, 2.5, 4.0, 7.5, -1.6};
    double const thresholds[] = {0.0, 0.5, 20.0};
    for (int round = 0; round < 90; ++round)
    {
        long long const numChannels = 1 + round % 3;
        double const radius = radii[round % 6];
        double const threshold = thresholds[round / 6 % 3];
        Vector const extent(18 + round % 11, 16 + round % 7, 1 + round % 3);
        auto source = NuvekTest::randomImage(random, extent, numChannels, {-50.0, 50.0, 0.01});
        RadialSymmetryFilter filter(source.get(), radius, threshold, false);
        long long const level = round % 3;
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), 14, 3);
        std::vector<double> const expected = NuvekReference::radialSymmetry(gradientsFor(*source, level, box, radius),
                                                                            box, numChannels, radius, threshold);
        std::vector<double> actual(expected.size() + 1, sentinel);
        filter.openRegion(actual.data(), level, box);
        EXPECT_EQ(actual.back(), sentinel) << "written past the buffer";
        actual.pop_back();
        ASSERT_TRUE(NuvekTest::sameBits(expected, actual, box,
                                        "round " + std::to_string(round) + " radius " + std::to_string(radius) +
                                            " threshold " + std::to_string(threshold)));
    }
}
