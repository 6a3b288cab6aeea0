#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct libdeflate_compressor;
struct ZSTD_CCtx_s;

namespace Nuvek {

/// \brief Compresses one tile's bytes the way a TIFF reader expects them for compression 1
/// (none), 5 (LZW, most significant bit first, with the early code-width change), 8 (Deflate,
/// a zlib stream made by libdeflate, which is several times faster than zlib at equal size),
/// 50000 (one zstd frame) or 7 (JPEG: a complete baseline JPEG stream with its own tables, of
/// 8-bit grey samples, or of RGB samples stored as YCbCr subsampled 2 x 2 as photometric
/// interpretation YCbCr asks), without a predictor. The zlib and zstd streams are also what zarr's
/// "zlib" and "zstd" codecs hold.
///
/// Compressing outside libtiff lets the writer's worker threads do it in parallel and hand
/// finished bytes to the one thread that writes the file. One encoder serves one thread; it keeps
/// its LZW table and its zstd context between tiles to avoid reallocating them.
class TileEncoder
{
public:
    enum class Method
    {
        None,
        LZW,
        Deflate,
        Zstd,
        JPEG
    };

    /// level is the compression level for Deflate, 1 (fastest) to 12 (smallest), for zstd 1 to 22,
    /// and the quality for JPEG, 1 to 100. JPEG also needs the shape of every tile: width and
    /// height in voxels and 1 or 3 samples per voxel, interleaved.
    TileEncoder(Method method, int level, long long width = 0, long long height = 0, long long samples = 0);
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
    void encodeZstd(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded);
    void encodeJPEG(unsigned char const* data, std::size_t size, std::vector<unsigned char>& encoded);

    Method method;
    int level;
    long long width;
    long long height;
    long long samples;
    libdeflate_compressor* compressor = nullptr;
    ZSTD_CCtx_s* zstdContext = nullptr;
    // LZW string table: entry (prefix code << 8 | next byte) holds generation << 12 | code, so that
    // a reset only raises the generation instead of clearing four megabytes.
    std::vector<std::uint32_t> table;
    std::uint32_t generation = 0;
};

} // namespace Nuvek
