#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <filesystem>

using Nuvek::Box;
using Nuvek::Vector;
using NuvekTest::PageShape;
using NuvekTest::TiffLayout;

namespace {

// A tiled RGB file; with an Aperio description OpenSlide recognises it as an Aperio slide.
TiffLayout tiledRgb(std::string description)
{
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.tileWidth = 64;
    layout.tileHeight = 64;
    layout.compression = 8;
    layout.description = std::move(description);
    layout.pages = {PageShape{200, 130}, PageShape{100, 65, true}};
    return layout;
}

} // namespace

TEST(ImageOpener, TheContentChoosesTheReaderWhateverTheName)
{
    NuvekTest::TemporaryDirectory directory;
    TiffLayout const aperio =
        tiledRgb("Aperio Image Library v12.0.15\r\n200x130 [0,0 200x130] (64x64) RGB|AppMag = 20|MPP = 0.25");
    TiffLayout const plain = tiledRgb("");
    TiffLayout hyperstack = tiledRgb("ImageJ=1.53c\nimages=2\nchannels=2\n");
    hyperstack.pages = {PageShape{40, 30}, PageShape{40, 30}};
    struct Case
    {
        std::string name;
        TiffLayout layout;
        std::string reader;
        long long channels;
        bool knowsSize;
    };
    std::vector<Case> const cases = {
        {"aperio.tif", aperio, "SlideImage (aperio)", 3, true},
        {"aperio.svs", aperio, "SlideImage (aperio)", 3, true},
        {"plain.svs", plain, "TiffImage", 3, false},
        {"plain.ndpi", plain, "TiffImage", 3, false},
        {"hyperstack.svs", hyperstack, "TiffImage", 6, false},
    };
    for (Case const& item : cases)
    {
        std::string const path = directory.path(item.name);
        NuvekTest::writeTiff(path, item.layout);
        std::unique_ptr<Nuvek::Image> image = Nuvek::openImage(path);
        EXPECT_EQ(Nuvek::describeReader(*image), item.reader) << item.name;
        EXPECT_EQ(image->getNumChannels(), item.channels) << item.name;
        EXPECT_EQ(Nuvek::knowsVoxelSize(*image), item.knowsSize) << item.name;
        Box const box(Vector(-1, -1, 0), image->getExtent(0));
        Nuvek::TiffImage direct(path);
        if (item.channels == 3)
        {
            EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(direct, 0, box), NuvekTest::openWhole(*image, 0, box),
                                            box, item.name));
        }
    }
    std::unique_ptr<Nuvek::Image> slide = Nuvek::openImage(directory.path("aperio.tif"));
    EXPECT_EQ(slide->getVoxelSize(0), Vector(250, 250, 1));
    EXPECT_EQ(slide->getNumLevels(), 2);
}
