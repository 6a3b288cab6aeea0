#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <algorithm>

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

TEST(SlideImage, LevelsThatAreNoPowerOfTwoOrMissingAreNotPresent)
{
    TemporaryDirectory directory;
    writeTiff(directory.path("gap.tif"), tiledRgb({PageShape{256, 256}, PageShape{64, 64, true}}));
    SlideImage slide(directory.path("gap.tif"));
    EXPECT_EQ(slide.getNumLevels(), 3);
    EXPECT_FALSE(slide.hasLevel(1));
    EXPECT_TRUE(slide.hasLevel(2));
    EXPECT_EQ(slide.getExtent(1), Vector(128, 128, 1));

    writeTiff(directory.path("third.tif"), tiledRgb({PageShape{192, 192}, PageShape{64, 64, true}}));
    EXPECT_EQ(SlideImage(directory.path("third.tif")).getNumLevels(), 1);
}

TEST(SlideImage, PartlyTransparentVoxelsGetTheirColourBack)
{
    TemporaryDirectory directory;
    TiffLayout layout = tiledRgb({PageShape{128, 128}});
    layout.samples = 4;
    layout.alpha = true;
    writeTiff(directory.path("alpha.tif"), layout);
    SlideImage slide(directory.path("alpha.tif"));
    std::vector<double> const values = openWhole(slide, 0, Box(Vector(128, 128, 1)));
    ASSERT_EQ(values.size(), 3u * 128 * 128);
    // Transparent is black; premultiplying rounds, so from alpha 128 up one step at most is lost.
    for (long long c = 0; c < 3; ++c)
        for (long long y = 0; y < 128; ++y)
            for (long long x = 0; x < 128; ++x)
            {
                double const alpha = storedValue(layout, 0, x, y, 3);
                double const expected = alpha == 0.0 ? 0.0 : storedValue(layout, 0, x, y, c);
                double const value = values[static_cast<std::size_t>((c * 128 + y) * 128 + x)];
                double const tolerance = alpha == 0.0 ? 0.0 : (alpha >= 128.0 ? 1.0 : 255.0);
                EXPECT_LE(std::fabs(value - expected), tolerance) << x << ", " << y << ", alpha " << alpha;
            }
}

TEST(ImageOpener, TheContentChoosesTheReaderWhateverTheName)
{
    // With an Aperio description OpenSlide recognises the file as an Aperio slide.
    TiffLayout const plain = tiledRgb({PageShape{200, 130}, PageShape{100, 65, true}});
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
        TiffImage direct(path);
        EXPECT_TRUE(sameBits(openWhole(direct, 0, box), openWhole(*image, 0, box), box, item.name));
    }
    std::unique_ptr<Nuvek::Image> slide = Nuvek::openImage(directory.path("aperio.tif"));
    EXPECT_EQ(slide->getVoxelSize(0), Vector(250, 250, 1));
    EXPECT_EQ(slide->getNumLevels(), 2);
    // TiffImage takes the voxel size from Aperio's MPP too, when the tags say nothing.
    EXPECT_EQ(TiffImage(directory.path("aperio.tif")).getVoxelSize(0), Vector(250, 250, 1));
}
