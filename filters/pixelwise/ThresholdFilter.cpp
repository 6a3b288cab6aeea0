#include <nuvek/filters/pixelwise/ThresholdFilter.h>

namespace Nuvek {

ThresholdFilter::ThresholdFilter(Image* input, double threshold, double lowValue, double highValue, bool ownsInput)
    : Filter(input, ownsInput), threshold(threshold), lowValue(lowValue), highValue(highValue)
{
}

ValueRange<double> ThresholdFilter::getValueRange() const
{
    // The two outputs as given, deliberately unsorted.
    return ValueRange<double>(lowValue, highValue);
}

void ThresholdFilter::openRegion(double* out, long long level, Box const& box)
{
    input->openRegion(out, level, box);
    long long const count = box.getSize() * input->getNumChannels();
    for (long long i = 0; i < count; ++i)
        out[i] = out[i] >= threshold ? highValue : lowValue;
}

} // namespace Nuvek
