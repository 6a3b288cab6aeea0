// Binary operator, channel, colour, z-stack, voxel-size and value replacement filters over a
// 2048 x 2048 tile, in voxels per second, with the references and OpenCV's HSV conversion beside them.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/AdditionFilter.h>
#include <nuvek/filters/pixelwise/ChannelFilter.h>
#include <nuvek/filters/pixelwise/ConcatFilter.h>
#include <nuvek/filters/pixelwise/DifferenceFilter.h>
#include <nuvek/filters/pixelwise/RGBToHSVFilter.h>
#include <nuvek/filters/pixelwise/ValueReplacementFilter.h>
#include <nuvek/filters/pixelwise/VoxelSizeModificationFilter.h>
#include <nuvek/filters/pixelwise/ZStackFilter.h>

#include "reference/PixelwiseColourReference.h"
#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#endif

#include <cmath>
#include <random>

namespace {

constexpr long long tileSize = 2048;

Nuvek::Box const tile(Nuvek::Vector(tileSize, tileSize, 1));

// Times openRegion of the whole tile; items are voxels (not values), so channels do not count.
void runFilter(benchmark::State& state, Nuvek::Image& image, Nuvek::Box const& box = tile)
{
    NuvekBench::openRepeatedly(state, image, box);
}

// The three-channel input alone, what every colour filter below pays before its own work.
void sourceThreeChannels(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 3);
    runFilter(state, *image);
}
BENCHMARK(sourceThreeChannels)->Unit(benchmark::kMillisecond);

void difference(benchmark::State& state)
{
    long long const channels = state.range(0);
    auto first = NuvekBench::noiseImage(tile.getExtent(), channels, 1);
    auto second = NuvekBench::noiseImage(tile.getExtent(), channels, 2);
    Nuvek::DifferenceFilter filter(first.get(), second.get(), false);
    runFilter(state, filter);
}
BENCHMARK(difference)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

void addition(benchmark::State& state)
{
    long long const channels = state.range(0);
    auto first = NuvekBench::noiseImage(tile.getExtent(), channels, 1);
    auto second = NuvekBench::noiseImage(tile.getExtent(), channels, 2);
    Nuvek::AdditionFilter filter(first.get(), second.get(), false);
    runFilter(state, filter);
}
BENCHMARK(addition)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

// The middle channel of three.
void channelSelection(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 3);
    Nuvek::ChannelFilter filter(image.get(), 1LL, false);
    runFilter(state, filter);
}
BENCHMARK(channelSelection)->Unit(benchmark::kMillisecond);

// One channel and two channels stacked into three.
void concatenation(benchmark::State& state)
{
    auto first = NuvekBench::noiseImage(tile.getExtent(), 1, 1);
    auto second = NuvekBench::noiseImage(tile.getExtent(), 2, 2);
    Nuvek::ConcatFilter filter({first.get(), second.get()}, false);
    runFilter(state, filter);
}
BENCHMARK(concatenation)->Unit(benchmark::kMillisecond);

void rgbToHSV(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 3);
    Nuvek::RGBToHSVFilter filter(image.get(), false);
    runFilter(state, filter);
}
BENCHMARK(rgbToHSV)->Unit(benchmark::kMillisecond);

// The hexcone definition on the same input, one voxel at a time.
void rgbToHSVReference(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 3);
    std::vector<double> out(static_cast<std::size_t>(tile.getSize() * 3));
    for (auto _ : state)
    {
        image->openRegion(out.data(), 0, tile);
        NuvekReference::rgbToQuantisedHSV(out, tile.getSize(), 0.0, 255.0);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * tile.getSize());
}
BENCHMARK(rgbToHSVReference)->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV
// OpenCV on one thread: interleaved 32-bit floats in [0, 1] to hue in degrees and saturation and
// value in [0, 1], then the same quantisation, floor(h / 360 * 255), floor(s * 255), floor(v * 255).
// Both sides read their RGB input from memory and write the quantised HSV values. The quantisation
// runs on the vector unit, as OpenCV's own kernels do: one value at a time through the C library's
// floorf it took twice as long as the conversion, and the comparison measured that instead.
void quantiseHSVPlain(float* values, std::size_t first, std::size_t count)
{
    for (std::size_t i = first; i < count; ++i)
    {
        values[3 * i] = std::floor(values[3 * i] / 360.0f * 255.0f);
        values[3 * i + 1] = std::floor(values[3 * i + 1] * 255.0f);
        values[3 * i + 2] = std::floor(values[3 * i + 2] * 255.0f);
    }
}

