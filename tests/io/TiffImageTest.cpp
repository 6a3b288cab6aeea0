#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

using Nuvek::Box;
using Nuvek::TiffImage;
using Nuvek::Vector;
using NuvekTest::PageShape;
using NuvekTest::TiffLayout;

namespace {

// The region buffer of box, voxel by voxel: page(z) of the file at (x, y), 0.0 outside its size.
std::vector<double> expectedRegion(TiffLayout const& layout, std::function<long long(long long z)> const& pageOf,
                                   Box const& box, long long depth)
{
    std::vector<double> values;
    for (long long c = 0; c < layout.samples; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    if (z < 0 || z >= depth)
                    {
                        values.push_back(0.0);
                        continue;
                    }
                    long long const page = pageOf(z);
                    std::size_t const mainPages = layout.pages.size();
                    PageShape const& shape = page < static_cast<long long>(mainPages)
                                                 ? layout.pages[static_cast<std::size_t>(page)]
                                                 : layout.subPages[static_cast<std::size_t>(page) - mainPages];
                    bool const inside = x >= 0 && y >= 0 && x < shape.width && y < shape.height;
                    values.push_back(inside ? NuvekTest::storedValue(layout, page, x, y, c) : 0.0);
                }
    return values;
}

std::string describe(TiffLayout const& layout)
{
    return "samples " + std::to_string(layout.samples) + ", bits " + std::to_string(layout.bits) +
           (layout.floating ? " float" : (layout.isSigned ? " signed" : "")) +
           (layout.planar ? ", planar" : ", contiguous") +
           (layout.tileWidth > 0
                ? ", tiles " + std::to_string(layout.tileWidth) + "x" + std::to_string(layout.tileHeight)
                : ", strips of " + std::to_string(layout.rowsPerStrip)) +
           ", compression " + std::to_string(layout.compression) + (layout.bigTiff ? ", BigTIFF" : "");
}

TiffLayout singlePage(std::uint32_t width, std::uint32_t height)
{
    TiffLayout layout;
    layout.pages = {PageShape{width, height}};
    return layout;
}

} // namespace

TEST(TiffImage, ReadsEverySampleLayoutLikeTheReference)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(91);
    std::uint16_t const compressions[] = {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                                          COMPRESSION_PACKBITS};
    int variant = 0;
    // uint8, uint16, float32, int8, int16, int32, uint32, float64.
    std::uint16_t const bits[] = {8, 16, 32, 8, 16, 32, 32, 64};
    for (int type = 0; type < 8; ++type)
        for (bool planar : {false, true})
            for (bool tiled : {false, true})
                for (std::uint16_t samples : {1, 3, 4})
                {
                    TiffLayout layout = singlePage(53, 41);
                    layout.bits = bits[type];
                    layout.floating = type == 2 || type == 7;
                    layout.isSigned = type >= 3 && type <= 5;
                    layout.planar = planar;
                    layout.samples = samples;
                    layout.rgb = samples >= 3;
                    layout.tileWidth = tiled ? 16 : 0;
                    layout.tileHeight = tiled ? 32 : 0;
                    layout.rowsPerStrip = 7;
                    layout.compression = compressions[variant % 4];
                    layout.bigTiff = variant % 3 == 1;
                    ++variant;
                    std::string const path = directory.path("layout" + std::to_string(variant) + ".tif");
                    NuvekTest::writeTiff(path, layout);

                    TiffImage image(path);
                    ASSERT_EQ(image.getExtent(0), Vector(53, 41, 1)) << describe(layout);
                    ASSERT_EQ(image.getNumChannels(), samples);
                    for (int trial = 0; trial < 12; ++trial)
                    {
                        Box const box = NuvekTest::randomBox(random, Vector(53, 41, 1), 40, 2);
                        std::vector<double> const expected = expectedRegion(
                            layout, [](long long) { return 0; }, box, 1);
                        EXPECT_TRUE(
                            NuvekTest::sameBits(expected, NuvekTest::openWhole(image, 0, box), box, describe(layout)));
                    }
                }
}

