#include <nuvek/filters/pixelwise/ConcatFilter.h>

#include <nuvek/core/Check.h>

#include <stdexcept>

namespace Nuvek {

namespace {

// Runs before the base is built, so that no input is dereferenced unchecked.
Image* firstOf(std::vector<Image*> const& inputs)
{
    if (inputs.empty())
        throw std::runtime_error("Cannot instantiate a concat filter without input images.");
    for (Image const* image : inputs)
        if (image == nullptr)
            throw std::runtime_error("Cannot instantiate a filter without an input image.");
    return inputs.front();
}

} // namespace

// ownsInputs is ignored on purpose: the inputs always stay the caller's.
ConcatFilter::ConcatFilter(std::vector<Image*> const& inputs, bool /*ownsInputs*/)
    : Filter(firstOf(inputs), false), inputs(inputs)
{
    Vector const extent = this->inputs.front()->getExtent(0);
    for (std::size_t i = 1; i < this->inputs.size(); ++i)
        check(this->inputs[i]->getExtent(0) == extent, "Image extents must match");
}

long long ConcatFilter::getNumChannels() const
{
    long long count = 0;
    for (Image const* image : inputs)
        count += image->getNumChannels();
    return count;
}

std::string ConcatFilter::getChannelName(long long index)
{
    if (index < 0)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    for (Image* image : inputs)
    {
        long long const channels = image->getNumChannels();
        if (index < channels)
            return image->getChannelName(index);
        index -= channels;
    }
    throw std::runtime_error("Invalid channel index. Cannot determine its name.");
}

void ConcatFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const size = box.getSize();
    long long offset = 0;
    for (Image* image : inputs)
    {
        image->openRegion(out + offset * size, level, box);
        offset += image->getNumChannels();
    }
}

} // namespace Nuvek
