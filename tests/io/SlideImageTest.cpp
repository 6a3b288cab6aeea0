#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <algorithm>
#include <tuple>

using Nuvek::SlideImage;
using Nuvek::TiffImage;
using namespace NuvekTest;

// Every level, whole or in tiles, holds its own page's pixels, zeros outside: levels of a power
// of two read through OpenSlide, the others through their page; so are levels of downsamples
// about 2.007 and 4.014, as real pyramids of odd sizes have, and levels shorter than a tile, which
// OpenSlide 3 misplaces when it decodes deflate tiles through libtiff's RGBA interface.
TEST(SlideImage, ReadsAGenericTiffLikeTiffImage)
{
    TemporaryDirectory directory;
    std::vector<std::vector<PageShape>> const pyramids = {
        {PageShape{256, 200}, PageShape{128, 100, true}, PageShape{64, 50, true}},
        {PageShape{301, 261}, PageShape{150, 130, true}, PageShape{75, 65, true}}};
    for (std::vector<PageShape> const& pages : pyramids)
    {
        std::string const path = directory.path(std::to_string(pages[0].width) + ".tif");
        TiffLayout layout = tiledRgb(pages);
        layout.resolutionUnit = 3;
        layout.resolution = 20000.0f;
        writeTiff(path, layout);
        SlideImage slide(path);
        TiffImage file(path);
        ASSERT_EQ(slide.getNumLevels(), 3);
        EXPECT_EQ(slide.getNumChannels(), 3);
        EXPECT_EQ(slide.getChannelName(2), "Blue");
        EXPECT_EQ(messageOf([&] { slide.getChannelName(3); }), "Invalid channel index. Cannot determine its name.");
        EXPECT_EQ(slide.getValueRange().max, 255.0);
        // 20000 pixels per centimetre in x, twice that in y.
        EXPECT_EQ(slide.getVoxelSize(0), Vector(500, 250, 1));
        EXPECT_EQ(slide.getTileExtent(), Vector(64, 64, 1));
        for (long long level = 0; level < 3; ++level)
        {
            ASSERT_EQ(slide.getExtent(level), file.getExtent(level));
            Box const box = Box(slide.getExtent(level)).expanded(Vector(2, 1, 1));
            std::vector<double> const stored = openWhole(file, level, box);
            std::string const what = path + ", level " + std::to_string(level);
            EXPECT_TRUE(sameBits(stored, openWhole(slide, level, box), box, what));
            EXPECT_TRUE(sameBits(stored, openTiled(slide, level, box, {1, 7, 33}, {5, 64}, 2), box, what + " tiles"));
        }
    }
}

// With an Aperio description OpenSlide recognises the file as an Aperio slide; a slide's extension
// alone leaves the file to TiffImage.
TEST(ImageOpener, TheContentChoosesTheReaderWhateverTheName)
{
    TiffLayout const plain = tiledRgb({PageShape{200, 130}, PageShape{100, 65, true}});
    TiffLayout aperio = plain;
    aperio.description = "Aperio Image Library v12.0.15\r\n200x130 [0,0 200x130] (64x64) RGB|AppMag = 20|MPP = 0.25";
    TemporaryDirectory directory;
    for (auto const& [name, layout, reader] : std::vector<std::tuple<std::string, TiffLayout, std::string>>{
             {"aperio.tif", aperio, "SlideImage (aperio)"}, {"plain.svs", plain, "TiffImage"}})
    {
        std::string const path = directory.path(name);
        writeTiff(path, layout);
        std::unique_ptr<Nuvek::Image> image = Nuvek::openImage(path);
        EXPECT_EQ(Nuvek::describeReader(*image), reader) << name;
        EXPECT_EQ(Nuvek::knowsVoxelSize(*image), layout.description.size() > 0) << name;
        Box const box(Vector(-1, -1, 0), image->getExtent(0));
        TiffImage direct(path);
        EXPECT_TRUE(sameBits(openWhole(direct, 0, box), openWhole(*image, 0, box), box, name));
    }
    EXPECT_EQ(Nuvek::openImage(directory.path("aperio.tif"))->getVoxelSize(0), Vector(250, 250, 1));
    // TiffImage takes the voxel size from Aperio's MPP too, when the tags say nothing.
    EXPECT_EQ(TiffImage(directory.path("aperio.tif")).getVoxelSize(0), Vector(250, 250, 1));
}
