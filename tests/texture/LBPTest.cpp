#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/texture/LBPComputer.h>
#include <nuvek/filters/texture/LBPFilter.h>

#include "reference/LBPReference.h"
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
using Nuvek::LBPComputer;
using Nuvek::LBPFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;

using NuvekTest::messageOf;

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

TEST(LBPComputer, ClassesOfTheStatedCodes)
{
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0), 0);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(255), 8);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b00000111), 3);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b10000001), 2);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b10000000), 1);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b00000101), 9);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b00001010), 9);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b01010101), 9);
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0b10101010), 9);
    // Only the low eight bits count.
    EXPECT_EQ(LBPComputer::getUniformBinaryPattern(0x100 | 0b111), 3);
}

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

TEST(LBPFilter, TwoChannelInputFailsWithTheNewlineMessageAndPrintsNothing)
{
    Nuvek::MemoryImage two(Vector(4, 4, 1), 2);
    testing::internal::CaptureStderr();
    std::string const message = messageOf([&] { LBPFilter(&two, false); });
    std::string const withRadius = messageOf([&] { LBPFilter(&two, 2.0, false); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(message, "Error: LBPFilter can only be constructed from images with one channel.\n");
    EXPECT_EQ(withRadius, "Error: LBPFilter can only be constructed from images with one channel.\n");
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

TEST(LBPFilter, RadiusThatHasNoIntegerOffsetIsRefused)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    for (double radius : {std::nan(""), static_cast<double>(INFINITY), -2e9})
        EXPECT_EQ(messageOf([&] { LBPFilter(&image, radius, false); }),
                  "LBPFilter radius must be a finite number of at most 1e9 voxels.");
}

TEST(LBPFilter, MetadataIsOneChannelNamedLBPInZeroToNine)
{
    Nuvek::MemoryImage image(Vector(4, 4, 1), 1);
    LBPFilter filter(&image, false);
    EXPECT_EQ(filter.getNumChannels(), 1);
    EXPECT_EQ(filter.getValueRange().min, 0.0);
    EXPECT_EQ(filter.getValueRange().max, 9.0);
    EXPECT_EQ(filter.getChannelName(0), "LBP");
    EXPECT_EQ(messageOf([&] { filter.getChannelName(1); }), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(messageOf([&] { filter.getChannelName(-1); }), "Invalid channel index. Cannot determine its name.");
}

TEST(LBPFilter, FlatImageIsClassEightInsideAndZeroOutside)
{
    Nuvek::MemoryImage image(Vector(5, 4, 2), 1, std::vector<double>(40, 3.0));
    LBPFilter filter(&image, false);
    Box const box(Vector(-1, 1, 1), Vector(5, 5, 2));
    std::vector<double> const out = openWhole(filter, 0, box);
    Vector const e = box.getExtent();
    for (long long z = 0; z < e.z; ++z)
        for (long long y = 0; y < e.y; ++y)
            for (long long x = 0; x < e.x; ++x)
            {
                Vector const p = box.min + Vector(x, y, z);
                bool const inside = p.x >= 0 && p.x < 5 && p.y < 4 && p.z < 2;
                // Inside voxels on the image border see the source's 0.0 outside: below 3, bit clear.
                bool const border = p.x == 0 || p.x == 4 || p.y == 3;
                double const value = out[static_cast<std::size_t>((z * e.y + y) * e.x + x)];
                if (!inside)
                {
                    EXPECT_EQ(value, 0.0) << p.x << "," << p.y << "," << p.z;
                }
                else if (!border)
                {
                    EXPECT_EQ(value, 8.0) << p.x << "," << p.y << "," << p.z;
                }
            }
}

TEST(LBPFilter, RadiusRoundsHalfUpFromItsMagnitudeAndAsksForTheClippedBoxGrownByIt)
{
    std::mt19937_64 random(61);
    auto source = NuvekTest::trickyImage(random, Vector(24, 20, 2), 1, 0.05);
    NuvekTest::RecordingImage recording(source);
    Box const box(Vector(-3, 2, 0), Vector(10, 25, 1));
    Box const clipped(Vector(0, 2, 0), Vector(10, 19, 1));
    // radius -> (r, d): 2.5 -> (3, 2), -1 -> (1, 1), 0.4 -> (0, 0), 2.2 -> (2, 2), 1.6 -> (2, 1).
    for (auto [radius, r] :
         std::vector<std::pair<double, long long>>{{2.5, 3}, {-1.0, 1}, {0.4, 0}, {2.2, 2}, {1.6, 2}})
    {
        LBPFilter filter(&recording, radius, false);
        recording.clearRequests();
        std::vector<double> const out = openWhole(filter, 0, box);
        ASSERT_EQ(recording.requests().size(), 1u);
        EXPECT_EQ(recording.requests()[0].box, clipped.expanded(Vector(r, r, 0))) << "radius " << radius;
        EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::lbp(*source, radius, box, 0), out, box,
                                        "radius " + std::to_string(radius)));
    }
}

TEST(LBPFilter, RadiusBelowOneHalfComparesEveryVoxelWithItself)
{
    std::mt19937_64 random(62);
    auto source = NuvekTest::randomImage(random, Vector(9, 7, 1), 1);
    LBPFilter filter(source.get(), 0.4, false);
    EXPECT_EQ(openWhole(filter, 0, Box(Vector(9, 7, 1))), std::vector<double>(63, 8.0));
}

TEST(LBPFilter, MatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(63);
    for (int round = 0; round < 80; ++round)
    {
        Vector const extent(3 + round % 17, 2 + (round * 5) % 13, 1 + round % 3);
        auto source = NuvekTest::trickyImage(random, extent, 1, 0.08, round % 2 == 0);
        double const radii[] = {1.0, 2.0, 3.0, 0.4, 5.7};
        double const radius = radii[round % 5];
        LBPFilter filter(source.get(), radius, false);
        long long const level = round % 3;
        Vector const levelExtent = source->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, 14, 3);
        std::string const context = "round " + std::to_string(round) + " radius " + std::to_string(radius);
        EXPECT_TRUE(NuvekTest::sameBits(NuvekReference::lbp(*source, radius, box, level), openWhole(filter, level, box),
                                        box, context));
    }
}

TEST(LBPFilter, BoxWhollyOutsideIsZeroWithoutReadingTheInput)
{
    std::mt19937_64 random(64);
    auto source = NuvekTest::randomImage(random, Vector(8, 8, 1), 1);
    NuvekTest::RecordingImage recording(source);
    LBPFilter filter(&recording, false);
    std::vector<double> out(12, -1.0);
    filter.openRegion(out.data(), 0, Box(Vector(9, 0, 0), Vector(11, 3, 0)));
    EXPECT_EQ(out, std::vector<double>(12, 0.0));
    EXPECT_TRUE(recording.requests().empty());
}

TEST(LBPFilter, TilesAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(65);
    auto source = NuvekTest::trickyImage(random, Vector(50, 40, 2), 1, 0.05);
    LBPFilter filter(source.get(), 2.0, false);
    Box const box(Vector(-3, -2, 0), Vector(52, 41, 1));
    std::vector<double> const whole = openWhole(filter, 0, box);
    for (int threads : {1, 4})
        EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(filter, 0, box, {0, 13, 14, 49}, {3, 22}, threads),
                                        box, "threads " + std::to_string(threads)));
}
