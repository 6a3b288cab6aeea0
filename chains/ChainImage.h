#pragma once

#include <nuvek/chains/Chain.h>
#include <nuvek/chains/ChainExpression.h>
#include <nuvek/core/Image.h>
#include <nuvek/core/RowBandExactness.h>

#include <memory>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief The result of a chain over a source, cropped to a box at one level, as a one-level image
/// whose voxel (0, 0, 0) is the box's minimum.
///
/// The chain is built once and serves every caller: openRegion may run on several threads at once,
/// as every filter of the registry allows. The source is not owned and must outlive the image. It
/// gives the same bits in row bands when the chain's last filter does (RowBandExactness).
class ChainImage : public Image, public RowBandExactness
{
public:
    /// As the chain's last filter does.
    bool splitsExactlyInRowBands() const override;

    /// Throws std::runtime_error as FilterRegistry::buildChain does.
    ChainImage(ChainExpression const& expression, Image* source, long long level, Box const& box);

    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

private:
    std::unique_ptr<Chain> chain;
    long long level;
    Box box;
    Vector voxelSize;
    std::vector<std::string> channelNames;
};

} // namespace Nuvek
