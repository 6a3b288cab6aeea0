#include <nuvek/filters/colour/PixelProcessingFilter.h>

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

void PixelProcessingFilter::processRow(double const* const* planes, double* out, long long count,
                                       std::vector<double>& values) const
{
    std::size_t const numPlanes = values.size();
    double* const value = values.data();
    for (long long i = 0; i < count; ++i)
    {
        for (std::size_t k = 0; k < numPlanes; ++k)
            value[k] = planes[k][i];
        out[i] = processPixel(values);
    }
}

void PixelProcessingFilter::openRegionInImage(double* out, long long level, Box const& region, Box const& imageRegion)
{
    std::vector<double> values(channelNames.size());
    std::vector<double const*> rowPlanes(channelNames.size());
    // Reads the selected channels of part (whole rows of region) and processes the voxels of
    // imageRegion within it, row by row, x fastest, then y, then z.
    auto const processPart = [&](Box const& part) {
        std::unique_ptr<Buffer<double> const> const channels = channelBank->openRegion(channelNames, part, level);
        Box const inside = part.intersected(imageRegion);
        if (inside.isEmpty())
            return;
        std::vector<double const*> const planes = channels->getPtrVector();
        Vector const partStrides = part.getExtent().getStrides();
        Vector const outStrides = region.getExtent().getStrides();
        for (long long z = inside.min.z; z <= inside.max.z; ++z)
            for (long long y = inside.min.y; y <= inside.max.y; ++y)
            {
                long long const partStart =
                    (z - part.min.z) * partStrides.z + (y - part.min.y) * partStrides.y + (inside.min.x - part.min.x);
                long long const outStart = (z - region.min.z) * outStrides.z + (y - region.min.y) * outStrides.y +
                                           (inside.min.x - region.min.x);
                for (std::size_t k = 0; k < planes.size(); ++k)
                    rowPlanes[k] = planes[k] + partStart;
                processRow(rowPlanes.data(), out + outStart, inside.getExtent().x, values);
            }
    };

    // The whole region is read, though only imageRegion is processed: in one request, or for large
    // regions in strips of tile rows, one slice at a time (see the header).
    long long const numChannels = static_cast<long long>(channelNames.size());
    long long const width = region.getExtent().x;
    if (region.getSize() * numChannels <= largeRequestValues)
    {
        processPart(region);
        return;
    }
    long long const tileRows = std::max(1LL, channelBank->getImage()->getTileExtent().y);
    // Divided one factor at a time: the product of the width, channels and tile rows may not fit.
    long long const stripRows = tileRows * std::max(1LL, largeRequestValues / (width * numChannels) / tileRows);
    for (long long z = region.min.z; z <= region.max.z; ++z)
        for (long long y = region.min.y; y <= region.max.y;)
        {
            // The last row of the strip of the grid of stripRows rows that holds y.
            long long const gridStart = y >= 0 ? y / stripRows * stripRows : -((-y - 1) / stripRows + 1) * stripRows;
            long long const last = std::min(region.max.y, gridStart + stripRows - 1);
            processPart(Box(Vector(region.min.x, y, z), Vector(region.max.x, last, z)));
            y = last + 1;
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
