#pragma once

#include <nuvek/core/Box.h>

namespace Nuvek {

/// \brief The box at toLevel that covers the same area as box at fromLevel; z is unchanged.
///
/// Towards a finer level every voxel becomes a block of 2^(fromLevel - toLevel) voxels in x and y,
/// so the extent grows by exactly that factor: min * f to (max + 1) * f - 1. Towards a coarser level
/// the result is the smallest box covering the input: min and max are divided by the factor,
/// rounding towards minus infinity. This matches the extents of MemoryImage, which are the level-0
/// extent divided by 2^level with truncation, and the block averaging of the downsample filter.
Box convertToLevel(Box const& box, long long fromLevel, long long toLevel);

/// \brief Converts r, g, b in [0, 1] to hue in degrees in [0, 360) and saturation and value in [0, 1].
///
/// Greys (including black) get hue 0 and saturation 0. Defined inline so that per-voxel loops can
/// inline it; NaN inputs give NaN outputs rather than a crash.
inline void convertRGBToHSV(double r, double g, double b, double& h, double& s, double& v)
{
    double const maximum = r > g ? (r > b ? r : b) : (g > b ? g : b);
    double const minimum = r < g ? (r < b ? r : b) : (g < b ? g : b);
    double const delta = maximum - minimum;
    v = maximum;
    s = maximum > 0.0 ? delta / maximum : 0.0;
    if (!(delta > 0.0))
    {
        h = delta == 0.0 ? 0.0 : delta;
        return;
    }
    double hue;
    if (maximum == r)
        hue = (g - b) / delta;
    else if (maximum == g)
        hue = (b - r) / delta + 2.0;
    else
        hue = (r - g) / delta + 4.0;
    hue *= 60.0;
    if (hue < 0.0)
        hue += 360.0;
    // A tiny negative hue plus 360 can round up to 360 itself.
    if (hue >= 360.0)
        hue -= 360.0;
    h = hue;
}

} // namespace Nuvek
