#include <nuvek/filters/texture/PositionIterator.h>

#include <gtest/gtest.h>

#include <random>
#include <vector>

using Nuvek::Box;
using Nuvek::PositionIterator;
using Nuvek::Vector;

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

TEST(PositionIterator, EmptyIntersectionYieldsNothing)
{
    EXPECT_TRUE(walk(Vector(4, 4, 1), Box(Vector(5, 0, 0), Vector(8, 3, 0))).empty());
    EXPECT_TRUE(walk(Vector(4, 4, 1), Box()).empty());
    EXPECT_TRUE(walk(Vector(0, 4, 1), Box(Vector(0, 0, 0), Vector(3, 3, 0))).empty());
}

TEST(PositionIterator, OriginAndSingleColumnBoxes)
{
    // The walk starts at linear index 0 and must still step on to 1.
    std::vector<Visit> const row = walk(Vector(3, 2, 1), Box(Vector(0, 0, 0), Vector(2, 0, 0)));
    ASSERT_EQ(row.size(), 3u);
    EXPECT_EQ(row[0].index, 0);
    EXPECT_EQ(row[1].index, 1);
    EXPECT_EQ(row[2].index, 2);
    std::vector<Visit> const column = walk(Vector(3, 3, 2), Box(Vector(1, 0, 0), Vector(1, 2, 1)));
    ASSERT_EQ(column.size(), 6u);
    EXPECT_EQ(column[3].index, 1 + 9);
}
