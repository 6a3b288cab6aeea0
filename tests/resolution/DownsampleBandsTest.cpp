// Large downsampling requests computed in bands of output rows: the same bits as one request.
#include "support/NuvekTest.h"

#include <random>
#include <string>

using Nuvek::Box;
using Nuvek::DownsampleFilter;
using Nuvek::Vector;

TEST(DownsampleFilter, LargeRequestsInBandsGiveTheBitsOfOneRequest)
{
    // Over the memory image (which gives the same bits in bands) the filter reads band by band; over
    // the same values behind a user-defined image it must ask once for the whole block area.
    std::mt19937_64 random(19);
    auto image = NuvekTest::randomImage(random, Vector(1204, 1100, 1), 2, {-1e6, 1e6, 0.02});
    NuvekTest::RecordingImage recording(image);
    DownsampleFilter banded(image.get(), 0, false);
    DownsampleFilter whole(&recording, 0, false);
    for (long long level = 1; level <= 3; ++level)
    {
        Vector const extent = image->getExtent(level);
        // The whole level (several bands, the last one short), a box inside, and one across the edge.
        Box const boxes[] = {Box(extent), Box(Vector(3, 7, 0), Vector(extent.x - 5, extent.y - 2, 0)),
                             Box(Vector(-2, 1, 0), extent + Vector(1, 0, 0))};
        for (Box const& box : boxes)
        {
            std::string const context = "level " + std::to_string(level) + ", box from x " + std::to_string(box.min.x) +
                                        " to " + std::to_string(box.max.x);
            std::vector<double> expected(static_cast<std::size_t>(box.getSize() * 2), -7.0);
            std::vector<double> actual = expected;
            recording.clearRequests();
            whole.openRegion(expected.data(), level, box);
            EXPECT_EQ(recording.requests().size(), 1u) << context;
            banded.openRegion(actual.data(), level, box);
            EXPECT_TRUE(NuvekTest::sameBits(expected, actual, box, context));
        }
    }
}
