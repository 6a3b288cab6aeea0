#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "io/internal/ImageJDescriptionParser.h"
#include "io/internal/OmeXmlParser.h"
#include "support/NuvekTest.h"

#include <tiffio.h>

#include <algorithm>
#include <functional>
#include <tuple>

using Nuvek::FileMetadata;
using Nuvek::ImageJDescriptionParser;
using Nuvek::OmeXmlParser;
using Nuvek::TiffImage;
using namespace NuvekTest;

namespace {

// Channel c of slice z at a level is sample c % samples of page pageOf(c / samples, z, level).
using PageOf = std::function<long long(long long pageChannel, long long z, long long level)>;

long long firstPage(long long, long long, long long)
{
    return 0;
}

// Reads box at level and compares it with the pages' values, 0 outside a page and the slices.
::testing::AssertionResult readsPages(TiffImage& image, TiffLayout const& layout, PageOf const& pageOf, long long level,
                                      Box const& box)
{
    long long const depth = image.getExtent(level).z;
    auto const main = static_cast<long long>(layout.pages.size());
    std::vector<double> expected;
    for (long long c = 0; c < image.getNumChannels(); ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    long long const page = z >= 0 && z < depth ? pageOf(c / layout.samples, z, level) : 0;
                    PageShape const& shape = page < main ? layout.pages[static_cast<std::size_t>(page)]
                                                         : layout.subPages[static_cast<std::size_t>(page - main)];
                    bool const inside = z >= 0 && z < depth && x >= 0 && y >= 0 && x < shape.width && y < shape.height;
                    expected.push_back(inside ? storedValue(layout, page, x, y, c % layout.samples) : 0.0);
                }
    return sameBits(expected, openWhole(image, level, box), box, "level " + std::to_string(level));
}

// Every level the image has, whole with a frame around it.
void expectLevels(TiffImage& image, TiffLayout const& layout, PageOf const& pageOf)
{
    for (long long level = 0; level < image.getNumLevels(); ++level)
    {
        Box const box = Box(image.getExtent(level)).expanded(Vector(2, 1, 1));
        if (image.hasLevel(level))
        {
            EXPECT_TRUE(readsPages(image, layout, pageOf, level, box));
        }
    }
}

std::string omeWith(std::string const& pixelsAttributes, std::string const& children)
{
    return R"(<?xml version="1.0" encoding="UTF-8"?><!-- a comment --><OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)"
           R"(<Image ID="Image:0"><Pixels ID="Pixels:0" Type="uint8" SizeX="4" SizeY="4" )" +
           pixelsAttributes + ">" + children + "</Pixels></Image></OME>";
}

} // namespace

