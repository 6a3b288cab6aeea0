#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <openslide.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>

using Nuvek::Box;
using Nuvek::SlideImage;
using Nuvek::TiffImage;
using Nuvek::Vector;
using NuvekTest::PageShape;
using NuvekTest::TiffLayout;

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

TEST(SlideImage, ReadsAGenericTiffLikeTiffImageWithZerosOutside)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("slide.tif");
    NuvekTest::writeTiff(path, slideLayout({PageShape{300, 260}, PageShape{150, 130, true}, PageShape{75, 65, true}}));
    SlideImage slide(path);
    TiffImage file(path);
    ASSERT_EQ(slide.getNumLevels(), 3);
    EXPECT_EQ(slide.getNumChannels(), 3);
    EXPECT_EQ(slide.getChannelName(0), "Red");
    EXPECT_EQ(slide.getChannelName(1), "Green");
    EXPECT_EQ(slide.getChannelName(2), "Blue");
    EXPECT_EQ(NuvekTest::messageOf([&] { slide.getChannelName(3); }),
              "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(slide.getValueRange().min, 0.0);
    EXPECT_EQ(slide.getValueRange().max, 255.0);
    // 20000 pixels per centimetre in x, twice that in y (as the test file writes them).
    EXPECT_EQ(slide.getVoxelSize(0), Vector(500, 250, 1));
    EXPECT_EQ(slide.getVoxelSize(2), Vector(2000, 1000, 1));
    EXPECT_EQ(slide.getTileExtent(), Vector(64, 64, 1));
    EXPECT_EQ(slide.getURL(), path);

    std::mt19937_64 random(23);
    for (long long level = 0; level < 3; ++level)
    {
        ASSERT_EQ(slide.getExtent(level), file.getExtent(level));
        for (int trial = 0; trial < 8; ++trial)
        {
            Box const box = NuvekTest::randomBox(random, slide.getExtent(level), 90, 3);
            EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(file, level, box),
                                            NuvekTest::openWhole(slide, level, box), box,
                                            "level " + std::to_string(level)));
        }
    }
}

TEST(SlideImage, LevelsThatAreNoPowerOfTwoOrMissingAreNotPresent)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const gap = directory.path("gap.tif");
    NuvekTest::writeTiff(gap, slideLayout({PageShape{256, 256}, PageShape{64, 64, true}}));
    SlideImage slide(gap);
    EXPECT_EQ(slide.getNumLevels(), 3);
    EXPECT_TRUE(slide.hasLevel(0));
    EXPECT_FALSE(slide.hasLevel(1));
    EXPECT_TRUE(slide.hasLevel(2));
    EXPECT_EQ(slide.getExtent(1), Vector(128, 128, 1));

    std::string const third = directory.path("third.tif");
    NuvekTest::writeTiff(third, slideLayout({PageShape{192, 192}, PageShape{64, 64, true}}));
    EXPECT_EQ(SlideImage(third).getNumLevels(), 1);
}

TEST(SlideImage, PartlyTransparentVoxelsGetTheirColourBack)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("alpha.tif");
    TiffLayout layout = slideLayout({PageShape{128, 128}});
    layout.samples = 4;
    layout.alpha = true;
    NuvekTest::writeTiff(path, layout);
    SlideImage slide(path);
    ASSERT_EQ(slide.getNumChannels(), 3);
    Box const box(Vector(128, 128, 1));
    std::vector<double> const values = NuvekTest::openWhole(slide, 0, box);
    int checked = 0;
    for (long long y = 0; y < 128; ++y)
        for (long long x = 0; x < 128; ++x)
        {
            double const alpha = NuvekTest::storedValue(layout, 0, x, y, 3);
            for (long long c = 0; c < 3; ++c)
            {
                double const value = values[static_cast<std::size_t>(c * 128 * 128 + y * 128 + x)];
                if (alpha == 0.0)
                {
                    EXPECT_EQ(value, 0.0) << x << ", " << y;
                }
                else if (alpha >= 128.0)
                {
                    // Premultiplying rounds to whole numbers; from alpha 128 up one step at most is lost.
                    ++checked;
                    EXPECT_LE(std::fabs(value - NuvekTest::storedValue(layout, 0, x, y, c)), 1.0)
                        << x << ", " << y << ", " << c << ", alpha " << alpha;
                }
            }
        }
    EXPECT_GT(checked, 1000);
}

