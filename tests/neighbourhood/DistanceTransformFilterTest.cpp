#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/DistanceTransformFilter.h>

#include "reference/DistanceTransformReference.h"
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
using Nuvek::DistanceTransformFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

double const inf = std::numeric_limits<double>::infinity();
double const notANumber = std::numeric_limits<double>::quiet_NaN();
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
    static double const choices[] = {0.0, 0.0, 1e20, 1e20, 1e20, 3.0, 17.0, -2.5, 1e300, -1e25, notANumber, inf, -inf};
    std::uniform_int_distribution<std::size_t> pick(0, std::size(choices) - 1);
    std::vector<double> f(static_cast<std::size_t>(length));
    for (double& sample : f)
        sample = choices[pick(random)];
    return f;
}

// A MemoryImage of values drawn from `choices`.
std::shared_ptr<Nuvek::MemoryImage> imageOf(std::mt19937_64& random, Vector const& extent, long long numChannels,
                                            std::vector<double> const& choices)
{
    std::uniform_int_distribution<std::size_t> pick(0, choices.size() - 1);
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * numChannels));
    for (double& value : values)
        value = choices[pick(random)];
    return std::make_shared<Nuvek::MemoryImage>(extent, numChannels, std::move(values));
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

TEST(dt, LeavesItsSamplesAloneAndHandsOutAnArrayOfTheirCount)
{
    std::vector<double> f{1e20, 0.0, 1e20, 1e20, 1e20};
    std::vector<double> const before = f;
    double* d = Nuvek::dt(f.data(), 5);
    EXPECT_EQ(f, before);
    EXPECT_EQ(std::vector<double>(d, d + 5), (std::vector<double>{1.0, 0.0, 1.0, 4.0, 9.0}));
    delete[] d;

    double* empty = Nuvek::dt(nullptr, 0);
    EXPECT_NE(empty, nullptr);
    delete[] empty;
}

TEST(dt, RejectsNegativeCountsAndMissingSamples)
{
    double f[1] = {0.0};
    try
    {
        Nuvek::dt(f, -1);
        FAIL() << "negative count accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "dt needs a non-negative number of samples.");
    }
    try
    {
        Nuvek::dt(nullptr, 3);
        FAIL() << "null samples accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "dt needs samples to transform.");
    }
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

TEST(DistanceTransformFilter, NegativeMaximumDistanceIsRejected)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    try
    {
        DistanceTransformFilter filter(&image, 0.0, -1, false);
        FAIL() << "negative maximum distance accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Maximum distance must not be negative.");
    }
}

TEST(DistanceTransformFilter, RangeRunsFromZeroToTheCapAndMetadataIsTheInputs)
{
    Nuvek::MemoryImage image(Vector(6, 5, 2), 3);
    image.setValueRange(Nuvek::ValueRange<double>(-4.0, 9.0));
    DistanceTransformFilter filter(&image, 1.0, 37, false);
    EXPECT_EQ(filter.getValueRange().min, 0.0);
    EXPECT_EQ(filter.getValueRange().max, 37.0);
    EXPECT_EQ(filter.getNumChannels(), 3);
    EXPECT_EQ(filter.getExtent(1), image.getExtent(1));
    EXPECT_EQ(filter.getChannelName(2), image.getChannelName(2));
}

TEST(DistanceTransformFilter, SingleTargetGivesExactEuclideanDistancesUpToTheCap)
{
    // Zeros everywhere, also outside the extent, and one target at (9, 8).
    Vector const extent(19, 17, 1);
    Nuvek::MemoryImage image(extent, 1);
    image.setValue(Vector(9, 8, 0), 0, 5.0);
    long long const cap = 6;
    DistanceTransformFilter filter(&image, 0.0, cap, false);
    Box const box(extent);
    std::vector<double> const out = openWhole(filter, 0, box);
    auto at = [&](long long x, long long y) { return out[static_cast<std::size_t>(y * extent.x + x)]; };
    EXPECT_EQ(at(9, 8), 0.0);
    EXPECT_EQ(at(10, 8), 1.0);
    EXPECT_EQ(at(10, 9), std::sqrt(2.0));
    EXPECT_EQ(at(8, 7), std::sqrt(2.0));
    EXPECT_EQ(at(12, 12), 5.0);
    EXPECT_EQ(at(15, 8), 6.0);
    EXPECT_EQ(at(0, 0), 6.0);
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
        {
            double const exact = std::sqrt(static_cast<double>((x - 9) * (x - 9) + (y - 8) * (y - 8)));
            ASSERT_EQ(at(x, y), std::min(exact, static_cast<double>(cap))) << "at (" << x << ", " << y << ")";
        }
}

