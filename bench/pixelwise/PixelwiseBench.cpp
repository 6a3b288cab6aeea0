// Pixel-wise filters over a 2048 x 2048 tile, in voxels per second.
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>
#include <nuvek/filters/pixelwise/ThresholdFilter.h>

#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

namespace {

constexpr long long tileSize = 2048;

// The input alone: what every filter below pays before doing its own work.
void sourceOnly(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(tileSize, tileSize, 1), 1);
    Nuvek::Box const box(Nuvek::Vector(tileSize, tileSize, 1));
    NuvekBench::openRepeatedly(state, *image, box);
}
BENCHMARK(sourceOnly)->Unit(benchmark::kMillisecond);

void threshold(benchmark::State& state)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(tileSize, tileSize, 1), 1);
    Nuvek::ThresholdFilter filter(image.get(), 127.5, 0.0, 1.0, false);
    Nuvek::Box const box(Nuvek::Vector(tileSize, tileSize, 1));
    NuvekBench::openRepeatedly(state, filter, box);
}
BENCHMARK(threshold)->Unit(benchmark::kMillisecond);

// Clamping with an inside box (pass-through) and with a box reaching 32 voxels past every border.
void clamping(benchmark::State& state)
{
    long long const margin = state.range(0);
    auto image = NuvekBench::noiseImage(Nuvek::Vector(tileSize, tileSize, 1), 1);
    Nuvek::ClampingFilter filter(image.get(), false);
    Nuvek::Box const box = Nuvek::Box(Nuvek::Vector(tileSize, tileSize, 1)).expanded(Nuvek::Vector(margin, margin, 0));
    NuvekBench::openRepeatedly(state, filter, box);
}
BENCHMARK(clamping)->Arg(0)->Arg(32)->Unit(benchmark::kMillisecond);

} // namespace
