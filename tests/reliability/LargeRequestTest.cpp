// A request large enough to be computed in bands must give the bits of the same voxels taken in
// requests too small to be split, for every filter whose values do not depend on the box asked for,
// on random values with NaN, infinities and zeros of both signs: odd sizes, one to five channels,
// several slices, levels 0 to 2, and a box that does not start at the origin. The small requests are
// strips 60 rows high across the box's width: where NaN meets NaN, which sign survives may depend on
// a voxel's place in its row, and 60 is a multiple of the examples' window sizes, so that erosion and
// dilation count their window slots from the same rows as in one request.
#include "reliability/FilterCases.h"

#include "support/NuvekTest.h"

#include <map>

using namespace NuvekTest;

TEST(LargeRequests, BandsGiveTheBitsOfSmallRequests)
{
    struct Shape
    {
        Vector extent;
        long long extraChannels;
        long long level;
        Box box; // at the level, inside the image and spanning several bands
    };
    Shape const shapes[] = {
        {Vector(613, 1201, 1), 0, 0, Box(Vector(0, 0, 0), Vector(612, 1200, 0))},
        {Vector(1203, 1101, 2), 1, 1, Box(Vector(5, 3, 0), Vector(598, 548, 1))},
        {Vector(2403, 1805, 1), 2, 2, Box(Vector(0, 1, 0), Vector(599, 450, 0))},
    };
    for (Shape const& shape : shapes)
    {
        std::vector<long long> strips;
        for (long long y = shape.box.min.y + 60; y <= shape.box.max.y; y += 60)
            strips.push_back(y);
        // One source per channel count, shared by the filters that read as many.
        std::map<long long, std::shared_ptr<MemoryImage>> sources;
        for (FilterCase const& test : filterCases())
        {
            // The distance transform of several channels depends on the box asked for, split or not
            // (strips differ from one request at level 2 with three channels); it is not split.
            if (!test.tileDependence.empty() || (test.name.rfind("distance", 0) == 0 && shape.extraChannels > 0))
                continue;
            long long const channels = test.channels + shape.extraChannels;
            std::string const context =
                test.name + ", " + std::to_string(channels) + " channels, level " + std::to_string(shape.level);
            std::shared_ptr<MemoryImage>& source = sources[channels];
            if (!source)
            {
                std::mt19937_64 random(static_cast<unsigned>(97 + channels + shape.level));
                std::vector<double> values = randomValues(random, shape.extent.prod() * channels, {0.0, 255.0, 0.002});
                // Zeros of both signs, which some filters order by where they meet them.
                for (std::size_t i = 0; i < values.size(); i += 101)
                    values[i] = i % 2 == 0 ? -0.0 : 0.0;
                source = std::make_shared<MemoryImage>(shape.extent, channels, values);
                source->setValueRange({0.0, 255.0});
            }
            std::unique_ptr<Image> filter;
            // A colour replacement refuses other channel counts than its colours have.
            auto const make = [&] {
                filter = test.make(source.get());
                openWhole(*filter, shape.level, Box(Vector(0, 0, 0), Vector(0, 0, 0)));
            };
            if (messageOf(make) != "(nothing thrown)")
            {
                EXPECT_GT(shape.extraChannels, 0) << context << ": the filter's own example refused";
                continue;
            }
            std::vector<double> const whole = openWhole(*filter, shape.level, shape.box);
            EXPECT_TRUE(sameBits(openTiled(*filter, shape.level, shape.box, {}, strips), whole, shape.box, context));
        }
    }
}

// Over an input whose values depend on the box asked for (the box filter's running sums start at the
// box's corner), a large request is not split: it gives the bits of the filter over the values that
// input gives for the one grown box a single request asks of it.
TEST(LargeRequests, AnInputThatDependsOnTheBoxIsAskedOnce)
{
    std::mt19937_64 random(2026);
    std::shared_ptr<MemoryImage> source = randomImage(random, Vector(900, 1300, 1), 1, {0.0, 255.0, 0.0});
    Box const box(Vector(10, 20, 0), Vector(889, 1279, 0));

    // The box the Gaussian asks of its input for a request.
    RecordingImage probe(source);
    Nuvek::GaussianBlurFilter probeGaussian(&probe, 5, false);
    openWhole(probeGaussian, 0, box);
    ASSERT_FALSE(probe.requests().empty());
    Box const grown = probe.requests().front().box;

    Nuvek::BoxFilter boxes(source.get(), 7, true, false, false);
    Nuvek::GaussianBlurFilter gaussian(&boxes, 5, false);
    auto once = std::make_shared<MemoryImage>(grown.getExtent(), 1, openWhole(boxes, 0, grown));
    Nuvek::GaussianBlurFilter gaussianOnce(once.get(), 5, false);
    Box const shifted(box.min - grown.min, box.max - grown.min);
    EXPECT_TRUE(sameBits(openWhole(gaussianOnce, 0, shifted), openWhole(gaussian, 0, box), box));
}
