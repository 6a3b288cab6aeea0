#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief Compressed tiles kept aside in a file until their turn to be written.
///
/// The pyramid writer makes the tiles of its coarser levels while it computes the finest one, but
/// a TIFF file holds one level after the other; the finished tiles wait here, in a file beside the
/// output that is removed as soon as it is created (so nothing is left behind by a crash), and are
/// copied in order once their level is due. put() may run on several threads at once.
class TileSpool
{
public:
    /// Creates the file beside `besidePath`; `tiles[level]` is the number of tiles of each level.
    TileSpool(std::string const& besidePath, std::vector<long long> const& tiles, char const* context);
    ~TileSpool();
    TileSpool(TileSpool const&) = delete;
    TileSpool& operator=(TileSpool const&) = delete;

    /// Keeps the bytes of tile `index` of level `level`.
    void put(long long level, long long index, std::vector<unsigned char> const& bytes);

    /// Replaces `bytes` by those of tile `index` of level `level`, which must have been put.
    void get(long long level, long long index, std::vector<unsigned char>& bytes) const;

    /// Forgets every tile, for the next page.
    void clear();

private:
    struct Place
    {
        long long offset = -1;
        long long size = 0;
    };

    [[noreturn]] void fail(std::string const& problem) const;

    std::string context;
    int descriptor = -1;
    mutable std::mutex mutex;
    std::vector<std::vector<Place>> places;
    long long end = 0;
};

} // namespace Nuvek
