#include "io/internal/OmeXml.h"

#include <cstdio>

namespace Nuvek {

namespace {

std::string micrometres(long long nanometres)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", static_cast<double>(nanometres) / 1000.0);
    return text;
}

} // namespace

std::string escapeXml(std::string const& text)
{
    std::string escaped;
    for (char const character : text)
    {
        unsigned char const code = static_cast<unsigned char>(character);
        switch (character)
        {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&apos;";
            break;
        default:
            escaped += code < 0x20 && code != '\t' && code != '\n' && code != '\r' ? ' ' : character;
        }
    }
    return escaped;
}

std::string omeXml(OmeDescription const& description)
{
    std::string const z = std::to_string(description.sizeZ);
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<OME xmlns=\"http://www.openmicroscopy.org/Schemas/OME/2016-06\" "
                      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                      "xsi:schemaLocation=\"http://www.openmicroscopy.org/Schemas/OME/2016-06 "
                      "http://www.openmicroscopy.org/Schemas/OME/2016-06/ome.xsd\" Creator=\"Nuvek\">\n";
    xml += "  <Image ID=\"Image:0\" Name=\"" + escapeXml(description.name) + "\">\n";
    xml += "    <Pixels ID=\"Pixels:0\" DimensionOrder=\"XYCZT\" Type=\"" + description.pixelType + "\" SizeX=\"" +
           std::to_string(description.sizeX) + "\" SizeY=\"" + std::to_string(description.sizeY) + "\" SizeZ=\"" + z +
           "\" SizeC=\"" + std::to_string(description.sizeC) + "\" SizeT=\"1\" BigEndian=\"false\" Interleaved=\"" +
           (description.interleaved ? "true" : "false") + "\"";
    char const* const axes[] = {"X", "Y", "Z"};
    long long const sizes[] = {description.voxelX, description.voxelY, description.voxelZ};
    for (int i = 0; i < 3; ++i)
        if (sizes[i] >= 1)
            xml += std::string(" PhysicalSize") + axes[i] + "=\"" + micrometres(sizes[i]) + "\" PhysicalSize" +
                   axes[i] + "Unit=\"\xc2\xb5m\"";
    xml += ">\n";
    long long planes = description.sizeZ;
    if (description.interleaved)
    {
        std::string const name = description.channelNames.empty() ? "" : description.channelNames.front();
        xml += "      <Channel ID=\"Channel:0:0\" Name=\"" + escapeXml(name) + "\" SamplesPerPixel=\"" +
               std::to_string(description.sizeC) + "\"/>\n";
    }
    else
    {
        for (long long c = 0; c < description.sizeC; ++c)
        {
            std::string const name = c < static_cast<long long>(description.channelNames.size())
                                         ? description.channelNames[static_cast<std::size_t>(c)]
                                         : "";
            xml += "      <Channel ID=\"Channel:0:" + std::to_string(c) + "\" Name=\"" + escapeXml(name) +
                   "\" SamplesPerPixel=\"1\"/>\n";
        }
        planes *= description.sizeC;
    }
    xml += "      <TiffData IFD=\"0\" PlaneCount=\"" + std::to_string(planes) + "\"/>\n";
    xml += "    </Pixels>\n  </Image>\n</OME>\n";
    return xml;
}

} // namespace Nuvek
