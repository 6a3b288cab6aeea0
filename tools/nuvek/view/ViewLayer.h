#pragma once

#include <nuvek/core/Image.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Nuvek {
class Chain;
}

namespace NuvekTool {

/// \brief One layer of `nuvek view`: a chain expression built once over the viewed image.
///
/// The chain is shared by every tile request; a chain that may not serve several threads at once is
/// used by one request at a time, and getHash, which updates the stamps filters keep, is always
/// called by one request at a time. The display range is found once, from a coarse level: RGB images
/// (three channels or more) use the chain's nominal value range when it is finite, everything else
/// the 0.5th to 99.5th percentile of the finite values of that level (all channels together).
/// An empty expression is the image itself.
class ViewLayer
{
public:
    /// Throws std::runtime_error with the chain library's message for a bad expression.
    ViewLayer(std::string const& expression, Nuvek::Image& source);
    ~ViewLayer();
    ViewLayer(ViewLayer const&) = delete;
    ViewLayer& operator=(ViewLayer const&) = delete;

    /// The expression in canonical form ("" for the image itself).
    std::string const& getExpression() const { return expression; }
    long long getNumLevels() const { return numLevels; }
    Nuvek::Vector getExtent(long long level) const;
    long long getNumChannels() const { return static_cast<long long>(channelNames.size()); }
    std::vector<std::string> const& getChannelNames() const { return channelNames; }
    bool isShareable() const { return shareable; }
    double getAutoMin() const { return autoMin; }
    double getAutoMax() const { return autoMax; }
    /// The level the display range was taken from.
    long long getRangeLevel() const { return rangeLevel; }

    std::uint64_t getHash();
    void openRegion(double* out, long long level, Nuvek::Box const& box);

    /// Every filter a chain may use, with its parameters, as `nuvek filters` lists them.
    static std::string describeFilters();

private:
    void findDisplayRange();

    std::string expression;
    std::unique_ptr<Nuvek::Chain> chain;
    Nuvek::Image* output = nullptr;
    bool shareable = true;
    std::mutex mutex;
    std::mutex hashMutex;
    long long numLevels = 1;
    std::vector<Nuvek::Vector> extents;
    std::vector<std::string> channelNames;
    double autoMin = 0.0;
    double autoMax = 1.0;
    long long rangeLevel = 0;
};

} // namespace NuvekTool
