// Neighbourhood filters on a 2048 x 2048 image, in voxels per second. The library produces the
// image as 16 requests of 512 x 512 tiles through a clamping filter over an in-memory source, the
// way an application reads it, each tile into its own buffer; OpenCV filters the whole image at
// once into one buffer, single-threaded, CV_64F, with replicated borders. Both sides therefore see
// the same border values and write every output voxel once.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/BoxFilter.h>
#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>
#include <nuvek/filters/neighbourhood/HarrisEigenvaluesFilter.h>
#include <nuvek/filters/neighbourhood/SobelFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>

#include "../../tests/reference/NeighbourhoodKernelReference.h"
#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <cmath>
#include <memory>

namespace {

constexpr long long imageSize = 2048;
constexpr long long tileSize = 512;

struct Scene
{
    std::shared_ptr<Nuvek::MemoryImage> source = NuvekBench::noiseImage(Nuvek::Vector(imageSize, imageSize, 1), 1);
    Nuvek::ClampingFilter clamped{source.get(), false};
    Nuvek::Box whole{Nuvek::Vector(imageSize, imageSize, 1)};
    std::vector<Nuvek::Box> tiles = NuvekBench::tilesOf(whole, tileSize);
};

void runTiled(benchmark::State& state, Scene& scene, Nuvek::Image& filter)
{
    std::vector<std::vector<double>> out;
    for (Nuvek::Box const& tile : scene.tiles)
        out.emplace_back(static_cast<std::size_t>(tile.getSize() * filter.getNumChannels()));
    for (auto _ : state)
        for (std::size_t t = 0; t < scene.tiles.size(); ++t)
        {
            filter.openRegion(out[t].data(), 0, scene.tiles[t]);
            benchmark::DoNotOptimize(out[t].data());
        }
    state.SetItemsProcessed(state.iterations() * scene.whole.getSize());
}

// The tiles of the clamped source alone: what every filter below pays before its own work.
void clampedSourceOnly(benchmark::State& state)
{
    Scene scene;
    runTiled(state, scene, scene.clamped);
}
BENCHMARK(clampedSourceOnly)->Unit(benchmark::kMillisecond);

void box(benchmark::State& state)
{
    Scene scene;
    Nuvek::BoxFilter filter(&scene.clamped, state.range(0), true, false, false);
    runTiled(state, scene, filter);
}
BENCHMARK(box)->Arg(3)->Arg(31)->Unit(benchmark::kMillisecond);

void gaussian(benchmark::State& state)
{
    Scene scene;
    Nuvek::GaussianBlurFilter filter(&scene.clamped, state.range(0), false);
    runTiled(state, scene, filter);
}
BENCHMARK(gaussian)->Arg(5)->Arg(21)->Unit(benchmark::kMillisecond);

void sobelMagnitude(benchmark::State& state)
{
    Scene scene;
    Nuvek::SobelMagnitudeFilter filter(&scene.clamped, state.range(0), false);
    runTiled(state, scene, filter);
}
BENCHMARK(sobelMagnitude)->Arg(3)->Unit(benchmark::kMillisecond);

// What the Harris filter is built from: a 3 x 3 Sobel vector and a blur of its two channels.
void sobelVectorThenBlur(benchmark::State& state)
{
    Scene scene;
    Nuvek::SobelVectorFilter sobel(&scene.clamped, 3, false);
    Nuvek::GaussianBlurFilter blur(&sobel, state.range(0), false);
    runTiled(state, scene, blur);
}
BENCHMARK(sobelVectorThenBlur)->Arg(5)->Unit(benchmark::kMillisecond);

void harris(benchmark::State& state)
{
    Scene scene;
    Nuvek::HarrisEigenvaluesFilter filter(&scene.clamped, state.range(0), false);
    runTiled(state, scene, filter);
}
BENCHMARK(harris)->Arg(5)->Unit(benchmark::kMillisecond);

// The step-by-step ring algorithms of the tests, tile by tile: what the fast passes buy.
template <typename Compute>
void runReferenceTiled(benchmark::State& state, Scene& scene, Compute compute)
{
    for (auto _ : state)
        for (Nuvek::Box const& tile : scene.tiles)
        {
            std::vector<double> const values = compute(tile);
            benchmark::DoNotOptimize(values.data());
        }
    state.SetItemsProcessed(state.iterations() * scene.whole.getSize());
}

void referenceBox(benchmark::State& state)
{
    Scene scene;
    long long const k = state.range(0);
    runReferenceTiled(state, scene, [&](Nuvek::Box const& tile) {
        return NuvekReference::boxFilter(scene.clamped, 0, tile, k, true, false);
    });
}
BENCHMARK(referenceBox)->Arg(3)->Unit(benchmark::kMillisecond);

void referenceGaussian(benchmark::State& state)
{
    Scene scene;
    std::vector<double> const kernel = NuvekReference::gaussianKernel(state.range(0));
    runReferenceTiled(state, scene, [&](Nuvek::Box const& tile) {
        return NuvekReference::separableFilter(scene.clamped, 0, tile, kernel, kernel);
    });
}
BENCHMARK(referenceGaussian)->Arg(5)->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV

struct PeerScene
{
    cv::Mat source;
    PeerScene()
    {
        cv::setNumThreads(1);
        auto image = NuvekBench::noiseImage(Nuvek::Vector(imageSize, imageSize, 1), 1);
        source = cv::Mat(static_cast<int>(imageSize), static_cast<int>(imageSize), CV_64F);
        std::copy(image->getValues().begin(), image->getValues().end(), source.ptr<double>());
    }
};

cv::Mat kernelMat(std::vector<double> const& kernel)
{
    return cv::Mat(kernel, true);
}

std::vector<double> differenceKernel(long long size)
{
    std::vector<double> kernel;
    for (long long i = 0; i < size; ++i)
        kernel.push_back(i < size / 2 ? -1.0 : (i == size / 2 ? 0.0 : 1.0));
    return kernel;
}

void setItems(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * imageSize * imageSize);
}

