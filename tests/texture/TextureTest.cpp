// Texture filters: the definitions, through the seeded harness, the fast passes against the plain ones, and one pinned example per deliberate oddity.
#include "filters/internal/MorphologicPasses.h"
#include "filters/internal/RankPasses.h"
#include "reference/HistogramReference.h"
#include "reference/LBPReference.h"
#include "reference/MorphologicReference.h"
#include "reference/RankReference.h"
#include "support/NuvekTest.h"
#include "texture/TextureImages.h"

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace NuvekTest;
using Nuvek::Box;
using Nuvek::DilationFilter;
using Nuvek::ErosionFilter;
using Nuvek::HistogramComputer;
using Nuvek::HistogramFilter;
using Nuvek::LBPComputer;
using Nuvek::LBPFilter;
using Nuvek::PositionIterator;
using Nuvek::RankFilter;
using Nuvek::ValueRange;
using Nuvek::Vector;
using namespace NuvekTest;

// Every texture filter against its plain definition, through the seeded harness, on values with many
// ties, both zeros, infinities and NaNs of several bit patterns.
namespace {

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
            return std::make_unique<Nuvek::RankFilter>(input, k, rank, false);
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
    double low = 0, high = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            k = draw.kernel();
            bins = draw.integer(1, 17, "bins");
            low = -2.5 + static_cast<double>(draw.integer(0, 2, "low")), high = low + 4.5;
            static_cast<MemoryImage*>(input)->setValueRange({low, high});
            return std::make_unique<Nuvek::HistogramFilter>(input, k, bins, false);
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::histogram(NuvekReference::histogramParameters(k, bins, low, high), input, box,
                                             level);
        },
        tricky(100, 43).channels({1}));
}

TEST(LBPFilter, MatchesReference)
{
    double radius = 1.0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            radius =
                std::vector<double>{1.0, 2.0, 3.0, 0.4, 5.7, -1.5}[static_cast<std::size_t>(draw.integer(0, 5, "r"))];
            return std::make_unique<Nuvek::LBPFilter>(input, radius, false);
        },
        [&](Image& input, long long level, Box const& box) { return NuvekReference::lbp(input, radius, box, level); },
        tricky(80, 44).channels({1}));
}

namespace {

std::vector<double> computeWith(HistogramComputer const& computer, Nuvek::Image& input, Box const& box, long long level)
{
    std::vector<double> out(static_cast<std::size_t>(computer.getNumBins() * box.getSize()), -7.0);
    computer.compute(out.data(), &input, box, level);
    return out;
}

} // namespace

TEST(HistogramComputer, BinsTruncateTowardZeroAndSaturate)
{
    // Width (9 - 0 + 1) / 4 = 2.5.
    HistogramComputer const computer(3, 4, ValueRange<double>(0.0, 9.0));
    EXPECT_EQ(computer.valueToBin(0.0), 0);
    EXPECT_EQ(computer.valueToBin(2.4999), 0);
    EXPECT_EQ(computer.valueToBin(2.5), 1);
    EXPECT_EQ(computer.valueToBin(7.5), 3);
    EXPECT_EQ(computer.valueToBin(9.9), 3);
    EXPECT_EQ(computer.valueToBin(1e300), 3);
    EXPECT_EQ(computer.valueToBin(INFINITY), 3);
    EXPECT_EQ(computer.valueToBin(-2.4), 0);
    EXPECT_EQ(computer.valueToBin(-1e300), 0);
    EXPECT_EQ(computer.valueToBin(-INFINITY), 0);
    EXPECT_EQ(computer.valueToBin(std::nan("")), 0);
    // A range whose width is zero makes every quotient infinite or NaN; the bins stay defined.
    HistogramComputer const degenerate(1, 3, ValueRange<double>(5.0, 4.0));
    EXPECT_EQ(degenerate.valueToBin(6.0), 2);
    EXPECT_EQ(degenerate.valueToBin(4.0), 0);
    EXPECT_EQ(degenerate.valueToBin(5.0), 0);
}

