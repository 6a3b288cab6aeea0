// Resolution filters and the block-mean walks against their plain definitions, and one pinned
// example per deliberate oddity.
#include "core/internal/BlockMeans.h"
#include "reference/ResolutionReference.h"
#include "support/NuvekTest.h"

using namespace NuvekTest;
using Nuvek::DownsampleFilter;
using Nuvek::UpsampleFilter;

TEST(DownsampleFilter, MatchesReference)
{
    long long source = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            source = draw.integer(0, 1, "sourceLevel");
            return std::make_unique<DownsampleFilter>(input, source, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::downsample(input, source, level, box);
        },
        HarnessOptions(80, 51).mix({-100.0, 100.0, 0.03}));
}

TEST(DownsampleFilter, LevelsUpToTheSourceLevelAreTheInputsOwnOutsideTheImageToo)
{
    MemoryImage image(Vector(3, 2, 1), 1, {-0.0, 1.0, 2.0, 3.0, -0.0, 5.0});
    DownsampleFilter filter(&image, 1, false);
    Box const across(Vector(-1, -1, 0), Vector(3, 2, 1));
    for (long long level : {0, 1})
        EXPECT_TRUE(sameBits(openSentinel(image, level, across), openSentinel(filter, level, across), across));
}

TEST(UpsampleFilter, MatchesReference)
{
    long long source = 0;
    bool bilinear = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            source = draw.integer(1, 3, "sourceLevel");
            bilinear = draw.flip("bilinear");
            return std::make_unique<UpsampleFilter>(
                input, source, bilinear ? UpsampleFilter::Bilinear : UpsampleFilter::NearestNeighbor, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::upsample(input, source, bilinear, level, box);
        },
        HarnessOptions(80, 52).mix({-100.0, 100.0, 0.03}));
}

TEST(DownsampleBufferFullLevel, BothWalksMatchTheReferenceInPlaceAndOutOfPlace)
{
    std::mt19937_64 random(61);
    for (Vector const& extent :
         {Vector(1, 1, 1), Vector(2, 2, 1), Vector(3, 1, 2), Vector(5, 7, 1), Vector(9, 8, 3), Vector(16, 16, 1),
          Vector(17, 33, 2), Vector(31, 5, 1), Vector(7, 64, 1), Vector(65, 3, 2)})
        for (long long numChannels = 1; numChannels <= 3; ++numChannels)
            for (long long levels = 0; levels <= 3; ++levels)
            {
                std::vector<double> source = randomValues(random, extent.prod() * numChannels, {-50.0, 50.0, 0.03});
                for (std::size_t i = 0; i < source.size(); i += 7)
                    source[i] = -0.0;
                std::vector<double> const expected = NuvekReference::averageBlocks(source, extent, numChannels, levels);
                Box const reduced(Vector(extent.x >> levels, extent.y >> levels, extent.z * numChannels));
                std::string const context = std::to_string(extent.x) + " x " + std::to_string(extent.y) + ", " +
                                            std::to_string(numChannels) + " channels, " + std::to_string(levels);
                using Walk = void (*)(double const*, double*, Vector const&, long long, long long);
                for (Walk walk : {Walk(Nuvek::averageBlocksByDisplacements), Walk(Nuvek::averageBlocksByRows)})
                {
                    std::vector<double> separate(expected.size(), -7.0);
                    walk(source.data(), separate.data(), extent, numChannels, levels);
                    EXPECT_TRUE(sameBitsAnyNaN(expected, separate, reduced, context));
                    // In place: the reduced values open the buffer.
                    std::vector<double> inPlace = source;
                    walk(inPlace.data(), inPlace.data(), extent, numChannels, levels);
                    inPlace.resize(expected.size());
                    EXPECT_TRUE(sameBitsAnyNaN(expected, inPlace, reduced, context + " in place"));
                }
            }
}

TEST(DownsampleBufferFullLevel, ConvertsBetweenValueTypesDropsPartialBlocksAndRefusesBadLevels)
{
    // 5 x 3 floats: the last column and the last row do not fill a 2 x 2 block.
    std::vector<float> const source = {1, 2, 3, 4, 100, 5, 6, 7, 9, 100, 100, 100, 100, 100, 100};
    std::vector<double> target(2, 0.0);
    Nuvek::downsampleBufferFullLevel(source.data(), target.data(), Vector(5, 3, 1), 1, 1);
    EXPECT_EQ(target, (std::vector<double>{3.5, 5.75}));
    std::vector<double> values(4, 1.0);
    EXPECT_EQ(
        messageOf([&] { Nuvek::downsampleBufferFullLevel(values.data(), values.data(), Vector(2, 2, 1), 1, -1); }),
        "downsampleBufferFullLevel: the number of levels must not be negative.");
    EXPECT_EQ(
        messageOf([&] { Nuvek::downsampleBufferFullLevel(values.data(), values.data(), Vector(2, 2, 1), 1, 63); }),
        "downsampleBufferFullLevel: the number of levels must not exceed 62.");
    // 62 levels on a small buffer: nothing fills a block, nothing is written.
    Nuvek::downsampleBufferFullLevel(values.data(), values.data(), Vector(2, 2, 1), 1, 62);
    EXPECT_EQ(values, std::vector<double>(4, 1.0));
}

