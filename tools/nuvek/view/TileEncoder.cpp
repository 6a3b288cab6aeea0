#include "view/TileEncoder.h"

#include <png.h>
#include <turbojpeg.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace NuvekTool {

namespace {

std::string encodePng(unsigned char const* rgba, long long width, long long height)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGBA;
    png_alloc_size_t size = 0;
    // First the size, then the bytes: the simplified API writes to memory only into a buffer given.
    if (!png_image_write_to_memory(&image, nullptr, &size, 0, rgba, 0, nullptr))
        throw std::runtime_error(std::string("PNG encoding failed: ") + image.message);
    std::string bytes(size, '\0');
    if (!png_image_write_to_memory(&image, bytes.data(), &size, 0, rgba, 0, nullptr))
        throw std::runtime_error(std::string("PNG encoding failed: ") + image.message);
    bytes.resize(size);
    return bytes;
}

std::string encodeJpeg(unsigned char const* rgba, long long width, long long height)
{
    std::unique_ptr<void, int (*)(tjhandle)> const handle(tjInitCompress(), tjDestroy);
    if (!handle)
        throw std::runtime_error("JPEG encoding failed: the encoder could not start.");
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    int const status = tjCompress2(handle.get(), rgba, static_cast<int>(width), 0, static_cast<int>(height), TJPF_RGBA,
                                   &buffer, &size, TJSAMP_444, 90, 0);
    std::unique_ptr<unsigned char, void (*)(unsigned char*)> const owned(buffer, tjFree);
    if (status != 0)
        throw std::runtime_error(std::string("JPEG encoding failed: ") + tjGetErrorStr2(handle.get()));
    return std::string(reinterpret_cast<char const*>(buffer), size);
}

} // namespace

std::string TileEncoder::encode(unsigned char const* rgba, long long width, long long height, TileFormat format)
{
    return format == TileFormat::Png ? encodePng(rgba, width, height) : encodeJpeg(rgba, width, height);
}

char const* TileEncoder::contentType(TileFormat format)
{
    return format == TileFormat::Png ? "image/png" : "image/jpeg";
}

} // namespace NuvekTool
