#pragma once

#include "ChainExpression.h"
#include "FilterCatalogue.h"

#include <nuvek/core/Image.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace NuvekTool {

/// \brief The result of a chain over a source, cropped to a box at one level, as a one-level image
/// whose voxel (0, 0, 0) is the box's minimum.
///
/// Safe for concurrent openRegion calls whatever the chain holds: a chain whose filters may all be
/// shared is built once and shared; a chain with a filter that must not serve two threads at once
/// (local normalization) or that locks every call (upsample) is built once per worker, and each call
/// borrows a free copy for its duration.
class ChainImage : public Nuvek::Image
{
public:
    ChainImage(ChainExpression const& expression, Nuvek::Image* source, int workers, long long level,
               Nuvek::Box const& box);

    Nuvek::Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    Nuvek::ValueRange<double> getValueRange() const override;
    Nuvek::Vector getVoxelSize(long long level) const override;
    Nuvek::Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Nuvek::Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// How many copies of the chain serve the calls (1 when shared).
    int getNumCopies() const { return static_cast<int>(chains.size()); }
    Nuvek::Image& firstChain() { return *chains.front()->output; }

private:
    std::vector<std::unique_ptr<Chain>> chains;
    std::vector<Chain*> idle;
    std::mutex mutex;
    std::condition_variable released;
    long long level;
    Nuvek::Box box;
    Nuvek::Vector voxelSize;
    std::vector<std::string> channelNames;
};

} // namespace NuvekTool
