// Three-channel colour unmixing of a 2048 x 2048 tile, in voxels per second, next to the plain
// per-voxel computation and OpenCV doing the same sums with its own logarithm and exponential; and
// the exponential alone, the library's against the C library's pow.
#include "filters/internal/Absorptance.h"
#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/colour/ColorUnmixingFilter.h>

#include "support/BenchImages.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>

// 1 - min(1, 10^-d) over densities of stained tissue, 0 to 3: with pow per voxel, and by blocks.
std::vector<double> densities()
{
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> density(0.0, 3.0);
    std::vector<double> values(1 << 16);
    for (double& value : values)
        value = density(random);
    return values;
}

void absorptanceByPow(benchmark::State& state)
{
    std::vector<double> const in = densities();
    std::vector<double> out(in.size());
    for (auto _ : state)
    {
        for (std::size_t i = 0; i < in.size(); ++i)
            out[i] = 1.0 - std::min(1.0, std::pow(10.0, -in[i]));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long long>(in.size()));
}
BENCHMARK(absorptanceByPow);

void absorptanceByBlocks(benchmark::State& state)
{
    std::vector<double> const in = densities();
    std::vector<double> out(in.size());
    for (auto _ : state)
    {
        for (std::size_t i = 0; i < in.size(); i += Nuvek::absorptanceBlockSize)
            Nuvek::absorptanceOfBlock(in.data() + i, out.data() + i, Nuvek::absorptanceBlockSize);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long long>(in.size()));
}
BENCHMARK(absorptanceByBlocks);

#ifdef NUVEK_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

constexpr long long tileSize = 2048;
std::vector<std::string> const rgb{"Red", "Green", "Blue"};

// Reference colours of three stains as transmitted light on an 8-bit scale.
std::vector<std::vector<double>> const stainColours{{70, 60, 160}, {230, 110, 170}, {150, 110, 60}};

// An RGB tile of noise: 8-bit integers as a scanner delivers them, or the fractions as they are.
std::shared_ptr<Nuvek::MemoryImage> colourTile(bool integers)
{
    auto image = NuvekBench::noiseImage(Nuvek::Vector(tileSize, tileSize, 1), 3);
    if (integers)
    {
        std::vector<double> values = image->getValues();
        for (double& value : values)
            value = std::floor(value);
        image->setValues(std::move(values));
    }
    image->setChannelNames(rgb);
    return image;
}

// The unmixing written out per voxel: the logarithm of every value and the exponential of every sum.
class PlainUnmixingFilter : public Nuvek::PixelProcessingFilter
{
public:
    PlainUnmixingFilter(Nuvek::ChannelBank* bank, std::vector<double> weights)
        : PixelProcessingFilter(bank, rgb), weights(std::move(weights))
    {
    }

    double processPixel(std::vector<double> const& values) const override
    {
        double d = 0.0;
        for (std::size_t i = 0; i < weights.size(); ++i)
            d = d - std::log10(std::max(1.0, values[i]) * 0.00390625) * weights[i];
        return 1.0 - std::min(1.0, std::pow(10.0, -d));
    }
    std::string getChannelName(long long) override { return ""; }

private:
    std::vector<double> weights;
};

Nuvek::Box const wholeTile(Nuvek::Vector(tileSize, tileSize, 1));

// One request for the whole tile (read from the bank in strips of tile rows). Arg: 1 for 8-bit
// integer values, 0 for fractions, whose logarithms cannot come from a table.
void unmixing(benchmark::State& state)
{
    auto image = colourTile(state.range(0) == 1);
    Nuvek::ChannelBank bank(image.get());
    Nuvek::ColorUnmixingFilter filter(&bank, rgb);
    filter.reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0]);
    NuvekBench::openRepeatedly(state, filter, wholeTile);
}
BENCHMARK(unmixing)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

// The same tile read as 512 x 512 tiles, the way an application reads an image. Smaller requests
// reuse freed memory instead of mapping fresh pages for every call.
void unmixingTiles(benchmark::State& state)
{
    auto image = colourTile(state.range(0) == 1);
    Nuvek::ChannelBank bank(image.get());
    Nuvek::ColorUnmixingFilter filter(&bank, rgb);
    filter.reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0]);
    Nuvek::Box const whole(Nuvek::Vector(tileSize, tileSize, 1));
    std::vector<Nuvek::Box> const tiles = NuvekBench::tilesOf(whole, 512);
    std::vector<double> scratch;
    std::vector<double> out(static_cast<std::size_t>(whole.getSize()));
    for (auto _ : state)
    {
        NuvekBench::openTiles(filter, 0, whole, tiles, scratch, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * whole.getSize());
}
BENCHMARK(unmixingTiles)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

