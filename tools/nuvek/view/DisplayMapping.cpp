#include "view/DisplayMapping.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace NuvekTool {

namespace {

struct Stop
{
    double at;
    double red, green, blue;
};

// Colour maps as stops interpolated linearly in RGB.
Stop const heatStops[] = {{0.0, 0, 0, 0}, {1.0 / 3.0, 255, 0, 0}, {2.0 / 3.0, 255, 255, 0}, {1.0, 255, 255, 255}};
Stop const viridisStops[] = {{0.0, 68, 1, 84},      {0.125, 71, 44, 122},  {0.25, 59, 81, 139},
                             {0.375, 44, 113, 142}, {0.5, 33, 144, 141},   {0.625, 39, 173, 129},
                             {0.75, 92, 200, 99},   {0.875, 170, 220, 50}, {1.0, 253, 231, 37}};

template <std::size_t N>
std::array<unsigned char, 3> interpolate(Stop const (&stops)[N], unsigned char byte)
{
    double const t = byte / 255.0;
    std::size_t i = 1;
    while (i + 1 < N && stops[i].at < t)
        ++i;
    Stop const& low = stops[i - 1];
    Stop const& high = stops[i];
    double const f = (t - low.at) / (high.at - low.at);
    auto mix = [f](double a, double b) { return static_cast<unsigned char>(std::floor(a + (b - a) * f + 0.5)); };
    return {mix(low.red, high.red), mix(low.green, high.green), mix(low.blue, high.blue)};
}

} // namespace

DisplayMapping::DisplayMapping(double min, double max, ColourMap colourMap, long long channel)
    : min(min), max(max), colourMap(colourMap), channel(channel)
{
}

unsigned char DisplayMapping::toByte(double value) const
{
    if (std::isnan(value))
        return 0;
    if (!(max > min))
        return value >= min ? 255 : 0;
    double const scaled = 255.0 * (value - min) / (max - min);
    if (!(scaled > 0.0))
        return 0;
    if (scaled >= 255.0)
        return 255;
    return static_cast<unsigned char>(std::floor(scaled + 0.5));
}

void DisplayMapping::apply(double const* values, long long voxels, long long channels, unsigned char* rgba) const
{
    bool const single = channel >= 0 || channels == 1;
    if (single)
    {
        double const* plane = values + (channel >= 0 ? channel : 0) * voxels;
        for (long long i = 0; i < voxels; ++i)
        {
            unsigned char const byte = toByte(plane[i]);
            std::array<unsigned char, 3> const colour = colourMap == ColourMap::Grey
                                                            ? std::array<unsigned char, 3>{byte, byte, byte}
                                                            : colourOf(colourMap, byte);
            rgba[4 * i] = colour[0];
            rgba[4 * i + 1] = colour[1];
            rgba[4 * i + 2] = colour[2];
            rgba[4 * i + 3] = std::isnan(plane[i]) ? 0 : 255;
        }
        return;
    }
    long long const shown = channels < 3 ? channels : 3;
    for (long long i = 0; i < voxels; ++i)
    {
        bool missing = false;
        for (long long c = 0; c < 3; ++c)
        {
            double const value = c < shown ? values[c * voxels + i] : 0.0;
            missing = missing || std::isnan(value);
            rgba[4 * i + c] = c < shown ? toByte(value) : 0;
        }
        rgba[4 * i + 3] = missing ? 0 : 255;
    }
}

std::string DisplayMapping::describe() const
{
    char text[160];
    std::snprintf(text, sizeof text, "%a,%a,%s,%lld", min, max, nameOf(colourMap), channel);
    return text;
}

std::array<unsigned char, 3> DisplayMapping::colourOf(ColourMap colourMap, unsigned char byte)
{
    switch (colourMap)
    {
    case ColourMap::Heat:
        return interpolate(heatStops, byte);
    case ColourMap::Viridis:
        return interpolate(viridisStops, byte);
    case ColourMap::Grey:
        break;
    }
    return {byte, byte, byte};
}

ColourMap DisplayMapping::colourMapNamed(std::string const& name)
{
    if (name == "grey")
        return ColourMap::Grey;
    if (name == "heat")
        return ColourMap::Heat;
    if (name == "viridis")
        return ColourMap::Viridis;
    throw std::runtime_error("unknown colour map '" + name + "': use grey, heat or viridis.");
}

char const* DisplayMapping::nameOf(ColourMap colourMap)
{
    switch (colourMap)
    {
    case ColourMap::Heat:
        return "heat";
    case ColourMap::Viridis:
        return "viridis";
    case ColourMap::Grey:
        break;
    }
    return "grey";
}

} // namespace NuvekTool
