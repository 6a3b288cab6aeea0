#include <nuvek/chains/Chain.h>

namespace Nuvek {

Chain::~Chain()
{
    while (!owned.empty())
        owned.pop_back();
}

Image* Chain::add(std::unique_ptr<Image> image)
{
    Image* raw = image.get();
    owned.push_back(std::shared_ptr<Image>(std::move(image)));
    output = raw;
    return raw;
}

ChannelBank* Chain::addBank(std::unique_ptr<ChannelBank> bank)
{
    ChannelBank* raw = bank.get();
    owned.push_back(std::shared_ptr<ChannelBank>(std::move(bank)));
    return raw;
}

} // namespace Nuvek
