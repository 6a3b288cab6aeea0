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
    std::vector<double> const right = openBothInputs(out, level, box);
    for (std::size_t i = 0; i < right.size(); ++i)
        out[i] = out[i] - right[i];
}

} // namespace Nuvek