TEST(TiffImage, DecodesOnlyTheTouchedTilesOrStripsOncePerCall)
{
    NuvekTest::TemporaryDirectory directory;
    TiffLayout tiled = singlePage(100, 90);
    tiled.tileWidth = 16;
    tiled.tileHeight = 16;
    tiled.samples = 3;
    tiled.rgb = true;
    NuvekTest::writeTiff(directory.path("tiled.tif"), tiled);
    TiffImage image(directory.path("tiled.tif"), 0, 0);
    std::vector<double> out(120 * 110 * 3 * 3);

    // x 15..33 touches tile columns 0, 1, 2; y 40..47 touches tile row 2 only.
    image.openRegion(out.data(), 0, Box(Vector(15, 40, 0), Vector(33, 47, 0)));
    EXPECT_EQ(image.getBlocksDecoded(), 3u);
    // Reaching past the extent on every side touches every tile once and nothing beyond.
    image.openRegion(out.data(), 0, Box(Vector(-5, -5, -1), Vector(104, 94, 1)));
    EXPECT_EQ(image.getBlocksDecoded(), 3u + 7u * 6u);
    // Wholly outside: nothing to decode.
    image.openRegion(out.data(), 0, Box(Vector(200, 0, 0), Vector(210, 5, 0)));
    EXPECT_EQ(image.getBlocksDecoded(), 3u + 42u);

    TiffLayout strips = tiled;
    strips.tileWidth = 0;
    strips.rowsPerStrip = 10;
    strips.planar = true;
    NuvekTest::writeTiff(directory.path("strips.tif"), strips);
    TiffImage planes(directory.path("strips.tif"));
    // Rows 9..21 lie in strips 0, 1 and 2, once per sample plane.
    planes.openRegion(out.data(), 0, Box(Vector(50, 9, 0), Vector(52, 21, 0)));
    EXPECT_EQ(planes.getBlocksDecoded(), 9u);
}

TEST(TiffImage, MultiPageAndSubIfdPyramidsBecomeLevels)
{
    NuvekTest::TemporaryDirectory directory;
    for (bool subIfds : {false, true})
    {
        TiffLayout layout;
        layout.samples = 2;
        layout.tileWidth = 16;
        layout.tileHeight = 16;
        std::vector<PageShape> levels = {{50, 35, true}, {25, 17, true}, {13, 9, true}};
        layout.pages = {PageShape{101, 70}};
        // A thumbnail of no power-of-two size and a page of other samples are not levels.
        std::vector<PageShape> others = {{40, 40, true}, PageShape{50, 35, true, "", true}};
        (subIfds ? layout.subPages : layout.pages)
            .insert((subIfds ? layout.subPages : layout.pages).end(), others.begin(), others.end());
        (subIfds ? layout.subPages : layout.pages)
            .insert((subIfds ? layout.subPages : layout.pages).end(), levels.begin(), levels.end());
        std::string const path = directory.path(subIfds ? "sub.tif" : "pages.tif");
        NuvekTest::writeTiff(path, layout);

        TiffImage image(path);
        ASSERT_EQ(image.getNumLevels(), 4);
        EXPECT_EQ(image.getExtent(0), Vector(101, 70, 1));
        EXPECT_EQ(image.getExtent(1), Vector(50, 35, 1));
        EXPECT_EQ(image.getExtent(2), Vector(25, 17, 1));
        // 70 / 8 rounded up: the page's own size, not level 0's shifted.
        EXPECT_EQ(image.getExtent(3), Vector(13, 9, 1));
        EXPECT_EQ(image.getExtent(4), Vector(6, 4, 1));
        for (long long level = 1; level < 4; ++level)
        {
            // Both layouts put level 1 after level 0 and the two pages that are not levels.
            long long const page = 2 + level;
            Box const box(Vector(-2, -2, 0), image.getExtent(level) + Vector(1, 1, -1));
            EXPECT_TRUE(NuvekTest::sameBits(expectedRegion(
                                                layout, [page](long long) { return page; }, box, 1),
                                            NuvekTest::openWhole(image, level, box), box,
                                            "level " + std::to_string(level) + (subIfds ? " SubIFD" : "")));
        }
    }
}

