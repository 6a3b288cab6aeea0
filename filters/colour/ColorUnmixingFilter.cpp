#include <nuvek/filters/colour/ColorUnmixingFilter.h>

#include <nuvek/filters/colour/Matrix.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Nuvek {

namespace {

// log10 of the transmitted share of value: 8-bit scale, 256 is full transmission, values below 1
// and NaN count as 1 (max(1, NaN) is 1).
double logTransmission(double value)
{
    return std::log10(std::max(1.0, value) * 0.00390625);
}

// Out of line, so that building the message costs the per-voxel function nothing.
[[noreturn, gnu::noinline, gnu::cold]] void throwTooFewValues(std::size_t numWeights, std::size_t numValues)
{
    throw std::runtime_error("ColorUnmixingFilter: " + std::to_string(numWeights) + " weights but only " +
                             std::to_string(numValues) + " channel values.");
}

} // namespace

ColorUnmixingFilter::ColorUnmixingFilter(ChannelBank* bank, std::vector<std::string> const& channelNames)
    : PixelProcessingFilter(bank, channelNames)
{
    for (std::size_t v = 0; v < integerLogs.size(); ++v)
        integerLogs[v] = logTransmission(static_cast<double>(v));
}

long long ColorUnmixingFilter::getNumChannels() const
{
    return 1;
}

ValueRange<double> ColorUnmixingFilter::getValueRange() const
{
    return ValueRange<double>(0.0, 1.0);
}

std::string ColorUnmixingFilter::getChannelName(long long index)
{
    if (index != 0)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return "";
}

double ColorUnmixingFilter::processPixel(std::vector<double> const& values) const
{
    // The one check per voxel: more weights than values would read past the values.
    if (values.size() < weights.size())
        throwTooFewValues(weights.size(), values.size());
    double density = 0.0;
    for (std::size_t i = 0; i < weights.size(); ++i)
    {
        double const value = values[i];
        double logarithm;
        // Integer values up to 256 take the logarithm computed for them once: the same call on the
        // same operand, so the same bits. Values at or below 1 (and NaN) share the one of 1.
        if (!(value > 1.0))
            logarithm = integerLogs[1];
        else if (value <= 256.0 && static_cast<double>(static_cast<int>(value)) == value)
            logarithm = integerLogs[static_cast<std::size_t>(static_cast<int>(value))];
        else
            logarithm = logTransmission(value);
        density = density - logarithm * weights[i];
    }
    // For a density that is not positive, 10^-density is at least 1 (and min(1, NaN) is 1), so the
    // result is 0.0 without the exponential.
    if (!(density > 0.0))
        return 0.0;
    double const transmission = std::min(1.0, std::pow(10.0, -density));
    return 1.0 - transmission;
}

void ColorUnmixingFilter::reinit(std::vector<double> const& weights)
{
    if (&weights != &this->weights)
        this->weights = weights;
    ++hashCounter;
}

std::vector<std::vector<double>> ColorUnmixingFilter::computeMatrixFromColors(
    std::vector<std::vector<double>> const& colors)
{
    std::size_t const components = colors.empty() ? 0 : colors[0].size();
    std::vector<std::vector<double>> densities(colors.size(), std::vector<double>(components, 0.0));
    for (std::size_t i = 0; i < colors.size(); ++i)
    {
        if (colors[i].size() < components)
            throw std::runtime_error("computeMatrixFromColors: colour " + std::to_string(i) + " has " +
                                     std::to_string(colors[i].size()) + " components where " +
                                     std::to_string(components) + " are needed.");
        for (std::size_t j = 0; j < components; ++j)
            densities[i][j] = -logTransmission(colors[i][j]);
    }

    // Unit length per colour. A colour of all-zero density gives 0 / 0: NaN weights, not an error.
    for (std::vector<double>& row : densities)
    {
        double sumOfSquares = 0.0;
        for (std::size_t j = 0; j < components; ++j)
            sumOfSquares += row[j] * row[j];
        double const length = std::sqrt(sumOfSquares);
        for (std::size_t j = 0; j < components; ++j)
            row[j] /= length;
    }

    std::vector<std::vector<double>> const transposed = transposeMatrix(densities);
    std::vector<std::vector<double>> const inverse = invertMatrix(multMatrix(densities, transposed));
    return transposeMatrix(multMatrix(transposed, inverse));
}

} // namespace Nuvek
