#include "support/BenchImages.h"

#include <algorithm>
#include <random>

namespace NuvekBench {

std::shared_ptr<Nuvek::MemoryImage> noiseImage(Nuvek::Vector const& extent, long long numChannels, unsigned seed)
{
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> uniform(0.0, 255.0);
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * numChannels));
    for (double& value : values)
        value = uniform(random);
    auto image = std::make_shared<Nuvek::MemoryImage>(extent, numChannels, std::move(values));
    image->setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    return image;
}

std::vector<Nuvek::Box> tilesOf(Nuvek::Box const& whole, long long tileSize)
{
    std::vector<Nuvek::Box> tiles;
    for (long long y = whole.min.y; y <= whole.max.y; y += tileSize)
        for (long long x = whole.min.x; x <= whole.max.x; x += tileSize)
            tiles.emplace_back(Nuvek::Vector(x, y, whole.min.z),
                               Nuvek::Vector(std::min(x + tileSize - 1, whole.max.x),
                                             std::min(y + tileSize - 1, whole.max.y), whole.max.z));
    return tiles;
}

void openTiles(Nuvek::Image& image, long long level, Nuvek::Box const& whole, std::vector<Nuvek::Box> const& tiles,
               std::vector<double>& scratch, double* out)
{
    long long const numChannels = image.getNumChannels();
    Nuvek::Vector const wholeExtent = whole.getExtent();
    for (Nuvek::Box const& tile : tiles)
    {
        long long const size = tile.getSize();
        scratch.resize(static_cast<std::size_t>(size * numChannels));
        image.openRegion(scratch.data(), level, tile);
        Nuvek::Vector const extent = tile.getExtent();
        for (long long c = 0; c < numChannels; ++c)
            for (long long z = 0; z < extent.z; ++z)
                for (long long y = 0; y < extent.y; ++y)
                {
                    double const* source = scratch.data() + c * size + (z * extent.y + y) * extent.x;
                    double* target = out + c * whole.getSize() +
                                     ((tile.min.z - whole.min.z + z) * wholeExtent.y + tile.min.y - whole.min.y + y) *
                                         wholeExtent.x +
                                     tile.min.x - whole.min.x;
                    std::copy(source, source + extent.x, target);
                }
    }
}

void openRepeatedly(benchmark::State& state, Nuvek::Image& image, Nuvek::Box const& box, long long level)
{
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * image.getNumChannels()));
    for (auto _ : state)
    {
        image.openRegion(out.data(), level, box);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}

} // namespace NuvekBench
