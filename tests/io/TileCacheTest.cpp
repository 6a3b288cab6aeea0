#include "io/internal/DecodedTileCache.h"

#include <nuvek/filters/neighbourhood/GaussianBlurFilter.h>
#include <nuvek/filters/pixelwise/ClampingFilter.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using Nuvek::DecodedTileCache;
using Nuvek::Image;
using NuvekTest::TiffLayout;

namespace {

using Opener = std::function<std::unique_ptr<Image>(std::string const& path, std::size_t cacheBytes)>;

// One kind of file source with the file it reads.
struct SourceCase
{
    char const* name;
    char const* file;
    Opener open;
};

TiffLayout rgbLayout(std::uint32_t width, std::uint32_t height)
{
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.compression = 8;
    layout.tileWidth = 32;
    layout.tileHeight = 32;
    layout.pages = {NuvekTest::PageShape(width, height)};
    return layout;
}

// Writes the test inputs: tiles, separate planes in strips, a slide OpenSlide reads, a zarr group.
void writeInputs(NuvekTest::TemporaryDirectory const& directory)
{
    TiffLayout const tiles = rgbLayout(203, 141);
    NuvekTest::writeTiff(directory.path("tiles.tif"), tiles);
    TiffLayout strips = tiles;
    strips.tileWidth = 0;
    strips.planar = true;
    NuvekTest::writeTiff(directory.path("strips.tif"), strips);
    TiffLayout slide = tiles;
    slide.pages.push_back(NuvekTest::PageShape(101, 70, true));
    NuvekTest::writeTiff(directory.path("slide.tif"), slide);
    Nuvek::TiffImage source(directory.path("tiles.tif"), 0, 0);
    Nuvek::OmeZarrOptions options;
    options.chunkSize = 32;
    options.sampleType = Nuvek::TiffSampleType::UInt8;
    options.threads = 1;
    Nuvek::writeOmeZarr(source, directory.path("image.zarr"), options);
}

std::vector<SourceCase> sourceCases()
{
    return {
        {"tiles", "tiles.tif",
         [](std::string const& path, std::size_t bytes) { return std::make_unique<Nuvek::TiffImage>(path, 0, bytes); }},
        {"strips", "strips.tif",
         [](std::string const& path, std::size_t bytes) { return std::make_unique<Nuvek::TiffImage>(path, 0, bytes); }},
        {"slide", "slide.tif",
         [](std::string const& path, std::size_t bytes) { return std::make_unique<Nuvek::SlideImage>(path, bytes); }},
        {"zarr", "image.zarr",
         [](std::string const& path, std::size_t bytes) { return std::make_unique<Nuvek::ZarrImage>(path, bytes); }},
    };
}

// Writes `clamp | gaussian 5` over the source as a pyramid of 32 x 32 tiles; returns the file's bytes.
std::vector<unsigned char> writeChain(Image& source, std::string const& output, int threads)
{
    Nuvek::ClampingFilter clamp(&source, false);
    Nuvek::GaussianBlurFilter blur(&clamp, 5, false);
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = 32;
    options.threads = threads;
    options.sampleType = Nuvek::TiffSampleType::UInt8;
    options.valueRange = Nuvek::ValueRange<double>(0.0, 255.0);
    Nuvek::writePyramidalTiff(blur, output, options);
    return NuvekTest::readBytes(output);
}

} // namespace

TEST(TileCache, WrittenChainIsTheSameForAnyThreadsAndCacheSize)
{
    NuvekTest::TemporaryDirectory directory;
    writeInputs(directory);
    // Tiny: about one 32 x 32 RGB tile, so that blocks leave while other threads still need them.
    std::size_t const cacheSizes[] = {0, 4000, Nuvek::defaultTileCacheBytes};
    for (SourceCase const& source : sourceCases())
    {
        std::string const input = directory.path(source.file);
        std::unique_ptr<Image> reference = source.open(input, 0);
        std::vector<unsigned char> const expected = writeChain(*reference, directory.path("expected.tif"), 1);
        for (std::size_t cacheBytes : cacheSizes)
            for (int threads : {1, 2, 8})
            {
                std::unique_ptr<Image> image = source.open(input, cacheBytes);
                EXPECT_TRUE(writeChain(*image, directory.path("out.tif"), threads) == expected)
                    << source.name << ", cache " << cacheBytes << " bytes, " << threads << " threads";
            }
    }
}

