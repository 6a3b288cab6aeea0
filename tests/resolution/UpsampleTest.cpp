#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/resolution/UpsampleFilter.h>

#include "reference/ResolutionReference.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

using Nuvek::Box;
using Nuvek::UpsampleFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

namespace {

constexpr double sentinel = -12345.678;

std::vector<double> openOverSentinel(Nuvek::Image& image, long long level, Box const& box)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), sentinel);
    image.openRegion(out.data(), level, box);
    return out;
}

// Bit for bit, except that any NaN matches any NaN (see withOneNaN).
::testing::AssertionResult sameValues(std::vector<double> const& expected, std::vector<double> const& actual,
                                      Box const& box, std::string const& context = "")
{
    return NuvekTest::sameBits(NuvekReference::withOneNaN(expected), NuvekReference::withOneNaN(actual), box, context);
}

// Level-0 value v(x, y, z, c) = 1000c + 100z + 10y + x.
std::shared_ptr<Nuvek::MemoryImage> coordinateImage(Vector const& extent, long long numChannels)
{
    std::vector<double> values;
    for (long long c = 0; c < numChannels; ++c)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < extent.y; ++y)
                for (long long x = 0; x < extent.x; ++x)
                    values.push_back(static_cast<double>(1000 * c + 100 * z + 10 * y + x));
    return std::make_shared<Nuvek::MemoryImage>(extent, numChannels, values);
}

char const* nameOf(UpsampleFilter::Interpolation interpolation)
{
    return interpolation == UpsampleFilter::Bilinear ? "bilinear" : "nearest";
}

} // namespace

TEST(UpsampleFilter, SourceLevelAndCoarserComeFromTheInputUnchanged)
{
    std::mt19937_64 random(71);
    auto source = NuvekTest::randomImage(random, Vector(37, 29, 2), 2, {-5.0, 5.0, 0.05});
    NuvekTest::RecordingImage recording(source);
    UpsampleFilter filter(&recording, 1, UpsampleFilter::Bilinear, false);
    for (long long level : {1, 2})
    {
        Box const box(Vector(-3, 4, 0), Vector(20, 40, 1));
        recording.clearRequests();
        EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, level, box), openWhole(filter, level, box), box));
        ASSERT_EQ(recording.requests().size(), 1u);
        EXPECT_EQ(recording.requests()[0].level, level);
        EXPECT_EQ(recording.requests()[0].box, box);
    }
    EXPECT_EQ(filter.getCacheSize(), 0);
}

TEST(UpsampleFilter, AsksForTheSourceBoxWithAOneVoxelMarginClippedToTheImage)
{
    // Level 1 of 37 x 29 is 18 x 14.
    std::mt19937_64 random(72);
    auto source = NuvekTest::randomImage(random, Vector(37, 29, 3), 2);
    NuvekTest::RecordingImage recording(source);
    UpsampleFilter filter(&recording, 1, UpsampleFilter::NearestNeighbor, false);

    openWhole(filter, 0, Box(Vector(5, -3, 1), Vector(20, 8, 4)));
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].level, 1);
    // x: trunc(5 / 2) - 1 = 1 to trunc(20 / 2) + 1 = 11; y: trunc(-3 / 2) - 1 = -2 to 5, clipped to 0.
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(1, 0, 1), Vector(11, 5, 2)));
    EXPECT_EQ(filter.getCacheSize(), 11 * 6 * 2 * 2);

    // Nothing of the source box lies inside: nothing asked, nothing written.
    recording.clearRequests();
    Box const outside(Vector(40, 0, 0), Vector(45, 3, 0));
    EXPECT_EQ(openOverSentinel(filter, 0, outside), std::vector<double>(24 * 2, sentinel));
    EXPECT_TRUE(recording.requests().empty());
}

