#pragma once

// Internal to the library: not installed.

#include <cstddef>
#include <vector>

namespace Nuvek {

/// Cuts a filter's cache back to at most `retained` values when a call ends, also when the input
/// throws, so that between calls the cache never holds more.
class CacheTrim
{
public:
    CacheTrim(std::vector<double>& cache, std::size_t retained) : cache(cache), retained(retained) {}
    CacheTrim(CacheTrim const&) = delete;
    CacheTrim& operator=(CacheTrim const&) = delete;
    ~CacheTrim()
    {
        if (cache.size() > retained)
            cache.resize(retained);
    }

private:
    std::vector<double>& cache;
    std::size_t retained;
};

} // namespace Nuvek
