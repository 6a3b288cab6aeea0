#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Buffer.h>
#include <nuvek/core/Image.h>

#include <memory>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief The channels of one image, each available by name as a single-channel image.
///
/// The bank does not own the image. Its channels are the image's channels, named by
/// image->getChannelName(i) when the bank is built; when two channels share a name, the first one
/// wins. The channel images are owned by the bank; each reports the image's geometry, value range and
/// change stamp. The bank and its channel images allow concurrent openRegion calls whenever the
/// image does.
class ChannelBank
{
public:
    explicit ChannelBank(Image* image);
    ChannelBank(ChannelBank const&) = delete;
    ChannelBank& operator=(ChannelBank const&) = delete;
    ~ChannelBank();

    /// The image of the whole bank.
    Image* getImage() const;
    /// The single-channel image of that name, or a null pointer when the bank has none.
    Image* getChannel(std::string const& name) const;
    /// The named channels of box at level, in the order of channelNames. Throws
    /// std::runtime_error for a name the bank does not hold.
    std::unique_ptr<Buffer<double>> openRegion(std::vector<std::string> const& channelNames, Box const& box,
                                               long long level);

private:
    struct NamedChannel
    {
        std::string name;
        long long index;
        std::unique_ptr<Image> image;
    };

    NamedChannel const* find(std::string const& name) const;

    Image* image;
    std::vector<NamedChannel> channels;
};

} // namespace Nuvek
