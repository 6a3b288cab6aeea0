#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <algorithm>

using Nuvek::SlideImage;
using Nuvek::TiffImage;
using namespace NuvekTest;

namespace {

// A tiled RGB pyramid that OpenSlide reads as a generic TIFF.
TiffLayout slideLayout(std::vector<PageShape> pages)
{
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.tileWidth = 64;
    layout.tileHeight = 64;
    layout.compression = 8;
    layout.resolutionUnit = 3;
    layout.resolution = 20000.0f;
    layout.pages = std::move(pages);
    return layout;
}

} // namespace

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
        writeTiff(path, slideLayout(pages));
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
        EXPECT_EQ(slide.getURL(), path);
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
    writeTiff(directory.path("gap.tif"), slideLayout({PageShape{256, 256}, PageShape{64, 64, true}}));
    SlideImage slide(directory.path("gap.tif"));
    EXPECT_EQ(slide.getNumLevels(), 3);
    EXPECT_FALSE(slide.hasLevel(1));
    EXPECT_TRUE(slide.hasLevel(2));
    EXPECT_EQ(slide.getExtent(1), Vector(128, 128, 1));

    writeTiff(directory.path("third.tif"), slideLayout({PageShape{192, 192}, PageShape{64, 64, true}}));
    EXPECT_EQ(SlideImage(directory.path("third.tif")).getNumLevels(), 1);
}

TEST(SlideImage, PartlyTransparentVoxelsGetTheirColourBack)
{
    TemporaryDirectory directory;
    TiffLayout layout = slideLayout({PageShape{128, 128}});
    layout.samples = 4;
    layout.alpha = true;
    writeTiff(directory.path("alpha.tif"), layout);
    SlideImage slide(directory.path("alpha.tif"));
    ASSERT_EQ(slide.getNumChannels(), 3);
    std::vector<double> const values = openWhole(slide, 0, Box(Vector(128, 128, 1)));
    int checked = 0;
    for (long long c = 0; c < 3; ++c)
        for (long long y = 0; y < 128; ++y)
            for (long long x = 0; x < 128; ++x)
            {
                double const alpha = storedValue(layout, 0, x, y, 3);
                double const value = values[static_cast<std::size_t>((c * 128 + y) * 128 + x)];
                // Transparent is black; premultiplying rounds, so from alpha 128 up one step at most is lost.
                if (alpha == 0.0)
                {
                    EXPECT_EQ(value, 0.0) << x << ", " << y;
                }
                else if (alpha >= 128.0)
                {
                    ++checked;
                    EXPECT_LE(std::fabs(value - storedValue(layout, 0, x, y, c)), 1.0) << x << ", " << y << ", " << c;
                }
            }
    EXPECT_GT(checked, 3000);
}