TEST(DistanceTransformFilter, TargetsAreZeroAndAFieldWithoutTargetsIsTheCap)
{
    std::mt19937_64 random(703);
    auto source = imageOf(random, Vector(23, 21, 1), 1, {0.0, 1.0, 1.0, 2.0, notANumber, inf});
    DistanceTransformFilter filter(source.get(), 1.0, 4, false);
    Box const box(Vector(-2, 3, 0), Vector(25, 18, 0));
    std::vector<double> const in = openWhole(*source, 0, box);
    std::vector<double> const out = openInto(filter, 0, box, sentinel);
    for (std::size_t i = 0; i < in.size(); ++i)
    {
        if (!(in[i] == 1.0) && out[i] != sentinel)
        {
            ASSERT_EQ(NuvekTest::bitsOf(out[i]), NuvekTest::bitsOf(0.0)) << "voxel " << i;
        }
    }

    // An image of zeros read as "all equal": with the margin also zero, no target anywhere.
    Nuvek::MemoryImage zeros(Vector(12, 10, 1), 1);
    DistanceTransformFilter far(&zeros, 0.0, 3, false);
    EXPECT_EQ(openWhole(far, 0, Box(Vector(12, 10, 1))), std::vector<double>(120, 3.0));
    DistanceTransformFilter none(&zeros, 0.0, 0, false);
    EXPECT_EQ(openWhole(none, 0, Box(Vector(12, 10, 1))), std::vector<double>(120, 0.0));
}

TEST(DistanceTransformFilter, AsksInputForBoxGrownByTheCapInXAndYAtEveryLevel)
{
    std::mt19937_64 random(704);
    auto source = NuvekTest::randomImage(random, Vector(40, 36, 3), 2);
    NuvekTest::RecordingImage recording(source);
    for (long long cap : {0LL, 5LL})
    {
        DistanceTransformFilter filter(&recording, 0.0, cap, false);
        for (long long level = 0; level < 3; ++level)
        {
            Box const box(Vector(3, -2, 1), Vector(9, 6, 2));
            recording.clearRequests();
            openWhole(filter, level, box);
            ASSERT_EQ(recording.requests().size(), 1u);
            EXPECT_EQ(recording.requests()[0].level, level);
            EXPECT_EQ(recording.requests()[0].box, box.expanded(Vector(cap, cap, 0)));
        }
    }
    // An empty box reads nothing and writes nothing.
    DistanceTransformFilter filter(&recording, 0.0, 2, false);
    recording.clearRequests();
    double untouched = sentinel;
    filter.openRegion(&untouched, 0, Box());
    EXPECT_EQ(untouched, sentinel);
    EXPECT_TRUE(recording.requests().empty());
}

TEST(DistanceTransformFilter, MatchesPlainNearestTargetDistance)
{
    // The definition itself: the nearest target among the voxels read, by direct search.
    std::mt19937_64 random(705);
    for (int round = 0; round < 12; ++round)
    {
        long long const cap = 1 + round % 7 * 3;
        Vector const extent(30 + round, 25 + 2 * round, 1);
        std::vector<double> choices(static_cast<std::size_t>(6 + 4 * round), 1.0);
        choices[0] = 0.0;
        auto source = imageOf(random, extent, 1, choices);
        DistanceTransformFilter filter(source.get(), 1.0, cap, false);
        Box const box = NuvekTest::randomOverlappingBox(random, extent, 28, 1);
        Box const grown = box.expanded(Vector(cap, cap, 0));
        std::vector<double> const in = openWhole(*source, 0, grown);
        std::vector<double> const out = openInto(filter, 0, box, sentinel);
        Vector const written = box.intersected(Box(extent)).getExtent();
        Vector const size = box.getExtent(), grownSize = grown.getExtent();
        for (long long y = 0; y < written.y; ++y)
            for (long long x = 0; x < written.x; ++x)
            {
                long long best = std::numeric_limits<long long>::max();
                for (long long ty = 0; ty < grownSize.y; ++ty)
                    for (long long tx = 0; tx < grownSize.x; ++tx)
                        if (in[static_cast<std::size_t>(ty * grownSize.x + tx)] != 1.0)
                        {
                            long long const dx = tx - (x + cap), dy = ty - (y + cap);
                            best = std::min(best, dx * dx + dy * dy);
                        }
                double const expected = std::min(std::sqrt(static_cast<double>(best)), static_cast<double>(cap));
                ASSERT_EQ(out[static_cast<std::size_t>(y * size.x + x)], expected)
                    << "round " << round << " at (" << x << ", " << y << ")";
            }
    }
}

