// Histogram, local binary pattern, morphological and rank filters, in voxels per second. Each fast
// filter runs next to the straightforward algorithm it replaces and, where one exists, OpenCV.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/texture/HistogramComputer.h>
#include <nuvek/filters/texture/HistogramFilter.h>
#include <nuvek/filters/texture/LBPFilter.h>
#include <nuvek/filters/texture/MorphologicFilter.h>
#include <nuvek/filters/texture/RankFilter.h>

#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using Nuvek::Box;
using Nuvek::Vector;

constexpr long long imageSize = 2048;
constexpr long long tileSize = 512;

std::shared_ptr<Nuvek::MemoryImage> const& sharedImage()
{
    static auto const image = NuvekBench::noiseImage(Vector(imageSize, imageSize, 1), 1);
    return image;
}

// The whole image as 16 requests of 512 x 512 tiles, the way an application reads it. Each tile
// lands in one reused tile buffer: assembling the tiles into one image would add a copy that the
// peer, which writes the whole image at once, does not make.
void openImageAsTiles(benchmark::State& state, Nuvek::Image& filter)
{
    Box const whole(Vector(imageSize, imageSize, 1));
    std::vector<Box> const tiles = NuvekBench::tilesOf(whole, tileSize);
    std::vector<double> out(static_cast<std::size_t>(tileSize * tileSize * filter.getNumChannels()));
    for (auto _ : state)
        for (Box const& tile : tiles)
        {
            filter.openRegion(out.data(), 0, tile);
            benchmark::DoNotOptimize(out.data());
        }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}

// One request of a square tile inside the image.
void openOneTile(benchmark::State& state, Nuvek::Image& filter, long long size)
{
    Box const box(Vector(256, 256, 0), Vector(255 + size, 255 + size, 0));
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * filter.getNumChannels()));
    for (auto _ : state)
    {
        filter.openRegion(out.data(), 0, box);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}

// ---- Morphology: 2048 x 2048 doubles, 16 tiles, single thread.

void erosion(benchmark::State& state)
{
    Nuvek::ErosionFilter filter(sharedImage().get(), state.range(0), false);
    openImageAsTiles(state, filter);
}
BENCHMARK(erosion)->Arg(1)->Arg(3)->Arg(15)->Arg(63)->Unit(benchmark::kMillisecond);

void dilation(benchmark::State& state)
{
    Nuvek::DilationFilter filter(sharedImage().get(), state.range(0), false);
    openImageAsTiles(state, filter);
}
BENCHMARK(dilation)->Arg(3)->Arg(15)->Arg(63)->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV
cv::Mat wholeImageAsMat(int type)
{
    std::vector<double> const& values = sharedImage()->getValues();
    cv::Mat doubles(static_cast<int>(imageSize), static_cast<int>(imageSize), CV_64F,
                    const_cast<double*>(values.data()));
    cv::Mat result;
    doubles.convertTo(result, type);
    return result;
}

void openCVErode(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::Mat const image = wholeImageAsMat(CV_64F);
    int const k = static_cast<int>(state.range(0));
    cv::Mat const kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(k, k));
    cv::Mat out;
    for (auto _ : state)
    {
        cv::erode(image, out, kernel);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetItemsProcessed(state.iterations() * imageSize * imageSize);
}
BENCHMARK(openCVErode)->Arg(3)->Arg(15)->Arg(63)->Unit(benchmark::kMillisecond);

void openCVDilate(benchmark::State& state)
{
    cv::setNumThreads(1);
    cv::Mat const image = wholeImageAsMat(CV_64F);
    int const k = static_cast<int>(state.range(0));
    cv::Mat const kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(k, k));
    cv::Mat out;
    for (auto _ : state)
    {
        cv::dilate(image, out, kernel);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetItemsProcessed(state.iterations() * imageSize * imageSize);
}
BENCHMARK(openCVDilate)->Arg(3)->Arg(15)->Arg(63)->Unit(benchmark::kMillisecond);
#endif

// ---- Rank: median on 512 x 512 tiles against OpenCV; any rank on smaller tiles against a full sort.

void rankMedian(benchmark::State& state)
{
    long long const k = state.range(0);
    Nuvek::RankFilter filter(sharedImage().get(), k, (k * k - 1) / 2, false);
    openOneTile(state, filter, state.range(1));
}
BENCHMARK(rankMedian)->Args({3, 512})->Args({5, 512})->Args({7, 512})->Args({15, 512})->Unit(benchmark::kMillisecond);
BENCHMARK(rankMedian)->Args({7, 128})->Args({15, 128})->Unit(benchmark::kMillisecond);

