#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/filters/texture/HistogramComputer.h>

namespace Nuvek {

/// \brief Local histograms of a single-channel image: channel b holds, for each voxel, how many values
/// of the k x k window centred on it (x and y, within its slice) fall into bin b.
///
/// The bins divide the input's value range as read at construction (later changes of the input's
/// range are not followed); see HistogramComputer for the bins and for what happens where the box
/// reaches outside the image (bin 0 is cleared over slabs along the crossed faces). The filter asks
/// its input for the box grown by k / 2 in x and y at the same level. The value range is (0, k * k).
/// Every channel is named "HistogramBin", and the names accept the index numBins as well.
/// A request inside the image of more than 2^19 values (all output channels) is computed in bands
/// of whole rows, each asked of the input like a request of its own, so that the temporaries stay
/// in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once.
class HistogramFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    /// Throws std::runtime_error for an even kernel size, then for numBins <= 0, then for an input
    /// with other than one channel.
    HistogramFilter(Image* input, long long kernelSize, long long numBins, bool ownsInput);

    long long getNumChannels() const override;
    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;

private:
    HistogramComputer computer;
};

} // namespace Nuvek
