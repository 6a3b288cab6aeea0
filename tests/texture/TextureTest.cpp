// Texture filters against their plain definitions through the seeded harness, the fast passes
// against the plain ones, and one pinned example per deliberate oddity.
#include "filters/internal/MorphologicPasses.h"
#include "filters/internal/RankPasses.h"
#include "reference/HistogramReference.h"
#include "reference/LBPReference.h"
#include "reference/MorphologicReference.h"
#include "reference/RankReference.h"
#include "support/NuvekTest.h"

#include <array>
#include <cstdint>
#include <cstring>

using namespace NuvekTest;
using Nuvek::HistogramComputer;
using Nuvek::LBPComputer;
using Nuvek::LBPFilter;
using Nuvek::RankFilter;
using Nuvek::ValueRange;

namespace {

double nanWithBits(std::uint64_t payload, bool negative)
{
    std::uint64_t const bits = (negative ? 0xFFF0000000000000ULL : 0x7FF0000000000000ULL) | payload;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// Values from a few small integers (or, with ties false, continuous in [-50, 50)), with a share of
// both zeros, both infinities and NaNs of four bit patterns, so that every order-sensitive case
// occurs in small windows.
std::vector<double> trickyValues(std::mt19937_64& random, long long count, double specialShare, bool ties)
{
    double const specials[] = {nanWithBits(1ULL << 51, false),
                               nanWithBits(7, false),
                               nanWithBits(1ULL << 51, true),
                               nanWithBits(3, true),
                               inf,
                               -inf,
                               -0.0,
                               0.0};
    std::vector<double> values(static_cast<std::size_t>(count));
    for (double& value : values)
        if (std::uniform_real_distribution<double>(0.0, 1.0)(random) < specialShare)
            value = specials[std::uniform_int_distribution<int>(0, 7)(random)];
        else
            value = ties ? std::uniform_int_distribution<int>(-3, 3)(random)
                         : std::uniform_real_distribution<double>(-50.0, 50.0)(random);
    return values;
}

HarnessOptions tricky(int rounds, std::uint64_t seed)
{
    return HarnessOptions(rounds, seed).exactNaN().shape([](std::vector<double>& values, std::mt19937_64& random) {
        double const share = std::vector<double>{0.0, 0.03, 0.3}[std::uniform_int_distribution<int>(0, 2)(random)];
        values = trickyValues(random, static_cast<long long>(values.size()), share,
                              std::uniform_int_distribution<int>(0, 1)(random) == 0);
    });
}

} // namespace

TEST(RankFilter, MatchesReference)
{
    long long k = 1, rank = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = std::min(draw.kernel(), 15LL);
            rank = draw.integer(0, k * k - 1, "rank");
            return std::make_unique<RankFilter>(input, k, rank, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            NuvekReference::rank(input, k, rank, box, level, out);
            return out;
        },
        tricky(150, 41));
}

TEST(MorphologicFilter, MatchesReference)
{
    long long k = 1;
    bool maximum = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) -> std::unique_ptr<Image> {
            k = draw.kernel();
            if ((maximum = draw.flip("dilation")))
                return std::make_unique<Nuvek::DilationFilter>(input, k, false);
            return std::make_unique<Nuvek::ErosionFilter>(input, k, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::morphology(input, k, maximum, box, level);
        },
        tricky(150, 42));
}

TEST(HistogramFilter, MatchesReference)
{
    long long k = 1, bins = 1;
    double low = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            bins = draw.integer(1, 17, "bins");
            low = -2.5 + static_cast<double>(draw.integer(0, 2, "low"));
            static_cast<MemoryImage*>(input)->setValueRange({low, low + 4.5});
            return std::make_unique<Nuvek::HistogramFilter>(input, k, bins, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::histogram(input, level, box, k, bins, low, low + 4.5);
        },
        tricky(100, 43).channels({1}));
}

