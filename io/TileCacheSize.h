#pragma once

#include <cstddef>

namespace Nuvek {

/// The bytes of decoded tiles that a file source (TiffImage, SlideImage, ZarrImage) keeps for its
/// threads by default: 96 MiB. A tiled pyramid written in rows of 512 x 512 tiles from an 8-bit
/// RGB input 16384 voxels wide, with a chain whose margin reaches into the tile rows above and
/// below, needs three rows of the input's tiles (72 MiB) and a few tiles per worker thread held to
/// decode every input tile once; narrower inputs use less.
constexpr std::size_t defaultTileCacheBytes = std::size_t(96) << 20;

} // namespace Nuvek
