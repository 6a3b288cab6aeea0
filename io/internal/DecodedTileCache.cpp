#include "io/internal/DecodedTileCache.h"

namespace Nuvek {

DecodedTileCache::DecodedTileCache(std::size_t capacityBytes) : capacity(capacityBytes)
{
}

DecodedTileCache::Block DecodedTileCache::decodeAlone(Decoder const& decode)
{
    ++decodes;
    auto bytes = std::make_shared<std::vector<unsigned char>>();
    decode(*bytes);
    return bytes;
}

// Holds a decoded block (the lock held), the least recently used leaving until the bound holds again.
void DecodedTileCache::keep(Key const& key, Entry& entry)
{
    if (entry.block->size() > capacity)
    {
        entries.erase(key);
        return;
    }
    entry.position = order.insert(order.end(), key);
    bytesHeld += entry.block->size();
    while (bytesHeld > capacity)
    {
        auto const leastRecent = entries.find(order.front());
        bytesHeld -= leastRecent->second->block->size();
        entries.erase(leastRecent);
        order.pop_front();
    }
}

DecodedTileCache::Block DecodedTileCache::get(std::uint64_t page, std::uint64_t index, Decoder const& decode)
{
    if (capacity == 0)
        return decodeAlone(decode);
    Key const key(page, index);
    std::unique_lock<std::mutex> lock(mutex);
    auto const found = entries.find(key);
    if (found != entries.end())
    {
        // Held, or another thread decodes it now: its result serves this call too.
        std::shared_ptr<Entry> const entry = found->second;
        if (entry->done)
        {
            order.splice(order.end(), order, entry->position);
            return entry->block;
        }
        finished.wait(lock, [&] { return entry->done; });
        if (entry->error)
            std::rethrow_exception(entry->error);
        return entry->block;
    }
    auto const entry = std::make_shared<Entry>();
    entries.emplace(key, entry);
    lock.unlock();

    // Decoded without the lock, so that other blocks are served and decoded meanwhile.
    Block block;
    std::exception_ptr error;
    try
    {
        block = decodeAlone(decode);
    }
    catch (...)
    {
        error = std::current_exception();
    }

    lock.lock();
    entry->done = true;
    if (error)
    {
        // The waiters get the exception; the entry goes, so that a later call decodes again.
        entry->error = error;
        entries.erase(key);
        finished.notify_all();
        std::rethrow_exception(error);
    }
    entry->block = block;
    keep(key, *entry);
    finished.notify_all();
    return block;
}

std::size_t DecodedTileCache::getCapacity() const
{
    return capacity;
}

std::size_t DecodedTileCache::getBytesHeld() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return bytesHeld;
}

std::uint64_t DecodedTileCache::getDecodes() const
{
    return decodes.load();
}

} // namespace Nuvek
