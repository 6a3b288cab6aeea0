#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Nuvek {

/// \brief Decoded tiles (or strips, chunks, slide regions) of one file source, shared by every
/// thread that reads it, bounded in bytes.
///
/// A block is named by a key of two numbers (a page or level, and a block index within it) and
/// held as the bytes its decoder produced, in the file's stored sample type. get() returns a held
/// block at once; else it decodes it once however many threads ask: the first caller decodes
/// without holding the lock, the others wait for its result. When the decoder throws, every
/// waiting caller gets the exception and nothing is kept, so a later call tries again.
///
/// The bytes held never exceed the capacity; the least recently used blocks leave first. A source
/// read in rows of tiles, each request reaching into the rows above and below, then needs three
/// rows of blocks held (and a few more per thread) to decode each block once: a block of the next
/// row is last used early in the previous row, before the blocks the current row has finished with.
/// A caller keeps a returned block alive while it copies from it, even when the block has left the
/// cache. A block larger than the capacity, and every block when the capacity is 0, is decoded on
/// every call and not kept.
class DecodedTileCache
{
public:
    using Block = std::shared_ptr<std::vector<unsigned char> const>;
    using Decoder = std::function<void(std::vector<unsigned char>& bytes)>;

    explicit DecodedTileCache(std::size_t capacityBytes);
    DecodedTileCache(DecodedTileCache const&) = delete;
    DecodedTileCache& operator=(DecodedTileCache const&) = delete;

    /// The block (page, index): held, being decoded by another thread (then waits for it), or
    /// decoded now by decode(bytes), which fills an empty vector.
    Block get(std::uint64_t page, std::uint64_t index, Decoder const& decode);

    std::size_t getCapacity() const;
    /// The bytes of the blocks held now.
    std::size_t getBytesHeld() const;
    /// How many times a decoder ran, since the cache was made.
    std::uint64_t getDecodes() const;

private:
    using Key = std::pair<std::uint64_t, std::uint64_t>;

    // One block, held or being decoded. `done` tells the waiters that `block` or `error` is set.
    struct Entry
    {
        bool done = false;
        Block block;
        std::exception_ptr error;
        // Where the block stands in `order`, once it is held.
        std::list<Key>::iterator position;
    };

    Block decodeAlone(Decoder const& decode);
    void keep(Key const& key, Entry& entry);

    std::size_t const capacity;
    mutable std::mutex mutex;
    std::condition_variable finished;
    std::map<Key, std::shared_ptr<Entry>> entries;
    // The held blocks, least recently used first.
    std::list<Key> order;
    std::size_t bytesHeld = 0;
    std::atomic<std::uint64_t> decodes{0};
};

} // namespace Nuvek
