// Neighbourhood filters against their plain definitions through the seeded harness, and one
// pinned example per deliberate oddity.
#include "reference/DistanceTransformReference.h"
#include "reference/NeighbourhoodKernelReference.h"
#include "reference/RadialSymmetryReference.h"
#include "reference/ResolutionReference.h"
#include "support/NuvekTest.h"

#include <algorithm>

using namespace NuvekTest;
using Nuvek::BoxFilter;
using Nuvek::DistanceTransformFilter;
using Nuvek::LocalNormalizationFilter;
using Nuvek::RadialSymmetryFilter;

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

TEST(BoxFilter, MatchesTheKByKSum)
{
    // Whole numbers keep the running sums exact, so the bits must agree.
    long long k = 1;
    bool normalize = false, rounding = false;
    auto make = [&](Image* input, Draw& draw) {
        k = draw.kernel();
        normalize = draw.flip("normalize");
        rounding = draw.flip("rounding");
        return std::make_unique<BoxFilter>(input, k, normalize, rounding, false);
    };
    auto reference = [&](Image& input, long long level, Box const& box) {
        return NuvekReference::boxFilter(input, level, box, k, normalize, rounding);
    };
    expectMatchesReference(make, reference, HarnessOptions(150, 11).mix({-100.0, 100.0, 0.0}).integers());
}

TEST(BoxFilter, RoundingTakesTheFloorOfValuePlusHalf)
{
    MemoryImage image(Vector(4, 1, 1), 1, {2.5, -2.5, 0.49999999999999994, -0.5});
    BoxFilter rounded(&image, 1, false, true, false);
    Box const box(Vector(4, 1, 1));
    EXPECT_TRUE(sameBits({3.0, -2.0, 1.0, 0.0}, openWhole(rounded, 0, box), box));
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
    EXPECT_TRUE(sameBitsAnyNaN({1e17, 1.75}, openWhole(filter, 0, box), box));

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
    EXPECT_TRUE(sameBitsAnyNaN(expected, openWhole(wideFilter, 0, wideBox), wideBox));

    // With k = 1 the carried value cancels unless it is infinite: then the next row is NaN.
    MemoryImage ramp(Vector(2, 2, 1), 1, {1.0, inf, 2.0, 3.0});
    BoxFilter copy(&ramp, 1, false, false, false);
    std::vector<double> const out = openWhole(copy, 0, Box(Vector(2, 2, 1)));
    EXPECT_EQ(out[0], 1.0);
    EXPECT_EQ(out[1], inf);
    EXPECT_TRUE(std::isnan(out[2]) && std::isnan(out[3]));
}

