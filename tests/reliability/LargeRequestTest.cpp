// A request large enough to be computed in bands must give the bits of the same voxels taken in
// requests too small to be split, for every filter whose values do not depend on the box asked for,
// on random values with NaN, infinities and zeros of both signs: odd sizes, one to five channels,
// several slices, levels 0 to 2, and a box that does not start at the origin. The small requests
// are strips across the box's width: where NaN meets NaN, which sign survives may depend on a
// voxel's place in its row, which is computed in blocks of several voxels. They are 60 rows high,
// a multiple of the examples' window sizes, so that erosion and dilation count their window slots
// from the same rows as in one request.
#include "reliability/FilterCases.h"

#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <nuvek/Nuvek.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

struct Shape
{
    Vector extent;
    long long extraChannels;
    long long level;
    // The requested box at the level, inside the image and spanning several bands.
    Box box;
};

std::vector<Shape> const shapes{
    {Vector(613, 1201, 1), 0, 0, Box(Vector(0, 0, 0), Vector(612, 1200, 0))},
    {Vector(1203, 1101, 2), 1, 1, Box(Vector(5, 3, 0), Vector(598, 548, 1))},
    {Vector(2403, 1805, 1), 2, 2, Box(Vector(0, 1, 0), Vector(599, 450, 0))},
};

std::vector<long long> cutsEvery(long long step, long long from, long long to)
{
    std::vector<long long> cuts;
    for (long long at = from + step; at <= to; at += step)
        cuts.push_back(at);
    return cuts;
}

// The filter over source, or null when it refuses the source (a colour replacement refuses other
// channel counts than its colours have).
std::unique_ptr<Nuvek::Image> makeIfAccepted(NuvekTest::FilterCase const& test, Nuvek::Image* source, long long level)
{
    try
    {
        std::unique_ptr<Nuvek::Image> filter = test.make(source);
        std::vector<double> values(static_cast<std::size_t>(filter->getNumChannels()));
        filter->openRegion(values.data(), level, Box(Vector(0, 0, 0), Vector(0, 0, 0)));
        return filter;
    }
    catch (std::runtime_error const&)
    {
        return nullptr;
    }
}

} // namespace

TEST(LargeRequests, BandsGiveTheBitsOfSmallRequests)
{
    Nuvek::ValueRange<double> const range(0, 255);
    for (Shape const& shape : shapes)
    {
        // One source per channel count, shared by the filters that read as many.
        std::map<long long, std::shared_ptr<Nuvek::MemoryImage>> sources;
        for (NuvekTest::FilterCase const& test : NuvekTest::filterCases())
        {
            if (!test.tileDependence.empty())
                continue;
            // The distance transform of several channels depends on the box asked for, split or not
            // (strips differ from one request at level 2 with three channels); it is not split.
            if (test.name.rfind("distance", 0) == 0 && shape.extraChannels > 0)
                continue;
            long long const channels = test.channels + shape.extraChannels;
            std::string const context =
                test.name + ", " + std::to_string(channels) + " channels, level " + std::to_string(shape.level);
            SCOPED_TRACE(context);
            std::shared_ptr<Nuvek::MemoryImage>& source = sources[channels];
            if (!source)
            {
                std::mt19937_64 random(static_cast<unsigned>(97 + channels + shape.level));
                source = NuvekTest::randomImage(random, shape.extent, channels, {0.0, 255.0, 0.002});
                // Zeros of both signs, which some filters order by where they meet them.
                std::vector<double> values = source->getValues();
                for (std::size_t i = 0; i < values.size(); i += 101)
                    values[i] = i % 2 == 0 ? -0.0 : 0.0;
                source->setValues(std::move(values));
                source->setValueRange(range);
            }
            std::unique_ptr<Nuvek::Image> filter = makeIfAccepted(test, source.get(), shape.level);
            if (!filter)
            {
                EXPECT_GT(shape.extraChannels, 0) << "the filter's own example refused";
                continue;
            }
            std::vector<double> const whole = NuvekTest::openWhole(*filter, shape.level, shape.box);
            std::vector<double> const small = NuvekTest::openTiled(*filter, shape.level, shape.box, {},
                                                                   cutsEvery(60, shape.box.min.y, shape.box.max.y));
            EXPECT_TRUE(NuvekTest::sameBits(small, whole, shape.box, context));
        }
    }
}

// Over an input whose values depend on the box asked for (the box filter's running sums start at the
// box's corner), a large request is not split: it gives the bits of the filter over the values that
// input gives for the one grown box a single request asks of it.
TEST(LargeRequests, AnInputThatDependsOnTheBoxIsAskedOnce)
{
    std::mt19937_64 random(2026);
    std::shared_ptr<Nuvek::MemoryImage> source =
        NuvekTest::randomImage(random, Vector(900, 1300, 1), 1, {0.0, 255.0, 0.0});
    Box const box(Vector(10, 20, 0), Vector(889, 1279, 0));

    // The box the Gaussian asks of its input for a request.
    NuvekTest::RecordingImage probe(source);
    Nuvek::GaussianBlurFilter probeGaussian(&probe, 5, false);
    NuvekTest::openWhole(probeGaussian, 0, box);
    ASSERT_FALSE(probe.requests().empty());
    Box const grown = probe.requests().front().box;

    Nuvek::BoxFilter boxes(source.get(), 7, true, false, false);
    Nuvek::GaussianBlurFilter gaussian(&boxes, 5, false);
    std::vector<double> const whole = NuvekTest::openWhole(gaussian, 0, box);

    auto once = std::make_shared<Nuvek::MemoryImage>(grown.getExtent(), 1, NuvekTest::openWhole(boxes, 0, grown));
    Box const shifted(box.min - grown.min, box.max - grown.min);
    Nuvek::GaussianBlurFilter gaussianOnce(once.get(), 5, false);
    std::vector<double> const expected = NuvekTest::openWhole(gaussianOnce, 0, shifted);
    EXPECT_TRUE(NuvekTest::sameBits(whole, expected, box, "gaussian over box"));
}
