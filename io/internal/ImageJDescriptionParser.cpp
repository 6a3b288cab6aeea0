#include "io/internal/ImageJDescriptionParser.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>

namespace Nuvek {

namespace {

// Pages beyond which a count is not believed.
constexpr long long maxPages = 1LL << 20;

std::map<std::string, std::string> keyValues(std::string const& description)
{
    std::map<std::string, std::string> values;
    std::istringstream lines(description);
    std::string line;
    while (std::getline(lines, line))
    {
        std::size_t const equals = line.find('=');
        if (equals == std::string::npos || equals == 0)
            continue;
        std::string value = line.substr(equals + 1);
        while (!value.empty() && (value.back() == '\r' || value.back() == ' '))
            value.pop_back();
        values.emplace(line.substr(0, equals), value);
    }
    return values;
}

bool number(std::map<std::string, std::string> const& values, char const* key, double& result)
{
    auto const found = values.find(key);
    if (found == values.end())
        return false;
    char const* text = found->second.c_str();
    char* end = nullptr;
    double const value = std::strtod(text, &end);
    if (end == text || !std::isfinite(value))
        return false;
    result = value;
    return true;
}

long long pageCount(std::map<std::string, std::string> const& values, char const* key)
{
    double value = 1.0;
    if (!number(values, key, value) || !(value >= 1.0) || !(value <= static_cast<double>(maxPages)) ||
        value != std::floor(value))
        return 1;
    return static_cast<long long>(value);
}

} // namespace

FileMetadata ImageJDescriptionParser::parse(std::string const& description)
{
    FileMetadata metadata;
    if (description.compare(0, 7, "ImageJ=") != 0)
        return metadata;
    std::map<std::string, std::string> const values = keyValues(description);
    metadata.channels = pageCount(values, "channels");
    metadata.slices = pageCount(values, "slices");
    metadata.frames = pageCount(values, "frames");
    // A plain stack says only how many images it has: they are its slices.
    if (metadata.channels * metadata.slices * metadata.frames == 1)
        metadata.slices = pageCount(values, "images");
    if (metadata.channels * metadata.slices * metadata.frames > maxPages)
        metadata.channels = metadata.slices = metadata.frames = 1;
    auto const unit = values.find("unit");
    if (unit != values.end())
        metadata.resolutionUnit = nanometresPerUnit(unit->second);
    double spacing = 0.0;
    if (metadata.resolutionUnit > 0.0 && number(values, "spacing", spacing) && spacing > 0.0)
        metadata.sizeZ = spacing * metadata.resolutionUnit;
    metadata.hasRange =
        number(values, "min", metadata.min) && number(values, "max", metadata.max) && metadata.min < metadata.max;
    return metadata;
}

} // namespace Nuvek