namespace {

// What OpenSlide itself returns for the whole of its level 0, as red, green and blue planes.
std::vector<double> openslideLevelZero(std::string const& path, Vector const& extent)
{
    openslide_t* slide = openslide_open(path.c_str());
    std::vector<std::uint32_t> argb(static_cast<std::size_t>(extent.x * extent.y));
    openslide_read_region(slide, argb.data(), 0, 0, 0, extent.x, extent.y);
    openslide_close(slide);
    std::vector<double> planes;
    for (int c = 0; c < 3; ++c)
        for (std::uint32_t pixel : argb)
            planes.push_back(static_cast<double>((pixel >> (16 - 8 * c)) & 0xff));
    return planes;
}

} // namespace

TEST(SlideImage, LevelsOfNoExactPowerOfTwoGiveTheirOwnPixelsForEveryTile)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("odd.tif");
    // Downsamples of about 2.007 and 4.014, as real pyramids of odd sizes have.
    NuvekTest::writeTiff(path, slideLayout({PageShape{301, 261}, PageShape{150, 130, true}, PageShape{75, 65, true}}));
    SlideImage slide(path);
    TiffImage file(path);
    ASSERT_EQ(slide.getNumLevels(), 3);
    for (long long level = 1; level < 3; ++level)
    {
        ASSERT_EQ(slide.getExtent(level), file.getExtent(level));
        Box const box = Box(slide.getExtent(level)).expanded(Vector(2, 1, 0));
        std::vector<double> const stored = NuvekTest::openWhole(file, level, box);
        EXPECT_TRUE(NuvekTest::sameBits(stored, NuvekTest::openWhole(slide, level, box), box, "whole"));
        EXPECT_TRUE(NuvekTest::sameBits(stored, NuvekTest::openTiled(slide, level, box, {1, 7, 33}, {5, 64}, 2), box,
                                        "tiles, level " + std::to_string(level)));
    }
}

TEST(SlideImage, OnlyShortLevelsOpenSlideMisreadsAreReadThroughTheirPage)
{
    NuvekTest::TemporaryDirectory directory;
    // Deflate tiles go through libtiff's RGBA interface in OpenSlide 3, which misplaces a tile
    // taller than its level.
    std::string const deflate = directory.path("short-deflate.tif");
    NuvekTest::writeTiff(deflate, slideLayout({PageShape{150, 40}}));
    TiffImage file(deflate);
    Box const box(Vector(150, 40, 1));
    std::vector<double> const stored = NuvekTest::openWhole(file, 0, box);
    if (std::string(openslide_get_version()).rfind("3.", 0) == 0)
    {
        EXPECT_NE(openslideLevelZero(deflate, Vector(150, 40, 1)), stored) << "OpenSlide no longer misreads";
    }
    SlideImage slide(deflate);
    EXPECT_TRUE(NuvekTest::sameBits(stored, NuvekTest::openWhole(slide, 0, box), box, "deflate"));

    // JPEG tiles OpenSlide decodes itself, correctly: it reads them.
    std::string const jpeg = directory.path("short-jpeg.tif");
    TiffLayout layout = slideLayout({PageShape{150, 40}});
    layout.compression = 7;
    NuvekTest::writeTiff(jpeg, layout);
    SlideImage jpegSlide(jpeg);
    std::vector<double> const direct = openslideLevelZero(jpeg, Vector(150, 40, 1));
    EXPECT_TRUE(NuvekTest::sameBits(direct, NuvekTest::openWhole(jpegSlide, 0, box), box, "jpeg"));
    EXPECT_NE(std::count(direct.begin(), direct.end(), 0.0), static_cast<long>(direct.size()));
}