// Every sample type in every arrangement, with a level, against the values written; with the
// metadata of the tags: channel names, the value range (SMinSampleValue and SMaxSampleValue, else the type's for
// integers, a palette's indices included, and the data's for floating point), voxel size, tiles.
TEST(TiffImage, ReadsEverySampleLayoutAndItsMetadata)
{
    // Bits, floating point, signed, palette.
    std::tuple<std::uint16_t, bool, bool, bool> const types[] = {
        {8, false, false, false}, {16, false, false, false}, {32, false, false, false}, {8, false, true, false},
        {16, false, true, false}, {32, false, true, false},  {32, true, false, false},  {64, true, false, false},
        {8, false, false, true},  {16, false, false, true}};
    std::uint16_t const compressions[] = {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                                          COMPRESSION_PACKBITS};
    // 20000 pixels per unit in x, twice that in y: of no unit, an inch or a centimetre.
    Vector const sizes[] = {Vector(1, 1, 1), Vector(1270, 635, 1), Vector(500, 250, 1)};
    TemporaryDirectory directory;
    int variant = 0;
    for (auto const& [bits, floating, isSigned, palette] : types)
        for (bool planar : {false, true})
            for (bool tiled : {false, true})
                for (std::uint16_t samples : {1, 3, 4})
                {
                    if (palette && samples > 1)
                        continue;
                    TiffLayout layout;
                    layout.pages = {{53, 41}};
                    layout.bits = bits;
                    layout.floating = floating;
                    layout.isSigned = isSigned;
                    layout.palette = palette;
                    layout.planar = planar;
                    layout.samples = samples;
                    layout.rgb = samples >= 3;
                    layout.tileWidth = tiled ? 16 : 0;
                    layout.tileHeight = 32;
                    layout.compression = compressions[variant % 4];
                    layout.bigTiff = variant % 3 == 1;
                    layout.resolutionUnit = static_cast<std::uint16_t>(variant % 3 + 1);
                    layout.resolution = 20000.0f;
                    bool const given = floating && tiled;
                    layout.sampleMin = given ? -4.5 : 0.0;
                    layout.sampleMax = given ? 9.0 : 0.0;
                    // A level of half size as a page, or in BigTIFF as a SubIFD; a thumbnail of no
                    // power-of-two size and a mask before it are no levels.
                    std::vector<PageShape>& chain = layout.bigTiff ? layout.subPages : layout.pages;
                    chain.insert(chain.end(), {{40, 40, true}, {27, 21, true, "", true}, {27, 21, true}});
                    std::string const path = directory.path(std::to_string(variant++) + ".tif");
                    writeTiff(path, layout);
                    SCOPED_TRACE(path + ", " + std::to_string(samples) + " samples of " + std::to_string(bits) +
                                 (planar ? " bits, planar" : " bits"));

                    TiffImage image(path);
                    ASSERT_EQ(image.getExtent(0), Vector(53, 41, 1));
                    ASSERT_EQ(image.getNumChannels(), samples);
                    ASSERT_EQ(image.getNumLevels(), 2);
                    // Past the file's levels the halved size of the last.
                    EXPECT_EQ(image.getExtent(2), Vector(13, 10, 1));
                    expectLevels(image, layout, [](long long, long long, long long level) { return 3 * level; });
                    // From inside one tile or strip to inside another.
                    EXPECT_TRUE(readsPages(image, layout, firstPage, 0, Box(Vector(5, 9, 0), Vector(37, 30, 0))));
                    double const half = std::ldexp(1.0, bits - 1);
                    double low = isSigned ? -half : 0.0;
                    double high = (isSigned ? half : 2 * half) - 1;
                    if (floating)
                    {
                        // Of the coarsest level.
                        std::vector<double> const all = openWhole(image, 1, Box(image.getExtent(1)));
                        low = *std::min_element(all.begin(), all.end());
                        high = *std::max_element(all.begin(), all.end());
                    }
                    EXPECT_EQ(image.getValueRange().min, given ? -4.5 : low);
                    EXPECT_EQ(image.getValueRange().max, given ? 9.0 : high);
                    EXPECT_EQ(image.getChannelName(0), samples >= 3 ? "Red" : "Channel 0");
                    EXPECT_EQ(image.getChannelName(samples - 1),
                              samples == 3 ? "Blue" : "Channel " + std::to_string(samples - 1));
                    EXPECT_THROW(image.getChannelName(samples), std::runtime_error);
                    Vector const size = sizes[layout.resolutionUnit - 1];
                    EXPECT_EQ(image.getVoxelSize(0), size);
                    EXPECT_EQ(image.getVoxelSize(2), Vector(size.x * 4, size.y * 4, 1));
                    EXPECT_EQ(image.knowsVoxelSize(), layout.resolutionUnit > 1);
                    EXPECT_EQ(image.getTileExtent(), tiled ? Vector(16, 32, 1) : Vector(53, 7, 1));
                }
}

