#include <nuvek/filters/pixelwise/DifferenceFilter.h>

#include <vector>

namespace Nuvek {

DifferenceFilter::DifferenceFilter(Image* firstInput, Image* secondInput, bool ownsInputs)
    : BinaryOperatorFilter(firstInput, secondInput, ownsInputs, ownsInputs)
{
}

DifferenceFilter::DifferenceFilter(Image* firstInput, Image* secondInput, bool ownsFirstInput, bool ownsSecondInput)
    : BinaryOperatorFilter(firstInput, secondInput, ownsFirstInput, ownsSecondInput)
{
}

ValueRange<double> DifferenceFilter::getValueRange() const
{
    ValueRange<double> const first = firstInput->getValueRange();
    ValueRange<double> const second = secondInput->getValueRange();
    return ValueRange<double>(first.min - second.max, first.max - second.min);
}

void DifferenceFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const count = box.getSize() * firstInput->getNumChannels();
    std::vector<double> work(static_cast<std::size_t>(count), 0.0);
    firstInput->openRegion(out, level, box);
    secondInput->openRegion(work.data(), level, box);

    double const* right = work.data();
    for (long long i = 0; i < count; ++i)
        out[i] = out[i] - right[i];
}

} // namespace Nuvek
