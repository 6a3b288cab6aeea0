#pragma once

#include <nuvek/core/Filter.h>

namespace Nuvek {

/// \brief Maps every value to highValue when it is at or above threshold, else to lowValue.
///
/// A NaN compares false and becomes lowValue. All channels are treated alike. The filter asks its
/// input for the requested box at the requested level. The value range is (lowValue, highValue) as
/// given, unsorted. openRegion may run on several threads at once.
class ThresholdFilter : public Filter
{
public:
    ThresholdFilter(Image* input, double threshold, double lowValue, double highValue, bool ownsInput);

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;

private:
    double threshold;
    double lowValue;
    double highValue;
};

} // namespace Nuvek