TEST(LBPFilter, MatchesReference)
{
    // A radius below one half compares every voxel with itself.
    double radius = 1.0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            radius =
                std::vector<double>{1.0, 2.0, 3.0, 0.4, 5.7, -1.5}[static_cast<std::size_t>(draw.integer(0, 5, "r"))];
            return std::make_unique<LBPFilter>(input, radius, false);
        },
        [&](Image& input, long long level, Box const& box) { return NuvekReference::lbp(input, radius, box, level); },
        tricky(80, 44).channels({1}));
}

TEST(HistogramComputer, BinsTruncateTowardZeroAndSaturate)
{
    // Width (9 - 0 + 1) / 4 = 2.5.
    HistogramComputer const computer(3, 4, ValueRange<double>(0.0, 9.0));
    std::vector<std::pair<double, long long>> const cases = {{0.0, 0},   {2.4999, 0}, {2.5, 1},  {7.5, 3},  {9.9, 3},
                                                             {1e300, 3}, {inf, 3},    {-2.4, 0}, {-inf, 0}, {NaN, 0}};
    for (auto const& [value, bin] : cases)
        EXPECT_EQ(computer.valueToBin(value), bin) << value;
    // A range whose width is zero makes every quotient infinite or NaN; the bins stay defined.
    HistogramComputer const degenerate(1, 3, ValueRange<double>(5.0, 4.0));
    EXPECT_EQ(degenerate.valueToBin(6.0), 2);
    EXPECT_EQ(degenerate.valueToBin(4.0), 0);
    EXPECT_EQ(degenerate.valueToBin(5.0), 0);
}

TEST(HistogramComputer, LowSlabsReachOnePastTheOutsideStripAndHighSlabsStartEarly)
{
    // k = 1 and every value, inside the image or outside it, in bin 0: a cleared voxel shows as 0.
    MemoryImage image(Vector(10, 6, 1), 1, std::vector<double>(60, 0.0));
    HistogramComputer const computer(1, 2, ValueRange<double>(0.0, 5.0));
    auto binZero = [&](Box const& box) {
        std::vector<double> out(static_cast<std::size_t>(2 * box.getSize()), -7.0);
        computer.compute(out.data(), &image, box, 0);
        return std::vector<double>(out.begin(), out.begin() + box.getSize());
    };
    // min.x = -2: box columns 0 to 2 are cleared, the third of them inside the image.
    EXPECT_EQ(binZero(Box(Vector(-2, 0, 0), Vector(3, 0, 0))), (std::vector<double>{0, 0, 0, 1, 1, 1}));
    // max.x = 10 with the image 10 wide: the slab starts at box column 10 + 1 - 10 = 1, inside.
    EXPECT_EQ(binZero(Box(Vector(7, 2, 0), Vector(10, 2, 0))), (std::vector<double>{1, 0, 0, 0}));
    // The same in y: max.y = 6 with the image 6 high.
    EXPECT_EQ(binZero(Box(Vector(2, 2, 0), Vector(2, 6, 0))), (std::vector<double>{1, 0, 0, 0, 0}));
    HistogramComputer const negative(-3, 2, ValueRange<double>(0.0, 1.0));
    std::vector<double> out(8);
    EXPECT_EQ(messageOf([&] { negative.compute(out.data(), &image, Box(Vector(2, 2, 1)), 0); }),
              "Kernel size must not be negative.");
}

namespace {

// Neighbours that set exactly the bits of code against a centre of 0.
std::vector<double> neighboursOf(long long code)
{
    std::vector<double> neighbours;
    for (int i = 0; i < 8; ++i)
        neighbours.push_back(((code >> i) & 1) != 0 ? 1.0 : -1.0);
    return neighbours;
}

// An image whose getNumChannels throws a string, as some applications' images report failures.
class StringThrowingImage : public MemoryImage
{
public:
    StringThrowingImage() : MemoryImage(Vector(2, 2, 1), 1) {}
    long long getNumChannels() const override { throw std::string("channels unavailable\n"); }
};

} // namespace