TEST(CopyImageBuffer, MatchesTheReferenceOnRandomPlacements)
{
    std::mt19937_64 random(62);
    auto between = [&random](long long low, long long high) {
        return std::uniform_int_distribution<long long>(low, high)(random);
    };
    for (int round = 0; round < 400; ++round)
    {
        long long const numChannels = between(0, 3);
        Vector const srcExtent(between(1, 9), between(1, 9), between(1, 3));
        Vector const dstExtent(between(1, 9), between(1, 9), between(1, 3));
        Vector const low(between(0, srcExtent.x - 1), between(0, srcExtent.y - 1), between(0, srcExtent.z - 1));
        Box const srcBox(low, Vector(between(low.x, srcExtent.x - 1), between(low.y, srcExtent.y - 1),
                                     between(low.z, srcExtent.z - 1)));
        Vector const dstPos(between(-10, 10), between(-10, 10), between(-4, 4));
        std::vector<double> const src = randomValues(random, srcExtent.prod() * numChannels);
        std::vector<double> expected(static_cast<std::size_t>(dstExtent.prod() * numChannels), -7.0);
        std::vector<double> actual = expected;
        NuvekReference::copyBuffer(src, srcExtent, srcBox, expected, dstExtent, dstPos, numChannels);
        Nuvek::copyImageBuffer(src.data(), srcExtent, srcBox, actual.data(), dstExtent, dstPos, numChannels);
        Box const dstBox(Vector(dstExtent.x, dstExtent.y, dstExtent.z * std::max(numChannels, 1LL)));
        EXPECT_TRUE(sameBits(expected, actual, dstBox, "round " + std::to_string(round)));
    }
}

TEST(CopyImageBuffer, ShortcutCopiesTheBoxSizeRegardlessOfChannels)
{
    // srcBox.max equal to the extent itself (one past the last voxel) takes the shortcut: it copies
    // getSize() = 3 * 3 * 2 = 18 values, not extent.prod() * numChannels = 8; Box(extent) copies 8.
    Vector const extent(2, 2, 1);
    std::vector<double> src(20);
    for (std::size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<double>(i);
    for (auto [srcBox, copied] : {std::pair(Box(Vector(0, 0, 0), extent), 18), std::pair(Box(extent), 8)})
    {
        std::vector<double> dst(20, -7.0);
        Nuvek::copyImageBuffer(src.data(), extent, srcBox, dst.data(), extent, Vector(0, 0, 0), 2);
        for (std::size_t i = 0; i < dst.size(); ++i)
            EXPECT_EQ(dst[i], i < static_cast<std::size_t>(copied) ? src[i] : -7.0) << "index " << i;
    }
}

TEST(UpsampleFilter, BilinearMixesCoarseCentresAndRepeatsTheEdges)
{
    // Level 1 is one row of the coarse values 10, 30, 50, 70, centred at 0.5, 1.5, 2.5, 3.5.
    MemoryImage source(Vector(8, 2, 1), 1, {10, 10, 30, 30, 50, 50, 70, 70, 10, 10, 30, 30, 50, 50, 70, 70});
    UpsampleFilter filter(&source, 1, UpsampleFilter::Bilinear, false);
    // Output x sits at x / 2: x = 2 halfway between the first two centres, x = 3 on the second.
    // Before the first centre and past the last both columns clamp to the edge and the weights,
    // though outside [0, 1] (-1.5 at x = -2), still sum to one.
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(-2, 0, 0), Vector(8, 0, 0)));
    EXPECT_EQ(out, (std::vector<double>{10, 10, 10, 10, 20, 30, 40, 50, 60, 70, 70}));
}

TEST(UpsampleFilter, SlicesCountFromTheRequestedBoxAndMissingOnesStayUnwritten)
{
    // Two slices of the constants 5 and 105; the box starts one slice before the image, so output
    // slice z reads source slice z + 1 and the last output slice has no source slice at all.
    std::vector<double> values(32, 5.0);
    std::fill(values.begin() + 16, values.end(), 105.0);
    MemoryImage source(Vector(4, 4, 2), 1, values);
    UpsampleFilter filter(&source, 1, UpsampleFilter::NearestNeighbor, false);
    EXPECT_EQ(openSentinel(filter, 0, Box(Vector(0, 0, -1), Vector(0, 0, 1))), (std::vector<double>{5, 105, -7}));
}

TEST(UpsampleFilter, AnUnnamedInterpolationWritesNothing)
{
    MemoryImage image(Vector(8, 8, 1), 1, std::vector<double>(64, 1.0));
    UpsampleFilter filter(&image, 1, static_cast<UpsampleFilter::Interpolation>(2), false);
    EXPECT_EQ(openSentinel(filter, 0, Box(Vector(0, 0, 0), Vector(3, 3, 0))), std::vector<double>(16, -7.0));
}

TEST(UpsampleFilter, CacheIsCutTo100000ValuesAndStillServesLaterRequests)
{
    std::mt19937_64 random(76);
    // Level 1 is 400 x 300 = 120000 values.
    auto image = randomImage(random, Vector(800, 600, 1), 1);
    UpsampleFilter filter(image.get(), 1, UpsampleFilter::Bilinear, false);
    Box const large(Vector(0, 0, 0), Vector(799, 599, 0));
    std::vector<double> const whole = openWhole(filter, 0, large);
    EXPECT_EQ(filter.getCacheSize(), 100000);
    Box const small(Vector(301, 402, 0), Vector(340, 431, 0));
    EXPECT_TRUE(sameBits(crop(whole, large, small, 1), openWhole(filter, 0, small), small));
    EXPECT_EQ(filter.getCacheSize(), 100000);
}