// Pages become channels, slices (each with its own levels) and time points as an ImageJ or OME-XML
// description says, else every page of full size is a slice.
TEST(TiffImage, PagesBecomeChannelsSlicesAndTimePoints)
{
    // 2 channels x 3 slices x 2 frames, channel fastest, then slice, then frame.
    // The unit escaped as ImageJ writes it, a Windows line end and lines of nonsense.
    std::string const imageJ = "ImageJ=1.53c\nimages=12\nchannels=2\nslices=3\nframes=2\nhyperstack=true\n"
                               "unit=\\u00B5m\r\nspacing=1.5\nnonsense\n=5\nmin=10.0\nmax=900.0\n";
    // 2 channels x 2 slices x 2 time points in XYZCT order, the pages listed backwards through
    // TiffData, so that both the order and the page numbers count.
    std::string ome = R"(<?xml version="1.0"?><OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)"
                      R"(<Image ID="Image:0"><Pixels DimensionOrder="XYZCT" SizeC="2" SizeZ="2" SizeT="2" )"
                      R"(SizeX="12" SizeY="8" Type="uint16" PhysicalSizeX="0.5" PhysicalSizeY="600" )"
                      R"(PhysicalSizeYUnit="nm" PhysicalSizeZ="0.002" PhysicalSizeZUnit="mm">)"
                      R"(<Channel ID="Channel:0:0" Name="DAPI" SamplesPerPixel="2"/><Channel ID="Channel:0:1" )"
                      R"(Name="GFP" SamplesPerPixel="2"/>)";
    for (int plane = 0; plane < 8; ++plane)
        ome += "<TiffData IFD=\"" + std::to_string(7 - plane) + "\" FirstZ=\"" + std::to_string(plane % 2) +
               "\" FirstC=\"" + std::to_string(plane / 2 % 2) + "\" FirstT=\"" + std::to_string(plane / 4) + "\"/>";
    std::vector<PageShape> const stack = {
        {12, 8, false, "first"}, {6, 4, true}, {12, 8, false, "second"}, {6, 4, true}, {12, 8}, {6, 4, true}};
    struct Case
    {
        std::string description;
        std::vector<PageShape> pages;
        long long times;
        std::uint16_t unit;
        float resolution;
        Vector extent;
        Vector voxelSize;
        std::string lastName;
        std::string secondSlice;
        double rangeMin;
        double rangeMax;
        std::function<long long(long long c, long long z, long long t, long long level)> pageOf;
    };
    std::vector<Case> const cases = {
        // 4 pixels per micron in x, 8 in y.
        {imageJ, std::vector<PageShape>(12, {12, 8}), 2, 1, 4.0f, Vector(12, 8, 3), Vector(250, 125, 1500), "Channel 3",
         "", 10.0, 900.0, [](long long c, long long z, long long t, long long) { return c + 2 * (z + 3 * t); }},
        // OME's sizes win over the resolution tags.
        {ome + "</Pixels></Image></OME>", std::vector<PageShape>(8, {12, 8}), 2, 3, 20000.0f, Vector(12, 8, 2),
         Vector(500, 600, 2000), "GFP Channel 3", "", 0.0, 65535.0,
         [](long long c, long long z, long long t, long long) { return 7 - (z + 2 * c + 4 * t); }},
        // Counts that do not fit the pages: every page is a slice, as without a description.
        {"ImageJ=1.53c\nimages=6\nchannels=2\nslices=3\n", std::vector<PageShape>(5, {12, 8}), 1, 0, 0.0f,
         Vector(12, 8, 5), Vector(1, 1, 1), "Channel 1", "", 0.0, 65535.0,
         [](long long, long long z, long long, long long) { return z; }},
        // A stack of named pages, each followed by its level.
        {"", stack, 1, 0, 0.0f, Vector(12, 8, 3), Vector(1, 1, 1), "Channel 1", "second", 0.0, 65535.0,
         [](long long, long long z, long long, long long level) { return 2 * z + level; }},
    };
    TemporaryDirectory directory;
    for (Case const& item : cases)
    {
        TiffLayout layout;
        layout.samples = 2;
        layout.bits = 16;
        layout.description = item.description;
        layout.pages = item.pages;
        layout.resolutionUnit = item.unit;
        layout.resolution = item.resolution;
        std::string const path = directory.path(std::to_string(&item - cases.data()) + ".tif");
        writeTiff(path, layout);
        for (long long time = 0; time < item.times; ++time)
        {
            SCOPED_TRACE(path + ", time " + std::to_string(time));
            TiffImage image(path, time);
            ASSERT_EQ(image.getExtent(0), item.extent);
            EXPECT_EQ(image.getVoxelSize(0), item.voxelSize);
            EXPECT_EQ(image.knowsVoxelSize(), item.unit > 0);
            EXPECT_EQ(image.getChannelName(image.getNumChannels() - 1), item.lastName);
            EXPECT_EQ(image.getSliceName(1), item.secondSlice);
            EXPECT_EQ(image.getValueRange().min, item.rangeMin);
            EXPECT_EQ(image.getValueRange().max, item.rangeMax);
            expectLevels(image, layout,
                         [&](long long c, long long z, long long level) { return item.pageOf(c, z, time, level); });
        }
    }

    // A slice without the level makes the level absent for the whole volume.
    TiffLayout ragged;
    ragged.pages = stack;
    ragged.pages.pop_back();
    writeTiff(directory.path("ragged.tif"), ragged);
    EXPECT_EQ(TiffImage(directory.path("ragged.tif")).getNumLevels(), 1);
}