TEST(TiffImage, LevelsTheFileLacksAreReportedAndNeverMadeUp)
{
    NuvekTest::TemporaryDirectory directory;
    TiffLayout layout;
    layout.tileWidth = 16;
    layout.tileHeight = 16;
    layout.pages = {PageShape{64, 64}, PageShape{16, 16, true}};
    std::string const path = directory.path("gap.tif");
    NuvekTest::writeTiff(path, layout);
    TiffImage image(path);
    EXPECT_EQ(image.getNumLevels(), 3);
    EXPECT_TRUE(image.hasLevel(0));
    EXPECT_FALSE(image.hasLevel(1));
    EXPECT_TRUE(image.hasLevel(2));
    EXPECT_FALSE(image.hasLevel(3));
    EXPECT_EQ(image.getExtent(1), Vector(32, 32, 1));
}

TEST(TiffImage, PageStacksAreSlicesWithTheirOwnLevels)
{
    NuvekTest::TemporaryDirectory directory;
    TiffLayout layout;
    layout.bits = 16;
    layout.samples = 2;
    layout.planar = true;
    layout.pages = {PageShape{40, 30, false, "first"}, PageShape{20, 15, true},  PageShape{40, 30, false, "second"},
                    PageShape{20, 15, true},           PageShape{40, 30, false}, PageShape{20, 15, true}};
    std::string const path = directory.path("stack.tif");
    NuvekTest::writeTiff(path, layout);
    TiffImage image(path);
    ASSERT_EQ(image.getExtent(0), Vector(40, 30, 3));
    ASSERT_EQ(image.getExtent(1), Vector(20, 15, 3));
    EXPECT_EQ(image.getSliceName(0), "first");
    EXPECT_EQ(image.getSliceName(1), "second");
    EXPECT_EQ(image.getSliceName(2), "");
    for (long long level : {0, 1})
    {
        Box const box(Vector(-1, 3, -1), image.getExtent(level) + Vector(0, -2, 0));
        auto pageOf = [level](long long z) { return 2 * z + level; };
        EXPECT_TRUE(NuvekTest::sameBits(expectedRegion(layout, pageOf, box, 3), NuvekTest::openWhole(image, level, box),
                                        box, "level " + std::to_string(level)));
    }

    // A slice without the level makes the level absent for the whole volume.
    layout.pages.pop_back();
    NuvekTest::writeTiff(directory.path("ragged.tif"), layout);
    TiffImage ragged(directory.path("ragged.tif"));
    EXPECT_EQ(ragged.getExtent(0), Vector(40, 30, 3));
    EXPECT_EQ(ragged.getNumLevels(), 1);
}

TEST(TiffImage, MetadataComesFromTheFile)
{
    NuvekTest::TemporaryDirectory directory;
    struct Case
    {
        std::uint16_t samples;
        bool rgb;
        int type;
        std::uint16_t unit;
        double sampleMin;
        double sampleMax;
        std::vector<std::string> names;
        double rangeMin;
        double rangeMax;
        Vector voxelSize;
    };
    // 20000 pixels per centimetre are 500 nm; 40000 per centimetre 250 nm; 25400 per inch 1000 nm.
    std::vector<Case> const cases = {
        {3, true, 0, 3, 0, 0, {"Red", "Green", "Blue"}, 0, 255, Vector(500, 250, 1)},
        {4, true, 1, 2, 0, 0, {"Red", "Green", "Blue", "Channel 3"}, 0, 65535, Vector(1270, 635, 1)},
        {2, false, 2, 1, -4.5, 9.0, {"Channel 0", "Channel 1"}, -4.5, 9.0, Vector(1, 1, 1)},
        // No tags: the range of the data, 0.25 x - 1.5 y over 20 x 10 voxels.
        {1, false, 2, 0, 0, 0, {"Channel 0"}, -13.5, 4.75, Vector(1, 1, 1)},
    };
    int index = 0;
    for (Case const& item : cases)
    {
        TiffLayout layout = singlePage(20, 10);
        layout.samples = item.samples;
        layout.rgb = item.rgb;
        layout.bits = item.type == 0 ? 8 : (item.type == 1 ? 16 : 32);
        layout.floating = item.type == 2;
        layout.resolutionUnit = item.unit;
        layout.resolution = item.unit == 3 ? 20000.0f : 20000.0f;
        layout.sampleMin = item.sampleMin;
        layout.sampleMax = item.sampleMax;
        layout.tileWidth = index % 2 == 0 ? 16 : 0;
        layout.tileHeight = 32;
        std::string const path = directory.path("meta" + std::to_string(index++) + ".tif");
        NuvekTest::writeTiff(path, layout);
        TiffImage image(path);
        for (std::size_t c = 0; c < item.names.size(); ++c)
            EXPECT_EQ(image.getChannelName(static_cast<long long>(c)), item.names[c]);
        EXPECT_THROW(image.getChannelName(item.samples), std::runtime_error);
        EXPECT_EQ(image.getValueRange().min, item.rangeMin);
        EXPECT_EQ(image.getValueRange().max, item.rangeMax);
        EXPECT_EQ(image.getVoxelSize(0), item.voxelSize) << path;
        EXPECT_EQ(image.getVoxelSize(2), Vector(item.voxelSize.x * 4, item.voxelSize.y * 4, 1));
        EXPECT_EQ(image.getTileExtent(), layout.tileWidth > 0 ? Vector(16, 32, 1) : Vector(20, 7, 1));
        EXPECT_EQ(image.getURL(), path);
        EXPECT_EQ(image.getHash(), image.getHash());
    }
}

