#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/texture/RankFilter.h>

#include "filters/internal/RankPasses.h"
#include "reference/RankReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"
#include "texture/TextureImages.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::Box;
using Nuvek::RankFilter;
using Nuvek::Vector;

using NuvekTest::messageOf;

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

TEST(RankFilter, ConstructionChecksKernelThenUpperThenLowerRankBound)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 4, 99, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 4, -1, false); }), "Kernel size must be odd.");
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 3, 9, false); }), "Rank index must be within [0, kernel size ^ 2].");
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 3, -1, false); }), "Rank index must not be negative.");
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 3, 8, false); }), "(nothing thrown)");
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 3, 0, false); }), "(nothing thrown)");
    // A square beyond the integers admits every rank; a negative odd size only fails when opened.
    EXPECT_EQ(messageOf([&] { RankFilter(&image, 4000000001LL, 5, false); }), "(nothing thrown)");
    RankFilter negative(&image, -3, 2, false);
    EXPECT_EQ(messageOf([&] { openOver(negative, Box(Vector(2, 2, 1))); }), "Kernel size must not be negative.");
}

TEST(RankFilter, MedianMinimumAndMaximumOfAThreeByThreeWindow)
{
    // 3 x 3 image, centre voxel's window is the whole image.
    Nuvek::MemoryImage image(Vector(3, 3, 1), 1, {5, 1, 9, 3, 7, 2, 8, 6, 4});
    Box const centre(Vector(1, 1, 0), Vector(1, 1, 0));
    for (auto [rank, expected] : std::vector<std::pair<long long, double>>{{4, 5.0}, {0, 1.0}, {8, 9.0}, {2, 3.0}})
    {
        RankFilter filter(&image, 3, rank, false);
        EXPECT_EQ(openOver(filter, centre), std::vector<double>{expected}) << "rank " << rank;
    }
}

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

TEST(RankFilter, KernelOneReturnsTheFirstSliceOfTheInput)
{
    std::mt19937_64 random(81);
    auto source = NuvekTest::trickyImage(random, Vector(7, 6, 1), 2, 0.2);
    RankFilter filter(source.get(), 1, 0, false);
    Box const box(Vector(7, 6, 1));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(*source, 0, box), openOver(filter, box), box));
}

TEST(RankFilter, OnlyTheFirstSliceIsWritten)
{
    std::mt19937_64 random(82);
    auto source = NuvekTest::trickyImage(random, Vector(12, 12, 3), 2, 0.05);
    RankFilter filter(source.get(), 3, 4, false);
    // Inside: nothing is cleared, slice 1 keeps the sentinel.
    Box const inside(Vector(2, 2, 1), Vector(8, 9, 2));
    std::vector<double> const out = openOver(filter, inside);
    EXPECT_TRUE(NuvekTest::sameBits(referenceOver(*source, 3, 4, inside), out, inside));
    for (long long c = 0; c < 2; ++c)
        for (long long i = 0; i < 7 * 8; ++i)
            EXPECT_EQ(out[static_cast<std::size_t>(c * 7 * 8 * 2 + 7 * 8 + i)], sentinel);
    // Reaching outside: everything is cleared first, then slice 0 computed.
    Box const straddling(Vector(-1, 5, 0), Vector(4, 13, 1));
    std::vector<double> const cleared = openOver(filter, straddling);
    EXPECT_TRUE(NuvekTest::sameBits(referenceOver(*source, 3, 4, straddling), cleared, straddling));
    EXPECT_EQ(cleared[static_cast<std::size_t>(6 * 9 + 3)], 0.0);
}

TEST(RankFilter, BoxWhosePaddingMissesTheImageLeavesOutUntouched)
{
    std::mt19937_64 random(83);
    auto source = NuvekTest::randomImage(random, Vector(10, 10, 1), 1);
    NuvekTest::RecordingImage recording(source);
    RankFilter filter(&recording, 5, 3, false);
    Box const beside(Vector(12, 0, 0), Vector(15, 3, 0));
    EXPECT_EQ(openOver(filter, beside), std::vector<double>(16, sentinel));
    EXPECT_TRUE(recording.requests().empty());
    // Two columns further in, the padding touches the image: the box is cleared and computed.
    Box const touching(Vector(11, 0, 0), Vector(14, 3, 0));
    EXPECT_TRUE(NuvekTest::sameBits(referenceOver(*source, 5, 3, touching), openOver(filter, touching), touching));
    ASSERT_EQ(recording.requests().size(), 1u);
    EXPECT_EQ(recording.requests()[0].box, Box(Vector(9, -2, 0), Vector(16, 5, 0)));
}

TEST(RankFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(84);
    long long const kernels[] = {1, 3, 5, 7, 9, 11, 15};
    for (int round = 0; round < 140; ++round)
    {
        long long const k = kernels[round % 7];
        long long const rank = std::uniform_int_distribution<long long>(0, k * k - 1)(random);
        double const specialShare = round % 3 == 0 ? 0.0 : (round % 3 == 1 ? 0.03 : 0.3);
        Vector const extent(3 + (round * 7) % 30, 2 + (round * 5) % 25, 1 + round % 3);
        long long const numChannels = 1 + round % 4;
        auto source = NuvekTest::trickyImage(random, extent, numChannels, specialShare, round % 4 < 2);
        long long const level = round % 3;
        RankFilter filter(source.get(), k, rank, false);
        Box const box = NuvekTest::randomBox(random, source->getExtent(level), round % 6 == 0 ? 30 : 12, 3);
        std::string const context = "round " + std::to_string(round) + " k " + std::to_string(k) + " rank " +
                                    std::to_string(rank) + " level " + std::to_string(level);
        EXPECT_TRUE(NuvekTest::sameBits(referenceOver(*source, k, rank, box, level), openOver(filter, box, level), box,
                                        context));
    }
}

TEST(RankFilter, TilesAgreeWithOneLargeRequestInsideTheImage)
{
    std::mt19937_64 random(85);
    auto source = NuvekTest::trickyImage(random, Vector(60, 44, 1), 1, 0.05, false);
    RankFilter filter(source.get(), 7, 20, false);
    Box const box(Vector(3, 3, 0), Vector(56, 40, 0));
    std::vector<double> const whole = NuvekTest::openWhole(filter, 0, box);
    for (int threads : {1, 4})
        EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(filter, 0, box, {4, 5, 30}, {9, 21}, threads), box,
                                        "threads " + std::to_string(threads)));
}

TEST(RankFilter, WideRowsMatchReferenceForEveryKernelAndNotableRanks)
{
    std::mt19937_64 random(86);
    for (double specialShare : {0.0, 0.002, 0.2})
    {
        auto source = NuvekTest::trickyImage(random, Vector(75, 30, 1), 2, specialShare, specialShare > 0.1);
        for (long long k : {3, 5, 7, 9})
            for (long long rank : {0LL, (k * k - 1) / 2, k * k - 1, k + 1})
            {
                RankFilter filter(source.get(), k, rank, false);
                Box const box(Vector(-2, -1, 0), Vector(72, 27, 0));
                std::string const context = "share " + std::to_string(specialShare) + " k " + std::to_string(k) +
                                            " rank " + std::to_string(rank);
                EXPECT_TRUE(
                    NuvekTest::sameBits(referenceOver(*source, k, rank, box), openOver(filter, box), box, context));
            }
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
