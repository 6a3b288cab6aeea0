// Distance transform and radial symmetry, in voxels per second, with OpenCV's exact distance
// transform as the peer and the step-by-step reference beside the filter.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/DistanceTransformFilter.h>
#include <nuvek/filters/neighbourhood/RadialSymmetryFilter.h>
#include <nuvek/filters/neighbourhood/SobelFilter.h>

#include "../../tests/reference/DistanceTransformReference.h"
#include "../../tests/reference/RadialSymmetryReference.h"
#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <memory>
#include <random>
#include <vector>

namespace {

constexpr long long imageSize = 2048;
constexpr long long tileSize = 512;
constexpr long long cap = 64;

// Foreground 1.0 in random discs of radius 4 to 60 covering about a third of the image,
// background 0.0: cells on a slide, with distances from a few voxels to beyond the cap.
std::vector<double> const& discValues()
{
    static std::vector<double> const values = [] {
        std::vector<double> result(static_cast<std::size_t>(imageSize * imageSize), 0.0);
        std::mt19937_64 random(4242);
        std::uniform_int_distribution<long long> position(0, imageSize - 1);
        std::uniform_int_distribution<long long> radius(4, 60);
        for (int disc = 0; disc < 900; ++disc)
        {
            long long const cx = position(random), cy = position(random), r = radius(random);
            for (long long y = std::max(0LL, cy - r); y <= std::min(imageSize - 1, cy + r); ++y)
                for (long long x = std::max(0LL, cx - r); x <= std::min(imageSize - 1, cx + r); ++x)
                    if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
                        result[static_cast<std::size_t>(y * imageSize + x)] = 1.0;
        }
        return result;
    }();
    return values;
}

std::shared_ptr<Nuvek::MemoryImage> discImage()
{
    return std::make_shared<Nuvek::MemoryImage>(Nuvek::Vector(imageSize, imageSize, 1), 1, discValues());
}

// The whole image as 16 requests of 512 x 512, one thread.
void distanceTransformTiles(benchmark::State& state)
{
    auto image = discImage();
    Nuvek::DistanceTransformFilter filter(image.get(), 1.0, cap, false);
    Nuvek::Box const whole(Nuvek::Vector(imageSize, imageSize, 1));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, tileSize);
    std::vector<double> scratch;
    std::vector<double> out(static_cast<std::size_t>(whole.getSize()));
    for (auto _ : state)
    {
        NuvekBench::openTiles(filter, 0, whole, tiles, scratch, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}
BENCHMARK(distanceTransformTiles)->Unit(benchmark::kMillisecond);

// The step-by-step reference on the same 16 requests.
void distanceTransformReferenceTiles(benchmark::State& state)
{
    auto image = discImage();
    Nuvek::Box const whole(Nuvek::Vector(imageSize, imageSize, 1));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, tileSize);
    std::vector<double> out(static_cast<std::size_t>(tileSize * tileSize));
    for (auto _ : state)
        for (Nuvek::Box const& tile : tiles)
        {
            Nuvek::Box const grown = tile.expanded(Nuvek::Vector(cap, cap, 0));
            std::vector<double> work(static_cast<std::size_t>(grown.getSize()), 0.0);
            image->openRegion(work.data(), 0, grown);
            NuvekReference::distanceTransform(out, std::move(work), tile, image->getExtent(0), 1, 1.0, cap);
            benchmark::DoNotOptimize(out.data());
        }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}
BENCHMARK(distanceTransformReferenceTiles)->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV
// OpenCV's exact transform of the whole image in one call, on one thread like the tiles above.
void distanceTransformOpenCV(benchmark::State& state)
{
    std::vector<double> const& values = discValues();
    cv::Mat source(static_cast<int>(imageSize), static_cast<int>(imageSize), CV_8UC1);
    for (long long i = 0; i < imageSize * imageSize; ++i)
        source.data[i] = values[static_cast<std::size_t>(i)] == 1.0 ? 255 : 0;
    cv::Mat distances;
    int const threads = cv::getNumThreads();
    cv::setNumThreads(1);
    for (auto _ : state)
    {
        cv::distanceTransform(source, distances, cv::DIST_L2, cv::DIST_MASK_PRECISE, CV_32F);
        benchmark::DoNotOptimize(distances.data);
    }
    cv::setNumThreads(threads);
    state.SetItemsProcessed(state.iterations() * imageSize * imageSize);
}
BENCHMARK(distanceTransformOpenCV)->Unit(benchmark::kMillisecond);
#endif

// One request of a 256 x 256 or an odd 255 x 257 tile, with caps of 3, 15 and 63.
void distanceTransformTile(benchmark::State& state)
{
    auto image = discImage();
    Nuvek::DistanceTransformFilter filter(image.get(), 1.0, state.range(2), false);
    Nuvek::Vector const first(700, 900, 0);
    Nuvek::Box const box(first, first + Nuvek::Vector(state.range(0) - 1, state.range(1) - 1, 0));
    NuvekBench::openRepeatedly(state, filter, box);
}
BENCHMARK(distanceTransformTile)
    ->ArgsProduct({{256}, {256}, {3, 15, 63}})
    ->Args({255, 257, 15})
    ->Unit(benchmark::kMicrosecond);

// Radial symmetry over the disc image (scaled to 0..255) as 16 requests of 512 x 512, one thread.
void radialSymmetryTiles(benchmark::State& state)
{
    auto image = discImage();
    std::vector<double> scaled = image->getValues();
    for (double& value : scaled)
        value *= 255.0;
    image->setValues(std::move(scaled));
    Nuvek::RadialSymmetryFilter filter(image.get(), static_cast<double>(state.range(0)), 10.0, false);
    Nuvek::Box const whole(Nuvek::Vector(imageSize, imageSize, 1));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, tileSize);
    std::vector<double> scratch;
    std::vector<double> out(static_cast<std::size_t>(whole.getSize()));
    for (auto _ : state)
    {
        NuvekBench::openTiles(filter, 0, whole, tiles, scratch, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}
BENCHMARK(radialSymmetryTiles)->Arg(3)->Arg(8)->Arg(15)->Unit(benchmark::kMillisecond);

// Radial symmetry on noise, where nearly every voxel votes: one 256 x 256 or odd 255 x 257 tile.
void radialSymmetryNoiseTile(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(1024, 1024, 1), state.range(2));
    Nuvek::RadialSymmetryFilter filter(image.get(), 8.0, 10.0, false);
    Nuvek::Vector const first(300, 200, 0);
    Nuvek::Box const box(first, first + Nuvek::Vector(state.range(0) - 1, state.range(1) - 1, 0));
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * state.range(2)));
    for (auto _ : state)
    {
        filter.openRegion(out.data(), 0, box);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize() * state.range(2));
}
BENCHMARK(radialSymmetryNoiseTile)
    ->Args({256, 256, 1})
    ->Args({255, 257, 1})
    ->Args({256, 256, 3})
    ->Unit(benchmark::kMillisecond);

// The step-by-step reference on the same 256 x 256 noise tile, gradients included.
void radialSymmetryReferenceNoiseTile(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(1024, 1024, 1), 1);
    Nuvek::SobelVectorFilter sobel(image.get(), 3, false);
    Nuvek::Box const box(Nuvek::Vector(300, 200, 0), Nuvek::Vector(555, 455, 0));
    Nuvek::Box const gradientBox = box.expanded(Nuvek::Vector(8, 8, 0));
    std::vector<double> gradients(static_cast<std::size_t>(2 * gradientBox.getSize()));
    for (auto _ : state)
    {
        sobel.openRegion(gradients.data(), 0, gradientBox);
        std::vector<double> const out = NuvekReference::radialSymmetry(gradients, box, 1, 8.0, 10.0);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(radialSymmetryReferenceNoiseTile)->Unit(benchmark::kMillisecond);

} // namespace
