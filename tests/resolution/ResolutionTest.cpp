// Resolution filters and the block-mean walks: the definitions through the seeded harness, and one pinned example per deliberate oddity.
#include "core/internal/BlockMeans.h"
#include "reference/ResolutionReference.h"
#include "support/NuvekTest.h"

#include <atomic>
#include <cmath>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

using namespace NuvekTest;
using Nuvek::Box;
using Nuvek::DownsampleFilter;
using Nuvek::UpsampleFilter;
using Nuvek::Vector;
using namespace NuvekTest;

TEST(DownsampleFilter, MatchesReference)
{
    long long source = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            source = draw.integer(0, 1, "sourceLevel");
            return std::make_unique<Nuvek::DownsampleFilter>(input, source, false);
        },
        [&](Image& input, long long level, Box const& box) {
            if (level <= source)
                return openWhole(input, level, box);
            std::vector<double> expected(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            NuvekReference::downsample(input, source, level, box, expected);
            return expected;
        },
        HarnessOptions(80, 51).mix({-100.0, 100.0, 0.03}));
}

TEST(UpsampleFilter, MatchesReference)
{
    long long source = 0;
    bool bilinear = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            source = draw.integer(1, 3, "sourceLevel");
            bilinear = draw.flip("bilinear");
            return std::make_unique<Nuvek::UpsampleFilter>(
                input, source, bilinear ? Nuvek::UpsampleFilter::Bilinear : Nuvek::UpsampleFilter::NearestNeighbor,
                false);
        },
        [&](Image& input, long long level, Box const& box) {
            if (level >= source)
                return openWhole(input, level, box);
            std::vector<double> expected(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            NuvekReference::upsample(input, source, bilinear, level, box, expected);
            return expected;
        },
        HarnessOptions(80, 52).mix({-100.0, 100.0, 0.03}));
}

namespace {

constexpr double sentinel = -12345.678;

std::vector<double> sentinelFilled(Box const& box, long long numChannels)
{
    return std::vector<double>(static_cast<std::size_t>(box.getSize() * numChannels), sentinel);
}

std::vector<double> openOverSentinel(Nuvek::Image& image, long long level, Box const& box)
{
    std::vector<double> out = sentinelFilled(box, image.getNumChannels());
    image.openRegion(out.data(), level, box);
    return out;
}

// Random values with NaN, infinities and some -0.0 mixed in.
std::vector<double> specialValues(std::mt19937_64& random, long long count)
{
    std::vector<double> values = NuvekTest::randomValues(random, count, {-50.0, 50.0, 0.03});
    for (std::size_t i = 0; i < values.size(); i += 7)
        values[i] = -0.0;
    return values;
}

std::string describe(Vector const& extent, long long numChannels, long long levels)
{
    return "extent (" + std::to_string(extent.x) + ", " + std::to_string(extent.y) + ", " + std::to_string(extent.z) +
           ") channels " + std::to_string(numChannels) + " levels " + std::to_string(levels);
}

// Bit for bit, except that any NaN matches any NaN (see withOneNaN).
::testing::AssertionResult sameValues(std::vector<double> const& expected, std::vector<double> const& actual,
                                      Box const& box, std::string const& context = "")
{
    return NuvekTest::sameBits(NuvekReference::withOneNaN(expected), NuvekReference::withOneNaN(actual), box, context);
}

} // namespace

