#include <nuvek/chains/ChainImage.h>

#include <nuvek/chains/FilterRegistry.h>

#include <algorithm>
#include <stdexcept>

namespace Nuvek {

ChainImage::ChainImage(ChainExpression const& expression, Image* source, int workers, long long level,
                       Box const& box)
    : level(level), box(box)
{
    int const copies = FilterRegistry::isShareable(expression) ? 1 : std::max(1, workers);
    for (int i = 0; i < copies; ++i)
        chains.push_back(FilterRegistry::buildChain(expression, source));
    for (auto const& chain : chains)
        idle.push_back(chain.get());
    Image& output = *chains.front()->output;
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
    return chains.front()->output->getValueRange();
}

Vector ChainImage::getVoxelSize(long long) const
{
    return voxelSize;
}

Vector ChainImage::getTileExtent() const
{
    return chains.front()->output->getTileExtent();
}

void ChainImage::openRegion(double* out, long long, Box const& request)
{
    Box const shifted = request.translated(box.min);
    if (chains.size() == 1)
    {
        chains.front()->output->openRegion(out, level, shifted);
        return;
    }
    Chain* chain = nullptr;
    {
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return !idle.empty(); });
        chain = idle.back();
        idle.pop_back();
    }
    struct Return
    {
        ChainImage& owner;
        Chain* chain;
        ~Return()
        {
            {
                std::lock_guard<std::mutex> lock(owner.mutex);
                owner.idle.push_back(chain);
            }
            owner.released.notify_one();
        }
    } const giveBack{*this, chain};
    chain->output->openRegion(out, level, shifted);
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
