#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

using namespace NuvekTest;

TEST(ImageOpener, TheContentChoosesTheReaderWhateverTheName)
{
    // A tiled RGB file; with an Aperio description OpenSlide recognises it as an Aperio slide.
    TiffLayout plain;
    plain.samples = 3;
    plain.rgb = true;
    plain.tileWidth = 64;
    plain.tileHeight = 64;
    plain.compression = 8;
    plain.pages = {PageShape{200, 130}, PageShape{100, 65, true}};
    TiffLayout aperio = plain;
    aperio.description = "Aperio Image Library v12.0.15\r\n200x130 [0,0 200x130] (64x64) RGB|AppMag = 20|MPP = 0.25";
    TiffLayout hyperstack = plain;
    hyperstack.description = "ImageJ=1.53c\nimages=2\nchannels=2\n";
    hyperstack.pages = {PageShape{40, 30}, PageShape{40, 30}};
    struct Case
    {
        std::string name;
        TiffLayout layout;
        std::string reader;
        long long channels;
    };
    std::vector<Case> const cases = {
        {"aperio.tif", aperio, "SlideImage (aperio)", 3},
        {"aperio.svs", aperio, "SlideImage (aperio)", 3},
        {"plain.svs", plain, "TiffImage", 3},
        {"plain.ndpi", plain, "TiffImage", 3},
        {"hyperstack.svs", hyperstack, "TiffImage", 6},
    };
    TemporaryDirectory directory;
    for (Case const& item : cases)
    {
        std::string const path = directory.path(item.name);
        writeTiff(path, item.layout);
        std::unique_ptr<Nuvek::Image> image = Nuvek::openImage(path);
        EXPECT_EQ(Nuvek::describeReader(*image), item.reader) << item.name;
        EXPECT_EQ(image->getNumChannels(), item.channels) << item.name;
        EXPECT_EQ(Nuvek::knowsVoxelSize(*image), item.name.rfind("aperio", 0) == 0) << item.name;
        Box const box(Vector(-1, -1, 0), image->getExtent(0));
        Nuvek::TiffImage direct(path);
        EXPECT_TRUE(sameBits(openWhole(direct, 0, box), openWhole(*image, 0, box), box, item.name));
    }
    std::unique_ptr<Nuvek::Image> slide = Nuvek::openImage(directory.path("aperio.tif"));
    EXPECT_EQ(slide->getVoxelSize(0), Vector(250, 250, 1));
    EXPECT_EQ(slide->getNumLevels(), 2);
    // TiffImage takes the voxel size from Aperio's MPP too, when the tags say nothing.
    EXPECT_EQ(Nuvek::TiffImage(directory.path("aperio.tif")).getVoxelSize(0), Vector(250, 250, 1));
}
