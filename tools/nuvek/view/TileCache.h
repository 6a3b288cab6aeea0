#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace NuvekTool {

/// \brief Encoded tiles by key, least recently used first out, holding at most a given number of
/// bytes (each entry counts its key, its bytes and a fixed bookkeeping overhead). An entry larger than
/// the whole bound is not kept. Safe for concurrent use.
class TileCache
{
public:
    struct Statistics
    {
        long long hits = 0;
        long long misses = 0;
        long long evictions = 0;
        std::size_t bytes = 0;
        std::size_t entries = 0;
    };

    /// What one entry costs beyond its key and bytes: list and map nodes.
    static constexpr std::size_t entryOverhead = 128;

    explicit TileCache(std::size_t capacityBytes);

    /// The entry, now the most recently used; null when absent (counted as a miss).
    std::shared_ptr<std::string const> find(std::string const& key);
    void insert(std::string const& key, std::shared_ptr<std::string const> bytes);

    Statistics getStatistics() const;
    std::size_t getCapacity() const { return capacity; }

private:
    using Entry = std::pair<std::string, std::shared_ptr<std::string const>>;

    static std::size_t costOf(Entry const& entry);

    mutable std::mutex mutex;
    std::size_t capacity;
    std::list<Entry> order; // most recently used first
    std::unordered_map<std::string, std::list<Entry>::iterator> index;
    Statistics statistics;
};

} // namespace NuvekTool