TEST(HistogramComputer, InsideCountsAreTheDirectWindowCounts)
{
    std::mt19937_64 random(52);
    auto source = NuvekTest::trickyImage(random, Vector(30, 25, 2), 1, 0.05, false);
    for (long long k : {3, 7, 13})
    {
        long long const numBins = 6;
        HistogramComputer const computer(k, numBins, ValueRange<double>(-50.0, 50.0));
        Box const box(Vector(k / 2, k / 2, 0), Vector(29 - k / 2, 24 - k / 2, 1));
        std::vector<double> const out = computeWith(computer, *source, box, 0);
        Vector const e = box.getExtent();
        std::vector<double> const& values = source->getValues();
        for (long long z = 0; z < e.z; ++z)
            for (long long y = 0; y < e.y; ++y)
                for (long long x = 0; x < e.x; ++x)
                {
                    std::vector<double> direct(numBins, 0.0);
                    for (long long dy = -k / 2; dy <= k / 2; ++dy)
                        for (long long dx = -k / 2; dx <= k / 2; ++dx)
                        {
                            long long const index = (z * 25 + box.min.y + y + dy) * 30 + box.min.x + x + dx;
                            direct[computer.valueToBin(values[index])] += 1.0;
                        }
                    double total = 0.0;
                    for (long long b = 0; b < numBins; ++b)
                    {
                        double const count = out[b * box.getSize() + (z * e.y + y) * e.x + x];
                        ASSERT_EQ(count, direct[b]) << "k " << k << " bin " << b << " at " << x << "," << y << "," << z;
                        total += count;
                    }
                    ASSERT_EQ(total, static_cast<double>(k * k));
                }
    }
}

