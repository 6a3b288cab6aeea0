#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

/// \brief Turns red, green and blue in the input's first three channels into hue, saturation and
/// value, each quantised to a whole number from 0 to 255.
///
/// The filter asks its input for the requested box at the requested level, straight into the
/// caller's buffer. Each voxel's red, green and blue are normalised with the input's value range
/// (lo, hi) as (x - lo) / (hi - lo), converted by convertRGBToHSV, and quantised as
/// floor(h / 360 * 255), floor(s * 255) and floor(v * 255), in that order of operations; the hue
/// therefore never reaches 255. A range of zero span divides by zero and the infinities or NaN go
/// through the conversion as they are. Channels after the third keep the input's values; an input
/// with fewer than three channels makes openRegion throw std::runtime_error. The value range is
/// (0, 255); the channels are named "Hue", "Saturation" and "Value", and no other index has a name.
/// A request of one slice inside the image of more than 2^19 values (all output channels) is
/// computed in bands of whole rows, each asked of the input like a request of its own, so that the
/// temporaries stay in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once when the input allows it.
class RGBToHSVFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    RGBToHSVFilter(Image* input, bool ownsInput);

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
};

} // namespace Nuvek
