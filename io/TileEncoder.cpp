#include "io/internal/TileEncoder.h"

#include <libdeflate.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

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

} // namespace

TileEncoder::TileEncoder(Method method, int level) : method(method)
{
    if (method == Method::LZW)
        table.assign(4096 * 256, 0);
    if (method == Method::Deflate)
    {
        compressor = libdeflate_alloc_compressor(level);
        if (compressor == nullptr)
            throw std::runtime_error("writePyramidalTiff: cannot set up Deflate compression at level " +
                                     std::to_string(level));
    }
}

TileEncoder::~TileEncoder()
{
    if (compressor != nullptr)
        libdeflate_free_compressor(compressor);
}

TileEncoder::TileEncoder(TileEncoder&& other) noexcept
    : method(other.method), compressor(other.compressor), table(std::move(other.table)), generation(other.generation)
{
    other.compressor = nullptr;
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
        throw std::runtime_error("writePyramidalTiff: Deflate compression failed");
    encoded.resize(length);
}

} // namespace Nuvek
