// One large request must equal the same voxels taken from requests split at odd positions, on 1 to
// 4 threads, bit for bit, for every filter; the exceptions are named in the filter list with the reason.
#include "reliability/FilterCases.h"

#include <nuvek/Nuvek.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>

using Nuvek::Box;
using Nuvek::Vector;

TEST(Tiling, TilesInsideTheImageAgreeWithOneLargeRequest)
{
    for (NuvekTest::FilterCase const& test : NuvekTest::filterCases())
    {
        SCOPED_TRACE(test.name);
        std::mt19937_64 random(4242);
        auto source = NuvekTest::randomImage(random, Vector(131, 97, 1), test.channels, {0.0, 255.0, 0.0});
        source->setValueRange(Nuvek::ValueRange<double>(0, 255));
        std::unique_ptr<Nuvek::Image> filter = test.make(source.get());
        for (long long level = 0; level < 2; ++level)
        {
            Box const box(filter->getExtent(level));
            std::vector<double> const whole = NuvekTest::openWhole(*filter, level, box);
            for (int threads = 1; threads <= (test.shareable ? 4 : 1); ++threads)
            {
                std::vector<double> const tiled =
                    NuvekTest::openTiled(*filter, level, box, {7, 30, 61}, {3, 22, 45}, threads);
                std::string const context = "level " + std::to_string(level) + ", threads " + std::to_string(threads);
                if (test.tileDependence.empty())
                {
                    EXPECT_TRUE(NuvekTest::sameBits(whole, tiled, box, context));
                }
                else if (test.tileTolerance >= 0.0)
                {
                    EXPECT_TRUE(NuvekTest::nearlyEqual(whole, tiled, box, test.tileTolerance, context));
                }
            }
        }
    }
}
