#pragma once

#include "io/internal/TileSamples.h"

#include <functional>
#include <map>
#include <mutex>
#include <vector>

namespace Nuvek {

/// \brief Makes the coarser levels of a pyramid from the stored tiles of the finer ones as they
/// come, so that no level has to be read back and decoded.
///
/// A position of a level holds `planes` tiles of the layout back to back (one per channel when
/// every channel has tiles of its own); positions are numbered z * tilesY * tilesX + tileY *
/// tilesX + tileX. Each position added at level L puts the 2 x 2 means of its samples into a
/// quarter of the position above it at level L + 1 (averageQuarter, the arithmetic of
/// averageChildren). When the last of its existing children has come, that position is finished:
/// it goes to the `finished` function given with the call that completed it, and then on to
/// level L + 2 the same way.
///
/// Only unfinished positions are held. With positions added in row-major order, that is at most
/// one row of level 1 (half as many tiles as a row of level 0), one of level 2 (a quarter) and so
/// on, plus a few for positions computed out of order: the memory grows with the image's width,
/// not its height. The writers add them in column stripes of 2^k tiles (StripeOrder.h) instead:
/// then levels 1 to k hold one row of a stripe each, and a level L above k one position per 2^L
/// rows of level 0, which grows with the height but 2^L times more slowly. add() may run on several threads at once; `finished` runs on the calling thread without
/// any lock held.
class CoarseLevels
{
public:
    using Finished = std::function<void(long long level, long long index, unsigned char const* tiles)>;

    CoarseLevels(TileLayout layout, std::vector<PyramidLevel> levels, long long planes);

    /// Takes the stored tiles of position `index` of level `level` (not the last level).
    void add(long long level, long long index, unsigned char const* tiles, Finished const& finished);

    /// The most bytes held in unfinished positions at once so far.
    long long peakBytes() const;

private:
    struct Pending
    {
        std::vector<unsigned char> tiles;
        int missing = 0;
    };

    // Adds a child's means to its parent; returns the parent's tiles once it is finished, or an
    // empty buffer. `parent` is the parent's index at level + 1.
    std::vector<unsigned char> addToParent(long long level, long long index, unsigned char const* tiles,
                                           long long& parent);
    void release(std::vector<unsigned char>& buffer);

    TileLayout layout;
    std::vector<PyramidLevel> levels;
    long long planes;
    long long positionBytes;

    mutable std::mutex mutex;
    // Unfinished positions of every level, by index.
    std::vector<std::map<long long, Pending>> pending;
    // Buffers of finished positions, for reuse.
    std::vector<std::vector<unsigned char>> spare;
    long long heldBytes = 0;
    long long peak = 0;
};

} // namespace Nuvek