// JPEG in YCbCr, old-style JPEG and subsampled YCbCr read as libtiff's own RGBA decode gives them,
// 0 outside; the JPEG ones also close to what was written.
TEST(TiffImage, ColourEncodedFilesReadLikeLibtiffsOwnRgbaDecode)
{
    TemporaryDirectory directory;
    TiffLayout jpeg;
    jpeg.pages = {{64, 40}};
    jpeg.samples = 3;
    jpeg.ycbcr = true;
    jpeg.compression = COMPRESSION_JPEG;
    jpeg.rowsPerStrip = 40;
    writeTiff(directory.path("strip.tif"), jpeg);
    jpeg.tileWidth = 32;
    jpeg.tileHeight = 32;
    writeTiff(directory.path("jpeg.tif"), jpeg);

    // Uncompressed with 2 x 2 chroma subsampling: each 2 x 2 block is its four Y values, then Cb and Cr.
    std::vector<unsigned char> blocks;
    for (unsigned block = 0; block < 32 * 20; ++block)
        for (unsigned k = 0; k < 6; ++k)
            blocks.push_back(static_cast<unsigned char>(k < 4 ? block * 37 + k * 11 : 100 + block % 50 + k * 20));
    std::vector<RawEntry> entries = {
        {256, 3, 1, 64}, {257, 3, 1, 40}, {258, 3, 1, 8},  {259, 3, 1, 1},    {262, 3, 1, 6},
        {273, 4, 1, 8},  {277, 3, 1, 3},  {278, 3, 1, 40}, {279, 4, 1, 3840}, {530, 3, 2, 2 + (2u << 16)}};
    writeBytes(directory.path("ycbcr.tif"), rawTiff(entries, blocks));
    // An old-style JPEG file (compression 6) around the one strip of the JPEG file.
    TIFF* tiff = TIFFOpen(directory.path("strip.tif").c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    std::vector<unsigned char> stream(static_cast<std::size_t>(TIFFRawStripSize(tiff, 0)));
    ASSERT_GT(TIFFReadRawStrip(tiff, 0, stream.data(), static_cast<tmsize_t>(stream.size())), 0);
    TIFFClose(tiff);
    auto const length = static_cast<std::uint32_t>(stream.size());
    entries[3].value = 6;
    entries[8].value = length;
    entries.insert(entries.end(), {{513, 4, 1, 8}, {514, 4, 1, length}});
    writeBytes(directory.path("old.tif"), rawTiff(entries, stream));

    for (std::string const name : {"jpeg.tif", "old.tif", "ycbcr.tif"})
    {
        std::string const path = directory.path(name);
        std::vector<std::uint32_t> raster(64 * 40);
        TIFF* decoded = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(decoded, nullptr);
        ASSERT_EQ(TIFFReadRGBAImageOriented(decoded, 64, 40, raster.data(), ORIENTATION_TOPLEFT, 0), 1);
        TIFFClose(decoded);
        TiffImage image(path);
        EXPECT_EQ(image.getChannelName(2), "Blue");
        EXPECT_EQ(image.getValueRange().max, 255.0);
        Box const box(Vector(-1, -1, 0), Vector(64, 40, 0));
        std::vector<double> expected;
        double loss = 0.0;
        for (long long c = 0; c < 3; ++c)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    bool const inside = x >= 0 && y >= 0 && x < 64 && y < 40;
                    std::uint32_t const pixel = inside ? raster[static_cast<std::size_t>(y * 64 + x)] : 0;
                    expected.push_back(static_cast<double>((pixel >> (8 * c)) & 0xff));
                    loss += inside ? std::fabs(expected.back() - storedValue(jpeg, 0, x, y, c)) : 0.0;
                }
        EXPECT_TRUE(sameBits(expected, openWhole(image, 0, box), box, name));
        EXPECT_TRUE(name == "ycbcr.tif" || loss / (64 * 40 * 3) < 12.0) << name << " loses " << loss / (64 * 40 * 3);
    }
}