// The straightforward rank filter: every window copied and fully sorted, NaN ordered last.
void rankByFullSort(benchmark::State& state)
{
    long long const k = state.range(0);
    long long const size = state.range(1);
    long long const rank = (k * k - 1) / 2;
    Box const box(Vector(256, 256, 0), Vector(255 + size, 255 + size, 0));
    Box const inputBox = box.expanded(Vector(k / 2, k / 2, 0));
    std::vector<double> work(static_cast<std::size_t>(inputBox.getSize()));
    std::vector<double> out(static_cast<std::size_t>(box.getSize()));
    std::vector<double> window(static_cast<std::size_t>(k * k));
    long long const width = inputBox.getExtent().x;
    auto before = [](double a, double b) { return std::isnan(b) ? !std::isnan(a) : a < b; };
    for (auto _ : state)
    {
        sharedImage()->openRegion(work.data(), 0, inputBox);
        for (long long y = 0; y < size; ++y)
            for (long long x = 0; x < size; ++x)
            {
                for (long long j = 0; j < k; ++j)
                    for (long long i = 0; i < k; ++i)
                        window[static_cast<std::size_t>(j * k + i)] =
                            work[static_cast<std::size_t>((y + j) * width + x + i)];
                std::sort(window.begin(), window.end(), before);
                out[static_cast<std::size_t>(y * size + x)] = window[static_cast<std::size_t>(rank)];
            }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(rankByFullSort)->Args({7, 128})->Args({15, 128})->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV
void openCVMedianBlurFloat(benchmark::State& state)
{
    cv::setNumThreads(1);
    int const k = static_cast<int>(state.range(0));
    int const size = static_cast<int>(state.range(1));
    cv::Mat const tile = wholeImageAsMat(CV_32F)(cv::Rect(256, 256, size, size)).clone();
    cv::Mat out;
    for (auto _ : state)
    {
        cv::medianBlur(tile, out, k);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetItemsProcessed(state.iterations() * size * size);
}
BENCHMARK(openCVMedianBlurFloat)->Args({3, 512})->Args({5, 512})->Unit(benchmark::kMillisecond);
#endif

// ---- Histogram: k = 15, 16 bins, against the per-voxel sum over k column counts.

void histogram(benchmark::State& state)
{
    Nuvek::HistogramFilter filter(sharedImage().get(), state.range(0), state.range(1), false);
    openOneTile(state, filter, 512);
}
BENCHMARK(histogram)->Args({15, 16})->Args({3, 16})->Args({63, 16})->Unit(benchmark::kMillisecond);

// The straightforward sliding histogram: column counts slide down, but for every voxel and bin the
// k column counts are added afresh.
void histogramSummingColumns(benchmark::State& state)
{
    long long const k = state.range(0);
    long long const numBins = state.range(1);
    Nuvek::HistogramComputer const computer(k, numBins, sharedImage()->getValueRange());
    long long const size = 512;
    Box const box(Vector(256, 256, 0), Vector(255 + size, 255 + size, 0));
    Box const inputBox = box.expanded(Vector(k / 2, k / 2, 0));
    long long const width = inputBox.getExtent().x;
    std::vector<double> work(static_cast<std::size_t>(inputBox.getSize()));
    std::vector<double> out(static_cast<std::size_t>(numBins * box.getSize()));
    std::vector<long long> ring(static_cast<std::size_t>(width * k));
    std::vector<long long> counts(static_cast<std::size_t>(width * numBins));
    for (auto _ : state)
    {
        sharedImage()->openRegion(work.data(), 0, inputBox);
        std::fill(out.begin(), out.end(), 0.0);
        std::fill(ring.begin(), ring.end(), 0);
        std::fill(counts.begin(), counts.end(), 0);
        for (long long c = 0; c < width; ++c)
            counts[static_cast<std::size_t>(c * numBins)] = k;
        long long position = 0;
        auto push = [&](long long row) {
            for (long long c = 0; c < width; ++c)
            {
                long long const bin = computer.valueToBin(work[static_cast<std::size_t>(row * width + c)]);
                long long& slot = ring[static_cast<std::size_t>(c * k + position)];
                counts[static_cast<std::size_t>(c * numBins + slot)] -= 1;
                counts[static_cast<std::size_t>(c * numBins + bin)] += 1;
                slot = bin;
            }
            position = (position + 1) % k;
        };
        for (long long r = 0; r + 1 < k; ++r)
            push(r);
        for (long long y = 0; y < size; ++y)
        {
            push(y + k - 1);
            for (long long x = 0; x < size; ++x)
                for (long long b = 0; b < numBins; ++b)
                {
                    double sum = 0.0;
                    for (long long c = x; c < x + k; ++c)
                        sum += static_cast<double>(counts[static_cast<std::size_t>(c * numBins + b)]);
                    out[static_cast<std::size_t>(b * box.getSize() + y * size + x)] += sum;
                }
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(histogramSummingColumns)->Args({15, 16})->Args({3, 16})->Unit(benchmark::kMillisecond);

// ---- Local binary patterns.

void localBinaryPattern(benchmark::State& state)
{
    Nuvek::LBPFilter filter(sharedImage().get(), static_cast<double>(state.range(0)), false);
    openOneTile(state, filter, 512);
}
BENCHMARK(localBinaryPattern)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

} // namespace
