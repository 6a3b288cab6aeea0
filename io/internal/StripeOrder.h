#pragma once

#include <nuvek/io/TileCacheSize.h>

#include <algorithm>

namespace Nuvek {

/// The writers compute level 0 in column stripes of this many tiles, left to right, each from top
/// to bottom in rows of tiles, one z slice after the other. What a tile's computation keeps around
/// then depends on the stripe's width, not the image's: the input tiles its neighbours share (three
/// rows of a stripe, in a source's decoded-tile cache) and the coarser tiles waiting for their last
/// quarter (a power of two, so that levels 1 to 3 finish inside a stripe). A stripe of 8 tiles reads
/// 10 input tiles across with a margin, so where stripes meet an input tile is decoded once for
/// each: a quarter more decoding than in whole rows.
constexpr long long stripeTiles = writerStripeTiles;

/// The position (z * tilesY * tilesX + tileY * tilesX + tileX) computed `order`-th.
inline long long positionInStripes(long long tilesX, long long tilesY, long long order)
{
    long long const slice = tilesX * tilesY;
    long long const z = order / slice;
    long long const stripeSize = stripeTiles * tilesY;
    long long const stripe = order % slice / stripeSize;
    long long const within = order % slice % stripeSize;
    long long const width = std::min(stripeTiles, tilesX - stripe * stripeTiles);
    return z * slice + within / width * tilesX + stripe * stripeTiles + within % width;
}

/// The rows of a tile of `width` x `height` voxels and `channels` channels that the writers ask a
/// chain for at once when it gives the same bits in bands of rows: bands of about 2^18 values, so
/// that a worker holds a band's doubles (a 512 x 512 tile of one channel) rather than the whole tile's.
inline long long rowsPerWriterBand(long long width, long long height, long long channels)
{
    constexpr long long bandValues = 1LL << 18;
    long long const bands = std::max(1LL, (width * height * channels + bandValues - 1) / bandValues);
    return (height + bands - 1) / bands;
}

} // namespace Nuvek
