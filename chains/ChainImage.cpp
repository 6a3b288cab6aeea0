#include <nuvek/chains/ChainImage.h>

#include <nuvek/chains/FilterRegistry.h>

#include <stdexcept>

namespace Nuvek {

ChainImage::ChainImage(ChainExpression const& expression, Image* source, long long level, Box const& box)
    : chain(FilterRegistry::buildChain(expression, source)), level(level), box(box)
{
    Image& output = *chain->output;
    voxelSize = output.getVoxelSize(level);
    // Names are read once: getChannelName of a filter may update cached state. Some filters refuse
    // names they cannot attribute (a channel selection reports its input's names shifted); such a
    // channel is called by its number.
    for (long long c = 0; c < output.getNumChannels(); ++c)
    {
        try
        {
            channelNames.push_back(output.getChannelName(c));
        }
        catch (std::runtime_error const&)
        {
            channelNames.push_back("Channel " + std::to_string(c));
        }
    }
}

Vector ChainImage::getExtent(long long) const
{
    return box.getExtent();
}

long long ChainImage::getNumChannels() const
{
    return static_cast<long long>(channelNames.size());
}

long long ChainImage::getNumLevels() const
{
    return 1;
}

ValueRange<double> ChainImage::getValueRange() const
{
    return chain->output->getValueRange();
}

Vector ChainImage::getVoxelSize(long long) const
{
    return voxelSize;
}

Vector ChainImage::getTileExtent() const
{
    return chain->output->getTileExtent();
}

void ChainImage::openRegion(double* out, long long, Box const& request)
{
    chain->output->openRegion(out, level, request.translated(box.min));
}

bool ChainImage::splitsExactlyInRowBands() const
{
    return RowBandExactness::splitsExactly(chain->output);
}

std::string ChainImage::getChannelName(long long index)
{
    if (index < 0 || index >= getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return channelNames[static_cast<std::size_t>(index)];
}

std::uint64_t ChainImage::getHash()
{
    return 0;
}

} // namespace Nuvek
