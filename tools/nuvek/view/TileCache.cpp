#include "view/TileCache.h"

namespace NuvekTool {

TileCache::TileCache(std::size_t capacityBytes) : capacity(capacityBytes)
{
}

std::size_t TileCache::costOf(Entry const& entry)
{
    return entry.first.size() + entry.second->size() + entryOverhead;
}

std::shared_ptr<std::string const> TileCache::find(std::string const& key)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto const found = index.find(key);
    if (found == index.end())
    {
        ++statistics.misses;
        return nullptr;
    }
    ++statistics.hits;
    order.splice(order.begin(), order, found->second);
    return found->second->second;
}

void TileCache::insert(std::string const& key, std::shared_ptr<std::string const> bytes)
{
    Entry entry(key, std::move(bytes));
    std::size_t const cost = costOf(entry);
    std::lock_guard<std::mutex> lock(mutex);
    auto const found = index.find(key);
    if (found != index.end())
    {
        statistics.bytes -= costOf(*found->second);
        order.erase(found->second);
        index.erase(found);
    }
    if (cost > capacity)
        return;
    while (statistics.bytes + cost > capacity)
    {
        statistics.bytes -= costOf(order.back());
        index.erase(order.back().first);
        order.pop_back();
        ++statistics.evictions;
    }
    order.push_front(std::move(entry));
    index.emplace(order.front().first, order.begin());
    statistics.bytes += cost;
    statistics.entries = order.size();
}

TileCache::Statistics TileCache::getStatistics() const
{
    std::lock_guard<std::mutex> lock(mutex);
    Statistics result = statistics;
    result.entries = order.size();
    return result;
}

} // namespace NuvekTool