TEST(LBPComputer, TableHelperAndCircularDefinitionAgreeOnEveryCode)
{
    LBPComputer const computer;
    for (long long code = 0; code < 256; ++code)
    {
        long long const expected = NuvekReference::circularUniformClass(code);
        EXPECT_EQ(LBPComputer::getUniformBinaryPattern(code), expected) << "code " << code;
        EXPECT_EQ(computer.computeLBP(0.0, neighboursOf(code)), code);
        EXPECT_EQ(computer.computeUniformLBP(0.0, neighboursOf(code)), expected) << "code " << code;
    }
}

TEST(LBPComputer, ExtraNeighboursAreNotReadAndTooFewAreRefused)
{
    LBPComputer const computer;
    EXPECT_EQ(computer.computeLBP(2.0, std::vector<double>(12, 3.0)), 255);
    EXPECT_EQ(messageOf([&] { computer.computeLBP(2.0, std::vector<double>(7, 3.0)); }),
              "A local binary pattern needs eight neighbour values.");
}

TEST(LBPFilter, StringExceptionIsEchoedToStandardErrorAndThrownAgain)
{
    StringThrowingImage image;
    testing::internal::CaptureStderr();
    std::string caught;
    try
    {
        LBPFilter filter(&image, 1.5, false);
    }
    catch (std::string const& message)
    {
        caught = message;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "channels unavailable\n");
    EXPECT_EQ(caught, "channels unavailable\n");
}

TEST(MorphologicFilter, NaNCountsOnlyInSlotZeroAndTheEarlierSlotWinsBetweenZeros)
{
    // k = 3 over equal rows: image column j sits in slot j mod 3 of the window.
    std::vector<double> tall;
    for (int y = 0; y < 5; ++y)
        for (double v : {2.0, NaN, 1.0, -0.0, 0.0, 3.0, NaN, 5.0, 4.0})
            tall.push_back(v);
    MemoryImage image(Vector(9, 5, 1), 1, tall);
    Box const inner(Vector(1, 2, 0), Vector(7, 2, 0));
    Nuvek::ErosionFilter erosion(&image, 3, false);
    Nuvek::DilationFilter dilation(&image, 3, false);
    EXPECT_TRUE(sameBitsAnyNaN({1.0, -0.0, -0.0, -0.0, NaN, NaN, NaN}, openWhole(erosion, 0, inner), inner));
    EXPECT_TRUE(sameBitsAnyNaN({2.0, 1.0, 1.0, 3.0, NaN, NaN, NaN}, openWhole(dilation, 0, inner), inner));
}

TEST(RankFilter, NaNsRankAboveNumbersInTheirBitOrder)
{
    // NaNs with the sign bit clear by ascending bits, then NaNs with it set by descending bits.
    double const a = nanWithBits(5, false), b = nanWithBits(9, false), c = nanWithBits(9, true),
                 d = nanWithBits(5, true);
    MemoryImage image(Vector(3, 3, 1), 1, {d, 1.0, b, c, -0.0, a, -inf, 0.0, inf});
    std::vector<double> const expected{-inf, -0.0, 0.0, 1.0, inf, a, b, c, d};
    Box const centre(Vector(1, 1, 0), Vector(1, 1, 0));
    for (long long rank = 0; rank < 9; ++rank)
    {
        RankFilter filter(&image, 3, rank, false);
        EXPECT_TRUE(sameBits({expected[static_cast<std::size_t>(rank)]}, openWhole(filter, 0, centre), centre));
    }
}

