#include "io/internal/OmeXmlParser.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace Nuvek {

namespace {

// Planes per file beyond which the description is not believed (a damaged or hostile count).
constexpr long long maxPlanes = 1LL << 20;

bool named(xmlNode const* node, char const* name)
{
    return node->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<char const*>(node->name), name) == 0;
}

xmlNode* firstChild(xmlNode* parent, char const* name)
{
    for (xmlNode* child = parent == nullptr ? nullptr : parent->children; child != nullptr; child = child->next)
        if (named(child, name))
            return child;
    return nullptr;
}

bool attribute(xmlNode* node, char const* name, std::string& value)
{
    xmlChar* text = xmlGetProp(node, reinterpret_cast<xmlChar const*>(name));
    if (text == nullptr)
        return false;
    value = reinterpret_cast<char const*>(text);
    xmlFree(text);
    return true;
}

// A whole number attribute in [0, maxPlanes], else fallback.
long long count(xmlNode* node, char const* name, long long fallback)
{
    std::string text;
    if (!attribute(node, name, text))
        return fallback;
    char* end = nullptr;
    long long const value = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || *end != '\0' || value < 0 || value > maxPlanes)
        return fallback;
    return value;
}

// A physical size in nanometres, 0.0 when absent, not positive or in an unknown unit.
double size(xmlNode* pixels, char const* name)
{
    std::string text;
    if (!attribute(pixels, name, text))
        return 0.0;
    std::string unit = "\xC2\xB5m";
    attribute(pixels, (std::string(name) + "Unit").c_str(), unit);
    char* end = nullptr;
    double const value = std::strtod(text.c_str(), &end);
    double const nanometres = value * nanometresPerUnit(unit);
    if (end == text.c_str() || !(nanometres > 0.0) || !std::isfinite(nanometres))
        return 0.0;
    return nanometres;
}

// The channels as pages hold them, with their names: one Channel element each.
void readChannels(xmlNode* pixels, long long sizeC, FileMetadata& metadata)
{
    long long samples = 0;
    std::vector<std::string> names;
    for (xmlNode* child = pixels->children; child != nullptr; child = child->next)
        if (named(child, "Channel"))
        {
            samples += count(child, "SamplesPerPixel", 1);
            std::string name;
            attribute(child, "Name", name);
            names.push_back(name);
        }
    bool const grouped = !names.empty() && samples == sizeC;
    metadata.channels = grouped ? static_cast<long long>(names.size()) : sizeC;
    if (grouped || static_cast<long long>(names.size()) == sizeC)
        metadata.channelNames = names;
}

// The position of each of c, z and t in the page order: their strides.
bool strides(std::string const& order, long long const sizes[3], long long result[3])
{
    if (order.size() != 5 || order.compare(0, 2, "XY") != 0)
        return false;
    long long stride = 1;
    bool seen[3] = {false, false, false};
    for (std::size_t i = 2; i < 5; ++i)
    {
        char const* position = std::strchr("CZT", order[i]);
        if (order[i] == '\0' || position == nullptr || seen[position - "CZT"])
            return false;
        std::size_t const axis = static_cast<std::size_t>(position - "CZT");
        seen[axis] = true;
        result[axis] = stride;
        stride *= sizes[axis];
    }
    return true;
}

// Places planeCount planes, from position first on in dimension order, on pages ifd on.
void placePlanes(long long ifd, long long first, long long planeCount, long long const sizes[3],
                 long long const stride[3], FileMetadata& metadata)
{
    long long const planes = sizes[0] * sizes[1] * sizes[2];
    for (long long i = 0; i < planeCount && first + i < planes; ++i)
    {
        long long const position = first + i;
        long long const c = position / stride[0] % sizes[0];
        long long const z = position / stride[1] % sizes[1];
        long long const t = position / stride[2] % sizes[2];
        metadata.pageOfPlane[static_cast<std::size_t>(c + sizes[0] * (z + sizes[1] * t))] = ifd + i;
    }
}

