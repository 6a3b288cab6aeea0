#include <nuvek/filters/colour/PixelProcessingFilter.h>

#include <nuvek/filters/texture/PositionIterator.h>

#include <algorithm>
#include <stdexcept>

namespace Nuvek {

namespace {

Image* imageOf(ChannelBank* bank)
{
    if (bank == nullptr)
        throw std::runtime_error("Cannot instantiate PixelProcessingFilter without a channel bank.");
    return bank->getImage();
}

} // namespace

void fillBuffer(double* out, Vector const& extent, long long numChannels, double value)
{
    long long const count = extent.prod() * numChannels;
    if (count > 0)
        std::fill(out, out + count, value);
}

PixelProcessingFilter::PixelProcessingFilter(ChannelBank* bank, std::vector<std::string> const& channelNames)
    : Filter(imageOf(bank), false), channelBank(bank), channelNames(channelNames)
{
    channelHashes.reserve(channelNames.size());
    for (std::string const& name : channelNames)
    {
        Image* channel = bank->getChannel(name);
        if (channel == nullptr)
            throw std::runtime_error("Cannot instantiate PixelProcessingFilter. No such channel \"" + name + "\"");
        channelHashes.push_back(channel->getHash());
    }
}

long long PixelProcessingFilter::getNumChannels() const
{
    return 1;
}

std::uint64_t PixelProcessingFilter::getHash()
{
    bool changed = false;
    for (std::size_t i = 0; i < channelNames.size(); ++i)
    {
        Image* channel = channelBank->getChannel(channelNames[i]);
        if (channel == nullptr)
            throw std::runtime_error("PixelProcessingFilter: the channel bank no longer holds the channel \"" +
                                     channelNames[i] + "\".");
        std::uint64_t const hash = channel->getHash();
        if (hash != channelHashes[i])
        {
            channelHashes[i] = hash;
            changed = true;
        }
    }
    // One step per change, however many channels changed.
    if (changed)
        ++hashCounter;
    return hashCounter;
}

std::vector<std::string> PixelProcessingFilter::getChannelSelection() const
{
    return channelNames;
}

void PixelProcessingFilter::openRegionInImage(double* out, long long level, Box const& region, Box const& imageRegion)
{
    // The whole region is read, though only imageRegion is processed.
    std::unique_ptr<Buffer<double> const> const channels = channelBank->openRegion(channelNames, region, level);
    // The plane pointers once per call rather than the plane size once per voxel.
    std::vector<double const*> const planes = channels->getPtrVector();
    std::vector<double> values(channelNames.size());

    PositionIterator positions(region.getExtent(), imageRegion.translated(region.min * -1));
    long long index = 0;
    while (positions.next(index))
    {
        for (std::size_t k = 0; k < planes.size(); ++k)
            values[k] = planes[k][index];
        out[index] = processPixel(values);
    }
}

void PixelProcessingFilter::openRegion(double* out, long long level, Box const& box)
{
    if (channelNames.empty() || box.isEmpty())
        return;
    Box const imageRegion = box.intersected(Box(getExtent(level)));
    if (imageRegion != box)
        fillBuffer(out, box.getExtent(), getNumChannels(), 0.0);
    openRegionInImage(out, level, box, imageRegion);
}

} // namespace Nuvek
