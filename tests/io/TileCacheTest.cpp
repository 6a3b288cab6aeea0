#include "io/internal/DecodedTileCache.h"

#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <atomic>
#include <chrono>
#include <thread>

using Nuvek::DecodedTileCache;
using namespace NuvekTest;

namespace {

// Opens one of the inputs below with a cache of `bytes`.
std::unique_ptr<Image> openInput(std::string const& path, std::size_t bytes)
{
    if (path.find("slide.tif") != std::string::npos)
        return std::make_unique<Nuvek::SlideImage>(path, bytes);
    if (path.find(".zarr") != std::string::npos)
        return std::make_unique<Nuvek::ZarrImage>(path, bytes);
    return std::make_unique<Nuvek::TiffImage>(path, 0, bytes);
}

// Writes `clamp | gaussian 5` over the source as a pyramid of 32 x 32 tiles; returns the file's bytes.
std::vector<unsigned char> writeChain(Image& source, std::string const& output, int threads)
{
    Nuvek::ClampingFilter clamp(&source, false);
    Nuvek::GaussianBlurFilter blur(&clamp, 5, false);
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = 32;
    options.threads = threads;
    options.valueRange = Nuvek::ValueRange<double>(0.0, 255.0);
    Nuvek::writePyramidalTiff(blur, output, options);
    return readBytes(output);
}

} // namespace

// RGB tiles, separate planes in strips, a slide OpenSlide reads and a zarr group, each with no
// cache, a tiny one (about one tile, so that blocks leave while other threads still need them), one
// of three rows of 7 x 5 tiles and a few more, and the default one, on 1, 2 and 8 threads: the
// same file each time. With the default cache, or the rows on one thread, each tile is decoded once.
TEST(TileCache, WrittenChainIsTheSameForAnyThreadsAndCacheSizeAndDecodesEachTileOnce)
{
    TemporaryDirectory directory;
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.compression = 8;
    layout.tileWidth = 32;
    layout.tileHeight = 32;
    layout.pages = {PageShape(203, 141)};
    writeTiff(directory.path("tiles.tif"), layout);
    layout.pages.push_back(PageShape(101, 70, true));
    writeTiff(directory.path("slide.tif"), layout);
    layout.tileWidth = 0;
    layout.planar = true;
    writeTiff(directory.path("strips.tif"), layout);
    Nuvek::OmeZarrOptions options;
    options.chunkSize = 32;
    options.sampleType = Nuvek::TiffSampleType::UInt8;
    Nuvek::writeOmeZarr(*openInput(directory.path("tiles.tif"), 0), directory.path("image.zarr"), options);
    std::size_t const rows = (3 * 7 + 3) * 32 * 32 * 3;
    for (std::string const input : {"tiles.tif", "strips.tif", "slide.tif", "image.zarr"})
    {
        std::vector<unsigned char> const expected =
            writeChain(*openInput(directory.path(input), 0), directory.path("expected.tif"), 1);
        for (std::size_t cacheBytes : {std::size_t(0), std::size_t(4000), rows, Nuvek::defaultTileCacheBytes})
            for (int threads : {1, 2, 8})
            {
                std::unique_ptr<Image> image = openInput(directory.path(input), cacheBytes);
                EXPECT_TRUE(writeChain(*image, directory.path("out.tif"), threads) == expected)
                    << input << ", cache " << cacheBytes << " bytes, " << threads << " threads";
                if (input == std::string("tiles.tif") &&
                    (cacheBytes == Nuvek::defaultTileCacheBytes || (cacheBytes == rows && threads == 1)))
                {
                    EXPECT_EQ(dynamic_cast<Nuvek::TiffImage&>(*image).getBlocksDecoded(), 7u * 5u) << cacheBytes;
                }
            }
    }
}

// However many threads ask for a block at once, one decodes it and the others wait: all get its
// block, or all get its exception, after which nothing is held and a later call tries again.
TEST(DecodedTileCache, ConcurrentRequestsShareOneDecodeAndItsFailure)
{
    for (bool fail : {false, true})
    {
        DecodedTileCache cache(1 << 20);
        std::size_t const threads = 8;
        std::atomic<std::size_t> arrived{0};
        auto slowDecode = [&](std::vector<unsigned char>& bytes) {
            // Holds the decode until every thread has asked, so that the others must wait for it.
            while (arrived.load() < threads)
                std::this_thread::yield();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (fail)
                throw std::runtime_error("damaged tile");
            bytes.assign(100, 7);
        };
        std::vector<DecodedTileCache::Block> blocks(threads);
        std::vector<std::string> messages(threads);
        std::vector<std::thread> workers;
        for (std::size_t t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                ++arrived;
                messages[t] = messageOf([&] { blocks[t] = cache.get(3, 5, slowDecode); });
            });
        for (std::thread& worker : workers)
            worker.join();
        for (std::size_t t = 0; t < threads; ++t)
        {
            EXPECT_EQ(messages[t], fail ? "damaged tile" : "(nothing thrown)");
            EXPECT_EQ(blocks[t], blocks[0]);
        }
        EXPECT_EQ(cache.getDecodes(), 1u);
        EXPECT_EQ(cache.getBytesHeld(), fail ? 0u : 100u);
        EXPECT_EQ(cache.get(3, 5, [](std::vector<unsigned char>& bytes) { bytes.assign(9, 1); })->size(),
                  fail ? 9u : 100u);
        EXPECT_EQ(cache.getDecodes(), fail ? 2u : 1u);
    }
}

TEST(DecodedTileCache, HoldsAtMostItsCapacityAndLetsTheLeastRecentlyUsedGoFirst)
{
    DecodedTileCache cache(1000);
    auto get = [&cache](std::uint64_t page, std::uint64_t index, std::size_t size = 300) {
        return cache.get(page, index, [size](std::vector<unsigned char>& bytes) { bytes.assign(size, 1); });
    };
    for (std::uint64_t index = 0; index < 10; ++index)
    {
        get(0, index);
        EXPECT_LE(cache.getBytesHeld(), 1000u);
    }
    EXPECT_EQ(cache.getBytesHeld(), 900u);
    // Blocks 7, 8 and 9 are held; using 7 again makes 8 the least recently used, which leaves for
    // block (1, 7): of the next five calls only (1, 7) and (0, 8) decode.
    for (auto const& [page, index] :
         std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, 7}, {1, 7}, {0, 7}, {0, 9}, {0, 8}})
        get(page, index);
    EXPECT_EQ(cache.getDecodes(), 12u);
    // A block larger than the capacity is served but not kept, and nothing held leaves for it.
    EXPECT_EQ(get(0, 99, 1001)->size(), 1001u);
    get(0, 99, 1001);
    EXPECT_EQ(cache.getBytesHeld(), 900u);
    EXPECT_EQ(cache.getDecodes(), 14u);
}