TEST(HistogramComputer, LowSlabsReachOnePastTheOutsideStripAndHighSlabsStartEarly)
{
    // Every value 5.0 lies in bin 1 inside the image; outside the image reads 0.0, bin 0.
    Nuvek::MemoryImage image(Vector(10, 6, 1), 1, std::vector<double>(60, 5.0));
    HistogramComputer const computer(1, 2, ValueRange<double>(0.0, 5.0));
    // min.x = -2: box columns 0 .. 2 are cleared in bin 0, the third of them inside the image.
    Box const low(Vector(-2, 0, 0), Vector(3, 0, 0));
    std::vector<double> const lowOut = computeWith(computer, image, low, 0);
    EXPECT_EQ(std::vector<double>(lowOut.begin(), lowOut.begin() + 6), (std::vector<double>{0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(std::vector<double>(lowOut.begin() + 6, lowOut.end()), (std::vector<double>{0, 0, 1, 1, 1, 1}));
    // max.x = 11 with the image 10 wide: the slab starts at 10 + 1 - 11 = 0, the whole row.
    Box const high(Vector(7, 2, 0), Vector(11, 2, 0));
    std::vector<double> const highOut = computeWith(computer, image, high, 0);
    EXPECT_EQ(std::vector<double>(highOut.begin(), highOut.begin() + 5), (std::vector<double>{0, 0, 0, 0, 0}));
    EXPECT_EQ(std::vector<double>(highOut.begin() + 5, highOut.end()), (std::vector<double>{1, 1, 1, 0, 0}));
}

TEST(HistogramComputer, EmptyBoxLeavesOutUntouchedAndNegativeKernelIsRefused)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    HistogramComputer const computer(3, 2, ValueRange<double>(0.0, 1.0));
    std::vector<double> out(4, -7.0);
    computer.compute(out.data(), &image, Box(), 0);
    EXPECT_EQ(out, std::vector<double>(4, -7.0));
    HistogramComputer const negative(-3, 2, ValueRange<double>(0.0, 1.0));
    EXPECT_EQ(messageOf([&] { computeWith(negative, image, Box(Vector(2, 2, 1)), 0); }),
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
class StringThrowingImage : public Nuvek::MemoryImage
{
public:
    StringThrowingImage() : MemoryImage(Vector(2, 2, 1), 1) {}
    long long getNumChannels() const override { throw std::string("channels unavailable\n"); }
};

} // namespace

TEST(LBPComputer, TableHelperAndCircularDefinitionAgreeOnEveryCode)
{
    LBPComputer const computer;
    int uniform = 0;
    for (long long code = 0; code < 256; ++code)
    {
        long long const expected = NuvekReference::circularUniformClass(code);
        EXPECT_EQ(LBPComputer::getUniformBinaryPattern(code), expected) << "code " << code;
        EXPECT_EQ(computer.computeLBP(0.0, neighboursOf(code)), code);
        EXPECT_EQ(computer.computeUniformLBP(0.0, neighboursOf(code)), expected) << "code " << code;
        uniform += expected != 9;
    }
    EXPECT_EQ(uniform, 58);
}

TEST(LBPComputer, EqualNeighbourSetsItsBitAndNaNNever)
{
    LBPComputer const computer;
    EXPECT_EQ(computer.computeLBP(2.0, std::vector<double>(8, 2.0)), 255);
    EXPECT_EQ(computer.computeUniformLBP(2.0, std::vector<double>(8, 2.0)), 8);
    EXPECT_EQ(computer.computeUniformLBP(2.0, std::vector<double>(8, 1.0)), 0);
    for (int i = 0; i < 8; ++i)
    {
        std::vector<double> neighbours(8, 1.0);
        neighbours[static_cast<std::size_t>(i)] = 5.0;
        EXPECT_EQ(computer.computeUniformLBP(2.0, neighbours), 1) << "position " << i;
    }
    EXPECT_EQ(computer.computeLBP(std::nan(""), std::vector<double>(8, 1.0)), 0);
    std::vector<double> withNaN(8, 3.0);
    withNaN[2] = std::nan("");
    EXPECT_EQ(computer.computeLBP(2.0, withNaN), 255 - 4);
    // Extra neighbours are not read; too few are refused.
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

TEST(LBPFilter, RadiusBelowOneHalfComparesEveryVoxelWithItself)
{
    std::mt19937_64 random(62);
    auto source = NuvekTest::randomImage(random, Vector(9, 7, 1), 1);
    LBPFilter filter(source.get(), 0.4, false);
    EXPECT_EQ(openWhole(filter, 0, Box(Vector(9, 7, 1))), std::vector<double>(63, 8.0));
}

namespace {

std::vector<double> openWith(bool maximum, Nuvek::Image& input, long long k, long long level, Box const& box)
{
    if (maximum)
    {
        DilationFilter filter(&input, k, false);
        return openWhole(filter, level, box);
    }
    ErosionFilter filter(&input, k, false);
    return openWhole(filter, level, box);
}

} // namespace

TEST(MorphologicFilter, NaNCountsOnlyInSlotZeroAndTheEarlierSlotWinsBetweenZeros)
{
    // One row, k = 3: the window at output x holds positions x .. x + 2 of the padded row, and
    // position j sits in slot j mod 3.
    double const nan = std::nan("");
    Nuvek::MemoryImage image(Vector(6, 1, 1), 1, {nan, 2.0, 1.0, 0.0, -0.0, 7.0});
    Box const row(Vector(0, 0, 0), Vector(5, 0, 0));
    // Padded positions: 0 is outside (0.0), then the six values, then 0.0. NaN sits at position 1.
    std::vector<double> const eroded = openWith(false, image, 3, 0, Box(Vector(0, 0, 0), Vector(5, 0, 0)));
    // Vertical windows also take the outside rows (0.0), so compare against the reference only.
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(image, 3, false, row, 0), eroded, row));
    // Horizontal only, through a tall image whose rows are equal: slot order decides.
    std::vector<double> tall;
    for (int y = 0; y < 5; ++y)
        for (double v : {2.0, nan, 1.0, -0.0, 0.0, 3.0, nan, 5.0, 4.0})
            tall.push_back(v);
    Nuvek::MemoryImage tallImage(Vector(9, 5, 1), 1, tall);
    Box const inner(Vector(1, 2, 0), Vector(7, 2, 0));
    // Output x = 1 .. 7 uses padded positions x - 1 .. x + 1 of the image row (the box's own padding
    // starts at image x = 0). Positions in multiples of 3 sit in slot 0.
    std::vector<double> const minimum = openWith(false, tallImage, 3, 0, inner);
    std::vector<double> const maximum = openWith(true, tallImage, 3, 0, inner);
    // x=1: {2, NaN, 1}: slot 0 holds 2, NaN passed over -> 1 / 2.
    EXPECT_EQ(minimum[0], 1.0);
    EXPECT_EQ(maximum[0], 2.0);
    // x=2: {NaN, 1, -0}: positions 1,2,3 -> slot 0 holds -0 (position 3), NaN passed over.
    EXPECT_EQ(NuvekTest::bitsOf(minimum[1]), NuvekTest::bitsOf(-0.0));
    EXPECT_EQ(maximum[1], 1.0);
    // x=4: {-0, 0, 3}: -0 in slot 0 wins the tie.
    EXPECT_EQ(NuvekTest::bitsOf(minimum[3]), NuvekTest::bitsOf(-0.0));
    // x=6: {3, NaN, 5}: positions 5, 6, 7 -> NaN sits in slot 0 and is the result.
    EXPECT_TRUE(std::isnan(minimum[5]));
    EXPECT_TRUE(std::isnan(maximum[5]));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(tallImage, 3, false, inner, 0), minimum, inner));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(tallImage, 3, true, inner, 0), maximum, inner));
}