TEST(UpsampleFilter, NearestNeighbourRepeatsEverySourceVoxelAsABlock)
{
    auto source = coordinateImage(Vector(10, 8, 2), 2);
    for (long long sourceLevel : {1, 2})
    {
        UpsampleFilter filter(source.get(), sourceLevel, UpsampleFilter::NearestNeighbor, false);
        long long const f = 1LL << sourceLevel;
        Vector const coarse = source->getExtent(sourceLevel);
        Box const box(Vector(0, 0, 0), Vector(coarse.x * f - 1, coarse.y * f - 1, 1));
        std::vector<double> const out = openWhole(filter, 0, box);
        std::vector<double> const own = openWhole(*source, sourceLevel, Box(coarse));
        Vector const size = box.getExtent();
        for (long long c = 0; c < 2; ++c)
            for (long long z = 0; z < 2; ++z)
                for (long long y = 0; y < size.y; ++y)
                    for (long long x = 0; x < size.x; ++x)
                        ASSERT_EQ(out[static_cast<std::size_t>(((c * 2 + z) * size.y + y) * size.x + x)],
                                  own[static_cast<std::size_t>(((c * 2 + z) * coarse.y + y / f) * coarse.x + x / f)])
                            << "source level " << sourceLevel << " at (" << x << ", " << y << ", " << z << ", " << c
                            << ")";
    }
}

TEST(UpsampleFilter, BilinearMixesCoarseCentresAndRepeatsTheEdges)
{
    // Level 1 is one row of the coarse values 10, 30, 50, 70, centred at 0.5, 1.5, 2.5, 3.5.
    Nuvek::MemoryImage source(Vector(8, 2, 1), 1, {10, 10, 30, 30, 50, 50, 70, 70, 10, 10, 30, 30, 50, 50, 70, 70});
    UpsampleFilter filter(&source, 1, UpsampleFilter::Bilinear, false);
    // Output x sits at x / 2: x = 2 halfway between the first two centres, x = 3 on the second.
    // Before the first centre and past the last both columns clamp to the edge and the weights,
    // though outside [0, 1] (-1.5 at x = -2), still sum to one.
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(-2, 0, 0), Vector(8, 0, 0)));
    EXPECT_EQ(out, (std::vector<double>{10, 10, 10, 10, 20, 30, 40, 50, 60, 70, 70}));
}

TEST(UpsampleFilter, MatchesTheReferenceOnRandomBoxes)
{
    std::mt19937_64 random(73);
    for (int round = 0; round < 60; ++round)
    {
        long long const numChannels = 1 + round % 4;
        Vector const extent(1 + (round * 13) % 47, 1 + (round * 7) % 41, 1 + round % 3);
        auto image = NuvekTest::randomImage(random, extent, numChannels, {-100.0, 100.0, 0.03});
        long long const sourceLevel = 1 + round % 3;
        for (auto interpolation : {UpsampleFilter::NearestNeighbor, UpsampleFilter::Bilinear})
        {
            UpsampleFilter filter(image.get(), sourceLevel, interpolation, false);
            for (long long level = 0; level < sourceLevel; ++level)
            {
                // Boxes inside, straddling and beside the image, in z as well.
                Box const box = NuvekTest::randomBox(random, image->getExtent(level), 30, 4);
                std::vector<double> expected(static_cast<std::size_t>(box.getSize() * numChannels), sentinel);
                NuvekReference::upsample(*image, sourceLevel, interpolation == UpsampleFilter::Bilinear, level, box,
                                         expected);
                EXPECT_TRUE(sameValues(expected, openOverSentinel(filter, level, box), box,
                                       "round " + std::to_string(round) + " " + nameOf(interpolation) + " level " +
                                           std::to_string(level)));
            }
        }
    }
}

TEST(UpsampleFilter, SlicesCountFromTheRequestedBoxAndMissingOnesStayUnwritten)
{
    // Two slices; the box starts one slice before the image, so output slice z reads source slice
    // z + 1 and the last output slice has no source slice at all.
    auto source = coordinateImage(Vector(4, 4, 2), 1);
    UpsampleFilter filter(source.get(), 1, UpsampleFilter::NearestNeighbor, false);
    Box const box(Vector(0, 0, -1), Vector(0, 0, 1));
    EXPECT_EQ(openOverSentinel(filter, 0, box), (std::vector<double>{5.5, 105.5, sentinel}));
}

TEST(UpsampleFilter, ThirtyLevelsWorkAndThirtyOneAreRejected)
{
    std::mt19937_64 random(74);
    auto image = NuvekTest::randomImage(random, Vector(5, 5, 1), 1);
    UpsampleFilter filter(image.get(), 30, UpsampleFilter::Bilinear, false);
    // Level 30 of a 5 x 5 image has no voxels; the filter is handed the level as a number only.
    NuvekTest::RecordingImage recording(image);
    UpsampleFilter deep(&recording, 32, UpsampleFilter::Bilinear, false);
    Box const box(Vector(0, 0, 0), Vector(3, 3, 0));
    EXPECT_EQ(openOverSentinel(filter, 0, box), std::vector<double>(16, sentinel));
    EXPECT_NO_THROW(openWhole(deep, 2, box));
    try
    {
        openWhole(deep, 1, box);
        ADD_FAILURE() << "31 levels accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "UpsampleFilter: cannot upsample by 31 or more levels.");
    }
}

