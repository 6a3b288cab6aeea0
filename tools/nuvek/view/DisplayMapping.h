#pragma once

#include <array>
#include <string>

namespace NuvekTool {

enum class ColourMap
{
    Grey,
    Heat,
    Viridis
};

/// \brief How `nuvek view` turns a chain's values into 8-bit RGBA display voxels.
///
/// A value v becomes the byte round(255 * (v - min) / (max - min)), clamped to 0..255 (halves round
/// up); when max <= min a value of at least min is 255 and any other 0. NaN is 0 and makes the voxel
/// transparent (alpha 0; every other voxel has alpha 255). One shown channel (an image of one channel,
/// or `channel` chosen) is grey or goes through a colour map indexed by that byte; otherwise the first
/// three channels are red, green and blue (a missing third channel is 0).
class DisplayMapping
{
public:
    DisplayMapping() = default;
    DisplayMapping(double min, double max, ColourMap colourMap, long long channel);

    /// Writes 4 bytes (RGBA) per voxel for `voxels` voxels of `channels` channel planes.
    void apply(double const* values, long long voxels, long long channels, unsigned char* rgba) const;

    /// The display byte of one value.
    unsigned char toByte(double value) const;

    /// Canonical text of the mapping, part of the tile cache's key.
    std::string describe() const;

    double getMin() const { return min; }
    double getMax() const { return max; }
    ColourMap getColourMap() const { return colourMap; }
    /// -1: every channel (RGB for several); otherwise the one channel shown.
    long long getChannel() const { return channel; }

    /// The colour of a display byte under a colour map.
    static std::array<unsigned char, 3> colourOf(ColourMap colourMap, unsigned char byte);
    /// "grey", "heat" or "viridis"; throws std::runtime_error for any other name.
    static ColourMap colourMapNamed(std::string const& name);
    static char const* nameOf(ColourMap colourMap);

private:
    double min = 0.0;
    double max = 255.0;
    ColourMap colourMap = ColourMap::Grey;
    long long channel = -1;
};

} // namespace NuvekTool
