#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/RadialSymmetryFilter.h>
#include <nuvek/filters/neighbourhood/SobelFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "reference/RadialSymmetryReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::RadialSymmetryFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

double const inf = std::numeric_limits<double>::infinity();
double const sentinel = -12345.5;

std::string messageOf(double radius)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    return NuvekTest::messageOf([&] { RadialSymmetryFilter(&image, radius, 1.0, false); });
}

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

TEST(RadialSymmetryFilter, RadiusMustBeFiniteAndOfSensibleSize)
{
    EXPECT_EQ(messageOf(std::numeric_limits<double>::quiet_NaN()), "Radius must be a finite number.");
    EXPECT_EQ(messageOf(-inf), "Radius must be a finite number.");
    EXPECT_EQ(messageOf(2e9), "Radius must not exceed 1e9 in magnitude.");
    EXPECT_EQ(messageOf(-2e9), "Radius must not exceed 1e9 in magnitude.");
    EXPECT_EQ(messageOf(-3.0), "(nothing thrown)");
}

TEST(RadialSymmetryFilter, RangeIsTheGradientMaximumTimesTheRadiusAndMetadataIsTheInputs)
{
    Nuvek::MemoryImage image(Vector(6, 5, 2), 2);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    image.setChannelNames({"red", "green"});
    RadialSymmetryFilter filter(&image, 4.0, 1.0, false);
    EXPECT_EQ(filter.getValueRange().min, 0.0);
    EXPECT_EQ(filter.getValueRange().max, 1020.0);
    EXPECT_EQ(filter.getNumChannels(), 2);
    EXPECT_EQ(filter.getChannelName(1), "green");
}

TEST(RadialSymmetryFilter, ClippingKeepsInsideSegmentsCutsCrossingOnesAndDropsOutsideOnes)
{
    Vector const extent(10, 10, 1);
    auto clip = [&](double xA, double xB, double yA, double yB) {
        bool const inside = RadialSymmetryFilter::clampLineToImageBounds(extent, xA, xB, yA, yB);
        return std::vector<double>{inside ? 1.0 : 0.0, xA, xB, yA, yB};
    };
    EXPECT_EQ(clip(1.5, 8.0, 0.0, 9.0), (std::vector<double>{1, 1.5, 8.0, 0.0, 9.0}));
    // Crossing x = 0: cut there.
    EXPECT_EQ(clip(-3.0, 4.0, 2.0, 2.0), (std::vector<double>{1, 0.0, 4.0, 2.0, 2.0}));
    // Both ends outside, through two corners.
    EXPECT_EQ(clip(-2.0, 12.0, -2.0, 12.0), (std::vector<double>{1, 0.0, 9.0, 0.0, 9.0}));
    // Wholly left, and wholly above.
    EXPECT_EQ(clip(-5.0, -1.0, 2.0, 7.0)[0], 0.0);
    EXPECT_EQ(clip(2.0, 7.0, -4.0, -1.0)[0], 0.0);
    // Beside a corner: the line x + y = -2 misses the rectangle after one cut.
    EXPECT_EQ(clip(-5.0, 3.0, 3.0, -5.0), (std::vector<double>{0, 0.0, 3.0, -2.0, -5.0}));

    // Integer end points are written back as trunc(v + 0.5), also those of a segment outside.
    long long xA = -3, xB = -1, yA = 1, yB = 5;
    EXPECT_FALSE(RadialSymmetryFilter::clampLineToImageBounds(extent, xA, xB, yA, yB));
    EXPECT_EQ((std::vector<long long>{xA, xB, yA, yB}), (std::vector<long long>{-2, 0, 1, 5}));
    xA = -4, xB = 5, yA = 0, yB = 3;
    EXPECT_TRUE(RadialSymmetryFilter::clampLineToImageBounds(extent, xA, xB, yA, yB));
    EXPECT_EQ((std::vector<long long>{xA, xB, yA, yB}), (std::vector<long long>{0, 5, 1, 3}));
}

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

