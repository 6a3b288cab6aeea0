#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/RowBandExactness.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief An in-memory source image: level-0 values of any number of channels and z slices, with
/// coarser levels derived from them.
///
/// Values are given in region-buffer layout for Box(extent): channel c's N values, then channel
/// c+1's, x fastest, then y, then z.
///
/// Levels: level L has the extent (extent.x >> L, extent.y >> L, extent.z) and each of its voxels is
/// the mean of the 2^L x 2^L block of level-0 voxels it covers (summed row by row from 0.0, then
/// divided by 4^L); a row or column of level 0 that does not fill a whole block is not used. This is
/// exactly what convertToLevel maps (a box at level L covers the box at level 0 whose extent is 2^L
/// times larger) and what the downsample filter computes from level 0, to the bit. getNumLevels()
/// counts the levels down to the first whose x or y extent is 1; coarser levels have an empty
/// extent and read as 0.0 throughout. A negative level is rejected with std::runtime_error.
///
/// Voxels outside the extent read as 0.0. The value range is the smallest and largest finite
/// level-0 value, (0, 0) when there is none, until setValueRange fixes it. Channels are named
/// "Channel 0", "Channel 1", ... until setChannelNames names them. The voxel size at level L is the
/// level-0 voxel size (1, 1, 1 unless set) times 2^L in x and y. Every change made through a setter
/// changes getHash.
///
/// openRegion, the getters and getHash may run on several threads at once; the setters must not run
/// concurrently with anything else on the same image.
class MemoryImage : public Image, public RowBandExactness
{
public:
    /// Stored values: the same whatever box asks for them.
    bool splitsExactlyInRowBands() const override { return true; }

    /// An image of zeros.
    MemoryImage(Vector const& extent, long long numChannels);
    /// values must hold extent.prod() * numChannels values.
    MemoryImage(Vector const& extent, long long numChannels, std::vector<double> values);

    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// The level-0 values, region-buffer layout.
    std::vector<double> const& getValues() const;
    /// Replaces all level-0 values; values must hold as many as the image has.
    void setValues(std::vector<double> values);
    /// Sets one level-0 value. Coarser levels are recomputed, so set many values with setValues.
    void setValue(Vector const& position, long long channel, double value);
    void setValueRange(ValueRange<double> const& range);
    /// Names must be as many as the channels.
    void setChannelNames(std::vector<std::string> names);
    void setVoxelSize(Vector const& levelZeroVoxelSize);
    void setTileExtent(Vector const& tileExtent);

private:
    void rebuildLevels();

    Vector extent;
    long long numChannels;
    // levels[0] holds the values as given; levels[L] the derived level L.
    std::vector<std::vector<double>> levels;
    ValueRange<double> valueRange;
    bool valueRangeSet = false;
    std::vector<std::string> channelNames;
    Vector voxelSize{1, 1, 1};
    Vector tileExtent{256, 256, 1};
    std::uint64_t hash = 0;
};

} // namespace Nuvek
