#include <nuvek/core/Box.h>

#include <gtest/gtest.h>

using Nuvek::Box;
using Nuvek::Vector;

TEST(Vector, ArithmeticIsComponentWise)
{
    Vector a(1, -2, 3);
    Vector const b(10, 20, -30);
    EXPECT_EQ(a + b, Vector(11, 18, -27));
    EXPECT_EQ(a - b, Vector(-9, -22, 33));
    EXPECT_EQ(a * -1, Vector(-1, 2, -3));
    a += b;
    EXPECT_EQ(a, Vector(11, 18, -27));
    a -= b;
    EXPECT_EQ(a, Vector(1, -2, 3));
    EXPECT_EQ(Vector(), Vector(0));
    EXPECT_EQ(Vector(7), Vector(7, 7, 7));
    EXPECT_NE(Vector(1, 2, 3), Vector(1, 2, 4));
}

TEST(Vector, StridesAndDotGiveTheRegionBufferOffset)
{
    Vector const extent(5, 4, 3);
    EXPECT_EQ(extent.getStrides(), Vector(1, 5, 20));
    EXPECT_EQ(extent.prod(), 60);
    // (x, y, z) = (2, 3, 1) lies at 2 + 3 * 5 + 1 * 20.
    EXPECT_EQ(Vector(2, 3, 1).dot(extent.getStrides()), 37);
}

TEST(Box, DefaultBoxIsEmpty)
{
    Box const box;
    EXPECT_TRUE(box.isEmpty());
    EXPECT_EQ(box.getSize(), 0);
}

TEST(Box, SizeAndExtentCountBothEnds)
{
    Box const box(Vector(-2, 3, 0), Vector(2, 3, 1));
    EXPECT_EQ(box.getExtent(), Vector(5, 1, 2));
    EXPECT_EQ(box.getSize(), 10);
    EXPECT_EQ(Box(Vector(4, 3, 2)), Box(Vector(0, 0, 0), Vector(3, 2, 1)));
}

TEST(Box, EmptyOnAnyAxisHasSizeZeroEvenWhenTwoAxesAreNegative)
{
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-1, 5, 5)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0), Vector(-2, -2, 0)).getSize(), 0);
    EXPECT_EQ(Box(Vector(0, 0, 0)).getSize(), 0);
}

TEST(Box, ExpandTranslateShiftIntersect)
{
    Box box(Vector(0, 0, 0), Vector(9, 9, 0));
    EXPECT_EQ(box.expanded(Vector(2, 3, 0)), Box(Vector(-2, -3, 0), Vector(11, 12, 0)));
    EXPECT_EQ(box.translated(Vector(1, -1, 2)), Box(Vector(1, -1, 2), Vector(10, 8, 2)));
    box.shift(Vector(5, 5, 0));
    EXPECT_EQ(box, Box(Vector(5, 5, 0), Vector(14, 14, 0)));
    EXPECT_EQ(box.intersected(Box(Vector(0, 10, 0), Vector(7, 20, 3))), Box(Vector(5, 10, 0), Vector(7, 14, 0)));
    EXPECT_TRUE(box.intersected(Box(Vector(20, 0, 0), Vector(30, 30, 0))).isEmpty());
    EXPECT_TRUE(box != Box());
}