TEST(RadialSymmetryFilter, LinesGetOneVotePerStepRoundedHalfUp)
{
    std::vector<double> plane(100, 0.0);
    auto votesAt = [&](std::vector<std::pair<long long, long long>> const& points, double value) {
        std::vector<double> expected(100, 0.0);
        for (auto const& [x, y] : points)
            expected[static_cast<std::size_t>(x + 10 * y)] += value;
        return expected;
    };
    // A voter at (5, 5) pointing along +x with radius 2: five voxels.
    RadialSymmetryFilter::drawLine(plane.data(), 10, 2.5, 3, 7, 5, 5);
    EXPECT_EQ(plane, votesAt({{3, 5}, {4, 5}, {5, 5}, {6, 5}, {7, 5}}, 2.5));
    // Slope 1/2: halves round up.
    plane.assign(100, 0.0);
    RadialSymmetryFilter::drawLine(plane.data(), 10, 1.0, 0, 4, 0, 2);
    EXPECT_EQ(plane, votesAt({{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}, 1.0));
    // Steep and backwards: steps through y from 8 down to 3, x from 6 towards 4.
    plane.assign(100, 0.0);
    RadialSymmetryFilter::drawLine(plane.data(), 10, 1.0, 6, 4, 8, 3);
    EXPECT_EQ(plane, votesAt({{6, 8}, {6, 7}, {5, 6}, {5, 5}, {4, 4}, {4, 3}}, 1.0));
    // A single point gets one vote.
    plane.assign(100, 0.0);
    RadialSymmetryFilter::drawLine(plane.data(), 10, 3.0, 2, 2, 9, 9);
    EXPECT_EQ(plane, votesAt({{2, 9}}, 3.0));
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

TEST(RadialSymmetryFilter, AsksForGradientsOfTheBoxGrownByTheRoundedRadius)
{
    std::mt19937_64 random(803);
    auto source = NuvekTest::randomImage(random, Vector(30, 30, 2), 2);
    NuvekTest::RecordingImage recording(source);
    Box const box(Vector(4, -3, 0), Vector(12, 8, 1));
    for (double radius : {2.4, 2.5, 0.3, -1.6})
    {
        long long const r = static_cast<long long>(std::trunc(radius + 0.5));
        RadialSymmetryFilter filter(&recording, radius, 1.0, false);
        for (long long level = 0; level < 3; ++level)
        {
            recording.clearRequests();
            openWhole(filter, level, box);
            // Each of the two gradients reads one voxel more for its 3 x 3 kernel.
            ASSERT_FALSE(recording.requests().empty());
            for (NuvekTest::Request const& request : recording.requests())
            {
                EXPECT_EQ(request.level, level);
                EXPECT_EQ(request.box, box.expanded(Vector(r + 1, r + 1, 0))) << "radius " << radius;
            }
        }
    }
}

TEST(RadialSymmetryFilter, RampVotesAlongItsRowsWithItsGradient)
{
    // in(x, y) = x, clamped at the border: gy is exactly 0, and every voxel with gx > 0 adds gx to
    // the five voxels x - 2 .. x + 2 of its row (radius 2, so dx = trunc(2.5) = 2). The margins are
    // flat and cast no vote.
    Vector const extent(24, 9, 1);
    std::vector<double> values;
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
            values.push_back(static_cast<double>(x));
    Nuvek::MemoryImage ramp(extent, 1, values);
    Nuvek::ClampingFilter clamped(&ramp, false);
    RadialSymmetryFilter filter(&clamped, 2.0, 0.5, false);
    Box const box(Vector(-1, 0, 0), Vector(25, 8, 0));
    Box const gradientBox = box.expanded(Vector(2, 2, 0));
    std::vector<double> const gradients = gradientsFor(clamped, 0, box, 2.0);
    Vector const g = gradientBox.getExtent(), size = box.getExtent();
    std::vector<double> expected(static_cast<std::size_t>(box.getSize()), 0.0);
    for (long long y = 0; y < g.y; ++y)
        for (long long x = 0; x < g.x; ++x)
        {
            double const gx = gradients[static_cast<std::size_t>(y * g.x + x)];
            ASSERT_EQ(gradients[static_cast<std::size_t>(gradientBox.getSize() + y * g.x + x)], 0.0);
            long long const row = y - 2;
            if (gx < 0.5 || row < 0 || row >= size.y)
                continue;
            for (long long target = x - 4; target <= x; ++target)
                if (target >= 0 && target < size.x)
                    expected[static_cast<std::size_t>(row * size.x + target)] += gx;
        }
    EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, 0, box), box));
}

