#include "filters/internal/RequestBands.h"
#include <nuvek/filters/texture/HistogramFilter.h>

#include <stdexcept>

namespace Nuvek {

HistogramFilter::HistogramFilter(Image* input, long long kernelSize, long long numBins, bool ownsInput)
    : Filter(input, ownsInput), computer(kernelSize, numBins, input->getValueRange())
{
    if (input->getNumChannels() != 1)
        throw std::runtime_error("Local histogram filter may only be applied to single channel images.");
}

long long HistogramFilter::getNumChannels() const
{
    return computer.getNumBins();
}

ValueRange<double> HistogramFilter::getValueRange() const
{
    double const kernelSize = static_cast<double>(computer.getKernelSize());
    return ValueRange<double>(0.0, kernelSize * kernelSize);
}

void HistogramFilter::openRegion(double* out, long long level, Box const& box)
{
    // Every voxel's counts depend only on the input around it, so bands give the same bits.
    if (RequestBands::splits(input, box, getNumChannels(), getExtent(level)))
    {
        RequestBands::run(out, box, getNumChannels(),
                          [&](double* bandOut, Box const& band) { computer.compute(bandOut, input, band, level); });
        return;
    }
    computer.compute(out, input, box, level);
}

std::string HistogramFilter::getChannelName(long long index)
{
    // An index equal to getNumChannels() is accepted on purpose.
    if (index < 0 || index > getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return "HistogramBin";
}

} // namespace Nuvek
