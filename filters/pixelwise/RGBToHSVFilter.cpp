#include "filters/internal/RequestBands.h"
#include "filters/internal/TargetClones.h"
#include <nuvek/filters/pixelwise/RGBToHSVFilter.h>

#include <nuvek/core/Conversions.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace Nuvek {

namespace {

constexpr long long blockLength = 4;
// Values (all channels) of the bands that a large request is read and converted in.
constexpr long long bandValues = 1LL << 17;

// The planes a pass reads and those it writes, voxel by voxel; a pass may write where it reads.
struct Planes
{
    double const* red;
    double const* green;
    double const* blue;
    double* hue;
    double* saturation;
    double* value;
};

// Plain pass: voxel by voxel through the core's conversion.
void convertOneByOne(Planes const& planes, long long begin, long long end, double low, double span)
{
    for (long long i = begin; i < end; ++i)
    {
        double hue = 0.0, saturation = 0.0, value = 0.0;
        convertRGBToHSV((planes.red[i] - low) / span, (planes.green[i] - low) / span, (planes.blue[i] - low) / span,
                        hue, saturation, value);
        planes.hue[i] = std::floor(hue / 360.0 * 255.0);
        planes.saturation[i] = std::floor(saturation * 255.0);
        planes.value[i] = std::floor(value * 255.0);
    }
}

// Fast pass: the conversion's operations on the same operands, but every branch is computed and the
// results are selected, so that the loop vectorises.
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
NUVEK_TARGET_CLONES
#endif
void convertBySelection(Planes const& planes, long long count, double low, double span)
{
    double const* const red = planes.red;
    double const* const green = planes.green;
    double const* const blue = planes.blue;
    double* const hueOut = planes.hue;
    double* const saturationOut = planes.saturation;
    double* const valueOut = planes.value;
    // Voxel i reads only index i of each plane before writing index i, so even planes written where
    // they are read carry nothing from one voxel to the next.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC ivdep
#endif
    for (long long i = 0; i < count; ++i)
    {
        double const r = (red[i] - low) / span;
        double const g = (green[i] - low) / span;
        double const b = (blue[i] - low) / span;
        // Every comparison is made unconditionally: a comparison that only some branch makes
        // could not be hoisted, and the loop would not vectorise.
        bool const redAboveGreen = r > g, redAboveBlue = r > b, greenAboveBlue = g > b;
        bool const redBelowGreen = r < g, redBelowBlue = r < b, greenBelowBlue = g < b;
        double const maximum = redAboveGreen ? (redAboveBlue ? r : b) : (greenAboveBlue ? g : b);
        double const minimum = redBelowGreen ? (redBelowBlue ? r : b) : (greenBelowBlue ? g : b);
        double const delta = maximum - minimum;

        double const ratio = delta / maximum;
        bool const positiveMaximum = maximum > 0.0;
        double const saturation = positiveMaximum ? ratio : 0.0;

        double const greenMinusBlue = g - b;
        double const blueMinusRed = b - r;
        double const redMinusGreen = r - g;
        bool const redIsMaximum = maximum == r;
        bool const greenIsMaximum = maximum == g;
        double const numerator = redIsMaximum ? greenMinusBlue : (greenIsMaximum ? blueMinusRed : redMinusGreen);
        double const quotient = numerator / delta;
        double const shifted = quotient + (greenIsMaximum ? 2.0 : 4.0);
        double const degrees = (redIsMaximum ? quotient : shifted) * 60.0;
        bool const negative = degrees < 0.0;
        double const raised = degrees + 360.0;
        double const positive = negative ? raised : degrees;
        bool const full = positive >= 360.0;
        double const lowered = positive - 360.0;
        double const wrapped = full ? lowered : positive;
        // Greys: 0 for a zero spread, the spread itself when it is NaN.
        bool const zeroSpread = delta == 0.0;
        bool const positiveSpread = delta > 0.0;
        double const grey = zeroSpread ? 0.0 : delta;
        double const hue = positiveSpread ? wrapped : grey;

        hueOut[i] = std::floor(hue / 360.0 * 255.0);
        saturationOut[i] = std::floor(saturation * 255.0);
        valueOut[i] = std::floor(maximum * 255.0);
    }
}

// Both passes perform the same operations per voxel, so they give the same bits; the selecting one
// takes whole blocks, the plain one the rest.
void convertPlanes(Planes const& planes, long long count, double low, double span)
{
    long long const blocked = count - count % blockLength;
    convertBySelection(planes, blocked, low, span);
    convertOneByOne(planes, blocked, count, low, span);
}

} // namespace

RGBToHSVFilter::RGBToHSVFilter(Image* input, bool ownsInput) : Filter(input, ownsInput)
{
}

ValueRange<double> RGBToHSVFilter::getValueRange() const
{
    return ValueRange<double>(0.0, 255.0);
}

std::string RGBToHSVFilter::getChannelName(long long index)
{
    switch (index)
    {
    case 0:
        return "Hue";
    case 1:
        return "Saturation";
    case 2:
        return "Value";
    default:
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    }
}

void RGBToHSVFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const size = box.getSize();
    if (size == 0)
        return;
    long long const inputChannels = input->getNumChannels();
    if (inputChannels < 3)
        throw std::runtime_error("Cannot convert RGB to HSV: the input has " + std::to_string(inputChannels) +
                                 " channels, at least three are needed.");

    ValueRange<double> const range = input->getValueRange();
    double const span = range.max - range.min;
    Vector const extent = box.getExtent();
    // Every voxel is converted on its own, so bands give the same bits. A large request of one slice
    // is read band by band and converted from the band into out while the band is in the caches,
    // instead of one pass over memory to read and another to convert.
    if (extent.z == 1 && RequestBands::splits(input, box, inputChannels, getExtent(level)))
    {
        // Bands of about 2^17 values (1 MiB, all channels) stay in the second-level cache from the
        // input's writing to the conversion; the filter has no margin, so thin bands cost nothing.
        long long const rows = std::max(1LL, bandValues / inputChannels / extent.x);
        std::vector<double> values(static_cast<std::size_t>(std::min(rows, extent.y) * extent.x * inputChannels));
        double const* const band = values.data();
        for (long long y = box.min.y; y <= box.max.y; y += rows)
        {
            Box const part(Vector(box.min.x, y, box.min.z),
                           Vector(box.max.x, std::min(box.max.y, y + rows - 1), box.max.z));
            long long const partSize = part.getSize();
            long long const offset = (y - box.min.y) * extent.x;
            input->openRegion(values.data(), level, part);
            convertPlanes({band, band + partSize, band + 2 * partSize, out + offset, out + size + offset,
                           out + 2 * size + offset},
                          partSize, range.min, span);
            for (long long c = 3; c < inputChannels; ++c)
                std::copy(band + c * partSize, band + (c + 1) * partSize, out + c * size + offset);
        }
        return;
    }
    input->openRegion(out, level, box);
    convertPlanes({out, out + size, out + 2 * size, out, out + size, out + 2 * size}, size, range.min, span);
}

} // namespace Nuvek