TEST(DownsampleBufferFullLevel, BothPassesMatchTheReferenceInPlaceAndOutOfPlace)
{
    std::mt19937_64 random(61);
    std::vector<Vector> const extents = {Vector(1, 1, 1),  Vector(2, 2, 1),   Vector(3, 1, 2),   Vector(5, 7, 1),
                                         Vector(9, 8, 3),  Vector(16, 16, 1), Vector(17, 33, 2), Vector(31, 5, 1),
                                         Vector(7, 64, 1), Vector(65, 3, 2)};
    for (Vector const& extent : extents)
        for (long long numChannels = 1; numChannels <= 3; ++numChannels)
            for (long long levels = 0; levels <= 3; ++levels)
            {
                std::vector<double> const source = specialValues(random, extent.prod() * numChannels);
                std::vector<double> const expected = NuvekReference::averageBlocks(source, extent, numChannels, levels);
                long long const f = 1LL << levels;
                Box const targetBox(Vector(extent.x / f, extent.y / f, extent.z));
                std::string const context = describe(extent, numChannels, levels);

                auto check = [&](auto pass, char const* name) {
                    // Out of place into a buffer of exactly the reduced size.
                    std::vector<double> separate(expected.size(), sentinel);
                    pass(source.data(), separate.data(), extent, numChannels, levels);
                    EXPECT_TRUE(sameValues(expected, separate, targetBox, context + " " + name));
                    // In place: the reduced values open the buffer, the rest is left as it was.
                    std::vector<double> inPlace = source;
                    pass(inPlace.data(), inPlace.data(), extent, numChannels, levels);
                    std::vector<double> const head(inPlace.begin(),
                                                   inPlace.begin() + static_cast<std::ptrdiff_t>(expected.size()));
                    EXPECT_TRUE(sameValues(expected, head, targetBox, context + " in place " + name));
                };
                check([](double const* s, double* d, Vector e, long long n,
                         long long l) { Nuvek::downsampleBufferFullLevel(s, d, e, n, l); },
                      "public");
                check([](double const* s, double* d, Vector e, long long n,
                         long long l) { Nuvek::averageBlocksByDisplacements(s, d, e, n, l); },
                      "displacements");
                check([](double const* s, double* d, Vector e, long long n,
                         long long l) { Nuvek::averageBlocksByRows(s, d, e, n, l); },
                      "rows");
            }
}

TEST(DownsampleBufferFullLevel, ConvertsBetweenValueTypesAndDropsPartialBlocks)
{
    // 5 x 3 floats: the last column and the last row do not fill a 2 x 2 block.
    std::vector<float> const source = {1, 2, 3, 4, 100, 5, 6, 7, 9, 100, 100, 100, 100, 100, 100};
    std::vector<double> target(2, 0.0);
    Nuvek::downsampleBufferFullLevel(source.data(), target.data(), Vector(5, 3, 1), 1, 1);
    EXPECT_EQ(target, (std::vector<double>{3.5, 5.75}));
}

TEST(DownsampleBufferFullLevel, LevelsOutsideZeroTo62AreRejected)
{
    std::vector<double> values(4, 1.0);
    try
    {
        Nuvek::downsampleBufferFullLevel(values.data(), values.data(), Vector(2, 2, 1), 1, -1);
        ADD_FAILURE() << "negative levels accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "downsampleBufferFullLevel: the number of levels must not be negative.");
    }
    try
    {
        Nuvek::downsampleBufferFullLevel(values.data(), values.data(), Vector(2, 2, 1), 1, 63);
        ADD_FAILURE() << "63 levels accepted";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "downsampleBufferFullLevel: the number of levels must not exceed 62.");
    }
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
        Vector const high(between(low.x, srcExtent.x - 1), between(low.y, srcExtent.y - 1),
                          between(low.z, srcExtent.z - 1));
        Box const srcBox(low, high);
        Vector const dstPos(between(-10, 10), between(-10, 10), between(-4, 4));
        std::vector<double> const src = NuvekTest::randomValues(random, srcExtent.prod() * numChannels);
        std::vector<double> expected(static_cast<std::size_t>(dstExtent.prod() * numChannels), sentinel);
        std::vector<double> actual = expected;
        NuvekReference::copyBuffer(src, srcExtent, srcBox, expected, dstExtent, dstPos, numChannels);
        Nuvek::copyImageBuffer(src.data(), srcExtent, srcBox, actual.data(), dstExtent, dstPos, numChannels);
        Box const dstBox(Vector(dstExtent.x, dstExtent.y, dstExtent.z * std::max(numChannels, 1LL)));
        EXPECT_TRUE(NuvekTest::sameBits(expected, actual, dstBox, "round " + std::to_string(round)));
    }
}