TEST(TiffImage, PaletteImagesDeliverTheirIndicesAndIntegersTheirTypeRange)
{
    NuvekTest::TemporaryDirectory directory;
    struct Case
    {
        std::uint16_t bits;
        bool isSigned;
        bool palette;
        double min;
        double max;
    };
    std::vector<Case> const cases = {{8, false, true, 0, 255},
                                     {16, false, true, 0, 65535},
                                     {8, true, false, -128, 127},
                                     {16, true, false, -32768, 32767},
                                     {32, true, false, -2147483648.0, 2147483647.0},
                                     {32, false, false, 0, 4294967295.0}};
    for (Case const& item : cases)
    {
        TiffLayout layout = singlePage(30, 20);
        layout.bits = item.bits;
        layout.isSigned = item.isSigned;
        layout.palette = item.palette;
        std::string const path = directory.path("palette" + std::to_string(item.bits) + (item.isSigned ? "s" : "u") +
                                                (item.palette ? "p" : "") + ".tif");
        NuvekTest::writeTiff(path, layout);
        TiffImage image(path);
        ASSERT_EQ(image.getNumChannels(), 1) << path;
        EXPECT_EQ(image.getValueRange().min, item.min) << path;
        EXPECT_EQ(image.getValueRange().max, item.max) << path;
        Box const box(Vector(-1, -1, 0), Vector(30, 20, 0));
        EXPECT_TRUE(NuvekTest::sameBits(expectedRegion(
                                            layout, [](long long) { return 0; }, box, 1),
                                        NuvekTest::openWhole(image, 0, box), box, path));
    }
}

namespace {

// A file of `pages` pages of 12 x 8 voxels, two samples each, with a description.
TiffLayout describedPages(long long pages, std::string description)
{
    TiffLayout layout;
    layout.samples = 2;
    layout.bits = 16;
    layout.description = std::move(description);
    for (long long p = 0; p < pages; ++p)
        layout.pages.push_back(PageShape{12, 8});
    return layout;
}

// Checks that channel c of slice z is sample c % 2 of page pageOf(c / 2, z).
void expectPlanes(TiffImage& image, TiffLayout const& layout,
                  std::function<long long(long long, long long)> const& pageOf, std::string const& what)
{
    Box const box(Vector(0, 0, 0), image.getExtent(0) - Vector(1, 1, 1));
    std::vector<double> const values = NuvekTest::openWhole(image, 0, box);
    long long const voxels = box.getSize();
    long long mismatches = 0;
    for (long long c = 0; c < image.getNumChannels(); ++c)
        for (long long z = 0; z <= box.max.z; ++z)
            for (long long y = 0; y < 8; ++y)
                for (long long x = 0; x < 12; ++x)
                {
                    double const expected = NuvekTest::storedValue(layout, pageOf(c / 2, z), x, y, c % 2);
                    mismatches += values[static_cast<std::size_t>(c * voxels + (z * 8 + y) * 12 + x)] != expected;
                }
    EXPECT_EQ(mismatches, 0) << what;
}

} // namespace

