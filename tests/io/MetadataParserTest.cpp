#include "io/internal/ImageJDescriptionParser.h"
#include "io/internal/OmeXmlParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Nuvek::FileMetadata;
using Nuvek::ImageJDescriptionParser;
using Nuvek::OmeXmlParser;

namespace {

std::string omeWith(std::string const& pixelsAttributes, std::string const& children)
{
    return R"(<?xml version="1.0" encoding="UTF-8"?><!-- a comment --><OME xmlns="http://www.openmicroscopy.org/Schemas/OME/2016-06">)"
           R"(<Image ID="Image:0"><Pixels ID="Pixels:0" Type="uint8" SizeX="4" SizeY="4" )" +
           pixelsAttributes + ">" + children + "</Pixels></Image></OME>";
}

} // namespace

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
