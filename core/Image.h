#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/ValueRange.h>
#include <nuvek/core/Vector.h>

#include <cstdint>
#include <string>

namespace Nuvek {

/// \brief An image of several channels, up to three dimensions and several resolution levels, read
/// one box at a time.
///
/// Level 0 is the finest; each level halves x and y and leaves z unchanged. openRegion fills a
/// caller-owned region buffer: for a box of N voxels, channel c occupies elements c*N to
/// (c+1)*N - 1, x fastest, then y, then z. openRegion must accept any non-empty box, including one
/// that reaches beyond the extent, and write a defined value for every voxel of it.
///
/// An application's own image implements the eight pure operations; the others have defaults.
class Image
{
public:
    Image() = default;
    Image(Image const&) = default;
    Image& operator=(Image const&) = default;
    virtual ~Image();

    /// Locator of the image; "" by default.
    virtual std::string getURL() const;
    /// Size in voxels along x, y and z at the level; the valid voxels are (0,0,0) to extent - 1.
    virtual Vector getExtent(long long level) const = 0;
    virtual long long getNumChannels() const = 0;
    virtual long long getNumLevels() const = 0;
    /// Nominal min and max of the values of all channels.
    virtual ValueRange<double> getValueRange() const = 0;
    /// Integer voxel size per axis at the level.
    virtual Vector getVoxelSize(long long level) const = 0;
    /// Preferred tile size; (256, 256, 1) by default.
    virtual Vector getTileExtent() const;
    virtual void openRegion(double* out, long long level, Box const& box) = 0;
    /// Name of a z slice; "" by default.
    virtual std::string getSliceName(long long index);
    virtual std::string getChannelName(long long index) = 0;
    /// "" by default.
    virtual std::string getId() const;
    /// "" by default.
    virtual std::string getGroupId() const;
    /// Change stamp: differs from the previous call's value whenever what the image delivers has
    /// changed.
    virtual std::uint64_t getHash() = 0;
    /// The image itself by default.
    virtual Image* getViewableRepresentation();
};

} // namespace Nuvek
