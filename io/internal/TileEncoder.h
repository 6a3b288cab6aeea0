#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct libdeflate_compressor;

namespace Nuvek {

/// \brief Compresses one tile's bytes the way a TIFF reader expects them for compression 1
/// (none), 5 (LZW, most significant bit first, with the early code-width change) or 8 (Deflate,
/// a zlib stream made by libdeflate, which is several times faster than zlib at equal size),
/// without a predictor.
///
/// Compressing outside libtiff lets the writer's worker threads do it in parallel and hand
/// finished bytes to the one thread that writes the file. One encoder serves one thread; it keeps
/// its LZW table between tiles to avoid reallocating it.
class TileEncoder
{
public:
    enum class Method
    {
        None,
        LZW,
        Deflate
    };

    /// level is the compression level for Deflate, 1 (fastest) to 12 (smallest).
    TileEncoder(Method method, int level);
    ~TileEncoder();
    TileEncoder(TileEncoder&& other) noexcept;
    TileEncoder(TileEncoder const&) = delete;
    TileEncoder& operator=(TileEncoder const&) = delete;
    TileEncoder& operator=(TileEncoder&&) = delete;

    /// Replaces `encoded` by the compressed form of size bytes at data.
    void encode(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded);

private:
    void encodeLZW(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded);
    void encodeDeflate(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded);

    Method method;
    libdeflate_compressor* compressor = nullptr;
    // LZW string table: entry (prefix code << 8 | next byte) holds generation << 12 | code, so that
    // a reset only raises the generation instead of clearing four megabytes.
    std::vector<std::uint32_t> table;
    std::uint32_t generation = 0;
};

} // namespace Nuvek
