#include "io/internal/FileMetadata.h"

#include <utility>

namespace Nuvek {

double nanometresPerUnit(std::string const& unit)
{
    static std::pair<char const*, double> const units[] = {
        {"pm", 1e-3},       {"\xC3\x85", 0.1},  {"\xE2\x84\xAB", 0.1}, {"A", 0.1},  {"nm", 1.0},
        {"nanometer", 1.0}, {"\xC2\xB5m", 1e3}, {"\xCE\xBCm", 1e3},    {"um", 1e3}, {"micron", 1e3},
        {"microns", 1e3},   {"\\u00B5m", 1e3},  {"mm", 1e6},           {"cm", 1e7}, {"m", 1e9},
        {"inch", 2.54e7},   {"in", 2.54e7},
    };
    for (auto const& entry : units)
        if (unit == entry.first)
            return entry.second;
    return 0.0;
}

} // namespace Nuvek
