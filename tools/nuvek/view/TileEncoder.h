#pragma once

#include <string>

namespace NuvekTool {

enum class TileFormat
{
    Png,
    Jpeg
};

/// \brief Encodes RGBA display voxels (4 bytes each, rows top to bottom) as a PNG (RGBA, lossless)
/// or a JPEG (RGB, alpha dropped, quality 90) held in memory. Throws std::runtime_error when the
/// encoder fails. May be called from several threads at once.
class TileEncoder
{
public:
    static std::string encode(unsigned char const* rgba, long long width, long long height, TileFormat format);
    static char const* contentType(TileFormat format);
};

} // namespace NuvekTool