TEST(TiffImage, ImageJDescriptionsMakePagesChannelsSlicesAndTimePoints)
{
    NuvekTest::TemporaryDirectory directory;
    // 2 channels x 3 slices x 2 frames, ImageJ's order: channel fastest, then slice, then frame.
    TiffLayout layout = describedPages(12, "ImageJ=1.53c\nimages=12\nchannels=2\nslices=3\nframes=2\nhyperstack=true\n"
                                           "unit=micron\nspacing=1.5\nmin=10.0\nmax=900.0\n");
    layout.resolutionUnit = 1;
    layout.resolution = 4.0f;
    std::string const path = directory.path("hyperstack.tif");
    NuvekTest::writeTiff(path, layout);
    for (long long time : {0, 1})
    {
        TiffImage image(path, time);
        ASSERT_EQ(image.getNumChannels(), 4);
        ASSERT_EQ(image.getExtent(0), Vector(12, 8, 3));
        // 4 pixels per micron in x, 8 in y (the test files write y at twice x's resolution).
        EXPECT_EQ(image.getVoxelSize(0), Vector(250, 125, 1500));
        EXPECT_TRUE(image.knowsVoxelSize());
        EXPECT_EQ(image.getValueRange().min, 10.0);
        EXPECT_EQ(image.getValueRange().max, 900.0);
        expectPlanes(
            image, layout, [time](long long c, long long z) { return c + 2 * (z + 3 * time); },
            "ImageJ time " + std::to_string(time));
    }

    // Counts that do not fit the pages: every page is a slice, as without a description.
    TiffLayout wrong = describedPages(5, "ImageJ=1.53c\nimages=6\nchannels=2\nslices=3\n");
    NuvekTest::writeTiff(directory.path("wrong.tif"), wrong);
    TiffImage image(directory.path("wrong.tif"));
    EXPECT_EQ(image.getNumChannels(), 2);
    EXPECT_EQ(image.getExtent(0), Vector(12, 8, 5));
    EXPECT_FALSE(image.knowsVoxelSize());
    EXPECT_EQ(image.getVoxelSize(0), Vector(1, 1, 1));
}

TEST(TiffImage, OmeXmlPlacesPlanesNamesChannelsAndGivesSizes)
{
    NuvekTest::TemporaryDirectory directory;
    // 2 channels x 2 slices x 2 time points in the order XYZCT, the pages listed backwards through
    // TiffData, so that both the order and the page numbers count.
    std::string xml = R"(<?xml version="1.0"?><OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)"
                      R"(<Image ID="Image:0"><Pixels DimensionOrder="XYZCT" SizeC="2" SizeZ="2" SizeT="2" )"
                      R"(SizeX="12" SizeY="8" Type="uint16" PhysicalSizeX="0.5" PhysicalSizeY="600" )"
                      R"(PhysicalSizeYUnit="nm" PhysicalSizeZ="0.002" PhysicalSizeZUnit="mm">)"
                      R"(<Channel ID="Channel:0:0" Name="DAPI" SamplesPerPixel="2"/><Channel ID="Channel:0:1" )"
                      R"(Name="GFP" SamplesPerPixel="2"/>)";
    for (int plane = 0; plane < 8; ++plane)
    {
        // Plane `plane` in XYZCT order: z fastest, then c, then t.
        xml += "<TiffData IFD=\"" + std::to_string(7 - plane) + "\" FirstZ=\"" + std::to_string(plane % 2) +
               "\" FirstC=\"" + std::to_string(plane / 2 % 2) + "\" FirstT=\"" + std::to_string(plane / 4) +
               "\" PlaneCount=\"1\"/>";
    }
    xml += "</Pixels></Image></OME>";
    TiffLayout layout = describedPages(8, xml);
    layout.resolutionUnit = 3;
    layout.resolution = 20000.0f;
    std::string const path = directory.path("planes.ome.tif");
    NuvekTest::writeTiff(path, layout);
    for (long long time : {0, 1})
    {
        TiffImage image(path, time);
        ASSERT_EQ(image.getNumChannels(), 4);
        ASSERT_EQ(image.getExtent(0), Vector(12, 8, 2));
        // OME's sizes win over the resolution tags.
        EXPECT_EQ(image.getVoxelSize(0), Vector(500, 600, 2000));
        EXPECT_EQ(image.getChannelName(0), "DAPI Channel 0");
        EXPECT_EQ(image.getChannelName(3), "GFP Channel 3");
        expectPlanes(
            image, layout, [time](long long c, long long z) { return 7 - (z + 2 * c + 4 * time); },
            "OME time " + std::to_string(time));
    }
}

