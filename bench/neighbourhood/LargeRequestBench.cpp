// One request for a whole 2048 x 2048 image against the same image as 16 requests of 512 x 512
// tiles, each into a buffer of its own, for the filters whose temporaries grow with the request.
// Both read a clamping filter over an in-memory source and write every output voxel once; the
// ratio whole / tiles is what a large request (a Python caller, a large dask chunk) pays extra.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/neighbourhood/BoxFilter.h>
#include <nuvek/filters/neighbourhood/DistanceTransformFilter.h>
#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>
#include <nuvek/filters/neighbourhood/HarrisEigenvaluesFilter.h>
#include <nuvek/filters/neighbourhood/SobelFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>
#include <nuvek/filters/pixelwise/RGBToHSVFilter.h>
#include <nuvek/filters/texture/LBPFilter.h>
#include <nuvek/filters/texture/MorphologicFilter.h>
#include <nuvek/filters/texture/RankFilter.h>

#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>

namespace {

constexpr long long imageSize = 2048;
constexpr long long tileSize = 512;

// A filter chain over a clamped noise source of one or three channels; `stages` owns the filters.
struct Scene
{
    explicit Scene(long long channels)
        : source(NuvekBench::noiseImage(Nuvek::Vector(imageSize, imageSize, 1), channels)), clamped(source.get(), false)
    {
    }
    Nuvek::Image& add(std::unique_ptr<Nuvek::Image> stage)
    {
        stages.push_back(std::move(stage));
        return *stages.back();
    }

    std::shared_ptr<Nuvek::MemoryImage> source;
    Nuvek::ClampingFilter clamped;
    std::vector<std::unique_ptr<Nuvek::Image>> stages;
    Nuvek::Box whole{Nuvek::Vector(imageSize, imageSize, 1)};
};

using Build = std::function<Nuvek::Image&(Scene&)>;

struct Case
{
    char const* name;
    long long channels;
    Build build;
};

template <typename F, typename... Arguments>
Build stage(Arguments... arguments)
{
    return [=](Scene& scene) -> Nuvek::Image& {
        return scene.add(std::make_unique<F>(&scene.clamped, arguments..., false));
    };
}

std::vector<Case> const cases{
    {"clamp", 1, [](Scene& scene) -> Nuvek::Image& { return scene.clamped; }},
    {"box5", 1, stage<Nuvek::BoxFilter>(5LL, true, false)},
    {"gaussian5", 1, stage<Nuvek::GaussianBlurFilter>(5LL)},
    {"sobelMagnitude3", 1, stage<Nuvek::SobelMagnitudeFilter>(3LL)},
    {"sobelVector3", 1, stage<Nuvek::SobelVectorFilter>(3LL)},
    {"clampGaussianSobel", 1,
     [](Scene& scene) -> Nuvek::Image& {
         Nuvek::Image& blurred = scene.add(std::make_unique<Nuvek::GaussianBlurFilter>(&scene.clamped, 5LL, false));
         Nuvek::Image& clamped = scene.add(std::make_unique<Nuvek::ClampingFilter>(&blurred, false));
         return scene.add(std::make_unique<Nuvek::SobelMagnitudeFilter>(&clamped, 3LL, false));
     }},
    {"harris5", 1, stage<Nuvek::HarrisEigenvaluesFilter>(5LL)},
    {"median3", 1, stage<Nuvek::RankFilter>(3LL, 4LL)},
    {"erode3", 1, stage<Nuvek::ErosionFilter>(3LL)},
    {"lbp", 1, stage<Nuvek::LBPFilter>()},
    {"distance", 1, stage<Nuvek::DistanceTransformFilter>(0.0, 10LL)},
    {"gaussian5ThreeChannels", 3, stage<Nuvek::GaussianBlurFilter>(5LL)},
    {"hsv", 3,
     [](Scene& scene) -> Nuvek::Image& {
         return scene.add(std::make_unique<Nuvek::RGBToHSVFilter>(scene.source.get(), false));
     }},
};

void whole(benchmark::State& state, Case const& test)
{
    Scene scene(test.channels);
    Nuvek::Image& image = test.build(scene);
    NuvekBench::openRepeatedly(state, image, scene.whole);
}

void tiles(benchmark::State& state, Case const& test)
{
    Scene scene(test.channels);
    Nuvek::Image& image = test.build(scene);
    std::vector<Nuvek::Box> const boxes = NuvekBench::tilesOf(scene.whole, tileSize);
    std::vector<std::vector<double>> out;
    for (Nuvek::Box const& tile : boxes)
        out.emplace_back(static_cast<std::size_t>(tile.getSize() * image.getNumChannels()));
    for (auto _ : state)
        for (std::size_t t = 0; t < boxes.size(); ++t)
        {
            image.openRegion(out[t].data(), 0, boxes[t]);
            benchmark::DoNotOptimize(out[t].data());
        }
    state.SetItemsProcessed(state.iterations() * scene.whole.getSize());
}

int const registered = [] {
    for (Case const& test : cases)
    {
        benchmark::RegisterBenchmark((std::string("whole/") + test.name).c_str(), whole, test)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("tiles/") + test.name).c_str(), tiles, test)
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}();

} // namespace
