#include "io/internal/TileEncoder.h"

#include <libdeflate.h>
#include <zstd.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>

// After <cstdio>: jpeglib.h uses FILE and size_t without including their headers.
#include <jpeglib.h>

namespace Nuvek {

namespace {

constexpr std::uint32_t clearCode = 256;
constexpr std::uint32_t endCode = 257;
constexpr std::uint32_t firstFreeCode = 258;
// The table is reset when its next free code would be 4094, as TIFF readers expect.
constexpr std::uint32_t lastFreeCode = 4094;

// Codes written most significant bit first.
class BitWriter
{
public:
    explicit BitWriter(std::vector<unsigned char>& bytes) : bytes(bytes) {}

    void put(std::uint32_t code, int width)
    {
        pending = (pending << width) | code;
        pendingBits += width;
        while (pendingBits >= 8)
        {
            pendingBits -= 8;
            bytes.push_back(static_cast<unsigned char>((pending >> pendingBits) & 0xff));
        }
    }

    void finish()
    {
        if (pendingBits > 0)
            bytes.push_back(static_cast<unsigned char>((pending << (8 - pendingBits)) & 0xff));
        pendingBits = 0;
    }

private:
    std::vector<unsigned char>& bytes;
    std::uint64_t pending = 0;
    int pendingBits = 0;
};

// libjpeg reports errors through a handler that must not return; this one jumps back to the
// compressing call with the message.
struct JpegErrorManager
{
    jpeg_error_mgr manager;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

extern "C" void jumpOnJpegError(j_common_ptr info)
{
    JpegErrorManager* const error = reinterpret_cast<JpegErrorManager*>(info->err);
    (*info->err->format_message)(info, error->message);
    std::longjmp(error->jump, 1);
}

extern "C" void dropJpegMessage(j_common_ptr)
{}

// Compresses one image into the buffer at *output (of *outputSize bytes; libjpeg replaces it by
// one of its own, from malloc, when it does not suffice). Returns false with the message on failure.
// Every local is trivially destructible, since the error handler jumps over this frame.
bool compressJpeg(unsigned char const* data, unsigned width, unsigned height, int samples, int quality,
                  unsigned char** output, unsigned long* outputSize, JpegErrorManager* error)
{
    jpeg_compress_struct info;
    info.err = jpeg_std_error(&error->manager);
    error->manager.error_exit = jumpOnJpegError;
    error->manager.output_message = dropJpegMessage;
    if (setjmp(error->jump) != 0)
    {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, output, outputSize);
    info.image_width = width;
    info.image_height = height;
    info.input_components = samples;
    info.in_color_space = samples == 3 ? JCS_RGB : JCS_GRAYSCALE;
    // Defaults for RGB input: YCbCr, luma at full resolution and chroma halved along x and y.
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    // TIFF's JPEG streams carry no JFIF header; the file's own tags describe the colours.
    info.write_JFIF_header = FALSE;
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height)
    {
        JSAMPROW row = const_cast<JSAMPROW>(data + static_cast<std::size_t>(info.next_scanline) * width *
                                                       static_cast<std::size_t>(samples));
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

} // namespace

TileEncoder::TileEncoder(Method method, int level, long long width, long long height, long long samples)
    : method(method), level(level), width(width), height(height), samples(samples)
{
    if (method == Method::LZW)
        table.assign(4096 * 256, 0);
    if (method == Method::Deflate)
    {
        compressor = libdeflate_alloc_compressor(level);
        if (compressor == nullptr)
            throw std::runtime_error("cannot set up Deflate compression at level " + std::to_string(level));
    }
    if (method == Method::Zstd)
    {
        zstdContext = ZSTD_createCCtx();
        if (zstdContext == nullptr)
            throw std::runtime_error("cannot set up zstd compression");
    }
    if (method == Method::JPEG && (samples != 1 && samples != 3))
        throw std::runtime_error("JPEG compresses 1 or 3 samples per voxel, not " + std::to_string(samples));
}

TileEncoder::~TileEncoder()
{
    if (compressor != nullptr)
        libdeflate_free_compressor(compressor);
    if (zstdContext != nullptr)
        ZSTD_freeCCtx(zstdContext);
}

TileEncoder::TileEncoder(TileEncoder&& other) noexcept
    : method(other.method), level(other.level), width(other.width), height(other.height), samples(other.samples),
      compressor(other.compressor), zstdContext(other.zstdContext), table(std::move(other.table)),
      generation(other.generation)
{
    other.compressor = nullptr;
    other.zstdContext = nullptr;
}

void TileEncoder::encode(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded)
{
    encoded.clear();
    switch (method)
    {
    case Method::None:
        encoded.assign(data, data + size);
        return;
    case Method::LZW:
        encodeLZW(data, size, encoded);
        return;
    case Method::Deflate:
        encodeDeflate(data, size, encoded);
        return;
    case Method::Zstd:
        encodeZstd(data, size, encoded);
        return;
    case Method::JPEG:
        encodeJPEG(data, size, encoded);
        return;
    }
}

void TileEncoder::encodeLZW(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded)
{
    encoded.reserve(size / 2 + 16);
    BitWriter writer(encoded);
    auto reset = [this]() {
        ++generation;
        if (generation == (1u << 20))
        {
            std::fill(table.begin(), table.end(), 0u);
            generation = 1;
        }
    };
    reset();
    int width = 9;
    std::uint32_t maxCode = 511;
    std::uint32_t nextCode = firstFreeCode;
    writer.put(clearCode, width);
    if (size == 0)
    {
        writer.put(endCode, width);
        writer.finish();
        return;
    }

    // After each code written, the table grows by one entry; the width grows once the next free
    // code no longer fits, and the table restarts before it would pass 4093.
    auto grow = [&]() {
        ++nextCode;
        if (nextCode == lastFreeCode)
        {
            writer.put(clearCode, width);
            reset();
            nextCode = firstFreeCode;
            width = 9;
            maxCode = 511;
        }
        else if (nextCode > maxCode)
        {
            ++width;
            maxCode = (1u << width) - 1;
        }
    };

    std::uint32_t prefix = data[0];
    for (std::size_t i = 1; i < size; ++i)
    {
        std::uint32_t const next = data[i];
        std::uint32_t const key = (prefix << 8) | next;
        std::uint32_t const entry = table[key];
        if ((entry >> 12) == generation)
        {
            prefix = entry & 0xfff;
            continue;
        }
        writer.put(prefix, width);
        table[key] = (generation << 12) | nextCode;
        grow();
        prefix = next;
    }
    writer.put(prefix, width);
    // The reader adds an entry for this last code too, so the width it expects for the end code
    // follows the same rule.
    ++nextCode;
    if (nextCode == lastFreeCode)
    {
        writer.put(clearCode, width);
        width = 9;
    }
    else if (nextCode > maxCode)
        ++width;
    writer.put(endCode, width);
    writer.finish();
}

void TileEncoder::encodeDeflate(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded)
{
    encoded.resize(libdeflate_zlib_compress_bound(compressor, size));
    std::size_t const length = libdeflate_zlib_compress(compressor, data, size, encoded.data(), encoded.size());
    if (length == 0)
        throw std::runtime_error("Deflate compression failed");
    encoded.resize(length);
}

void TileEncoder::encodeZstd(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded)
{
    encoded.resize(ZSTD_compressBound(size));
    std::size_t const length = ZSTD_compressCCtx(zstdContext, encoded.data(), encoded.size(), data, size, level);
    if (ZSTD_isError(length) != 0)
        throw std::runtime_error(std::string("zstd compression failed: ") + ZSTD_getErrorName(length));
    encoded.resize(length);
}

void TileEncoder::encodeJPEG(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded)
{
    if (size != static_cast<std::size_t>(width * height * samples))
        throw std::runtime_error("JPEG compression needs whole tiles of " + std::to_string(width) + " x " +
                                 std::to_string(height) + " x " + std::to_string(samples) + " bytes");
    // Room for the worst case of any quality: the samples of 16 x 16-padded blocks, with the
    // headers and tables; libjpeg allocates more itself should that not suffice.
    std::size_t const padded = static_cast<std::size_t>(((width + 15) / 16 * 16) * ((height + 15) / 16 * 16));
    encoded.resize(padded * 6 + 2048);
    unsigned char* output = encoded.data();
    unsigned long outputSize = static_cast<unsigned long>(encoded.size());
    JpegErrorManager error;
    bool const done = compressJpeg(data, static_cast<unsigned>(width), static_cast<unsigned>(height),
                                   static_cast<int>(samples), level, &output, &outputSize, &error);
    if (output != encoded.data())
    {
        std::vector<unsigned char> copy(output, output + (done ? outputSize : 0));
        std::free(output);
        encoded.swap(copy);
    }
    if (!done)
        throw std::runtime_error(std::string("JPEG compression failed: ") + error.message);
    encoded.resize(outputSize);
}

} // namespace Nuvek
