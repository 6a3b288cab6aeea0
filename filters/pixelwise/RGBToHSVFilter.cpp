#include "filters/internal/TargetClones.h"
#include <nuvek/filters/pixelwise/RGBToHSVFilter.h>

#include <nuvek/core/Conversions.h>

#include <cmath>
#include <stdexcept>
#include <string>

namespace Nuvek {

namespace {

constexpr long long blockLength = 4;

// Plain pass: voxel by voxel through the core's conversion.
void convertOneByOne(double* red, double* green, double* blue, long long begin, long long end, double low, double span)
{
    for (long long i = begin; i < end; ++i)
    {
        double hue = 0.0, saturation = 0.0, value = 0.0;
        convertRGBToHSV((red[i] - low) / span, (green[i] - low) / span, (blue[i] - low) / span, hue, saturation, value);
        red[i] = std::floor(hue / 360.0 * 255.0);
        green[i] = std::floor(saturation * 255.0);
        blue[i] = std::floor(value * 255.0);
    }
}

// Fast pass: the conversion's operations on the same operands, but every branch is computed and the
// results are selected, so that the loop vectorises.
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
NUVEK_TARGET_CLONES
#endif
void convertBySelection(double* __restrict red, double* __restrict green, double* __restrict blue, long long count,
                        double low, double span)
{
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

        red[i] = std::floor(hue / 360.0 * 255.0);
        green[i] = std::floor(saturation * 255.0);
        blue[i] = std::floor(maximum * 255.0);
    }
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
    input->openRegion(out, level, box);

    double* red = out;
    double* green = out + size;
    double* blue = out + 2 * size;
    // Both passes perform the same operations per voxel, so they give the same bits; the selecting
    // one takes whole blocks, the plain one the rest.
    long long const blocked = size - size % blockLength;
    convertBySelection(red, green, blue, blocked, range.min, span);
    convertOneByOne(red, green, blue, blocked, size, range.min, span);
}

} // namespace Nuvek
