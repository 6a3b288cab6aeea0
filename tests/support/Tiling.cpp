#include "support/Tiling.h"

#include "support/VoxelCompare.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

namespace NuvekTest {

namespace {

std::vector<std::pair<long long, long long>> spans(long long low, long long high, std::vector<long long> cuts)
{
    std::sort(cuts.begin(), cuts.end());
    std::vector<std::pair<long long, long long>> result;
    long long start = low;
    for (long long cut : cuts)
        if (cut > start && cut <= high)
        {
            result.emplace_back(start, cut - 1);
            start = cut;
        }
    result.emplace_back(start, high);
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

    long long const numChannels = image.getNumChannels();
    std::vector<double> result(static_cast<std::size_t>(box.getSize() * numChannels), 0.0);
    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::exception_ptr failure;
    auto work = [&]() {
        for (std::size_t i = next++; i < tiles.size(); i = next++)
        {
            try
            {
                std::vector<double> tile = openWhole(image, level, tiles[i]);
                std::lock_guard<std::mutex> guard(mutex);
                paste(result, box, tile, tiles[i], numChannels);
            }
            catch (...)
            {
                std::lock_guard<std::mutex> guard(mutex);
                failure = std::current_exception();
            }
        }
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < threads; ++t)
        pool.emplace_back(work);
    work();
    for (std::thread& thread : pool)
        thread.join();
    if (failure)
        std::rethrow_exception(failure);
    return result;
}

} // namespace NuvekTest