#if defined(__GNUC__) && defined(__x86_64__)
// Eight voxels (24 values, three vectors) at a time: every value is scaled both ways and its lane
// (hue, saturation, value) picks one, with the same operations as the plain loop.
__attribute__((target("avx2"))) void quantiseHSVVectors(float* values, std::size_t count)
{
    __m256 hueLanes[3];
    for (int q = 0; q < 3; ++q)
    {
        alignas(32) float lanes[8];
        for (int l = 0; l < 8; ++l)
            lanes[l] = (8 * q + l) % 3 == 0 ? -1.0f : 0.0f;
        hueLanes[q] = _mm256_load_ps(lanes);
    }
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8)
        for (int q = 0; q < 3; ++q)
        {
            float* at = values + 3 * i + 8 * q;
            __m256 const v = _mm256_loadu_ps(at);
            __m256 const hue = _mm256_mul_ps(_mm256_div_ps(v, _mm256_set1_ps(360.0f)), _mm256_set1_ps(255.0f));
            __m256 const other = _mm256_mul_ps(v, _mm256_set1_ps(255.0f));
            _mm256_storeu_ps(at, _mm256_floor_ps(_mm256_blendv_ps(other, hue, hueLanes[q])));
        }
    quantiseHSVPlain(values, i, count);
}
#endif

void quantiseHSV(float* values, std::size_t count)
{
#if defined(__GNUC__) && defined(__x86_64__)
    if (__builtin_cpu_supports("avx2"))
    {
        quantiseHSVVectors(values, count);
        return;
    }
#endif
    quantiseHSVPlain(values, 0, count);
}

cv::Mat randomRGB()
{
    cv::setNumThreads(1);
    std::mt19937_64 random(12345);
    std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
    cv::Mat rgb(static_cast<int>(tileSize), static_cast<int>(tileSize), CV_32FC3);
    for (auto it = rgb.begin<cv::Vec3f>(); it != rgb.end<cv::Vec3f>(); ++it)
        *it = cv::Vec3f(uniform(random), uniform(random), uniform(random));
    return rgb;
}

// Arg 1: with the quantisation; 0: cvtColor alone.
void openCVRGBToHSV(benchmark::State& state)
{
    cv::Mat const rgb = randomRGB();
    cv::Mat hsv;
    for (auto _ : state)
    {
        cv::cvtColor(rgb, hsv, cv::COLOR_RGB2HSV);
        if (state.range(0) == 1)
            quantiseHSV(hsv.ptr<float>(), hsv.total());
        benchmark::DoNotOptimize(hsv.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * tileSize * tileSize);
}
BENCHMARK(openCVRGBToHSV)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
#endif

// The middle slice of three.
void zStack(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(tileSize, tileSize, 3), 1);
    Nuvek::ZStackFilter filter(image.get(), 1, false);
    runFilter(state, filter);
}
BENCHMARK(zStack)->Unit(benchmark::kMillisecond);

void voxelSizeModification(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 1);
    Nuvek::VoxelSizeModificationFilter filter(image.get(), false, Nuvek::Vector(2, 2, 5));
    runFilter(state, filter);
}
BENCHMARK(voxelSizeModification)->Unit(benchmark::kMillisecond);

// Three channels of eight levels each (512 colours); the map replaces the first `count` colours,
// so about count / 512 of the voxels match.
std::shared_ptr<Nuvek::MemoryImage> eightLevelImage()
{
    auto image = NuvekBench::noiseImage(tile.getExtent(), 3);
    std::vector<double> values = image->getValues();
    for (double& value : values)
        value = std::floor(value / 32.0);
    image->setValues(std::move(values));
    return image;
}

Nuvek::ValueReplacementFilter::Replacements firstColours(long long count)
{
    Nuvek::ValueReplacementFilter::Replacements replacements;
    for (long long i = 0; i < count; ++i)
    {
        std::vector<double> colour{static_cast<double>(i % 8), static_cast<double>(i / 8 % 8),
                                   static_cast<double>(i / 64)};
        replacements.emplace(std::move(colour), std::vector<double>{-1.0, -2.0, static_cast<double>(i)});
    }
    return replacements;
}

void valueReplacement(benchmark::State& state)
{
    auto image = eightLevelImage();
    Nuvek::ValueReplacementFilter filter(image.get(), false, firstColours(state.range(0)));
    runFilter(state, filter);
}
BENCHMARK(valueReplacement)->Arg(1)->Arg(2)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond);

// The reference scan of the whole map for every voxel.
void valueReplacementReference(benchmark::State& state)
{
    auto image = eightLevelImage();
    auto const replacements = firstColours(state.range(0));
    std::vector<double> out(static_cast<std::size_t>(tile.getSize() * 3));
    for (auto _ : state)
    {
        image->openRegion(out.data(), 0, tile);
        NuvekReference::replaceColours(out, tile.getSize(), 3, replacements);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * tile.getSize());
}
BENCHMARK(valueReplacementReference)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond);

} // namespace
