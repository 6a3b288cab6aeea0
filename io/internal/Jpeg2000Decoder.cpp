#include "io/internal/Jpeg2000Decoder.h"

#include <openjpeg.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace Nuvek {

namespace {

// The codestream as an input stream for libopenjp2.
struct Source
{
    unsigned char const* data;
    std::size_t size;
    std::size_t position;
};

OPJ_SIZE_T readSource(void* buffer, OPJ_SIZE_T bytes, void* user)
{
    Source& source = *static_cast<Source*>(user);
    OPJ_SIZE_T const left = source.size - source.position;
    if (left == 0)
        return static_cast<OPJ_SIZE_T>(-1);
    OPJ_SIZE_T const count = std::min(bytes, left);
    std::memcpy(buffer, source.data + source.position, count);
    source.position += count;
    return count;
}

OPJ_OFF_T skipSource(OPJ_OFF_T bytes, void* user)
{
    Source& source = *static_cast<Source*>(user);
    if (bytes < 0)
        return -1;
    OPJ_SIZE_T const count = std::min<OPJ_SIZE_T>(static_cast<OPJ_SIZE_T>(bytes), source.size - source.position);
    source.position += count;
    return static_cast<OPJ_OFF_T>(count);
}

OPJ_BOOL seekSource(OPJ_OFF_T position, void* user)
{
    Source& source = *static_cast<Source*>(user);
    if (position < 0 || static_cast<std::size_t>(position) > source.size)
        return OPJ_FALSE;
    source.position = static_cast<std::size_t>(position);
    return OPJ_TRUE;
}

void keepMessage(char const* message, void* user)
{
    std::string& text = *static_cast<std::string*>(user);
    if (text.empty())
    {
        text = message;
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
    }
}

void dropMessage(char const*, void*)
{
}

[[noreturn]] void fail(std::string const& problem, std::string const& message)
{
    throw std::runtime_error("JPEG 2000: " + problem + (message.empty() ? "" : ": " + message));
}

using Codec = std::unique_ptr<opj_codec_t, void (*)(opj_codec_t*)>;
using Stream = std::unique_ptr<opj_stream_t, void (*)(opj_stream_t*)>;
using Picture = std::unique_ptr<opj_image_t, void (*)(opj_image_t*)>;

Picture decodePicture(Source& source, std::string& message)
{
    // JP2 files start with a signature box; anything else is taken for a raw codestream.
    static unsigned char const jp2[] = {0, 0, 0, 12, 'j', 'P', ' ', ' '};
    bool const boxed = source.size >= sizeof jp2 && std::memcmp(source.data, jp2, sizeof jp2) == 0;
    Codec codec(opj_create_decompress(boxed ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K), opj_destroy_codec);
    Stream stream(opj_stream_create(1 << 16, OPJ_TRUE), opj_stream_destroy);
    if (!codec || !stream)
        fail("cannot create a decoder", "");
    opj_set_error_handler(codec.get(), keepMessage, &message);
    opj_set_warning_handler(codec.get(), dropMessage, nullptr);
    opj_set_info_handler(codec.get(), dropMessage, nullptr);
    opj_stream_set_user_data(stream.get(), &source, nullptr);
    opj_stream_set_user_data_length(stream.get(), source.size);
    opj_stream_set_read_function(stream.get(), readSource);
    opj_stream_set_skip_function(stream.get(), skipSource);
    opj_stream_set_seek_function(stream.get(), seekSource);
    opj_dparameters_t parameters;
    opj_set_default_decoder_parameters(&parameters);
    opj_image_t* raw = nullptr;
    if (!opj_setup_decoder(codec.get(), &parameters) || !opj_read_header(stream.get(), codec.get(), &raw))
    {
        opj_image_destroy(raw);
        fail("cannot read the codestream's header", message);
    }
    Picture picture(raw, opj_image_destroy);
    if (!opj_decode(codec.get(), stream.get(), picture.get()) || !opj_end_decompress(codec.get(), stream.get()))
        fail("cannot decode the codestream", message);
    return picture;
}

// The sample of component `c` that covers voxel (x, y) of the picture.
int sampleAt(opj_image_comp_t const& component, long long x, long long y)
{
    long long const column = std::min<long long>(x / component.dx, component.w - 1LL);
    long long const row = std::min<long long>(y / component.dy, component.h - 1LL);
    return component.data[row * component.w + column];
}

unsigned char clamped(double value)
{
    return static_cast<unsigned char>(std::min(255.0, std::max(0.0, std::nearbyint(value))));
}

void writeYcbcr(opj_image_t const& picture, long long x, long long y, unsigned char* voxel)
{
    double const luma = sampleAt(picture.comps[0], x, y);
    double const blue = sampleAt(picture.comps[1], x, y) - 128.0;
    double const red = sampleAt(picture.comps[2], x, y) - 128.0;
    voxel[0] = clamped(luma + 1.402 * red);
    voxel[1] = clamped(luma - 0.344136 * blue - 0.714136 * red);
    voxel[2] = clamped(luma + 1.772 * blue);
}

} // namespace

void Jpeg2000Decoder::decode(unsigned char const* data, std::size_t size, long long width, long long height,
                             long long samples, long long bytesPerSample, bool ycbcr, unsigned char* out)
{
    Source source{data, size, 0};
    std::string message;
    Picture const picture = decodePicture(source, message);
    opj_image_t const& image = *picture;
    if (static_cast<long long>(image.numcomps) != samples || (ycbcr && (samples != 3 || bytesPerSample != 1)))
        fail("the codestream has " + std::to_string(image.numcomps) + " components, the page " +
                 std::to_string(samples) + " samples",
             "");
    for (long long c = 0; c < samples; ++c)
        if (image.comps[c].data == nullptr || image.comps[c].w == 0 || image.comps[c].h == 0 ||
            image.comps[c].dx == 0 || image.comps[c].dy == 0)
            fail("component " + std::to_string(c) + " is empty", "");
    long long const pictureWidth = std::min<long long>(width, image.x1 - image.x0);
    long long const pictureHeight = std::min<long long>(height, image.y1 - image.y0);
    for (long long y = 0; y < pictureHeight; ++y)
        for (long long x = 0; x < pictureWidth; ++x)
        {
            unsigned char* voxel = out + (y * width + x) * samples * bytesPerSample;
            if (ycbcr)
            {
                writeYcbcr(image, x, y, voxel);
                continue;
            }
            for (long long c = 0; c < samples; ++c)
            {
                int const value = sampleAt(image.comps[c], x, y);
                if (bytesPerSample == 1)
                    voxel[c] = static_cast<unsigned char>(value);
                else
                {
                    std::uint16_t const wide = static_cast<std::uint16_t>(value);
                    std::memcpy(voxel + c * 2, &wide, 2);
                }
            }
        }
}

} // namespace Nuvek