// The text of an element, without surrounding white space.
std::string textOf(xmlNode* node)
{
    xmlChar* content = xmlNodeGetContent(node);
    std::string text = content == nullptr ? "" : reinterpret_cast<char const*>(content);
    xmlFree(content);
    std::size_t const first = text.find_first_not_of(" \t\r\n");
    std::size_t const last = text.find_last_not_of(" \t\r\n");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// One TiffData element: PlaneCount planes from (FirstC, FirstZ, FirstT) on pages IFD on; one plane
// when IFD is given without PlaneCount, every plane when neither is. Planes in another file of a
// multi-file set (a UUID other than this file's own) are left unplaced.
void placeTiffData(xmlNode* data, std::string const& fileUuid, long long const sizes[3], long long const stride[3],
                   FileMetadata& metadata)
{
    xmlNode* uuid = firstChild(data, "UUID");
    if (uuid != nullptr && !fileUuid.empty() && textOf(uuid) != fileUuid)
        return;
    bool const hasIfd = xmlHasProp(data, reinterpret_cast<xmlChar const*>("IFD")) != nullptr;
    long long const first = count(data, "FirstC", 0) * stride[0] + count(data, "FirstZ", 0) * stride[1] +
                            count(data, "FirstT", 0) * stride[2];
    long long const planeCount = count(data, "PlaneCount", hasIfd ? 1 : sizes[0] * sizes[1] * sizes[2]);
    placePlanes(count(data, "IFD", 0), first, planeCount, sizes, stride, metadata);
}

void readPlanes(xmlNode* pixels, std::string const& fileUuid, FileMetadata& metadata)
{
    long long const sizes[3] = {metadata.channels, metadata.slices, metadata.frames};
    long long stride[3] = {0, 0, 0};
    std::string order;
    attribute(pixels, "DimensionOrder", order);
    if (!strides(order, sizes, stride))
    {
        metadata.channels = 0;
        return;
    }
    metadata.pageOfPlane.assign(static_cast<std::size_t>(sizes[0] * sizes[1] * sizes[2]), -1);
    bool anyTiffData = false;
    for (xmlNode* child = pixels->children; child != nullptr; child = child->next)
        if (named(child, "TiffData"))
        {
            anyTiffData = true;
            placeTiffData(child, fileUuid, sizes, stride, metadata);
        }
    if (!anyTiffData)
        placePlanes(0, 0, sizes[0] * sizes[1] * sizes[2], sizes, stride, metadata);
}

void readPixels(xmlNode* pixels, std::string const& fileUuid, FileMetadata& metadata)
{
    long long const sizeC = count(pixels, "SizeC", 0);
    metadata.slices = count(pixels, "SizeZ", 0);
    metadata.frames = count(pixels, "SizeT", 0);
    readChannels(pixels, sizeC, metadata);
    if (metadata.channels < 1 || metadata.slices < 1 || metadata.frames < 1 ||
        metadata.channels * metadata.slices * metadata.frames > maxPlanes)
    {
        metadata = FileMetadata();
        return;
    }
    readPlanes(pixels, fileUuid, metadata);
    metadata.sizeX = size(pixels, "PhysicalSizeX");
    metadata.sizeY = size(pixels, "PhysicalSizeY");
    metadata.sizeZ = size(pixels, "PhysicalSizeZ");
}

} // namespace

FileMetadata OmeXmlParser::parse(std::string const& xml)
{
    static std::once_flag initialised;
    std::call_once(initialised, [] { xmlInitParser(); });
    FileMetadata metadata;
    if (xml.find("<OME") == std::string::npos || xml.size() > (1U << 30))
        return metadata;
    // No network, no entity substitution, no messages on the standard error stream.
    int const options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS;
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> document(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "ome.xml", nullptr, options), xmlFreeDoc);
    xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
    if (root == nullptr || !named(root, "OME"))
        return metadata;
    xmlNode* pixels = firstChild(firstChild(root, "Image"), "Pixels");
    std::string fileUuid;
    attribute(root, "UUID", fileUuid);
    if (pixels != nullptr)
        readPixels(pixels, fileUuid, metadata);
    return metadata;
}

} // namespace Nuvek