TEST(TileCache, EachInputTileIsDecodedOnceInTheWritersOrder)
{
    NuvekTest::TemporaryDirectory directory;
    NuvekTest::writeTiff(directory.path("tiles.tif"), rgbLayout(203, 141));
    std::uint64_t const tiles = 7 * 5;
    std::size_t const tileBytes = 32 * 32 * 3;
    // One thread in rows of tiles: three rows of input tiles and a few more are enough.
    Nuvek::TiffImage rows(directory.path("tiles.tif"), 0, (3 * 7 + 3) * tileBytes);
    writeChain(rows, directory.path("rows.tif"), 1);
    EXPECT_EQ(rows.getBlocksDecoded(), tiles);
    // Eight threads asking for the same tiles at once: each still decoded once.
    Nuvek::TiffImage shared(directory.path("tiles.tif"));
    writeChain(shared, directory.path("shared.tif"), 8);
    EXPECT_EQ(shared.getBlocksDecoded(), tiles);
    // Without a cache every output tile decodes the input tiles it touches.
    Nuvek::TiffImage uncached(directory.path("tiles.tif"), 0, 0);
    writeChain(uncached, directory.path("uncached.tif"), 1);
    EXPECT_GT(uncached.getBlocksDecoded(), 3 * tiles);
}

TEST(DecodedTileCache, ConcurrentRequestsForOneBlockDecodeItOnce)
{
    DecodedTileCache cache(1 << 20);
    int const threads = 8;
    std::atomic<int> arrived{0};
    auto slowDecode = [&](std::vector<unsigned char>& bytes) {
        // Holds the decode until every thread has asked, so that the others must wait for it.
        while (arrived.load() < threads)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        bytes.assign(100, 7);
    };
    std::vector<DecodedTileCache::Block> blocks(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            ++arrived;
            blocks[static_cast<std::size_t>(t)] = cache.get(3, 5, slowDecode);
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(cache.getDecodes(), 1u);
    for (DecodedTileCache::Block const& block : blocks)
        EXPECT_EQ(block, blocks[0]);
    EXPECT_EQ(blocks[0]->size(), 100u);
    EXPECT_EQ(cache.getBytesHeld(), 100u);
}

TEST(DecodedTileCache, AFailedDecodeReachesEveryWaiterAndIsTriedAgain)
{
    DecodedTileCache cache(1 << 20);
    int const threads = 6;
    std::atomic<int> arrived{0};
    std::atomic<int> failures{0};
    auto failingDecode = [&](std::vector<unsigned char>&) {
        while (arrived.load() < threads)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        throw std::runtime_error("damaged tile");
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            ++arrived;
            try
            {
                cache.get(0, 1, failingDecode);
            }
            catch (std::runtime_error const& error)
            {
                if (std::string(error.what()) == "damaged tile")
                    ++failures;
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(failures.load(), threads);
    EXPECT_EQ(cache.getDecodes(), 1u);
    EXPECT_EQ(cache.getBytesHeld(), 0u);
    DecodedTileCache::Block const block =
        cache.get(0, 1, [](std::vector<unsigned char>& bytes) { bytes.assign(9, 1); });
    EXPECT_EQ(block->size(), 9u);
    EXPECT_EQ(cache.getDecodes(), 2u);
}

TEST(DecodedTileCache, HoldsAtMostItsCapacityAndLetsTheLeastRecentlyUsedGoFirst)
{
    DecodedTileCache cache(1000);
    auto decodeBytes = [](std::size_t size) {
        return [size](std::vector<unsigned char>& bytes) { bytes.assign(size, 1); };
    };
    for (std::uint64_t index = 0; index < 10; ++index)
    {
        cache.get(0, index, decodeBytes(300));
        EXPECT_LE(cache.getBytesHeld(), 1000u);
    }
    EXPECT_EQ(cache.getBytesHeld(), 900u);
    EXPECT_EQ(cache.getDecodes(), 10u);
    // Blocks 7, 8 and 9 are held; using 7 again makes 8 the least recently used.
    cache.get(0, 7, decodeBytes(300));
    EXPECT_EQ(cache.getDecodes(), 10u);
    cache.get(1, 7, decodeBytes(300));
    EXPECT_EQ(cache.getDecodes(), 11u);
    cache.get(0, 7, decodeBytes(300));
    cache.get(0, 9, decodeBytes(300));
    EXPECT_EQ(cache.getDecodes(), 11u);
    cache.get(0, 8, decodeBytes(300));
    EXPECT_EQ(cache.getDecodes(), 12u);
    // A block larger than the capacity is served but not kept, and nothing held leaves for it.
    EXPECT_EQ(cache.get(0, 99, decodeBytes(1001))->size(), 1001u);
    EXPECT_EQ(cache.getBytesHeld(), 900u);
    cache.get(0, 99, decodeBytes(1001));
    EXPECT_EQ(cache.getDecodes(), 14u);

    // Capacity 0 keeps nothing: every call decodes.
    DecodedTileCache none(0);
    none.get(0, 0, decodeBytes(10));
    none.get(0, 0, decodeBytes(10));
    EXPECT_EQ(none.getDecodes(), 2u);
    EXPECT_EQ(none.getBytesHeld(), 0u);
}
