#pragma once

#include <string>
#include <vector>

namespace Nuvek {

/// Decompresses one zarr chunk stored with a compressor ("" for none, "zlib", "gzip", "zstd",
/// "blosc") into exactly `size` bytes. Throws std::runtime_error when the data is damaged or
/// decompresses to another size.
void decodeZarrChunk(std::string const& compressor, std::vector<unsigned char> const& stored, std::size_t size,
                     std::vector<unsigned char>& decoded);

} // namespace Nuvek
