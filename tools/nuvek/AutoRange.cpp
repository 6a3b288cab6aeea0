#include "AutoRange.h"

#include <nuvek/chains/ChainImage.h>

#include <algorithm>
#include <cmath>

namespace NuvekTool {

namespace {

constexpr long long maxVoxels = 1LL << 22;

// The box at `coarse`, the source's level that is coarse - level halvings below `level`.
Nuvek::Box scaledBox(Nuvek::Box const& box, long long halvings, Nuvek::Vector const& extent)
{
    Nuvek::Vector min(box.min.x >> halvings, box.min.y >> halvings, box.min.z);
    Nuvek::Vector max(box.max.x >> halvings, box.max.y >> halvings, box.max.z);
    max.x = std::max(min.x, std::min(max.x, extent.x - 1));
    max.y = std::max(min.y, std::min(max.y, extent.y - 1));
    return Nuvek::Box(min, max);
}

Nuvek::ValueRange<double> rangeOf(std::vector<double>& values)
{
    if (values.empty())
        return Nuvek::ValueRange<double>(0.0, 1.0);
    std::size_t const last = values.size() - 1;
    std::size_t const lowIndex = last / 1000;
    std::size_t const highIndex = last - last / 1000;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(lowIndex), values.end());
    double const low = values[lowIndex];
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(highIndex), values.end());
    double const high = values[highIndex];
    if (high > low)
        return Nuvek::ValueRange<double>(low, high);
    auto const [minimum, maximum] = std::minmax_element(values.begin(), values.end());
    if (*maximum > *minimum)
        return Nuvek::ValueRange<double>(*minimum, *maximum);
    return Nuvek::ValueRange<double>(*minimum, *minimum + 1.0);
}

} // namespace

std::vector<Nuvek::ValueRange<double>> estimateChannelRanges(Nuvek::ChainExpression const& expression,
                                                             Nuvek::Image& source, long long level,
                                                             Nuvek::Box const& box)
{
    long long coarse = level;
    Nuvek::Box coarseBox = box;
    while (coarseBox.getSize() > maxVoxels && coarse + 1 < source.getNumLevels())
    {
        ++coarse;
        coarseBox = scaledBox(box, coarse - level, source.getExtent(coarse));
    }
    Nuvek::ChainImage image(expression, &source, coarse, coarseBox);
    long long const channels = image.getNumChannels();
    Nuvek::Box const whole(image.getExtent(0));
    std::vector<double> values(static_cast<std::size_t>(whole.getSize() * channels), 0.0);
    image.openRegion(values.data(), 0, whole);

    std::vector<Nuvek::ValueRange<double>> ranges;
    std::vector<double> finite;
    long long const plane = whole.getSize();
    for (long long c = 0; c < channels; ++c)
    {
        finite.clear();
        for (long long i = 0; i < plane; ++i)
        {
            double const value = values[static_cast<std::size_t>(c * plane + i)];
            if (std::isfinite(value))
                finite.push_back(value);
        }
        ranges.push_back(rangeOf(finite));
    }
    return ranges;
}

} // namespace NuvekTool