void opencvBox(benchmark::State& state)
{
    PeerScene scene;
    cv::Mat out;
    int const k = static_cast<int>(state.range(0));
    for (auto _ : state)
    {
        cv::boxFilter(scene.source, out, CV_64F, cv::Size(k, k), cv::Point(-1, -1), true, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(out.data);
    }
    setItems(state);
}
BENCHMARK(opencvBox)->Arg(3)->Arg(31)->Unit(benchmark::kMillisecond);

void opencvGaussian(benchmark::State& state)
{
    PeerScene scene;
    cv::Mat out;
    cv::Mat const kernel = kernelMat(Nuvek::GaussianBlurFilter::getGaussianKernel(state.range(0)));
    for (auto _ : state)
    {
        cv::sepFilter2D(scene.source, out, CV_64F, kernel, kernel, cv::Point(-1, -1), 0.0, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(out.data);
    }
    setItems(state);
}
BENCHMARK(opencvGaussian)->Arg(5)->Arg(21)->Unit(benchmark::kMillisecond);

void sobelGradients(cv::Mat const& source, long long size, cv::Mat& gx, cv::Mat& gy)
{
    cv::Mat const difference = kernelMat(differenceKernel(size));
    cv::Mat const gaussian = kernelMat(Nuvek::GaussianBlurFilter::getGaussianKernel(size));
    cv::sepFilter2D(source, gx, CV_64F, difference, gaussian, cv::Point(-1, -1), 0.0, cv::BORDER_REPLICATE);
    cv::sepFilter2D(source, gy, CV_64F, gaussian, difference, cv::Point(-1, -1), 0.0, cv::BORDER_REPLICATE);
}

void opencvSobelMagnitude(benchmark::State& state)
{
    PeerScene scene;
    cv::Mat gx, gy, out(scene.source.size(), CV_64F);
    for (auto _ : state)
    {
        sobelGradients(scene.source, state.range(0), gx, gy);
        double const* x = gx.ptr<double>();
        double const* y = gy.ptr<double>();
        double* o = out.ptr<double>();
        for (long long i = 0; i < imageSize * imageSize; ++i)
            o[i] = y[i] * y[i] + x[i] * x[i];
        benchmark::DoNotOptimize(out.data);
    }
    setItems(state);
}
BENCHMARK(opencvSobelMagnitude)->Arg(3)->Unit(benchmark::kMillisecond);

void opencvHarris(benchmark::State& state)
{
    PeerScene scene;
    cv::Mat gx, gy, sx, sy, larger(scene.source.size(), CV_64F), smaller(scene.source.size(), CV_64F);
    cv::Mat const kernel = kernelMat(Nuvek::GaussianBlurFilter::getGaussianKernel(state.range(0)));
    for (auto _ : state)
    {
        sobelGradients(scene.source, 3, gx, gy);
        cv::sepFilter2D(gx, sx, CV_64F, kernel, kernel, cv::Point(-1, -1), 0.0, cv::BORDER_REPLICATE);
        cv::sepFilter2D(gy, sy, CV_64F, kernel, kernel, cv::Point(-1, -1), 0.0, cv::BORDER_REPLICATE);
        double const* a = sx.ptr<double>();
        double const* b = sy.ptr<double>();
        double* l = larger.ptr<double>();
        double* s = smaller.ptr<double>();
        for (long long i = 0; i < imageSize * imageSize; ++i)
        {
            double const trace = a[i] * a[i] + b[i] * b[i];
            double const determinant = (b[i] * b[i]) * (a[i] * a[i]) - (a[i] * b[i]) * (a[i] * b[i]);
            double const radius = std::sqrt(trace * trace * 0.25 - determinant);
            l[i] = radius + trace * 0.5;
            s[i] = trace * 0.5 - radius;
        }
        benchmark::DoNotOptimize(larger.data);
        benchmark::DoNotOptimize(smaller.data);
    }
    setItems(state);
}
BENCHMARK(opencvHarris)->Arg(5)->Unit(benchmark::kMillisecond);

#endif

} // namespace
