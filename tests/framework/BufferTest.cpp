#include <nuvek/filters/framework/Buffer.h>

#include <gtest/gtest.h>

#include <stdexcept>

using Nuvek::Box;
using Nuvek::Buffer;
using Nuvek::Vector;

TEST(Buffer, AllocatesZeroedChannelPlanesOneAfterTheOther)
{
    Box const box(Vector(1, 1, 0), Vector(3, 2, 1));
    Buffer<double> buffer(box, 2, 3);
    EXPECT_EQ(buffer.getBounds(), box);
    EXPECT_EQ(buffer.getLevel(), 2);
    EXPECT_EQ(buffer.getNumChannels(), 3);
    std::vector<double*> const planes = buffer.getPtrVector();
    ASSERT_EQ(planes.size(), 3u);
    EXPECT_EQ(planes[1] - planes[0], 12);
    EXPECT_EQ(planes[2], buffer.getPtr(2));
    EXPECT_EQ(std::vector<double>(planes[0], planes[0] + 36), std::vector<double>(36, 0.0));
    EXPECT_THROW(Buffer<double>(Box(Vector(2, 2, 1)), 0, -1), std::runtime_error);
}

TEST(Buffer, CopiesItsSourceAndReadsChannelValuesPerVoxel)
{
    std::vector<long long> source = {1, 2, 3, 4, 5, 6};
    Buffer<long long> buffer(source.data(), Box(Vector(3, 1, 1)), 0, 2);
    source[0] = 100; // a copy, not a view
    EXPECT_EQ(buffer.getPtr(0)[0], 1);
    std::vector<long long> values(5, -1);
    buffer.readChannelValues(2, values);
    EXPECT_EQ(values, (std::vector<long long>{3, 6, -1, -1, -1}));
    Buffer<long long> const& constant = buffer;
    EXPECT_EQ(*constant.getPtrVector()[1], 4);
    // An empty box or no channels: the source pointer is never read (null would crash).
    EXPECT_EQ(Buffer<double>(nullptr, Box(), 0, 3).getNumChannels(), 3);
    EXPECT_TRUE(Buffer<double>(nullptr, Box(Vector(4, 4, 1)), 1, 0).getPtrVector().empty());
}