TEST(SeparableConvolutionFilter, MatchesReferenceAndGaussianBlurIsOne)
{
    // A Gaussian of size one has sigma 0 and so NaN weights.
    std::vector<double> kx, ky;
    expectMatchesReference(
        [&](Image* input, Draw& draw) -> std::unique_ptr<Image> {
            long long const n = draw.kernel("n");
            if (draw.flip("gaussian"))
            {
                kx = ky = NuvekReference::gaussianKernel(n);
                return std::make_unique<Nuvek::GaussianBlurFilter>(input, n, false);
            }
            kx = randomKernel(draw, n);
            ky = draw.flip("same") ? kx : randomKernel(draw, n);
            return std::make_unique<Nuvek::SeparableConvolutionFilter>(input, kx, ky, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::separableFilter(input, level, box, kx, ky);
        },
        HarnessOptions(190, 13));
}

TEST(SobelFilter, MatchesReference)
{
    long long k = 1;
    bool magnitude = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) -> std::unique_ptr<Image> {
            k = draw.kernel();
            if ((magnitude = draw.flip("magnitude")))
                return std::make_unique<Nuvek::SobelMagnitudeFilter>(input, k, false);
            return std::make_unique<Nuvek::SobelVectorFilter>(input, k, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::sobel(NuvekReference::openGrown(input, level, box, k / 2), box.getExtent().x + k - 1,
                                         box.getExtent().y + k - 1, box.getSize(), k, magnitude);
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
    // Requests finer than, at and coarser than the background level; at the background level
    // itself every voxel sits on the corner of four background voxels and mixes them.
    long long background = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            background = draw.integer(0, 4, "background");
            if (draw.flip("range"))
                static_cast<MemoryImage*>(input)->setValueRange({-200.0, 50.0});
            return std::make_unique<LocalNormalizationFilter>(input, background, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::normalizeLocally(input, background, level, box);
        },
        HarnessOptions(80, 17).mix({-100.0, 100.0, 0.03}));
}

TEST(LocalNormalizationFilter, CacheIsCutTo100000ValuesAndStillServesLaterRequests)
{
    std::mt19937_64 random(84);
    auto image = randomImage(random, Vector(400, 300, 1), 1);
    LocalNormalizationFilter filter(image.get(), 0, false);
    // At f = 1 the background box is the whole image, 120000 values.
    Box const large(Vector(0, 0, 0), Vector(399, 299, 0));
    std::vector<double> const whole = openWhole(filter, 0, large);
    EXPECT_EQ(filter.getCacheSize(), 100000);
    Box const small(Vector(101, 202, 0), Vector(140, 231, 0));
    EXPECT_TRUE(sameBits(crop(whole, large, small, 1), openWhole(filter, 0, small), small));
    EXPECT_EQ(filter.getCacheSize(), 100000);
}

namespace {

std::vector<double> transform(std::vector<double> f)
{
    std::unique_ptr<double[]> const d(Nuvek::dt(f.data(), static_cast<long long>(f.size())));
    return std::vector<double>(d.get(), d.get() + f.size());
}

} // namespace

TEST(dt, IsTheLowestParabolaAtEverySample)
{
    // Quarters and far-away samples keep every sum exact, so the envelope must equal the direct
    // minimum of (q - p)^2 + f[p].
    std::mt19937_64 random(701);
    for (long long n = 1; n <= 48; ++n)
        for (int round = 0; round < 8; ++round)
        {
            std::vector<double> f(static_cast<std::size_t>(n));
            for (double& value : f)
                value = std::bernoulli_distribution(0.3)(random)
                            ? 1e20
                            : 0.25 * std::uniform_int_distribution<int>(-8, 240)(random);
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

TEST(dt, SpecialSamples)
{
    // Minus infinity lies below even the envelope's first bound and replaces the first parabola.
    // Two infinite samples meet in a NaN bound, which the walk never passes.
    EXPECT_EQ(transform({0.0, -inf, 1e20}), std::vector<double>(3, -inf));
    EXPECT_EQ(transform({inf, inf, 0.0, NaN, 3.0}), std::vector<double>(5, inf));
    double f[1] = {0.0};
    EXPECT_EQ(messageOf([&] { Nuvek::dt(f, -1); }), "dt needs a non-negative number of samples.");
    EXPECT_EQ(messageOf([&] { Nuvek::dt(nullptr, 3); }), "dt needs samples to transform.");
}

TEST(DistanceTransformFilter, MatchesTheLeastDistanceOverEveryVoxel)
{
    long long cap = 0;
    double value = 0.0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            cap = std::vector<long long>{0, 1, 2, 3, 7, 20}[static_cast<std::size_t>(draw.integer(0, 5, "capIndex"))];
            value = std::vector<double>{1.0, 0.0, inf, NaN}[static_cast<std::size_t>(draw.integer(0, 3, "valueIndex"))];
            return std::make_unique<DistanceTransformFilter>(input, value, cap, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            NuvekReference::distanceTransform(out, openWhole(input, level, box.expanded(Vector(cap, cap, 0))), box,
                                              input.getExtent(level), input.getNumChannels(), value, cap);
            return out;
        },
        HarnessOptions(150, 18).shape([](std::vector<double>& values, std::mt19937_64& random) {
            // Targets sparse or dense, so that some columns hold none; 1e30 and -3 for the share
            // taken as read.
            double const choices[] = {0.0, 1.0, 1.0, 1.0, 2.0, -3.0, 1e30, 1.0, 1.0, 1.0, 1.0, 1.0};
            int const last = std::uniform_int_distribution<int>(0, 1)(random) == 0 ? 6 : 11;
            for (double& v : values)
                v = choices[std::uniform_int_distribution<int>(0, last)(random)];
        }));
}

namespace {

// The 3 x 3 Sobel gradients of box grown by the rounded radius, as the filter votes with them.
std::vector<double> gradientsFor(Image& input, long long level, Box const& box, double radius)
{
    long long const r = static_cast<long long>(std::trunc(radius + 0.5));
    Box const grown = box.expanded(Vector(r, r, 0));
    Vector const size = grown.getExtent();
    if (grown.isEmpty())
        return {};
    return NuvekReference::sobel(NuvekReference::openGrown(input, level, grown, 1), size.x + 2, size.y + 2,
                                 grown.getSize(), 3, false);
}

} // namespace

TEST(RadialSymmetryFilter, ClippingAndLinesMatchReferenceOnRandomSegments)
{
    std::mt19937_64 random(801);
    std::uniform_int_distribution<long long> planeX(0, 19), planeY(0, 14);
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
            ASSERT_EQ(bitsOf(a[i]), bitsOf(b[i])) << context << " value " << i;

        long long c[4] = {coordinate(random), coordinate(random), coordinate(random), coordinate(random)};
        long long d[4] = {c[0], c[1], c[2], c[3]};
        bool const expectedInteger = NuvekReference::clampLine(extent, c[0], c[1], c[2], c[3]);
        ASSERT_EQ(RadialSymmetryFilter::clampLineToImageBounds(extent, d[0], d[1], d[2], d[3]), expectedInteger)
            << context;
        ASSERT_EQ((std::vector<long long>(c, c + 4)), (std::vector<long long>(d, d + 4))) << context;

        long long const x0 = planeX(random), x1 = planeX(random), y0 = planeY(random), y1 = planeY(random);
        std::vector<double> expectedPlane(300, 0.0), plane(300, 0.0);
        NuvekReference::drawLine(expectedPlane, 0, 20, a[0], x0, x1, y0, y1);
        RadialSymmetryFilter::drawLine(plane.data(), 20, a[0], x0, x1, y0, y1);
        ASSERT_TRUE(sameBits(expectedPlane, plane, Box(Vector(20, 15, 1)), context));
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

TEST(RadialSymmetryFilter, MatchesReference)
{
    double radius = 1.0, threshold = 0.0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            radius =
                std::vector<double>{0.3, 1.0, 2.5, 4.0, 7.5, -1.6}[static_cast<std::size_t>(draw.integer(0, 5, "r"))];
            threshold = std::vector<double>{0.0, 0.5, 20.0}[static_cast<std::size_t>(draw.integer(0, 2, "threshold"))];
            return std::make_unique<RadialSymmetryFilter>(input, radius, threshold, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::radialSymmetry(gradientsFor(input, level, box, radius), box, input.getNumChannels(),
                                                  radius, threshold);
        },
        HarnessOptions(90, 19).channels({1, 2, 3}).mix({-50.0, 50.0, 0.01}).exactNaN());
}
