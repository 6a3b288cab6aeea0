#include <nuvek/filters/colour/ColorUnmixingFilter.h>

#include "filters/internal/Absorptance.h"
#include <nuvek/filters/colour/Matrix.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <typeinfo>

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

constexpr std::size_t numIntegerValues = 257;

// The integer v for values that are integers from 0 to 256, else numIntegerValues: adding 2^52
// rounds the fraction away, and gives back the value exactly only for integers. NaN, negative and
// huge values land outside the range.
std::size_t integerIndex(double value)
{
    constexpr double shift = 0x1p52;
    std::uint64_t shiftedBits;
    double const shifted = value + shift;
    std::memcpy(&shiftedBits, &shifted, sizeof shiftedBits);
    std::uint64_t constexpr shiftBits = 0x4330000000000000; // the bits of 2^52
    std::uint64_t const index = shiftedBits - shiftBits;
    if (index < numIntegerValues && shifted - shift == value)
        return static_cast<std::size_t>(index);
    return numIntegerValues;
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

inline double ColorUnmixingFilter::weightedLogarithm(std::size_t channel, double value) const
{
    // Integer values up to 256 take the product computed for them in reinit: the same logarithm
    // call and the same multiplication on the same operands, so the same bits (0 and 1 share one:
    // both count as 1).
    std::size_t const index = integerIndex(value);
    if (index < numIntegerValues)
        return weightedLogs[channel * numIntegerValues + index];
    return logTransmission(value) * weights[channel];
}

double ColorUnmixingFilter::processPixel(std::vector<double> const& values) const
{
    // The one check per voxel: more weights than values would read past the values.
    if (values.size() < weights.size())
        throwTooFewValues(weights.size(), values.size());
    double density = 0.0;
    for (std::size_t i = 0; i < weights.size(); ++i)
        density = density - weightedLogarithm(i, values[i]);
    // 1.0 - min(1.0, 10^-density), with the bits of the C library's pow.
    return absorptance(density);
}

void ColorUnmixingFilter::processRow(double const* const* planes, double* out, long long count,
                                     std::vector<double>& values) const
{
    // The row path is this class's processPixel batched, so it serves this class only: a subclass may
    // override processPixel, and the dynamic type is the one way C++ tells whether it did.
    if (typeid(*this) != typeid(ColorUnmixingFilter))
    {
        PixelProcessingFilter::processRow(planes, out, count, values);
        return;
    }
    if (count <= 0)
        return;
    if (values.size() < weights.size())
        throwTooFewValues(weights.size(), values.size());

    // Densities of a block of voxels, one weight after the other: per voxel the same subtractions
    // in the same order as processPixel, with independent voxels side by side.
    constexpr long long blockSize = static_cast<long long>(absorptanceBlockSize);
    double density[blockSize];
    for (long long start = 0; start < count; start += blockSize)
    {
        long long const size = std::min(blockSize, count - start);
        std::fill(density, density + size, 0.0);
        for (std::size_t c = 0; c < weights.size(); ++c)
        {
            double const* const value = planes[c] + start;
            for (long long i = 0; i < size; ++i)
                density[i] = density[i] - weightedLogarithm(c, value[i]);
        }
        absorptanceOfBlock(density, out + start, static_cast<std::size_t>(size));
    }
}

void ColorUnmixingFilter::reinit(std::vector<double> const& weights)
{
    if (&weights != &this->weights)
        this->weights = weights;
    weightedLogs.resize(this->weights.size() * numIntegerValues);
    for (std::size_t c = 0; c < this->weights.size(); ++c)
        for (std::size_t v = 0; v < numIntegerValues; ++v)
            weightedLogs[c * numIntegerValues + v] = integerLogs[v] * this->weights[c];
    ++hashCounter;
}

std::vector<std::vector<double>>
ColorUnmixingFilter::computeMatrixFromColors(std::vector<std::vector<double>> const& colors)
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
