// Resolution filters and the local normalization over a 2048 x 2048 image read in 512 x 512 tile
// requests, single thread, next to the OpenCV operation that does the same kind of work on the
// whole image at once; and one chain of both shared by one and two threads. Items are output voxels.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/LocalNormalizationFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>
#include <nuvek/filters/resolution/DownsampleFilter.h>
#include <nuvek/filters/resolution/UpsampleFilter.h>

#include "core/internal/BlockMeans.h"
#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <mutex>
#include <vector>

namespace {

constexpr long long imageSize = 2048;
constexpr long long tileSize = 512;

std::shared_ptr<Nuvek::MemoryImage> const& sharedImage()
{
    static auto const image = NuvekBench::noiseImage(Nuvek::Vector(imageSize, imageSize, 1), 1);
    return image;
}

// Opens the whole image at `level` through `image` in tiles, once per iteration.
void runTiled(benchmark::State& state, Nuvek::Image& image, long long level)
{
    Nuvek::Box const whole(image.getExtent(level));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, tileSize);
    std::vector<double> scratch;
    std::vector<double> out(static_cast<std::size_t>(whole.getSize()));
    for (auto _ : state)
    {
        NuvekBench::openTiles(image, level, whole, tiles, scratch, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}

// What the downsample filter at level 1 reads: level 0 of the source in 1024 x 1024 tiles, into
// one reused buffer. Items are the voxels of level 1, so that the rate compares with the filter's.
void sourceForDownsample(benchmark::State& state)
{
    Nuvek::Box const whole(sharedImage()->getExtent(0));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, 2 * tileSize);
    std::vector<double> scratch(static_cast<std::size_t>(4 * tileSize * tileSize));
    for (auto _ : state)
        for (Nuvek::Box const& tile : tiles)
        {
            sharedImage()->openRegion(scratch.data(), 0, tile);
            benchmark::DoNotOptimize(scratch.data());
            benchmark::ClobberMemory();
        }
    state.SetItemsProcessed(state.iterations() * whole.getSize() / 4);
}
BENCHMARK(sourceForDownsample)->Unit(benchmark::kMillisecond);

void downsample(benchmark::State& state)
{
    Nuvek::DownsampleFilter filter(sharedImage().get(), 0, false);
    runTiled(state, filter, state.range(0));
}
BENCHMARK(downsample)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// The block averaging alone on one 1024 x 1024 source tile: the row-wise pass the filter uses and
// the displacement-list pass that states the algorithm, giving the same bits.
void averageBlocks(benchmark::State& state)
{
    long long const levels = state.range(0);
    bool const byRows = state.range(1) != 0;
    Nuvek::Vector const extent(1024, 1024, 1);
    std::vector<double> const source(sharedImage()->getValues().begin(),
                                     sharedImage()->getValues().begin() + static_cast<std::ptrdiff_t>(extent.prod()));
    std::vector<double> target(static_cast<std::size_t>((extent.x >> levels) * (extent.y >> levels)));
    for (auto _ : state)
    {
        if (byRows)
            Nuvek::averageBlocksByRows(source.data(), target.data(), extent, 1, levels);
        else
            Nuvek::averageBlocksByDisplacements(source.data(), target.data(), extent, 1, levels);
        benchmark::DoNotOptimize(target.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long long>(target.size()));
}
BENCHMARK(averageBlocks)
    ->ArgNames({"levels", "byRows"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond);

void upsample(benchmark::State& state)
{
    auto const interpolation = static_cast<Nuvek::UpsampleFilter::Interpolation>(state.range(0));
    Nuvek::UpsampleFilter filter(sharedImage().get(), 1, interpolation, false);
    runTiled(state, filter, 0);
}
BENCHMARK(upsample)->ArgName("bilinear")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void localNormalization(benchmark::State& state)
{
    Nuvek::LocalNormalizationFilter filter(sharedImage().get(), state.range(0), false);
    runTiled(state, filter, 0);
}
BENCHMARK(localNormalization)->ArgName("backgroundLevel")->Arg(4)->Unit(benchmark::kMillisecond);

// One chain, clamp | localnorm 3 | upsample 1 (bilinear), over a 4096 x 4096 image, shared by all
// threads of the run, which deal its 512 x 512 tiles at level 0 out among themselves. With
// `serialised`, every call holds one lock around the whole chain, as the upsample filter's calls
// did while it locked its cache (and the local normalization could not be shared at all): the
// speed-up of two threads over one, with and without it, is what calls that do not wait buy.
struct SharedChain
{
    SharedChain()
        : source(NuvekBench::noiseImage(Nuvek::Vector(4096, 4096, 1), 1)), clamp(source.get(), false),
          normalization(&clamp, 3, false), upsample(&normalization, 1, Nuvek::UpsampleFilter::Bilinear, false)
    {
    }

    std::shared_ptr<Nuvek::MemoryImage> source;
    Nuvek::ClampingFilter clamp;
    Nuvek::LocalNormalizationFilter normalization;
    Nuvek::UpsampleFilter upsample;
    std::mutex lock;
};

SharedChain& sharedChain()
{
    static SharedChain chain;
    return chain;
}

void sharedChainTiles(benchmark::State& state)
{
    bool const serialised = state.range(0) != 0;
    SharedChain& chain = sharedChain();
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(Nuvek::Box(chain.upsample.getExtent(0)), tileSize);
    std::vector<double> out(static_cast<std::size_t>(tileSize * tileSize));
    long long voxels = 0;
    for (auto _ : state)
        for (std::size_t i = static_cast<std::size_t>(state.thread_index()); i < tiles.size();
             i += static_cast<std::size_t>(state.threads()))
        {
            if (serialised)
            {
                std::lock_guard<std::mutex> guard(chain.lock);
                chain.upsample.openRegion(out.data(), 0, tiles[i]);
            }
            else
                chain.upsample.openRegion(out.data(), 0, tiles[i]);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
            voxels += tiles[i].getSize();
        }
    state.SetItemsProcessed(voxels);
}
BENCHMARK(sharedChainTiles)
    ->ArgName("serialised")
    ->Arg(0)
    ->Arg(1)
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV

cv::Mat levelAsMat(long long level)
{
    Nuvek::Vector const extent = sharedImage()->getExtent(level);
    cv::Mat mat(static_cast<int>(extent.y), static_cast<int>(extent.x), CV_64F);
    sharedImage()->openRegion(mat.ptr<double>(), level, Nuvek::Box(extent));
    return mat;
}

void opencvResizeArea(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::Mat const source = levelAsMat(0);
    int const f = 1 << state.range(0);
    cv::Mat target;
    for (auto _ : state)
    {
        cv::resize(source, target, cv::Size(source.cols / f, source.rows / f), 0, 0, cv::INTER_AREA);
        benchmark::DoNotOptimize(target.data);
    }
    state.SetItemsProcessed(state.iterations() * target.rows * target.cols);
}
BENCHMARK(opencvResizeArea)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void opencvResizeUp(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::Mat const source = levelAsMat(1);
    int const interpolation = state.range(0) != 0 ? cv::INTER_LINEAR : cv::INTER_NEAREST;
    cv::Mat target;
    for (auto _ : state)
    {
        cv::resize(source, target, cv::Size(source.cols * 2, source.rows * 2), 0, 0, interpolation);
        benchmark::DoNotOptimize(target.data);
    }
    state.SetItemsProcessed(state.iterations() * target.rows * target.cols);
}
BENCHMARK(opencvResizeUp)->ArgName("bilinear")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The same background removal from OpenCV parts: the coarse level enlarged bilinearly, subtracted,
// and scaled into the range.
void opencvLocalNormalization(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::Mat const image = levelAsMat(0);
    cv::Mat const coarse = levelAsMat(state.range(0));
    Nuvek::ValueRange<double> const range = sharedImage()->getValueRange();
    cv::Mat background;
    cv::Mat difference;
    cv::Mat target;
    for (auto _ : state)
    {
        cv::resize(coarse, background, image.size(), 0, 0, cv::INTER_LINEAR);
        cv::subtract(image, background, difference);
        difference.convertTo(target, CV_64F, 0.5, 0.5 * (range.max - range.min) + range.min);
        benchmark::DoNotOptimize(target.data);
    }
    state.SetItemsProcessed(state.iterations() * target.rows * target.cols);
}
BENCHMARK(opencvLocalNormalization)->ArgName("backgroundLevel")->Arg(4)->Unit(benchmark::kMillisecond);

#endif

} // namespace
