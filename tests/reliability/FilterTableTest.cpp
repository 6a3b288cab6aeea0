// One row per example of the filter registry: what each filter asks of its input (level and box), the
// metadata it reports over a known input, and that an empty box is served without writing. A filter
// added to the registry fails here until it has its row.
#include "reliability/FilterCases.h"

#include "support/NuvekTest.h"

#include <algorithm>
#include <map>
#include <sstream>

using namespace NuvekTest;

namespace {

struct Row
{
    /// Channels, range, channel names; extents, levels and voxel sizes of levels 0 to 2.
    std::string metadata;
    /// The (level, box) requests that reach the source for box (-1, 4, 0)-(9, 20, 1) at level 1.
    std::string requests;
};

std::string text(Box const& box)
{
    std::ostringstream out;
    out << "(" << box.min.x << "," << box.min.y << "," << box.min.z << ")-(" << box.max.x << "," << box.max.y << ","
        << box.max.z << ")";
    return out.str();
}

std::string text(Vector const& v)
{
    std::ostringstream out;
    out << v.x << "x" << v.y << "x" << v.z;
    return out.str();
}

std::string metadataOf(Image& image)
{
    std::ostringstream out;
    out << image.getNumChannels() << " ch [" << image.getValueRange().min << "," << image.getValueRange().max << "]";
    // A channel without a name shows as "!".
    for (long long c = 0; c < image.getNumChannels(); ++c)
    {
        std::string const name = messageOf([&] { out << (c == 0 ? " " : "|") << image.getChannelName(c); });
        out << (name == "(nothing thrown)" ? "" : "!");
    }
    out << "; " << image.getNumLevels() << " levels;";
    for (long long level = 0; level < 3; ++level)
        out << " " << text(image.getExtent(level)) << "/" << text(image.getVoxelSize(level));
    return out.str();
}

std::string requestsOf(std::vector<Request> requests)
{
    std::sort(requests.begin(), requests.end(), [](Request const& a, Request const& b) {
        return std::make_tuple(a.level, a.box.min.x, a.box.min.y, a.box.max.x, a.box.max.y) <
               std::make_tuple(b.level, b.box.min.x, b.box.min.y, b.box.max.x, b.box.max.y);
    });
    std::string out;
    for (Request const& request : requests)
        out += (out.empty() ? "L" : " L") + std::to_string(request.level) + " " + text(request.box);
    return out;
}

// The source: 40 x 36 x 2 voxels of random values in [0, 255), voxel size 3 x 5 x 7, three levels.
std::shared_ptr<MemoryImage> source(long long channels)
{
    std::mt19937_64 random(77);
    auto image = randomImage(random, Vector(40, 36, 2), channels, {0.0, 255.0, 0.0});
    image->setValueRange({0.0, 255.0});
    image->setVoxelSize(Vector(3, 5, 7));
    return image;
}

std::map<std::string, Row> const& rows()
{
    static std::map<std::string, Row> const table = {
        {"clamp",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"threshold 0 -1 1",
         {"2 ch [-1,1] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"threshold 100",
         {"2 ch [0,1] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"add () (gaussian 3)",
         {"2 ch [0,510] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1) L1 (-1,4,0)-(9,20,1)"}},
        {"difference () (gaussian 3)",
         {"2 ch [-255,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1) L1 (-1,4,0)-(9,20,1)"}},
        {"difference (clamp) (erode 3)",
         {"2 ch [-255,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1) L1 (-1,4,0)-(9,20,1)"}},
        {"concat () (gaussian 3) ()",
         {"6 ch [0,255] Channel 0|Channel 1|Channel 0|Channel 1|Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 "
          "20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1) L1 (-1,4,0)-(9,20,1) L1 (-1,4,0)-(9,20,1)"}},
        {"channel 1",
         {"1 ch [0,255] !; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7", "L1 (-1,4,0)-(9,20,1)"}},
        {"channel 1 2",
         {"2 ch [0,255] !|Channel 0; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7", "L1 (-1,4,0)-(9,20,1)"}},
        {"hsv",
         {"3 ch [0,255] Hue|Saturation|Value; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"zslice 0",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,0)"}},
        {"voxelsize 3 3 7",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x3x7 20x18x2/6x6x7 10x9x2/12x12x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"replace 1,2 5,6",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"box 5",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"box 5 sum round",
         {"2 ch [0,6375] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"convolve 1,-2,4,-2,1 0.5,1,2,1,0.5",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"gaussian 7",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-4,1,0)-(12,23,1)"}},
        {"gaussian 3",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1)"}},
        {"sobel vector 3",
         {"4 ch [-255,255] VectorX|VectorY|!|!; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1) L1 (-2,3,0)-(10,21,1)"}},
        {"sobel magnitude 5",
         {"2 ch [0,65025] Magnitude|!; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1) L1 (-3,2,0)-(11,22,1)"}},
        {"harris 5",
         {"2 ch [0,255] |; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-4,1,0)-(12,23,1) L1 (-4,1,0)-(12,23,1)"}},
        {"localnorm 2",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1) L2 (0,1,0)-(5,8,1)"}},
        {"distance 0 6",
         {"1 ch [0,6] Channel 0; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7", "L1 (-7,-2,0)-(15,26,1)"}},
        {"radial 3 0.5",
         {"1 ch [0,765] Channel 0; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-5,0,0)-(13,24,1) L1 (-5,0,0)-(13,24,1)"}},
        {"histogram 5 6",
         {"6 ch [0,25] HistogramBin|HistogramBin|HistogramBin|HistogramBin|HistogramBin|HistogramBin; 6 levels; "
          "40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"lbp 1.5", {"1 ch [0,9] LBP; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7", "L1 (-2,2,0)-(11,19,1)"}},
        {"erode 5",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"dilate 3",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-2,3,0)-(10,21,1)"}},
        {"rank 5 7",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"median 5",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-3,2,0)-(11,22,1)"}},
        {"downsample 0",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L0 (0,8,0)-(19,35,1)"}},
        {"upsample 2",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L2 (0,1,0)-(5,8,1)"}},
        {"upsample 1 nearest",
         {"2 ch [0,255] Channel 0|Channel 1; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7",
          "L1 (-1,4,0)-(9,20,1)"}},
        {"unmix hematoxylin+eosin 0",
         {"1 ch [0,1] ; 6 levels; 40x36x2/3x5x7 20x18x2/6x10x7 10x9x2/12x20x7", "L1 (-1,4,0)-(9,20,1)"}},
    };
    return table;
}

} // namespace

TEST(FilterTable, RequestsAndMetadataOfEveryExample)
{
    Box const box(Vector(-1, 4, 0), Vector(9, 20, 1));
    for (FilterCase const& test : filterCases())
    {
        RecordingImage recording(source(test.channels));
        std::unique_ptr<Image> filter = test.make(&recording);
        std::string const metadata = metadataOf(*filter);
        recording.clearRequests();
        openWhole(*filter, 1, box);
        std::string const requests = requestsOf(recording.requests());
        auto const row = rows().find(test.name);
        if (row == rows().end())
        {
            ADD_FAILURE() << "no row for \"" << test.name << "\"; it would read\n    {\"" << test.name << "\", {\""
                          << metadata << "\", \"" << requests << "\"}},";
            continue;
        }
        EXPECT_EQ(metadata, row->second.metadata) << test.name;
        EXPECT_EQ(requests, row->second.requests) << test.name;
    }
}

TEST(FilterTable, EmptyBoxesWriteNothingAndTheDefaultBoxReadsNothing)
{
    Box const empties[] = {Box(), Box(Vector(3, 2, 0), Vector(2, 9, 1)), Box(Vector(-4, 2, 0), Vector(9, 1, 1)),
                           Box(Vector(1, 1, 1), Vector(9, 9, 0))};
    for (FilterCase const& test : filterCases())
    {
        RecordingImage input(source(test.channels));
        std::unique_ptr<Image> filter = test.make(&input);
        for (long long level = 0; level < 2; ++level)
            for (Box const& box : empties)
            {
                // ZStackFilter serves its one slice whatever z range is asked (its callers ask for one
                // slice), so a box empty only in z is filled by design: left out here.
                if (test.name.rfind("zslice", 0) == 0 && box.min.x <= box.max.x && box.min.y <= box.max.y)
                    continue;
                std::vector<double> out(4096, -7.0);
                EXPECT_EQ(messageOf([&] { filter->openRegion(out.data(), level, box); }), "(nothing thrown)")
                    << test.name;
                EXPECT_EQ(out, std::vector<double>(4096, -7.0)) << test.name << " " << text(box);
                // The default box may be passed on, but must not read anything. (Boxes empty on one
                // axis only are still grown into non-empty reads by the distance transform, the
                // local normalization and upsampling: wasted work, but not wrong.)
                for (Request const& request : input.requests())
                    EXPECT_TRUE(!(box == Box()) || request.box.isEmpty()) << test.name << " read " << text(request.box);
                input.clearRequests();
            }
    }
}
