#include "io/internal/CoarseLevels.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Nuvek {

CoarseLevels::CoarseLevels(TileLayout layout, std::vector<PyramidLevel> levels, long long planes)
    : layout(std::move(layout)), levels(std::move(levels)), planes(planes),
      positionBytes(this->layout.tileBytes() * planes), pending(this->levels.size())
{
}

void CoarseLevels::add(long long level, long long index, unsigned char const* tiles, Finished const& finished)
{
    std::vector<unsigned char> current;
    while (level + 1 < static_cast<long long>(levels.size()))
    {
        long long parent = 0;
        std::vector<unsigned char> next = addToParent(level, index, current.empty() ? tiles : current.data(), parent);
        release(current);
        if (next.empty())
            return;
        current.swap(next);
        ++level;
        index = parent;
        finished(level, index, current.data());
    }
    release(current);
}

std::vector<unsigned char> CoarseLevels::addToParent(long long level, long long index, unsigned char const* tiles,
                                                     long long& parent)
{
    PyramidLevel const& shape = levels[static_cast<std::size_t>(level)];
    PyramidLevel const& above = levels[static_cast<std::size_t>(level + 1)];
    long long const tileX = index % shape.tilesX;
    long long const tileY = index / shape.tilesX % shape.tilesY;
    long long const z = index / (shape.tilesX * shape.tilesY);
    long long const parentX = tileX / 2;
    long long const parentY = tileY / 2;
    // A column or row of tiles beyond twice the level above's extent adds nothing to it.
    if (parentX >= above.tilesX || parentY >= above.tilesY)
        return {};
    parent = (z * above.tilesY + parentY) * above.tilesX + parentX;
    long long const width = std::min(layout.tileSize, above.width - parentX * layout.tileSize);
    long long const height = std::min(layout.tileSize, above.height - parentY * layout.tileSize);

    Pending* entry = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto found = pending[static_cast<std::size_t>(level + 1)].find(parent);
        if (found == pending[static_cast<std::size_t>(level + 1)].end())
        {
            Pending fresh;
            if (!spare.empty())
            {
                fresh.tiles.swap(spare.back());
                spare.pop_back();
            }
            fresh.tiles.assign(static_cast<std::size_t>(positionBytes), 0);
            long long const childrenX = std::min<long long>(2, shape.tilesX - 2 * parentX);
            long long const childrenY = std::min<long long>(2, shape.tilesY - 2 * parentY);
            fresh.missing = static_cast<int>(childrenX * childrenY);
            heldBytes += positionBytes;
            peak = std::max(peak, heldBytes);
            found = pending[static_cast<std::size_t>(level + 1)].emplace(parent, std::move(fresh)).first;
        }
        // The entry stays where it is while others are added or removed; only the thread that
        // adds its last child removes it.
        entry = &found->second;
    }
    long long const tileBytes = layout.tileBytes();
    for (long long p = 0; p < planes; ++p)
        averageQuarter(layout, tiles + p * tileBytes, tileX % 2, tileY % 2, width, height,
                       entry->tiles.data() + p * tileBytes);

    std::lock_guard<std::mutex> lock(mutex);
    if (--entry->missing > 0)
        return {};
    std::vector<unsigned char> done;
    done.swap(entry->tiles);
    pending[static_cast<std::size_t>(level + 1)].erase(parent);
    return done;
}

void CoarseLevels::release(std::vector<unsigned char>& buffer)
{
    if (buffer.empty())
        return;
    std::lock_guard<std::mutex> lock(mutex);
    heldBytes -= positionBytes;
    spare.emplace_back();
    spare.back().swap(buffer);
}

long long CoarseLevels::peakBytes() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return peak;
}

} // namespace Nuvek
