#include "io/internal/ZarrCodec.h"

#include <blosc.h>
#include <libdeflate.h>
#include <zstd.h>

#include <memory>
#include <stdexcept>

namespace Nuvek {

namespace {

void inflate(bool gzip, std::vector<unsigned char> const& stored, std::size_t size, std::vector<unsigned char>& decoded)
{
    std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> decompressor(
        libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    if (!decompressor)
        throw std::runtime_error("cannot set up zlib decompression");
    std::size_t written = 0;
    libdeflate_result const result = gzip ? libdeflate_gzip_decompress(decompressor.get(), stored.data(), stored.size(),
                                                                       decoded.data(), size, &written)
                                          : libdeflate_zlib_decompress(decompressor.get(), stored.data(), stored.size(),
                                                                       decoded.data(), size, &written);
    if (result != LIBDEFLATE_SUCCESS || written != size)
        throw std::runtime_error("a chunk does not decompress to its size");
}

} // namespace

void decodeZarrChunk(std::string const& compressor, std::vector<unsigned char> const& stored, std::size_t size,
                     std::vector<unsigned char>& decoded)
{
    decoded.resize(size);
    if (compressor.empty())
    {
        if (stored.size() != size)
            throw std::runtime_error("a chunk holds " + std::to_string(stored.size()) + " bytes, not " +
                                     std::to_string(size));
        decoded = stored;
        return;
    }
    if (compressor == "zlib" || compressor == "gzip")
    {
        inflate(compressor == "gzip", stored, size, decoded);
        return;
    }
    if (compressor == "zstd")
    {
        std::size_t const written = ZSTD_decompress(decoded.data(), size, stored.data(), stored.size());
        if (ZSTD_isError(written) != 0 || written != size)
            throw std::runtime_error("a chunk does not decompress to its size");
        return;
    }
    if (compressor == "blosc")
    {
        std::size_t claimed = 0;
        std::size_t compressed = 0;
        std::size_t block = 0;
        if (stored.size() < BLOSC_MIN_HEADER_LENGTH)
            throw std::runtime_error("a chunk does not decompress to its size");
        blosc_cbuffer_sizes(stored.data(), &claimed, &compressed, &block);
        if (claimed != size || compressed != stored.size())
            throw std::runtime_error("a chunk does not decompress to its size");
        // The context form uses no global state, so several threads may decompress at once.
        int const written = blosc_decompress_ctx(stored.data(), decoded.data(), size, 1);
        if (written < 0 || static_cast<std::size_t>(written) != size)
            throw std::runtime_error("a chunk does not decompress to its size");
        return;
    }
    throw std::runtime_error("the compressor \"" + compressor + "\" is not supported");
}

} // namespace Nuvek
