#pragma once

#include <nuvek/filters/pixelwise/BinaryOperatorFilter.h>

namespace Nuvek {

/// \brief Every value is the first input's value minus the second input's, voxel by voxel and
/// channel by channel.
///
/// The filter asks both inputs for the requested box at the requested level, the first straight into
/// the caller's buffer and the second into a zero-filled work buffer, and combines all channels in
/// one flat loop. An empty box is still passed to both inputs. The value range is
/// (min1 - max2, max1 - min2) from the inputs' ranges (min1, max1) and (min2, max2).
/// The inputs must allow concurrent openRegion calls; then so does this filter.
class DifferenceFilter : public BinaryOperatorFilter
{
public:
    /// One flag for both inputs.
    DifferenceFilter(Image* firstInput, Image* secondInput, bool ownsInputs);
    DifferenceFilter(Image* firstInput, Image* secondInput, bool ownsFirstInput, bool ownsSecondInput);

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;
};

} // namespace Nuvek
