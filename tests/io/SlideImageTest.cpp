#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

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

std::string messageOf(std::string const& path)
{
    return NuvekTest::messageOf([&] { SlideImage slide(path); });
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
    try
    {
        slide.getChannelName(3);
        ADD_FAILURE() << "channel 3 has a name";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_EQ(std::string(error.what()), "Invalid channel index. Cannot determine its name.");
    }
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

TEST(SlideImage, TilesAndThreadsAgreeWithOneLargeRequest)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("slide.tif");
    NuvekTest::writeTiff(path, slideLayout({PageShape{400, 300}, PageShape{200, 150, true}}));
    SlideImage slide(path);
    for (long long level : {0, 1})
    {
        Box const box = Box(slide.getExtent(level)).expanded(Vector(2, 3, 0));
        std::vector<double> const whole = NuvekTest::openWhole(slide, level, box);
        for (int threads : {1, 3})
            EXPECT_TRUE(NuvekTest::sameBits(
                whole, NuvekTest::openTiled(slide, level, box, {1, 63, 64, 65, 130, 201}, {7, 64, 99, 140}, threads),
                box, "level " + std::to_string(level) + ", threads " + std::to_string(threads)));
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
    std::vector<double> out(3);
    try
    {
        slide.openRegion(out.data(), 1, Box(Vector(0, 0, 0), Vector(0, 0, 0)));
        ADD_FAILURE() << "level 1 was read";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_EQ(std::string(error.what()), "SlideImage: " + gap + ": level 1 is not present in the slide");
    }

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

TEST(SlideImage, UnreadableFilesGiveErrorsNamingTheFile)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const text = directory.path("text.tif");
    NuvekTest::writeBytes(text, {'n', 'o', 't', ' ', 'a', ' ', 's', 'l', 'i', 'd', 'e'});
    EXPECT_EQ(messageOf(text), "SlideImage: " + text + ": not a slide that OpenSlide can read");
    std::string const missing = directory.path("missing.svs");
    EXPECT_EQ(messageOf(missing), "SlideImage: " + missing + ": not a slide that OpenSlide can read");
    // OpenSlide reads only tiled TIFFs as slides.
    std::string const strips = directory.path("strips.tif");
    TiffLayout layout = slideLayout({PageShape{100, 100}});
    layout.tileWidth = 0;
    NuvekTest::writeTiff(strips, layout);
    EXPECT_EQ(messageOf(strips), "SlideImage: " + strips + ": not a slide that OpenSlide can read");
    // A truncated tiled file opens, and reading its lost tiles fails with OpenSlide's message.
    std::string const truncated = directory.path("truncated.tif");
    NuvekTest::writeTiff(truncated, slideLayout({PageShape{256, 256}}));
    std::vector<unsigned char> bytes = NuvekTest::readBytes(truncated);
    std::vector<unsigned char> cut(bytes.begin(), bytes.begin() + 40);
    NuvekTest::writeBytes(truncated, cut);
    std::string const message = messageOf(truncated);
    EXPECT_EQ(message.rfind("SlideImage: " + truncated + ": ", 0), 0u) << message;
}