TEST(DistanceTransformFilter, MatchesReferenceOnRandomBoxes)
{
    // Inside, straddling and wholly outside boxes; 1 to 4 channels and 1 to 3 slices, where the
    // later share of every channel goes into the passes as read, NaN and infinities included.
    std::mt19937_64 random(706);
    std::vector<double> const choices{0.0, 1.0, 1.0, 1.0, 2.0, -3.0, notANumber, inf, -inf, 1e30};
    for (int round = 0; round < 120; ++round)
    {
        long long const numChannels = 1 + round % 4;
        long long const cap = std::vector<long long>{0, 1, 2, 3, 7, 20}[static_cast<std::size_t>(round % 6)];
        double const value = std::vector<double>{1.0, 0.0, inf, notANumber}[static_cast<std::size_t>(round / 6 % 4)];
        Vector const extent(20 + round % 13, 18 + round % 7, 1 + round % 3);
        auto source = imageOf(random, extent, numChannels, choices);
        DistanceTransformFilter filter(source.get(), value, cap, false);
        long long const level = round % 3;
        Vector const levelExtent = source->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, 16, 3);

        std::vector<double> expected(static_cast<std::size_t>(box.getSize() * numChannels + 1), sentinel);
        NuvekReference::distanceTransform(expected, openWhole(*source, level, box.expanded(Vector(cap, cap, 0))), box,
                                          levelExtent, numChannels, value, cap);
        // One value past the caller's buffer, which must stay untouched.
        std::vector<double> actual(expected.size(), sentinel);
        filter.openRegion(actual.data(), level, box);
        Box const withGuard(Vector(0, 0, 0), Vector(static_cast<long long>(expected.size()) - 1, 0, 0));
        ASSERT_TRUE(NuvekTest::sameBits(expected, actual, withGuard,
                                        "round " + std::to_string(round) + " level " + std::to_string(level) + " cap " +
                                            std::to_string(cap) + " channels " + std::to_string(numChannels)));
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

TEST(DistanceTransformFilter, WritesABlockOfTheOverlapsSizeFromTheBoxsFirstVoxel)
{
    // A target at the origin; distances of box voxels are distances to it.
    Vector const extent(10, 10, 1);
    Nuvek::MemoryImage image(extent, 1);
    image.setValue(Vector(0, 0, 0), 0, 1.0);
    DistanceTransformFilter filter(&image, 0.0, 30, false);
    auto distance = [](long long x, long long y) { return std::sqrt(static_cast<double>(x * x + y * y)); };

    // Below the origin: the overlap is 5 x 5, written over the box's first 5 x 5 voxels.
    Box const low(Vector(-3, -2, 0), Vector(4, 4, 0));
    std::vector<double> out = openInto(filter, 0, low, sentinel);
    for (long long y = 0; y < 7; ++y)
        for (long long x = 0; x < 8; ++x)
        {
            double const expected = x < 5 && y < 5 ? distance(x - 3, y - 2) : sentinel;
            ASSERT_EQ(out[static_cast<std::size_t>(y * 8 + x)], expected) << "at (" << x << ", " << y << ")";
        }

    // Beyond the far border: exactly the voxels inside the extent are written.
    Box const high(Vector(6, 7, 0), Vector(12, 11, 0));
    out = openInto(filter, 0, high, sentinel);
    for (long long y = 0; y < 5; ++y)
        for (long long x = 0; x < 7; ++x)
        {
            double const expected = x < 4 && y < 3 ? distance(x + 6, y + 7) : sentinel;
            ASSERT_EQ(out[static_cast<std::size_t>(y * 7 + x)], expected) << "at (" << x << ", " << y << ")";
        }

    // Wholly outside: nothing is written.
    Box const outside(Vector(11, 0, 0), Vector(14, 3, 0));
    EXPECT_EQ(openInto(filter, 0, outside, sentinel), std::vector<double>(16, sentinel));
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

TEST(DistanceTransformFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(707);
    std::vector<double> choices(40, 1.0);
    choices[0] = 0.0;
    choices[1] = notANumber;
    auto source = imageOf(random, Vector(71, 53, 1), 1, choices);
    DistanceTransformFilter filter(source.get(), 1.0, 9, false);
    Box const box(Vector(71, 53, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads = 1; threads <= 3; ++threads)
    {
        std::vector<double> const tiled = NuvekTest::openTiled(filter, 0, box, {5, 22, 23, 60}, {1, 17, 40}, threads);
        EXPECT_TRUE(NuvekTest::sameBits(whole, tiled, box, "threads " + std::to_string(threads)));
    }
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
