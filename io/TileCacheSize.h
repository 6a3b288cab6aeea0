#pragma once

#include <cstddef>

namespace Nuvek {

/// The bytes of decoded tiles that a file source (TiffImage, SlideImage, ZarrImage) keeps for its
/// threads by default: 96 MiB, enough for most chains read in any order of nearby tiles.
constexpr std::size_t defaultTileCacheBytes = std::size_t(96) << 20;

/// The pyramid writers compute level 0 in column stripes of this many output tiles, each stripe
/// from top to bottom. A cache that holds three rows of input tiles under a stripe and its margins
/// (plus a few tiles per worker thread) decodes every input tile once within a stripe, whatever the
/// image's width.
constexpr long long writerStripeTiles = 8;

} // namespace Nuvek
