#include "view/ViewLayer.h"

#include <nuvek/chains/Chain.h>
#include <nuvek/chains/ChainExpression.h>
#include <nuvek/chains/FilterRegistry.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace NuvekTool {

namespace {

// The level whose x and y both fit in this many voxels gives the display range.
long long const rangeLevelSize = 512;

} // namespace

ViewLayer::ViewLayer(std::string const& text, Nuvek::Image& source)
{
    bool const blank = text.find_first_not_of(" \t\r\n") == std::string::npos;
    Nuvek::ChainExpression const parsed = blank ? Nuvek::ChainExpression() : Nuvek::parseChainExpression(text);
    expression = blank ? std::string() : Nuvek::toString(parsed);
    shareable = Nuvek::FilterRegistry::isShareable(parsed);
    chain = Nuvek::FilterRegistry::buildChain(parsed, &source);
    output = chain->output;
    numLevels = std::max(1LL, output->getNumLevels());
    for (long long level = 0; level < numLevels; ++level)
        extents.push_back(output->getExtent(level));
    for (long long c = 0; c < output->getNumChannels(); ++c)
    {
        // Some filters cannot attribute a name to a channel; such a channel is called by its number.
        try
        {
            channelNames.push_back(output->getChannelName(c));
        }
        catch (std::runtime_error const&)
        {
            channelNames.push_back("Channel " + std::to_string(c));
        }
    }
    findDisplayRange();
}

ViewLayer::~ViewLayer() = default;

Nuvek::Vector ViewLayer::getExtent(long long level) const
{
    return extents.at(static_cast<std::size_t>(level));
}

std::uint64_t ViewLayer::getHash()
{
    // getHash updates the stamps filters keep of their inputs: one call at a time, whatever the chain.
    // Those stamps are getHash's alone, so a shared chain's openRegion may run meanwhile.
    std::lock_guard<std::mutex> lock(shareable ? hashMutex : mutex);
    return output->getHash();
}

void ViewLayer::openRegion(double* out, long long level, Nuvek::Box const& box)
{
    if (shareable)
    {
        output->openRegion(out, level, box);
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    output->openRegion(out, level, box);
}

std::string ViewLayer::describeFilters()
{
    return Nuvek::FilterRegistry::describe();
}

void ViewLayer::findDisplayRange()
{
    Nuvek::ValueRange<double> const nominal = output->getValueRange();
    if (getNumChannels() >= 3 && std::isfinite(nominal.min) && std::isfinite(nominal.max) && nominal.max > nominal.min)
    {
        autoMin = nominal.min;
        autoMax = nominal.max;
        return;
    }
    rangeLevel = numLevels - 1;
    for (long long level = 0; level < numLevels; ++level)
        if (extents[static_cast<std::size_t>(level)].x <= rangeLevelSize &&
            extents[static_cast<std::size_t>(level)].y <= rangeLevelSize)
        {
            rangeLevel = level;
            break;
        }
    Nuvek::Vector const extent = getExtent(rangeLevel);
    // The first slice only, and at most rangeLevelSize squared voxels of it: the image may have
    // fewer levels than its size needs.
    Nuvek::Box const box(Nuvek::Vector(0, 0, 0), Nuvek::Vector(std::min(extent.x, rangeLevelSize) - 1,
                                                               std::min(extent.y, rangeLevelSize) - 1, 0));
    std::vector<double> values(static_cast<std::size_t>(box.getSize() * getNumChannels()));
    openRegion(values.data(), rangeLevel, box);
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return !std::isfinite(v); }),
                 values.end());
    if (values.empty())
        return;
    std::sort(values.begin(), values.end());
    auto percentile = [&](double fraction) {
        return values[static_cast<std::size_t>(std::floor(fraction * static_cast<double>(values.size() - 1)))];
    };
    autoMin = percentile(0.005);
    autoMax = percentile(0.995);
    if (!(autoMax > autoMin))
    {
        autoMin = values.front();
        autoMax = values.back();
    }
}

} // namespace NuvekTool
