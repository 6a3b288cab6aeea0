#include "support/Tiling.h"

#include "support/VoxelCompare.h"

#include <algorithm>
#include <future>
#include <mutex>

namespace NuvekTest {

namespace {

// [low, high] cut before every position in cuts that lies inside it.
std::vector<std::pair<long long, long long>> spans(long long low, long long high, std::vector<long long> cuts)
{
    std::sort(cuts.begin(), cuts.end());
    std::vector<std::pair<long long, long long>> result;
    for (long long cut : cuts)
        if (cut > low && cut <= high)
        {
            result.emplace_back(low, cut - 1);
            low = cut;
        }
    result.emplace_back(low, high);
    return result;
}

} // namespace

std::vector<double> openWhole(Nuvek::Image& image, long long level, Nuvek::Box const& box)
{
    std::vector<double> values(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), 0.0);
    image.openRegion(values.data(), level, box);
    return values;
}

std::vector<double> openTiled(Nuvek::Image& image, long long level, Nuvek::Box const& box,
                              std::vector<long long> const& cutsX, std::vector<long long> const& cutsY, int threads)
{
    std::vector<Nuvek::Box> tiles;
    for (auto const& [y0, y1] : spans(box.min.y, box.max.y, cutsY))
        for (auto const& [x0, x1] : spans(box.min.x, box.max.x, cutsX))
            tiles.emplace_back(Nuvek::Vector(x0, y0, box.min.z), Nuvek::Vector(x1, y1, box.max.z));
    std::vector<double> result(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), 0.0);
    std::mutex mutex;
    // Thread t opens tiles t, t + threads, ...; get() passes a thread's exception on.
    std::vector<std::future<void>> workers;
    for (std::size_t t = 0; t < static_cast<std::size_t>(threads); ++t)
        workers.push_back(std::async(std::launch::async, [&, t]() {
            for (std::size_t i = t; i < tiles.size(); i += static_cast<std::size_t>(threads))
            {
                std::vector<double> const tile = openWhole(image, level, tiles[i]);
                std::lock_guard<std::mutex> guard(mutex);
                paste(result, box, tile, tiles[i], image.getNumChannels());
            }
        }));
    for (std::future<void>& worker : workers)
        worker.get();
    return result;
}

} // namespace NuvekTest
