#include <nuvek/core/Filter.h>

#include <stdexcept>

namespace Nuvek {

Filter::Filter(Image* input, bool ownsInput) : input(input), ownsInput(ownsInput)
{
    if (input == nullptr)
        throw std::runtime_error("Cannot instantiate a filter without an input image.");
}

Filter::~Filter()
{
    if (ownsInput)
        delete input;
}

std::string Filter::getURL() const
{
    return input->getURL();
}

Vector Filter::getExtent(long long level) const
{
    return input->getExtent(level);
}

long long Filter::getNumChannels() const
{
    return input->getNumChannels();
}

long long Filter::getNumLevels() const
{
    return input->getNumLevels();
}

ValueRange<double> Filter::getValueRange() const
{
    return input->getValueRange();
}

Vector Filter::getVoxelSize(long long level) const
{
    return input->getVoxelSize(level);
}

Vector Filter::getTileExtent() const
{
    return input->getTileExtent();
}

void Filter::openRegion(double* out, long long level, Box const& box)
{
    input->openRegion(out, level, box);
}

std::string Filter::getSliceName(long long index)
{
    return input->getSliceName(index);
}

std::string Filter::getChannelName(long long index)
{
    return input->getChannelName(index);
}

std::string Filter::getId() const
{
    return input->getId();
}

std::string Filter::getGroupId() const
{
    return input->getGroupId();
}

std::uint64_t Filter::getHash()
{
    return input->getHash();
}

Image* Filter::getViewableRepresentation()
{
    return input->getViewableRepresentation();
}

} // namespace Nuvek
