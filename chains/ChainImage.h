#pragma once

#include <nuvek/chains/Chain.h>
#include <nuvek/chains/ChainExpression.h>
#include <nuvek/core/Image.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace Nuvek {

/// \brief The result of a chain over a source, cropped to a box at one level, as a one-level image
/// whose voxel (0, 0, 0) is the box's minimum.
///
/// Safe for concurrent openRegion calls whatever the chain holds: a chain whose filters may all be
/// shared is built once and shared; a chain with a filter that must not serve two threads at once
/// (local normalization) or that locks every call (upsample) is built once per worker, and each call
/// borrows a free copy for its duration.
class ChainImage : public Image
{
public:
    ChainImage(ChainExpression const& expression, Image* source, int workers, long long level,
               Box const& box);

    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// How many copies of the chain serve the calls (1 when shared).
    int getNumCopies() const { return static_cast<int>(chains.size()); }
    Image& firstChain() { return *chains.front()->output; }

private:
    std::vector<std::unique_ptr<Chain>> chains;
    std::vector<Chain*> idle;
    std::mutex mutex;
    std::condition_variable released;
    long long level;
    Box box;
    Vector voxelSize;
    std::vector<std::string> channelNames;
};

} // namespace Nuvek