TEST(MorphologicFilter, FastAndPlainPassesGiveTheSameBitsAsTheReference)
{
    // Output widths below, at and above the four-value vectors (the fast passes refuse rows of fewer
    // than four), kernels of one and larger than the box, NaN, infinities and both zeros.
    std::mt19937_64 random(76);
    int round = 0;
    for (long long k : {1, 3, 5, 7, 9, 15, 23})
        for (long long width : {1, 3, 4, 5, 7, 8, 9, 13})
        {
            ++round;
            long long const rows = 1 + round % 6;
            double const specialShare = round % 3 == 0 ? 0.0 : (round % 3 == 1 ? 0.04 : 0.3);
            Vector const inputExtent(width + k - 1, rows + k - 1, 2);
            long long const numChannels = 1 + round % 2;
            auto padded = NuvekTest::trickyImage(random, inputExtent, numChannels, specialShare, round % 4 < 2);
            std::vector<double> const work = openWhole(*padded, 0, Box(inputExtent));
            // The box whose padded region is exactly the image.
            Box const box(Vector(k / 2, k / 2, 0), Vector(k / 2 + width - 1, k / 2 + rows - 1, 1));
            for (bool maximum : {false, true})
            {
                std::string const context =
                    "k " + std::to_string(k) + " width " + std::to_string(width) + (maximum ? " dilation" : " erosion");
                std::vector<double> plain(static_cast<std::size_t>(box.getSize() * numChannels), 0.5);
                Nuvek::extremaOfRegionPlain(maximum, work.data(), inputExtent, numChannels, k, plain.data());
                EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::morphology(*padded, k, maximum, box, 0), plain, box,
                                                context + " plain"));
                std::vector<double> fast(plain.size(), 0.5);
                bool const served =
                    Nuvek::extremaOfRegionFast(maximum, work.data(), inputExtent, numChannels, k, fast.data());
                EXPECT_EQ(served, width >= 4) << context;
                if (served)
                    EXPECT_TRUE(NuvekTest::sameBits(plain, fast, box, context + " fast"));
                else
                    EXPECT_EQ(fast, std::vector<double>(plain.size(), 0.5)) << context;
            }
        }
}

namespace {

struct Visit
{
    long long index;
    Vector position;
};

std::vector<Visit> walk(Vector const& extent, Box const& box)
{
    PositionIterator positions(extent, box);
    std::vector<Visit> visits;
    long long index = -1;
    while (positions.next(index))
        visits.push_back(Visit{index, positions.getPosition()});
    EXPECT_FALSE(positions.next(index)) << "the walk must stay at its end";
    return visits;
}

// The plain triple loop over the box clipped to the buffer.
std::vector<Visit> expectedWalk(Vector const& extent, Box const& box)
{
    std::vector<Visit> visits;
    Box const clipped = box.intersected(Box(extent));
    for (long long z = clipped.min.z; z <= clipped.max.z; ++z)
        for (long long y = clipped.min.y; y <= clipped.max.y; ++y)
            for (long long x = clipped.min.x; x <= clipped.max.x; ++x)
                visits.push_back(Visit{Vector(x, y, z).dot(extent.getStrides()), Vector(x, y, z)});
    return visits;
}

} // namespace

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
        std::vector<Visit> const actual = walk(extent, box);
        std::vector<Visit> const expected = expectedWalk(extent, box);
        ASSERT_EQ(actual.size(), expected.size()) << "round " << round;
        for (std::size_t i = 0; i < actual.size(); ++i)
        {
            EXPECT_EQ(actual[i].index, expected[i].index) << "round " << round << " step " << i;
            EXPECT_EQ(actual[i].position, expected[i].position) << "round " << round << " step " << i;
        }
    }
}

namespace {

constexpr double sentinel = -12345.5;

std::vector<double> openOver(RankFilter& filter, Box const& box, long long level = 0)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * filter.getNumChannels()), sentinel);
    filter.openRegion(out.data(), level, box);
    return out;
}

std::vector<double> referenceOver(Nuvek::Image& input, long long k, long long rank, Box const& box, long long level = 0)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), sentinel);
    NuvekReference::rank(input, k, rank, box, level, out);
    return out;
}

} // namespace

