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

TEST(OmeXmlParser, PagesFollowTheDimensionOrderWithoutTiffData)
{
    // 2 channels, 3 slices, 2 time points; XYZTC: z fastest, then t, then c.
    FileMetadata const metadata =
        OmeXmlParser::parse(omeWith(R"(DimensionOrder="XYZTC" SizeC="2" SizeZ="3" SizeT="2")", ""));
    ASSERT_EQ(metadata.channels, 2);
    ASSERT_EQ(metadata.slices, 3);
    ASSERT_EQ(metadata.frames, 2);
    ASSERT_EQ(metadata.pageOfPlane.size(), 12u);
    for (long long c = 0; c < 2; ++c)
        for (long long z = 0; z < 3; ++z)
            for (long long t = 0; t < 2; ++t)
                EXPECT_EQ(metadata.pageOfPlane[static_cast<std::size_t>(c + 2 * (z + 3 * t))], z + 3 * (t + 2 * c))
                    << c << z << t;
}

// A run of planes from (c 1, z 0) on, in XYCZT order, on pages 5 and 6; a single plane on page 9;
// planes in other files of a set stay unplaced.
TEST(OmeXmlParser, TiffDataPlacesRunsOfPlanesOfThisFileOnly)
{
    FileMetadata const metadata =
        OmeXmlParser::parse(omeWith(R"(DimensionOrder="XYCZT" SizeC="2" SizeZ="2" SizeT="1")",
                                    R"(<TiffData IFD="5" FirstC="1" PlaneCount="2"/><TiffData IFD="9"/>)"));
    EXPECT_EQ(metadata.pageOfPlane, (std::vector<long long>{9, 5, 6, -1}));

    std::string xml =
        omeWith(R"(DimensionOrder="XYCZT" SizeC="2" SizeZ="1" SizeT="1")",
                "<TiffData IFD=\"0\" FirstC=\"0\"><UUID FileName=\"a.ome.tif\"> urn:uuid:a\n </UUID></TiffData>"
                R"(<TiffData IFD="0" FirstC="1"><UUID FileName="b.ome.tif">urn:uuid:b</UUID></TiffData>)");
    xml.replace(xml.find("<OME "), 5, R"(<OME UUID="urn:uuid:a" )");
    EXPECT_EQ(OmeXmlParser::parse(xml).pageOfPlane, (std::vector<long long>{0, -1}));
}

// Sizes in their units and channel names are read through TiffImage's test.
TEST(OmeXmlParser, OneChannelOfThreeSamplesAndUnknownUnits)
{
    FileMetadata const metadata =
        OmeXmlParser::parse(omeWith(R"(DimensionOrder="XYCZT" SizeC="3" SizeZ="1" SizeT="1")",
                                    R"(<Channel ID="Channel:0:0" Name="Colour" SamplesPerPixel="3"/>)"));
    // One Channel of three samples: the pages are RGB, one channel each.
    EXPECT_EQ(metadata.channels, 1);
    EXPECT_EQ(metadata.channelNames, (std::vector<std::string>{"Colour"}));

    FileMetadata const unknownUnit = OmeXmlParser::parse(omeWith(
        R"(DimensionOrder="XYCZT" SizeC="1" SizeZ="1" SizeT="1" PhysicalSizeX="2" PhysicalSizeXUnit="furlong")", ""));
    EXPECT_EQ(unknownUnit.channels, 1);
    EXPECT_EQ(unknownUnit.sizeX, 0.0);
}

TEST(OmeXmlParser, AnythingElseGivesNoMetadata)
{
    std::vector<std::string> const texts = {
        "",
        "Aperio Image Library",
        "<OME><Image><Pixels DimensionOrder=\"XYCZT\" SizeC=\"1\"", // cut off
        omeWith(R"(DimensionOrder="XYCZT" SizeC="0" SizeZ="1" SizeT="1")", ""),
        omeWith(R"(DimensionOrder="XYCCT" SizeC="1" SizeZ="1" SizeT="1")", ""),
        omeWith(R"(DimensionOrder="XYCZT" SizeC="99999999" SizeZ="99999" SizeT="1")", ""),
        "<!DOCTYPE OME [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><OME>&e;</OME>",
    };
    for (std::string const& text : texts)
    {
        FileMetadata const metadata = OmeXmlParser::parse(text);
        EXPECT_EQ(metadata.channels, 0) << text;
        EXPECT_TRUE(metadata.pageOfPlane.empty()) << text;
    }
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