TEST(RadialSymmetryFilter, BrightDiscPeaksAtItsCentre)
{
    // Discs with smooth edges, as cells appear on a slide: each voxel holds the share of its area
    // inside the circle. (On hard-edged discs every line ends right at the centre, and offsets
    // rounded from negative values reach one voxel less, trunc(-2.5) = -2, so for some radii the
    // peak lands off centre.)
    Vector const extent(61, 57, 1), centre(30, 27, 0);
    for (long long radius : {3LL, 5LL, 8LL, 12LL, 17LL})
    {
        std::vector<double> values(static_cast<std::size_t>(extent.prod()), 0.0);
        for (long long y = 0; y < extent.y; ++y)
            for (long long x = 0; x < extent.x; ++x)
                for (int sy = 0; sy < 8; ++sy)
                    for (int sx = 0; sx < 8; ++sx)
                    {
                        double const px = static_cast<double>(x - centre.x) + (sx - 3.5) / 8.0;
                        double const py = static_cast<double>(y - centre.y) + (sy - 3.5) / 8.0;
                        if (px * px + py * py <= static_cast<double>(radius * radius))
                            values[static_cast<std::size_t>(y * extent.x + x)] += 100.0 / 64.0;
                    }
        Nuvek::MemoryImage disc(extent, 1, values);
        RadialSymmetryFilter filter(&disc, static_cast<double>(radius), 1.0, false);
        Box const box(extent);
        std::vector<double> const out = openWhole(filter, 0, box);
        auto const peak = std::max_element(out.begin(), out.end()) - out.begin();
        EXPECT_EQ(peak % extent.x, centre.x) << "radius " << radius;
        EXPECT_EQ(peak / extent.x, centre.y) << "radius " << radius;
        EXPECT_EQ(std::count(out.begin(), out.end(), out[static_cast<std::size_t>(peak)]), 1) << "radius " << radius;
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

TEST(RadialSymmetryFilter, EmptyBoxWritesNothing)
{
    Nuvek::MemoryImage image(Vector(8, 8, 1), 1);
    RadialSymmetryFilter filter(&image, 2.0, 1.0, false);
    double untouched = sentinel;
    filter.openRegion(&untouched, 0, Box());
    EXPECT_EQ(untouched, sentinel);
}

TEST(RadialSymmetryFilter, ConcurrentRequestsGiveWhatSerialOnesGive)
{
    // Lines cut by a tile's border are drawn from the cut end points, so tiles are compared with
    // the same tiles opened one after another rather than with one large request.
    std::mt19937_64 random(805);
    auto source = NuvekTest::randomImage(random, Vector(53, 47, 1), 2, {0.0, 255.0, 0.0});
    RadialSymmetryFilter filter(source.get(), 5.0, 30.0, false);
    Box const box(Vector(-3, -2, 0), Vector(55, 48, 0));
    std::vector<double> const serial = NuvekTest::openTiled(filter, 0, box, {9, 20, 31, 40}, {6, 19, 33}, 1);
    for (int threads = 2; threads <= 4; ++threads)
    {
        std::vector<double> const concurrent =
            NuvekTest::openTiled(filter, 0, box, {9, 20, 31, 40}, {6, 19, 33}, threads);
        EXPECT_TRUE(NuvekTest::sameBits(serial, concurrent, box, "threads " + std::to_string(threads)));
    }
}
