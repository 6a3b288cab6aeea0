#pragma once

#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/Filter.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Nuvek {

/// Sets extent.prod() * numChannels consecutive values of out to value; writes nothing when that
/// count is not positive.
void fillBuffer(double* out, Vector const& extent, long long numChannels, double value);

/// \brief Base of the filters that compute one value per voxel from several named channels of a
/// channel bank at that voxel.
///
/// A subclass supplies processPixel, which receives the values of the selected channels in the order
/// of the selection, and the name of its one output channel. The filter reads the selected channels
/// for the whole requested box at the requested level, in one request to the bank, and calls
/// processPixel for every voxel of the box that lies inside the image, x fastest, then y, then z.
/// Voxels of the box outside the image are 0.0 and never reach processPixel. Extent, levels, value
/// range and voxel size are those of the bank's image.
///
/// A box whose selected channels would take more than largeRequestValues values (16 MiB) is read in
/// strips instead: whole rows of the box, one slice at a time, each strip whole rows of the bank
/// image's tiles (getTileExtent().y rows, or as many of them as fit). That bounds the memory a large
/// request takes, and a tiled source decodes each tile once. The voxels are processed in the same
/// order, with the same values wherever the image's values do not depend on the box asked for.
/// That holds for the sources and most filters of the library; the box filter's running sums round
/// differently in the last bits, and the radial symmetry filter clips its votes to the box.
///
/// getHash counts changes: it starts at 0 and rises by one on a call that finds the stamp of any
/// selected channel changed since the last call, however many changed. Subclasses raise hashCounter
/// themselves when their own parameters change.
///
/// openRegion may run on several threads at once whenever the bank's image allows it and the
/// subclass's processPixel only reads; getHash updates the filter and must not run concurrently.
class PixelProcessingFilter : public Filter
{
public:
    /// Throws std::runtime_error naming the first channel the bank does not hold. An empty selection
    /// is accepted; the filter then writes nothing.
    PixelProcessingFilter(ChannelBank* bank, std::vector<std::string> const& channelNames);

    long long getNumChannels() const override;
    /// Writes nothing for an empty selection or an empty box.
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override = 0;
    std::uint64_t getHash() override;

    /// The output value of one voxel; values holds one value per selected channel, in selection order.
    virtual double processPixel(std::vector<double> const& values) const = 0;
    virtual std::vector<std::string> getChannelSelection() const;
    /// Writes processPixel of every voxel of imageRegion (the part of region inside the image) into
    /// the first plane of out, a region buffer of region. Leaves the other voxels of out as they are.
    virtual void openRegionInImage(double* out, long long level, Box const& region, Box const& imageRegion);

protected:
    /// Computes `count` consecutive voxels of one row: out[i] = processPixel(values) with
    /// values[k] = planes[k][i], in order of i. `values` holds one entry per selected channel; it is
    /// the caller's, so that a row costs no allocation. openRegionInImage calls it for every row of
    /// the image region. A subclass may override it to compute the same values faster.
    virtual void processRow(double const* const* planes, double* out, long long count,
                            std::vector<double>& values) const;

    std::uint64_t hashCounter = 0;

    /// Requests whose selected channels hold more values than this (16 MiB of them) are read in
    /// strips; see openRegionInImage.
    static constexpr long long largeRequestValues = 1LL << 21;

private:
    ChannelBank* channelBank;
    std::vector<std::string> channelNames;
    std::vector<std::uint64_t> channelHashes;
};

} // namespace Nuvek