// The channels and the page of each plane (channel fastest, then slice, then time point) that
// OME-XML gives; nothing for text that is no usable OME-XML. Sizes and names are read through
// TiffImage's test.
TEST(OmeXmlParser, PlacesPlanesOnPagesOrGivesNothing)
{
    std::string other =
        omeWith(R"(DimensionOrder="XYCZT" SizeC="2" SizeZ="1" SizeT="1")",
                "<TiffData IFD=\"0\" FirstC=\"0\"><UUID FileName=\"a.ome.tif\"> urn:uuid:a\n </UUID></TiffData>"
                R"(<TiffData IFD="0" FirstC="1"><UUID FileName="b.ome.tif">urn:uuid:b</UUID></TiffData>)");
    other.replace(other.find("<OME "), 5, R"(<OME UUID="urn:uuid:a" )");
    struct Case
    {
        std::string text;
        long long channels;
        std::vector<long long> pages;
    };
    std::vector<Case> const cases = {
        // XYZTC without TiffData: pages hold z fastest, then t, then c.
        {omeWith(R"(DimensionOrder="XYZTC" SizeC="2" SizeZ="3" SizeT="2")", ""),
         2,
         {0, 6, 1, 7, 2, 8, 3, 9, 4, 10, 5, 11}},
        // A run from (c 1, z 0) on, in XYCZT order, on pages 5 and 6; a single plane on page 9.
        {omeWith(R"(DimensionOrder="XYCZT" SizeC="2" SizeZ="2" SizeT="1")",
                 R"(<TiffData IFD="5" FirstC="1" PlaneCount="2"/><TiffData IFD="9"/>)"),
         2,
         {9, 5, 6, -1}},
        // Planes in other files of a set stay unplaced.
        {other, 2, {0, -1}},
        // One Channel of three samples: the pages are RGB, one channel each.
        {omeWith(R"(DimensionOrder="XYCZT" SizeC="3" SizeZ="1" SizeT="1")",
                 R"(<Channel ID="Channel:0:0" Name="Colour" SamplesPerPixel="3"/>)"),
         1,
         {0}},
        {"", 0, {}},
        {"Aperio Image Library", 0, {}},
        {"<OME><Image><Pixels DimensionOrder=\"XYCZT\" SizeC=\"1\"", 0, {}},
        {omeWith(R"(DimensionOrder="XYCZT" SizeC="0" SizeZ="1" SizeT="1")", ""), 0, {}},
        {omeWith(R"(DimensionOrder="XYCCT" SizeC="1" SizeZ="1" SizeT="1")", ""), 0, {}},
        {omeWith(R"(DimensionOrder="XYCZT" SizeC="99999999" SizeZ="99999" SizeT="1")", ""), 0, {}},
        {"<!DOCTYPE OME [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><OME>&e;</OME>", 0, {}},
    };
    for (Case const& item : cases)
    {
        FileMetadata const metadata = OmeXmlParser::parse(item.text);
        EXPECT_EQ(metadata.channels, item.channels) << item.text;
        EXPECT_EQ(metadata.pageOfPlane, item.pages) << item.text;
    }
    // A size in a unit it does not know is no size.
    std::string const furlong = R"(DimensionOrder="XYCZT" SizeC="1" SizeZ="1" SizeT="1" PhysicalSizeX="2" )"
                                R"(PhysicalSizeXUnit="furlong")";
    EXPECT_EQ(OmeXmlParser::parse(omeWith(furlong, "")).sizeX, 0.0);
}

// Counts, unit, spacing and range of a hyperstack are read through TiffImage's test.
TEST(ImageJDescriptionParser, StacksDefaultsAndNonsense)
{
    // A plain stack: every image a slice.
    FileMetadata const stack = ImageJDescriptionParser::parse("ImageJ=1.53c\nimages=7\nunit=inch\n");
    EXPECT_EQ(stack.slices, 7);
    EXPECT_EQ(stack.frames, 1);
    EXPECT_EQ(stack.resolutionUnit, 2.54e7);
    EXPECT_EQ(stack.sizeZ, 0.0);
    EXPECT_FALSE(stack.hasRange);

    FileMetadata const odd =
        ImageJDescriptionParser::parse("ImageJ=\nchannels=-2\nslices=2.5\nframes=1e30\nmin=9\nmax=3\nunit=parsec\n");
    EXPECT_EQ(odd.channels, 1);
    EXPECT_EQ(odd.slices, 1);
    EXPECT_EQ(odd.frames, 1);
    EXPECT_EQ(odd.resolutionUnit, 0.0);
    EXPECT_FALSE(odd.hasRange);

    EXPECT_EQ(ImageJDescriptionParser::parse("channels=3\nImageJ=1.5").channels, 0);
}