// One request of a 256 x 256 or an odd 255 x 257 tile inside the 2048 x 2048 image, 8-bit values.
void unmixingSmallTile(benchmark::State& state)
{
    auto image = colourTile(true);
    Nuvek::ChannelBank bank(image.get());
    Nuvek::ColorUnmixingFilter filter(&bank, rgb);
    filter.reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0]);
    Nuvek::Vector const min(700, 900, 0);
    Nuvek::Box const box(min, min + Nuvek::Vector(state.range(0) - 1, state.range(1) - 1, 0));
    NuvekBench::openRepeatedly(state, filter, box);
}
BENCHMARK(unmixingSmallTile)->Args({256, 256})->Args({255, 257});

// processPixel alone over channel values already read, through the virtual call, one voxel at a
// time: what a caller of processPixel gets.
void unmixingVoxels(benchmark::State& state)
{
    auto image = colourTile(state.range(0) == 1);
    Nuvek::ChannelBank bank(image.get());
    Nuvek::ColorUnmixingFilter filter(&bank, rgb);
    filter.reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0]);
    Nuvek::PixelProcessingFilter& base = filter;
    Nuvek::Box const box(Nuvek::Vector(tileSize, tileSize, 1));
    auto const channels = bank.openRegion(rgb, box, 0);
    std::vector<double> values(3);
    long long const size = box.getSize();
    std::vector<double> out(static_cast<std::size_t>(size));
    for (auto _ : state)
    {
        for (long long i = 0; i < size; ++i)
        {
            channels->readChannelValues(i, values);
            out[static_cast<std::size_t>(i)] = base.processPixel(values);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(unmixingVoxels)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

void unmixingPlain(benchmark::State& state)
{
    auto image = colourTile(state.range(0) == 1);
    Nuvek::ChannelBank bank(image.get());
    PlainUnmixingFilter filter(&bank, Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0]);
    NuvekBench::openRepeatedly(state, filter, wholeTile);
}
BENCHMARK(unmixingPlain)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

// The three channels of the whole tile from the bank in one request: 100 MB mapped afresh on every
// call, which is why the filter reads large requests in strips.
void bankRead(benchmark::State& state)
{
    auto image = colourTile(true);
    Nuvek::ChannelBank bank(image.get());
    Nuvek::Box const box(Nuvek::Vector(tileSize, tileSize, 1));
    for (auto _ : state)
    {
        auto buffer = bank.openRegion(rgb, box, 0);
        benchmark::DoNotOptimize(buffer->getPtr(0));
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(bankRead)->Unit(benchmark::kMillisecond);

#ifdef NUVEK_HAVE_OPENCV
// OpenCV on the three planes in double precision: raise to 1, scale to 1/256, natural logarithm,
// weighted sum, exponential, clamp. Its vectorised logarithm and exponential are not glibc's, so the
// bits differ; it is the speed of the same arithmetic done plane by plane.
void opencvUnmixing(benchmark::State& state)
{
    cv::setNumThreads(1);
    auto image = colourTile(state.range(0) == 1);
    std::vector<double> const weights = Nuvek::ColorUnmixingFilter::computeMatrixFromColors(stainColours)[0];
    int const size = static_cast<int>(tileSize);
    Nuvek::Box const box(Nuvek::Vector(tileSize, tileSize, 1));
    std::vector<double> channels(static_cast<std::size_t>(box.getSize() * 3));
    std::vector<double> out(static_cast<std::size_t>(box.getSize()));
    cv::Mat logarithm(size, size, CV_64F);
    cv::Mat density(size, size, CV_64F);
    cv::Mat result(size, size, CV_64F, out.data());
    double const ln10 = std::log(10.0);
    for (auto _ : state)
    {
        image->openRegion(channels.data(), 0, box);
        density.setTo(0.0);
        for (int c = 0; c < 3; ++c)
        {
            cv::Mat plane(size, size, CV_64F, channels.data() + c * box.getSize());
            cv::max(plane, 1.0, logarithm);
            logarithm *= 0.00390625;
            cv::log(logarithm, logarithm);
            cv::scaleAdd(logarithm, -weights[static_cast<std::size_t>(c)] / ln10, density, density);
        }
        density *= -ln10;
        cv::exp(density, density);
        cv::min(density, 1.0, density);
        cv::subtract(1.0, density, result);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * box.getSize());
}
BENCHMARK(opencvUnmixing)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
#endif

} // namespace
