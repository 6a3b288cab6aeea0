// Reading tiles of a 16384 x 16384 tiled RGB TIFF on 1 and 2 threads, and writing pyramids of 4096^2
// and 16384^2 images, in voxels per second. The write benchmarks also report the process's peak
// resident memory ("peakMB"); run each size in its own process to compare the two peaks:
//   bench_io --benchmark_filter='write/4096/1/6'   and   bench_io --benchmark_filter='write/16384/1/6'
#include <nuvek/core/Image.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/TiffImage.h>

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <tiffio.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr long long readExtent = 16384;
constexpr long long readTile = 512;

// A brightfield-like RGB image computed from coordinates: smooth stain variations with a little
// grain, so that it compresses as real slides do, without holding the image in memory.
class SyntheticSlide : public Nuvek::Image
{
public:
    explicit SyntheticSlide(long long size) : size(size), alongX(static_cast<std::size_t>(size)), alongY(alongX.size())
    {
        for (long long i = 0; i < size; ++i)
        {
            alongX[static_cast<std::size_t>(i)] = std::sin(static_cast<double>(i) / 37.0);
            alongY[static_cast<std::size_t>(i)] = std::cos(static_cast<double>(i) / 53.0);
        }
    }

    Nuvek::Vector getExtent(long long level) const override { return Nuvek::Vector(size >> level, size >> level, 1); }
    long long getNumChannels() const override { return 3; }
    long long getNumLevels() const override { return 1; }
    Nuvek::ValueRange<double> getValueRange() const override { return Nuvek::ValueRange<double>(0.0, 255.0); }
    Nuvek::Vector getVoxelSize(long long level) const override
    {
        return Nuvek::Vector(250LL << level, 250LL << level, 1);
    }
    void openRegion(double* out, long long, Nuvek::Box const& box) override
    {
        for (long long c = 0; c < 3; ++c)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    std::uint64_t grain = static_cast<std::uint64_t>(x * 73856093LL ^ y * 19349663LL ^ c * 83492791LL);
                    grain = (grain * 0x9E3779B97F4A7C15ULL) >> 60;
                    bool const inside = x >= 0 && y >= 0 && x < size && y < size;
                    double const stain =
                        inside ? alongX[static_cast<std::size_t>(x)] * alongY[static_cast<std::size_t>(y)] : 0.0;
                    *out++ = 200.0 - 40.0 * static_cast<double>(c) * stain * stain + static_cast<double>(grain);
                }
    }
    std::string getChannelName(long long index) override { return "Channel " + std::to_string(index); }
    std::uint64_t getHash() override { return 1; }

private:
    long long size;
    std::vector<double> alongX;
    std::vector<double> alongY;
};

long long peakMegabytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

// The 16384^2 RGB file, written once per machine by the writer itself (256 x 256 tiles, Deflate).
std::string readFile()
{
    static std::once_flag once;
    static std::string path = (std::filesystem::temp_directory_path() / "nuvek-bench-rgb-16384.tif").string();
    std::call_once(once, [] {
        if (std::filesystem::exists(path))
            return;
        SyntheticSlide slide(readExtent);
        Nuvek::PyramidalTiffOptions options;
        options.compression = Nuvek::TiffCompression::Deflate;
        Nuvek::writePyramidalTiff(slide, path, options);
    });
    return path;
}

Nuvek::TiffImage& sharedImage()
{
    static Nuvek::TiffImage image(readFile());
    return image;
}

// 512 x 512 tiles, each thread taking every n-th tile so that no two threads read the same one.
void readTiles(benchmark::State& state)
{
    Nuvek::TiffImage& image = sharedImage();
    long long const perRow = readExtent / readTile;
    long long const count = perRow * perRow;
    std::vector<double> out(static_cast<std::size_t>(readTile * readTile * 3));
    long long index = state.thread_index();
    for (auto _ : state)
    {
        long long const tile = (index * 7919) % count;
        Nuvek::Vector const min((tile % perRow) * readTile, (tile / perRow) * readTile, 0);
        image.openRegion(out.data(), 0, Nuvek::Box(min, min + Nuvek::Vector(readTile - 1, readTile - 1, 0)));
        benchmark::DoNotOptimize(out.data());
        index += state.threads();
    }
    state.SetItemsProcessed(state.iterations() * readTile * readTile);
}
BENCHMARK(readTiles)->Threads(1)->Threads(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same tiles decoded by libtiff alone into its own bytes: what reading costs before any value
// becomes a double.
void libtiffDecodeOnly(benchmark::State& state)
{
    std::string const path = readFile();
    TIFF* tiff = TIFFOpen(path.c_str(), "r");
    std::vector<unsigned char> tile(static_cast<std::size_t>(TIFFTileSize(tiff)));
    long long const perRow = readExtent / readTile;
    long long const count = perRow * perRow;
    long long index = 0;
    for (auto _ : state)
    {
        long long const choice = (index++ * 7919) % count;
        long long const x0 = (choice % perRow) * readTile;
        long long const y0 = (choice / perRow) * readTile;
        for (long long y = y0; y < y0 + readTile; y += 256)
            for (long long x = x0; x < x0 + readTile; x += 256)
                TIFFReadEncodedTile(
                    tiff, TIFFComputeTile(tiff, static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y), 0, 0),
                    tile.data(), static_cast<tmsize_t>(tile.size()));
        benchmark::DoNotOptimize(tile.data());
    }
    TIFFClose(tiff);
    state.SetItemsProcessed(state.iterations() * readTile * readTile);
}
BENCHMARK(libtiffDecodeOnly)->UseRealTime()->Unit(benchmark::kMillisecond);

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

// A whole pyramid, uint8 RGB, 256 x 256 tiles, on two worker threads; the second argument is the
// compression (0 none, 1 Deflate, 2 LZW), the third the Deflate level. "MvoxelPerCpuSecond" counts the CPU time of every thread
// of the process, which a busy machine does not distort the way it distorts the wall time.
void write(benchmark::State& state)
{
    long long const size = state.range(0);
    SyntheticSlide slide(size);
    std::string const path =
        (std::filesystem::temp_directory_path() / ("nuvek-bench-write-" + std::to_string(getpid()) + ".tif")).string();
    Nuvek::PyramidalTiffOptions options;
    options.threads = 2;
    options.compression = static_cast<Nuvek::TiffCompression>(state.range(1));
    options.deflateLevel = static_cast<int>(state.range(2));
    double const cpuBefore = processCpuSeconds();
    for (auto _ : state)
        Nuvek::writePyramidalTiff(slide, path, options);
    double const cpu = processCpuSeconds() - cpuBefore;
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations() * size * size);
    state.counters["peakMB"] = static_cast<double>(peakMegabytes());
    state.counters["MvoxelPerCpuSecond"] = static_cast<double>(state.iterations() * size * size) / cpu / 1e6;
}
BENCHMARK(write)
    ->Args({4096, 0, 6})
    ->Args({4096, 1, 6})
    ->Args({4096, 1, 1})
    ->Args({4096, 2, 6})
    ->Args({16384, 1, 6})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
