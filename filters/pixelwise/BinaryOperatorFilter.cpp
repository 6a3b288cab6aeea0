#include <nuvek/filters/pixelwise/BinaryOperatorFilter.h>

#include <stdexcept>

namespace Nuvek {

namespace {

// Runs before the second input is first dereferenced.
Image* requireSecondInput(Image* secondInput)
{
    if (secondInput == nullptr)
        throw std::runtime_error("Cannot instantiate a filter without a second input image.");
    return secondInput;
}

} // namespace

BinaryOperatorFilter::BinaryOperatorFilter(Image* firstInput, Image* secondInput, bool ownsFirstInput,
                                           bool ownsSecondInput)
    : Filter(firstInput, false), firstInput(firstInput), secondInput(requireSecondInput(secondInput)),
      ownsFirstInput(ownsFirstInput), ownsSecondInput(ownsSecondInput), hashCounter(0),
      firstInputHash(firstInput->getHash()), secondInputHash(secondInput->getHash())
{
    // Both messages name the difference filter, also when an addition is being built.
    if (firstInput->getNumChannels() != secondInput->getNumChannels())
        throw std::runtime_error("Cannot instantiate difference filter from images with unequal numbers of channels.");
    if (firstInput->getExtent(0) != secondInput->getExtent(0))
        throw std::runtime_error("Cannot instantiate difference filter from images with unequal extents.");
}

BinaryOperatorFilter::~BinaryOperatorFilter()
{
    if (ownsFirstInput && firstInput != nullptr)
        delete firstInput;
    if (ownsSecondInput && secondInput != nullptr && !(ownsFirstInput && secondInput == firstInput))
        delete secondInput;
}

std::uint64_t BinaryOperatorFilter::getHash()
{
    std::uint64_t const first = firstInput->getHash();
    std::uint64_t const second = secondInput->getHash();
    bool changed = false;
    if (first != firstInputHash)
    {
        firstInputHash = first;
        changed = true;
    }
    if (second != secondInputHash)
    {
        secondInputHash = second;
        changed = true;
    }
    if (changed)
        ++hashCounter;
    return hashCounter;
}

std::vector<double> BinaryOperatorFilter::openBothInputs(double* out, long long level, Box const& box)
{
    std::vector<double> second(static_cast<std::size_t>(box.getSize() * firstInput->getNumChannels()), 0.0);
    firstInput->openRegion(out, level, box);
    secondInput->openRegion(second.data(), level, box);
    return second;
}

} // namespace Nuvek
