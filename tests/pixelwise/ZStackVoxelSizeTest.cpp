#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/VoxelSizeModificationFilter.h>
#include <nuvek/filters/pixelwise/ZStackFilter.h>

#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::Vector;
using Nuvek::VoxelSizeModificationFilter;
using Nuvek::ZStackFilter;
using NuvekTest::openWhole;

TEST(ZStackFilter, ReadsItsSliceWhateverZIsRequestedAtEveryLevel)
{
    std::mt19937_64 random(71);
    auto source = NuvekTest::randomImage(random, Vector(12, 10, 6), 2, {-1.0, 1.0, 0.05});
    NuvekTest::RecordingImage recording(source);
    ZStackFilter filter(&recording, 4, false);
    for (long long level = 0; level < 3; ++level)
        for (long long z : {0LL, 4LL, 5LL, -3LL})
        {
            Box const box(Vector(0, 0, z), Vector(9, 9, z));
            Box const slice(Vector(0, 0, 4), Vector(9, 9, 4));
            recording.clearRequests();
            EXPECT_TRUE(NuvekTest::sameBits(openWhole(*source, level, slice), openWhole(filter, level, box), box,
                                            "level " + std::to_string(level) + " z " + std::to_string(z)));
            ASSERT_EQ(recording.requests().size(), 1u);
            EXPECT_EQ(recording.requests()[0].box, slice);
            EXPECT_EQ(recording.requests()[0].level, level);
        }
}

TEST(ZStackFilter, DeepBoxesGetOneSlicesWorthOfValues)
{
    std::mt19937_64 random(72);
    auto source = NuvekTest::randomImage(random, Vector(5, 4, 3), 2);
    ZStackFilter filter(source.get(), 1, false);
    Box const box(Vector(1, 0, 0), Vector(3, 3, 2));
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * 2), -8.0);
    filter.openRegion(out.data(), 0, box);
    Box const slice(Vector(1, 0, 1), Vector(3, 3, 1));
    std::vector<double> const expected = openWhole(*source, 0, slice);
    std::vector<double> const written(out.begin(), out.begin() + static_cast<long>(expected.size()));
    EXPECT_TRUE(NuvekTest::sameBits(expected, written, slice));
    EXPECT_EQ(std::vector<double>(out.begin() + static_cast<long>(expected.size()), out.end()),
              std::vector<double>(out.size() - expected.size(), -8.0));
}

TEST(VoxelSizeModificationFilter, ScalesXAndYByAThirtyTwoBitShiftOfTheLevel)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    VoxelSizeModificationFilter filter(&image, false, Vector(2, 3, 5));
    EXPECT_EQ(filter.getVoxelSize(0), Vector(2, 3, 5));
    EXPECT_EQ(filter.getVoxelSize(3), Vector(16, 24, 5));
    EXPECT_EQ(filter.getVoxelSize(30), Vector(2LL << 30, 3LL << 30, 5));
    // Level 31 shifts into the sign bit; level 32 wraps round to a factor of 1; -1 uses its low five bits.
    EXPECT_EQ(filter.getVoxelSize(31), Vector(-(2LL << 31), -(3LL << 31), 5));
    EXPECT_EQ(filter.getVoxelSize(32), Vector(2, 3, 5));
    EXPECT_EQ(filter.getVoxelSize(35), Vector(16, 24, 5));
    EXPECT_EQ(filter.getVoxelSize(-1), Vector(-(2LL << 31), -(3LL << 31), 5));
}

TEST(VoxelSizeModificationFilter, SetterTakesEffectAtOnceAndDefaultIsTheInputsLevelZeroSize)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    image.setVoxelSize(Vector(7, 9, 11));
    VoxelSizeModificationFilter filter(&image, false);
    EXPECT_EQ(filter.getVoxelSize(0), Vector(7, 9, 11));
    EXPECT_EQ(filter.getVoxelSize(2), Vector(28, 36, 11));
    filter.setVoxelSizeAtLevel0(Vector(1, 2, 3));
    EXPECT_EQ(filter.getVoxelSize(0), Vector(1, 2, 3));
    EXPECT_EQ(filter.getVoxelSize(4), Vector(16, 32, 3));
}

TEST(VoxelSizeModificationFilter, SizesBeyondSixtyFourBitsAreRejected)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    VoxelSizeModificationFilter filter(&image, false, Vector(1LL << 40, 1, 1));
    EXPECT_EQ(filter.getVoxelSize(20), Vector(1LL << 60, 1LL << 20, 1));
    try
    {
        filter.getVoxelSize(30);
        ADD_FAILURE() << "an overflowing size was returned";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "The voxel size at this level does not fit in a 64-bit integer.");
    }
}
