#include <nuvek/core/Image.h>

namespace Nuvek {

Image::~Image() = default;

std::string Image::getURL() const
{
    return "";
}

Vector Image::getTileExtent() const
{
    return Vector(256, 256, 1);
}

std::string Image::getSliceName(long long)
{
    return "";
}

std::string Image::getId() const
{
    return "";
}

std::string Image::getGroupId() const
{
    return "";
}

Image* Image::getViewableRepresentation()
{
    return this;
}

} // namespace Nuvek