TEST(UpsampleFilter, AnUnnamedInterpolationWritesNothing)
{
    std::mt19937_64 random(75);
    auto image = NuvekTest::randomImage(random, Vector(8, 8, 1), 1);
    UpsampleFilter filter(image.get(), 1, static_cast<UpsampleFilter::Interpolation>(2), false);
    Box const box(Vector(0, 0, 0), Vector(3, 3, 0));
    EXPECT_EQ(openOverSentinel(filter, 0, box), std::vector<double>(16, sentinel));
}

TEST(UpsampleFilter, CacheIsCutTo100000ValuesAndStillServesLaterRequests)
{
    std::mt19937_64 random(76);
    // Level 1 is 400 x 300 = 120000 values.
    auto image = NuvekTest::randomImage(random, Vector(800, 600, 1), 1);
    UpsampleFilter filter(image.get(), 1, UpsampleFilter::Bilinear, false);
    Box const large(Vector(0, 0, 0), Vector(799, 599, 0));
    std::vector<double> const whole = openWhole(filter, 0, large);
    EXPECT_EQ(filter.getCacheSize(), 100000);

    Box const small(Vector(301, 402, 0), Vector(340, 431, 0));
    std::vector<double> expected(static_cast<std::size_t>(small.getSize()), sentinel);
    NuvekReference::upsample(*image, 1, true, 0, small, expected);
    EXPECT_TRUE(sameValues(expected, openWhole(filter, 0, small), small));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::crop(whole, large, small, 1), openWhole(filter, 0, small), small));
    EXPECT_EQ(filter.getCacheSize(), 100000);
}

TEST(UpsampleFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(77);
    auto image = NuvekTest::randomImage(random, Vector(75, 61, 2), 2, {-1.0, 1.0, 0.02});
    for (auto interpolation : {UpsampleFilter::NearestNeighbor, UpsampleFilter::Bilinear})
    {
        UpsampleFilter filter(image.get(), 2, interpolation, false);
        Box const box(Vector(-5, -3, 0), Vector(80, 66, 1));
        std::vector<double> const whole = openWhole(filter, 0, box);
        EXPECT_TRUE(sameValues(whole, NuvekTest::openTiled(filter, 0, box, {1, 8, 23, 51}, {3, 17, 30}), box,
                               nameOf(interpolation)));
    }
}

TEST(UpsampleFilter, ConcurrentTilesGiveTheSerialResult)
{
    // Eight threads open random tiles of one filter over and over, at two levels and through the
    // pass-through path too; every tile must equal what a serial call gave.
    std::mt19937_64 random(78);
    auto image = NuvekTest::randomImage(random, Vector(300, 260, 2), 2, {-10.0, 10.0, 0.01});
    for (auto interpolation : {UpsampleFilter::NearestNeighbor, UpsampleFilter::Bilinear})
    {
        UpsampleFilter filter(image.get(), 2, interpolation, false);
        struct Job
        {
            long long level;
            Box box;
            std::vector<double> expected;
        };
        std::vector<Job> jobs;
        for (int i = 0; i < 48; ++i)
        {
            long long const level = i % 3;
            Box const box = NuvekTest::randomOverlappingBox(random, image->getExtent(level), 140, 2);
            jobs.push_back({level, box, openWhole(filter, level, box)});
        }
        std::atomic<int> mismatches{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&, t]() {
                for (int round = 0; round < 4; ++round)
                    for (std::size_t j = 0; j < jobs.size(); ++j)
                    {
                        Job const& job =
                            jobs[(j * 7 + static_cast<std::size_t>(t) * 5 + static_cast<std::size_t>(round)) %
                                 jobs.size()];
                        if (!NuvekTest::sameBits(job.expected, openWhole(filter, job.level, job.box), job.box))
                            ++mismatches;
                    }
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(mismatches.load(), 0) << nameOf(interpolation);
        EXPECT_LE(filter.getCacheSize(), 100000);
    }
}