TEST(CopyImageBuffer, ShortcutCopiesTheBoxSizeRegardlessOfChannels)
{
    // srcBox.max equal to the extent itself (one past the last voxel) takes the shortcut: it copies
    // getSize() = 3 * 3 * 2 = 18 values, not extent.prod() * numChannels = 8.
    Vector const extent(2, 2, 1);
    std::vector<double> src(20);
    for (std::size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<double>(i);
    std::vector<double> dst(20, sentinel);
    Nuvek::copyImageBuffer(src.data(), extent, Box(Vector(0, 0, 0), extent), dst.data(), extent, Vector(0, 0, 0), 2);
    for (std::size_t i = 0; i < dst.size(); ++i)
        EXPECT_EQ(dst[i], i < 18 ? static_cast<double>(i) : sentinel) << "index " << i;

    // The whole image as Box(extent) is no shortcut: both channels, 8 values.
    std::fill(dst.begin(), dst.end(), sentinel);
    Nuvek::copyImageBuffer(src.data(), extent, Box(extent), dst.data(), extent, Vector(0, 0, 0), 2);
    for (std::size_t i = 0; i < dst.size(); ++i)
        EXPECT_EQ(dst[i], i < 8 ? static_cast<double>(i) : sentinel) << "index " << i;
}

TEST(DownsampleFilter, EqualsTheMemoryImagesOwnLevelsBitForBitOnOddSizes)
{
    // The memory image builds level L from level 0 by the same block sums, and convertToLevel maps a
    // coarse box to exactly 2^L times its extent, so the filter must reproduce every level to the bit.
    std::mt19937_64 random(65);
    std::vector<Vector> const extents = {Vector(1, 1, 1),   Vector(3, 5, 1),    Vector(37, 29, 2),
                                         Vector(63, 65, 1), Vector(129, 33, 3), Vector(2, 31, 1)};
    for (Vector const& extent : extents)
    {
        long long const numChannels = 1 + (extent.x % 3);
        auto image = NuvekTest::randomImage(random, extent, numChannels, {-1e6, 1e6, 0.02});
        DownsampleFilter filter(image.get(), 0, false);
        for (long long level = 1; level <= 7; ++level)
        {
            Vector const levelExtent = image->getExtent(level);
            Box const inside(levelExtent);
            std::string const context = describe(extent, numChannels, level);
            if (!inside.isEmpty())
            {
                EXPECT_EQ(Nuvek::convertToLevel(inside, level, 0).getExtent(),
                          Vector(levelExtent.x << level, levelExtent.y << level, extent.z))
                    << context;
            }
            // The whole level with a frame around it, then boxes inside, across and beside the edge.
            std::vector<Box> boxes = {inside.expanded(Vector(1, 1, 0))};
            for (int i = 0; i < 4; ++i)
                boxes.push_back(NuvekTest::randomBox(random, levelExtent, 9, 3));
            for (Box const& box : boxes)
            {
                // Inside the image the memory image's own values; outside, the filter leaves out alone.
                std::vector<double> expected = sentinelFilled(box, numChannels);
                Box const clipped = box.intersected(inside);
                if (!clipped.isEmpty())
                    NuvekTest::paste(expected, box, openWhole(*image, level, clipped), clipped, numChannels);
                EXPECT_TRUE(sameValues(expected, openOverSentinel(filter, level, box), box, context));
            }
        }
    }
}

namespace {

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

} // namespace

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

TEST(UpsampleFilter, SlicesCountFromTheRequestedBoxAndMissingOnesStayUnwritten)
{
    // Two slices; the box starts one slice before the image, so output slice z reads source slice
    // z + 1 and the last output slice has no source slice at all.
    auto source = coordinateImage(Vector(4, 4, 2), 1);
    UpsampleFilter filter(source.get(), 1, UpsampleFilter::NearestNeighbor, false);
    Box const box(Vector(0, 0, -1), Vector(0, 0, 1));
    EXPECT_EQ(openOverSentinel(filter, 0, box), (std::vector<double>{5.5, 105.5, sentinel}));
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