TEST(MorphologicAndRankFilter, FastAndPlainPassesGiveTheSameBitsAsTheReference)
{
    // Output widths below, at and above the four windows the fast passes take at once (they refuse
    // narrower rows, except the rank filter's sliding set for kernels the sorting networks do not
    // cover), kernels of one and larger than the box; two slices, of which rank computes the first.
    std::mt19937_64 random(76);
    int round = 0;
    for (long long k : {1, 3, 5, 7, 9, 13, 15, 23})
        for (long long width : {1, 3, 4, 5, 7, 8, 9, 13})
        {
            ++round;
            long long const rows = 1 + round % 6, numChannels = 1 + round % 2;
            Vector const extent(width + k - 1, rows + k - 1, 2);
            MemoryImage padded(extent, numChannels,
                               trickyValues(random, extent.prod() * numChannels, 0.15 * (round % 3), round % 4 < 2));
            double const* values = padded.getValues().data();
            // The box whose grown region is exactly the image.
            Box const box(Vector(k / 2, k / 2, 0), Vector(k / 2 + width - 1, k / 2 + rows - 1, 1));
            std::string const context = "k " + std::to_string(k) + " width " + std::to_string(width);
            std::vector<double> const untouched(static_cast<std::size_t>(box.getSize() * numChannels), -7.0);
            for (bool maximum : {false, true})
            {
                std::vector<double> plain = untouched, fast = untouched;
                Nuvek::extremaOfRegionPlain(maximum, values, extent, numChannels, k, plain.data());
                EXPECT_TRUE(sameBits(NuvekReference::morphology(padded, k, maximum, box, 0), plain, box, context));
                bool const served = Nuvek::extremaOfRegionFast(maximum, values, extent, numChannels, k, fast.data());
                EXPECT_EQ(served, width >= 4) << context;
                EXPECT_TRUE(sameBits(served ? plain : untouched, fast, box, context));
            }
            for (long long rank : {0LL, (k * k - 1) / 2, k * k - 1, (k * k) / 3})
            {
                std::vector<double> plain = untouched, fast = untouched, expected = untouched;
                Nuvek::ranksOfRegionPlain(values, extent, numChannels, k, rank, plain.data(), box.getExtent());
                NuvekReference::rank(padded, k, rank, box, 0, expected);
                EXPECT_TRUE(sameBits(expected, plain, box, context + " rank " + std::to_string(rank)));
                bool const served =
                    Nuvek::ranksOfRegionFast(values, extent, numChannels, k, rank, fast.data(), box.getExtent());
                EXPECT_EQ(served, !(k == 3 || k == 5 || k == 7) || width >= 4) << context;
                EXPECT_TRUE(sameBits(served ? plain : untouched, fast, box, context + " rank " + std::to_string(rank)));
            }
        }
}

TEST(PositionIterator, YieldsEveryPositionOfTheClippedBoxXFastest)
{
    std::mt19937_64 random(31);
    std::uniform_int_distribution<long long> coordinate(-4, 9);
    for (int round = 0; round < 300; ++round)
    {
        Vector const extent(1 + round % 7, 1 + round % 5, 1 + round % 3);
        Vector const a(coordinate(random), coordinate(random), coordinate(random) % 4);
        Vector const b(coordinate(random), coordinate(random), coordinate(random) % 4);
        Box const box(Vector(std::min(a.x, b.x), std::min(a.y, b.y), std::min(a.z, b.z)),
                      Vector(std::max(a.x, b.x), std::max(a.y, b.y), std::max(a.z, b.z)));
        // The plain triple loop over the box clipped to the buffer.
        std::vector<std::array<long long, 4>> expected;
        Box const clipped = box.intersected(Box(extent));
        for (long long z = clipped.min.z; z <= clipped.max.z; ++z)
            for (long long y = clipped.min.y; y <= clipped.max.y; ++y)
                for (long long x = clipped.min.x; x <= clipped.max.x; ++x)
                    expected.push_back({(z * extent.y + y) * extent.x + x, x, y, z});
        Nuvek::PositionIterator positions(extent, box);
        std::vector<std::array<long long, 4>> visits;
        long long index = -1;
        while (positions.next(index))
            visits.push_back({index, positions.getPosition().x, positions.getPosition().y, positions.getPosition().z});
        ASSERT_EQ(visits, expected) << "round " << round;
        ASSERT_FALSE(positions.next(index)) << "the walk must stay at its end";
    }
}
