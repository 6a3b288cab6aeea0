#include <nuvek/core/ChannelBank.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Nuvek {

namespace {

// One channel of an image, presented as a single-channel image. Reading it reads all channels of
// the image and keeps the one wanted: the image's interface offers nothing narrower.
class ChannelImage : public Image
{
public:
    ChannelImage(Image* image, long long index, std::string name) : image(image), index(index), name(std::move(name)) {}

    std::string getURL() const override { return image->getURL(); }
    Vector getExtent(long long level) const override { return image->getExtent(level); }
    long long getNumChannels() const override { return 1; }
    long long getNumLevels() const override { return image->getNumLevels(); }
    ValueRange<double> getValueRange() const override { return image->getValueRange(); }
    Vector getVoxelSize(long long level) const override { return image->getVoxelSize(level); }
    Vector getTileExtent() const override { return image->getTileExtent(); }

    void openRegion(double* out, long long level, Box const& box) override
    {
        long long const size = box.getSize();
        if (size == 0)
            return;
        std::vector<double> all(static_cast<std::size_t>(size * image->getNumChannels()), 0.0);
        image->openRegion(all.data(), level, box);
        std::copy(all.begin() + index * size, all.begin() + (index + 1) * size, out);
    }

    std::string getSliceName(long long slice) override { return image->getSliceName(slice); }

    std::string getChannelName(long long channel) override
    {
        if (channel != 0)
            throw std::runtime_error("Invalid channel index. Cannot determine its name.");
        return name;
    }

    std::string getId() const override { return image->getId(); }
    std::string getGroupId() const override { return image->getGroupId(); }
    std::uint64_t getHash() override { return image->getHash(); }

private:
    Image* image;
    long long index;
    std::string name;
};

} // namespace

ChannelBank::ChannelBank(Image* image) : image(image)
{
    if (image == nullptr)
        throw std::runtime_error("Cannot instantiate a channel bank without an image.");
    for (long long c = 0; c < image->getNumChannels(); ++c)
    {
        std::string name = image->getChannelName(c);
        if (find(name) != nullptr)
            continue;
        auto channel = std::make_unique<ChannelImage>(image, c, name);
        channels.push_back(NamedChannel{std::move(name), c, std::move(channel)});
    }
}

ChannelBank::~ChannelBank() = default;

Image* ChannelBank::getImage() const
{
    return image;
}

ChannelBank::NamedChannel const* ChannelBank::find(std::string const& name) const
{
    for (NamedChannel const& channel : channels)
        if (channel.name == name)
            return &channel;
    return nullptr;
}

Image* ChannelBank::getChannel(std::string const& name) const
{
    NamedChannel const* channel = find(name);
    return channel == nullptr ? nullptr : channel->image.get();
}

std::unique_ptr<Buffer<double>> ChannelBank::openRegion(std::vector<std::string> const& channelNames, Box const& box,
                                                        long long level)
{
    std::vector<long long> indices;
    indices.reserve(channelNames.size());
    for (std::string const& name : channelNames)
    {
        NamedChannel const* channel = find(name);
        if (channel == nullptr)
            throw std::runtime_error("Channel bank has no channel named \"" + name + "\".");
        indices.push_back(channel->index);
    }

    auto buffer = std::make_unique<Buffer<double>>(box, level, static_cast<long long>(channelNames.size()));
    long long const size = box.getSize();
    if (size == 0 || indices.empty())
        return buffer;
    // All channels of the image in their own order: the image writes straight into the buffer.
    bool inImageOrder = static_cast<long long>(indices.size()) == image->getNumChannels();
    for (std::size_t i = 0; inImageOrder && i < indices.size(); ++i)
        inImageOrder = indices[i] == static_cast<long long>(i);
    if (inImageOrder)
    {
        image->openRegion(buffer->getPtr(0), level, box);
        return buffer;
    }
    std::vector<double> all(static_cast<std::size_t>(size * image->getNumChannels()), 0.0);
    image->openRegion(all.data(), level, box);
    for (std::size_t i = 0; i < indices.size(); ++i)
        std::copy(all.begin() + indices[i] * size, all.begin() + (indices[i] + 1) * size,
                  buffer->getPtr(static_cast<long long>(i)));
    return buffer;
}

} // namespace Nuvek