TEST(TiffImage, VoxelSizeComesFromAperioWhenTheTagsSayNothing)
{
    NuvekTest::TemporaryDirectory directory;
    TiffLayout layout = singlePage(16, 16);
    layout.description = "Aperio Image Library v12.0.15\r\n16x16 [0,0 16x16] (240x240) JPEG/RGB Q=70|AppMag = 20|"
                         "MPP = 0.4990|Filename = x";
    std::string const path = directory.path("aperio.tif");
    NuvekTest::writeTiff(path, layout);
    TiffImage image(path);
    EXPECT_EQ(image.getVoxelSize(0), Vector(499, 499, 1));
    EXPECT_TRUE(image.knowsVoxelSize());
}

namespace {

// A smooth colour ramp with some texture, which JPEG at quality 95 keeps within a few steps.
double colour(long long x, long long y, long long c)
{
    return static_cast<double>((c == 0 ? 4 * x : (c == 1 ? 6 * y : 2 * (x + y))) % 256);
}

// Writes colour() as YCbCr, JPEG-compressed by libtiff in tiles of `tile` or in one strip (tile 0).
void writeJpeg(std::string const& path, std::uint32_t width, std::uint32_t height, std::uint32_t tile)
{
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_JPEG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR);
    TIFFSetField(tiff, TIFFTAG_JPEGQUALITY, 95);
    TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    std::uint32_t const blockWidth = tile > 0 ? tile : width;
    std::uint32_t const blockHeight = tile > 0 ? tile : height;
    if (tile > 0)
    {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, tile);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, tile);
    }
    else
    {
        // Tables inline, so that the strip is a complete JPEG stream.
        TIFFSetField(tiff, TIFFTAG_JPEGTABLESMODE, 0);
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, height);
    }
    std::vector<unsigned char> block(blockWidth * blockHeight * 3);
    for (std::uint32_t top = 0; top < height; top += blockHeight)
        for (std::uint32_t left = 0; left < width; left += blockWidth)
        {
            for (std::uint32_t y = 0; y < blockHeight; ++y)
                for (std::uint32_t x = 0; x < blockWidth; ++x)
                    for (int c = 0; c < 3; ++c)
                        block[(y * blockWidth + x) * 3 + c] = static_cast<unsigned char>(colour(left + x, top + y, c));
            if (tile > 0)
                ASSERT_GE(TIFFWriteTile(tiff, block.data(), left, top, 0, 0), 0);
            else
                ASSERT_GE(TIFFWriteEncodedStrip(tiff, 0, block.data(), static_cast<tmsize_t>(block.size())), 0);
        }
    TIFFClose(tiff);
}

