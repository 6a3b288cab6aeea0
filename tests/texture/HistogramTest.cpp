#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/texture/HistogramComputer.h>
#include <nuvek/filters/texture/HistogramFilter.h>

#include "reference/HistogramReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"
#include "texture/TextureImages.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::HistogramComputer;
using Nuvek::HistogramFilter;
using Nuvek::ValueRange;
using Nuvek::Vector;
using NuvekTest::openWhole;

using NuvekTest::messageOf;

namespace {

std::vector<double> computeWith(HistogramComputer const& computer, Nuvek::Image& input, Box const& box, long long level)
{
    std::vector<double> out(static_cast<std::size_t>(computer.getNumBins() * box.getSize()), -7.0);
    computer.compute(out.data(), &input, box, level);
    return out;
}

} // namespace

TEST(HistogramComputer, KernelSizeIsCheckedBeforeTheBinCount)
{
    ValueRange<double> const range(0.0, 10.0);
    EXPECT_EQ(messageOf([&] { HistogramComputer(4, 8, range); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { HistogramComputer(4, 0, range); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { HistogramComputer(3, 0, range); }), "Cannot create HistogramComputer with zero bins.");
    EXPECT_EQ(messageOf([&] { HistogramComputer(3, -3, range); }), "Cannot create HistogramComputer with zero bins.");
    EXPECT_EQ(messageOf([&] { HistogramComputer(-3, 2, range); }), "(nothing thrown)");
}

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

TEST(HistogramComputer, KernelOneCountsEachVoxelInItsOwnBin)
{
    Nuvek::MemoryImage image(Vector(4, 2, 1), 1, {0, 1, 2, 3, 3, 2, 1, std::nan("")});
    HistogramComputer const computer(1, 4, ValueRange<double>(0.0, 3.0));
    std::vector<double> const out = computeWith(computer, image, Box(Vector(4, 2, 1)), 0);
    std::vector<double> const expected{1, 0, 0, 0, 0, 0, 0, 1, // bin 0
                                       0, 1, 0, 0, 0, 0, 1, 0, // bin 1
                                       0, 0, 1, 0, 0, 1, 0, 0, // bin 2
                                       0, 0, 0, 1, 1, 0, 0, 0};
    EXPECT_EQ(out, expected);
}

TEST(HistogramComputer, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(51);
    for (int round = 0; round < 120; ++round)
    {
        long long const kernels[] = {1, 3, 5, 9, 15};
        long long const k = kernels[round % 5];
        long long const numBins = 1 + (round * 7) % 17;
        Vector const extent(5 + round % 23, 4 + (round * 3) % 19, 1 + round % 3);
        auto source = NuvekTest::trickyImage(random, extent, 1 + round % 2, 0.1, round % 2 == 0);
        NuvekReference::HistogramParameters const p =
            NuvekReference::histogramParameters(k, numBins, -2.5 + round % 3, 2.0 + round % 4);
        HistogramComputer const computer(k, numBins, ValueRange<double>(-2.5 + round % 3, 2.0 + round % 4));
        long long const level = round % 3;
        Vector const levelExtent = source->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, 12, 3);
        std::string const context = "round " + std::to_string(round) + " k " + std::to_string(k) + " bins " +
                                    std::to_string(numBins) + " level " + std::to_string(level);
        std::vector<double> const expected = NuvekReference::histogram(p, *source, box, level);
        EXPECT_TRUE(NuvekTest::sameBits(expected, computeWith(computer, *source, box, level), box, context));
    }
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

TEST(HistogramComputer, UsesTheFirstChannelOfAMultiChannelInput)
{
    Nuvek::MemoryImage image(Vector(2, 1, 1), 2, {0.0, 9.0, 9.0, 0.0});
    HistogramComputer const computer(1, 2, ValueRange<double>(0.0, 9.0));
    EXPECT_EQ(computeWith(computer, image, Box(Vector(2, 1, 1)), 0), (std::vector<double>{1, 0, 0, 1}));
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

TEST(HistogramFilter, ChecksKernelAndBinsBeforeTheChannelCount)
{
    Nuvek::MemoryImage three(Vector(4, 4, 1), 3);
    EXPECT_EQ(messageOf([&] { HistogramFilter(&three, 2, 4, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { HistogramFilter(&three, 3, 0, false); }),
              "Cannot create HistogramComputer with zero bins.");
    EXPECT_EQ(messageOf([&] { HistogramFilter(&three, 3, 4, false); }),
              "Local histogram filter may only be applied to single channel images.");
}

TEST(HistogramFilter, ChannelsRangeAndInclusiveNameBound)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    HistogramFilter filter(&image, 3, 5, false);
    EXPECT_EQ(filter.getNumChannels(), 5);
    EXPECT_EQ(filter.getValueRange().min, 0.0);
    EXPECT_EQ(filter.getValueRange().max, 9.0);
    EXPECT_EQ(filter.getChannelName(0), "HistogramBin");
    // An index equal to the number of bins is accepted on purpose.
    EXPECT_EQ(filter.getChannelName(5), "HistogramBin");
    EXPECT_EQ(messageOf([&] { filter.getChannelName(6); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(messageOf([&] { filter.getChannelName(-1); }), "Invalid channel index. Cannot determine its name.");
}

TEST(HistogramFilter, AsksForTheBoxGrownByHalfKernelAndKeepsTheRangeReadAtConstruction)
{
    std::mt19937_64 random(53);
    auto source = NuvekTest::randomImage(random, Vector(20, 20, 2), 1);
    source->setValueRange(ValueRange<double>(-100.0, 100.0));
    NuvekTest::RecordingImage recording(source);
    HistogramFilter filter(&recording, 5, 8, false);
    source->setValueRange(ValueRange<double>(0.0, 1.0));
    Box const box(Vector(-1, 3, 0), Vector(9, 12, 1));
    std::vector<double> const out = openWhole(filter, 1, box);
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].level, 1);
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(-3, 1, 0), Vector(11, 14, 1)));
    NuvekReference::HistogramParameters const p = NuvekReference::histogramParameters(5, 8, -100.0, 100.0);
    EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::histogram(p, *source, box, 1), out, box));
}

TEST(HistogramFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(54);
    auto source = NuvekTest::trickyImage(random, Vector(60, 50, 1), 1, 0.05);
    source->setValueRange(ValueRange<double>(-3.0, 3.0));
    HistogramFilter filter(source.get(), 7, 6, false);
    Box const box(Vector(0, 0, 0), Vector(59, 49, 0));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads : {1, 3})
        EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(filter, 0, box, {7, 31, 32}, {5, 26}, threads), box,
                                        "threads " + std::to_string(threads)));
}
