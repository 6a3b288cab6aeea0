#include <nuvek/filters/pixelwise/ChannelFilter.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace Nuvek {

namespace {

long long findChannel(Image& input, std::string const& channelName)
{
    // The count is read again at every step, as the input reports it.
    for (long long i = 0; i < input.getNumChannels(); ++i)
        if (input.getChannelName(i) == channelName)
            return i;
    return -1;
}

} // namespace

ChannelFilter::ChannelFilter(Image* input, long long channel, bool ownsInput)
    : Filter(input, ownsInput), firstChannel(channel), numChannels(1)
{
}

ChannelFilter::ChannelFilter(Image* input, long long firstChannel, long long numChannels, bool ownsInput)
    : Filter(input, ownsInput), firstChannel(firstChannel), numChannels(numChannels)
{
}

ChannelFilter::ChannelFilter(Image* input, std::string const& channelName, bool ownsInput)
    : Filter(input, ownsInput), firstChannel(findChannel(*input, channelName)), numChannels(1)
{
    if (firstChannel < 0)
        throw std::runtime_error("No channel named \"" + channelName + "\" found.");
}

long long ChannelFilter::getNumChannels() const
{
    return numChannels;
}

std::string ChannelFilter::getChannelName(long long index)
{
    // An index equal to getNumChannels() is accepted on purpose, and the name is looked up at
    // index - firstChannel.
    if (index < 0 || index > getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return input->getChannelName(index - firstChannel);
}

void ChannelFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const size = box.getSize();
    if (size == 0)
        return;
    long long const inputChannels = input->getNumChannels();
    if (firstChannel < 0 || numChannels < 0 || firstChannel > inputChannels - numChannels)
        throw std::runtime_error("Cannot select " + std::to_string(numChannels) + " channels from index " +
                                 std::to_string(firstChannel) + " of an input with " + std::to_string(inputChannels) +
                                 " channels.");

    // Selecting every channel in order needs no copy.
    if (firstChannel == 0 && numChannels == inputChannels)
    {
        input->openRegion(out, level, box);
        return;
    }
    // Zeroed: an input need not write every voxel (the distance transform leaves the outside alone).
    std::unique_ptr<double[]> work(new double[static_cast<std::size_t>(inputChannels * size)]());
    input->openRegion(work.get(), level, box);
    double const* selected = work.get() + firstChannel * size;
    std::copy(selected, selected + numChannels * size, out);
}

} // namespace Nuvek