// An old-style JPEG file around the strip of a file writeJpeg wrote.
void writeOldStyleJpeg(std::string const& path, std::uint32_t width, std::uint32_t height)
{
    writeJpeg(path + ".source.tif", width, height, 0);
    TIFF* tiff = TIFFOpen((path + ".source.tif").c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    std::vector<unsigned char> stream(static_cast<std::size_t>(TIFFRawStripSize(tiff, 0)));
    ASSERT_GT(TIFFReadRawStrip(tiff, 0, stream.data(), static_cast<tmsize_t>(stream.size())), 0);
    TIFFClose(tiff);
    auto const length = static_cast<std::uint32_t>(stream.size());
    NuvekTest::writeBytes(path, NuvekTest::rawTiff({{256, 3, 1, width},
                                                    {257, 3, 1, height},
                                                    {258, 3, 1, 8},
                                                    {259, 3, 1, COMPRESSION_OJPEG},
                                                    {262, 3, 1, PHOTOMETRIC_YCBCR},
                                                    {273, 4, 1, 8},
                                                    {277, 3, 1, 3},
                                                    {278, 3, 1, height},
                                                    {279, 4, 1, length},
                                                    {513, 4, 1, 8},
                                                    {514, 4, 1, length},
                                                    {530, 3, 2, 2 + (2u << 16)}},
                                                   stream));
}

// Uncompressed YCbCr with 2 x 2 chroma subsampling: each 2 x 2 block is stored as its four Y
// values, then Cb and Cr.
void writeSubsampledYCbCr(std::string const& path, std::uint32_t width, std::uint32_t height)
{
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR);
    TIFFSetField(tiff, TIFFTAG_YCBCRSUBSAMPLING, 2, 2);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 4u);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    for (std::uint32_t strip = 0; strip < height / 4; ++strip)
    {
        std::vector<unsigned char> data;
        for (std::uint32_t block = 0; block < 2 * (width / 2); ++block)
        {
            for (int k = 0; k < 4; ++k)
                data.push_back(static_cast<unsigned char>((block * 37 + k * 11 + strip * 53) % 256));
            data.push_back(static_cast<unsigned char>(100 + block * 3));
            data.push_back(static_cast<unsigned char>(160 - block * 2));
        }
        ASSERT_GE(TIFFWriteRawStrip(tiff, strip, data.data(), static_cast<tmsize_t>(data.size())), 0);
    }
    TIFFClose(tiff);
}

} // namespace

// Files whose colours libtiff converts (JPEG in YCbCr, old-style JPEG, subsampled YCbCr) read as
// libtiff's own RGBA decode gives them, 0 outside; the JPEG ones also close to what was written.
TEST(TiffImage, ColourEncodedFilesReadLikeLibtiffsOwnRgbaDecode)
{
    struct Case
    {
        std::string name;
        std::uint32_t width;
        std::uint32_t height;
        std::function<void(std::string const&, std::uint32_t, std::uint32_t)> write;
        double loss;
    };
    std::vector<Case> const cases = {
        {"jpeg tiles", 64, 40, [](std::string const& p, std::uint32_t w, std::uint32_t h) { writeJpeg(p, w, h, 32); },
         12.0},
        {"old-style jpeg", 40, 24, writeOldStyleJpeg, 16.0},
        // Its samples are not colour(): only the decode is compared.
        {"ycbcr 2 x 2", 18, 12, writeSubsampledYCbCr, 255.0},
    };
    NuvekTest::TemporaryDirectory directory;
    for (Case const& test : cases)
    {
        std::string const path = directory.path(test.name + ".tif");
        test.write(path, test.width, test.height);
        std::vector<std::uint32_t> raster(test.width * test.height);
        TIFF* tiff = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(tiff, nullptr);
        ASSERT_EQ(TIFFReadRGBAImageOriented(tiff, test.width, test.height, raster.data(), ORIENTATION_TOPLEFT, 0), 1);
        TIFFClose(tiff);

        TiffImage image(path);
        ASSERT_EQ(image.getNumChannels(), 3) << test.name;
        EXPECT_EQ(image.getChannelName(2), "Blue");
        EXPECT_EQ(image.getValueRange().max, 255.0);
        Box const box(Vector(-1, -1, 0), Vector(test.width, test.height, 0));
        std::vector<double> expected;
        double largest = 0.0;
        for (long long c = 0; c < 3; ++c)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    bool const inside = x >= 0 && y >= 0 && x < test.width && y < test.height;
                    std::uint32_t const pixel = inside ? raster[static_cast<std::size_t>(y * test.width + x)] : 0;
                    expected.push_back(static_cast<double>((pixel >> (8 * c)) & 0xff));
                    if (inside)
                        largest = std::max(largest, std::fabs(expected.back() - colour(x, y, c)));
                }
        EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(image, 0, box), box, test.name));
        EXPECT_LE(largest, test.loss) << test.name;
    }
}