TEST(RankFilter, NaNRanksAboveEveryNumberAndNegativeZeroBelowZero)
{
    double const nan = std::nan("");
    Nuvek::MemoryImage image(Vector(3, 3, 1), 1, {nan, 0.0, INFINITY, -0.0, 1.0, nan, -INFINITY, 0.0, 2.0});
    Box const centre(Vector(1, 1, 0), Vector(1, 1, 0));
    auto at = [&](long long rank) {
        RankFilter filter(&image, 3, rank, false);
        return openOver(filter, centre)[0];
    };
    EXPECT_EQ(at(0), -INFINITY);
    EXPECT_EQ(NuvekTest::bitsOf(at(1)), NuvekTest::bitsOf(-0.0));
    EXPECT_EQ(NuvekTest::bitsOf(at(2)), NuvekTest::bitsOf(0.0));
    EXPECT_EQ(NuvekTest::bitsOf(at(3)), NuvekTest::bitsOf(0.0));
    EXPECT_EQ(at(4), 1.0);
    EXPECT_EQ(at(5), 2.0);
    EXPECT_EQ(at(6), INFINITY);
    EXPECT_TRUE(std::isnan(at(7)));
    EXPECT_TRUE(std::isnan(at(8)));
    // NaNs among themselves: sign bit clear by ascending bits, then sign bit set by descending bits.
    double const a = NuvekTest::nanWithBits(5, false), b = NuvekTest::nanWithBits(9, false);
    double const c = NuvekTest::nanWithBits(9, true), d = NuvekTest::nanWithBits(5, true);
    Nuvek::MemoryImage nans(Vector(1, 1, 1), 1, {0.0});
    Nuvek::MemoryImage ordered(Vector(3, 3, 1), 1, {d, 1.0, b, c, 2.0, a, 3.0, 4.0, 5.0});
    std::vector<double> const expected{1.0, 2.0, 3.0, 4.0, 5.0, a, b, c, d};
    for (long long rank = 0; rank < 9; ++rank)
    {
        RankFilter filter(&ordered, 3, rank, false);
        EXPECT_EQ(NuvekTest::bitsOf(openOver(filter, centre)[0]), NuvekTest::bitsOf(expected[rank])) << "rank " << rank;
    }
}

TEST(RankFilter, FastAndPlainPassesGiveTheSameBitsAsTheReference)
{
    // Output widths below, at and above the four windows a sorting network takes at once (the
    // networks refuse rows of fewer than four), the sliding set for larger kernels, kernels of one
    // and larger than the box, NaN, infinities and both zeros.
    std::mt19937_64 random(87);
    int round = 0;
    for (long long k : {1, 3, 5, 7, 9, 13})
        for (long long width : {1, 3, 4, 5, 7, 8, 9})
        {
            ++round;
            long long const rows = 1 + round % 5;
            double const specialShare = round % 3 == 0 ? 0.0 : (round % 3 == 1 ? 0.04 : 0.3);
            // Two slices: only the first is computed.
            Vector const inputExtent(width + k - 1, rows + k - 1, 2);
            long long const numChannels = 1 + round % 2;
            auto padded = NuvekTest::trickyImage(random, inputExtent, numChannels, specialShare, round % 4 < 2);
            std::vector<double> const work = NuvekTest::openWhole(*padded, 0, Box(inputExtent));
            Box const box(Vector(k / 2, k / 2, 0), Vector(k / 2 + width - 1, k / 2 + rows - 1, 1));
            for (long long rank : {0LL, (k * k - 1) / 2, k * k - 1, (k * k) / 3})
            {
                std::string const context =
                    "k " + std::to_string(k) + " width " + std::to_string(width) + " rank " + std::to_string(rank);
                std::vector<double> plain(static_cast<std::size_t>(box.getSize() * numChannels), sentinel);
                Nuvek::ranksOfRegionPlain(work.data(), inputExtent, numChannels, k, rank, plain.data(),
                                          box.getExtent());
                EXPECT_TRUE(NuvekTest::sameBits(referenceOver(*padded, k, rank, box), plain, box, context + " plain"));
                std::vector<double> fast(plain.size(), sentinel);
                bool const served = Nuvek::ranksOfRegionFast(work.data(), inputExtent, numChannels, k, rank,
                                                             fast.data(), box.getExtent());
                bool const network = k == 3 || k == 5 || k == 7;
                EXPECT_EQ(served, !network || width >= 4) << context;
                if (served)
                    EXPECT_TRUE(NuvekTest::sameBits(plain, fast, box, context + " fast"));
                else
                    EXPECT_EQ(fast, std::vector<double>(plain.size(), sentinel)) << context;
            }
        }
}
