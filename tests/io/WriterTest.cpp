// The pyramid writers, the sample conversion they share, and the cache of decoded tiles that the
// file sources they read from share between threads.
#include "io/internal/DecodedTileCache.h"
#include "io/internal/TileSamples.h"

#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/FaultyImage.h"
#include "support/NuvekTest.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>
#include <tuple>

using namespace NuvekTest;
using Nuvek::DecodedTileCache;
using Nuvek::OmeZarrOptions;
using Nuvek::PyramidalTiffOptions;
using Nuvek::SampleStatistics;
using Nuvek::TiffCompression;
using Nuvek::TiffImage;
using Nuvek::TiffSampleType;
using Nuvek::ValueRange;
using Nuvek::ZarrCompression;

namespace {

enum class Format
{
    Tiff,
    OmeTiff,
    Zarr
};

struct Written
{
    Format format;
    TiffSampleType type = TiffSampleType::Float32;
    TiffCompression tiffCompression = TiffCompression::Deflate;
    ZarrCompression zarrCompression = ZarrCompression::Zstd;
    long long tile = 32;
    int threads = 2;
    std::vector<ValueRange<double>> channelRanges = {};
    SampleStatistics* statistics = nullptr;
};

template <typename Options>
Options optionsOf(Written const& how, std::function<bool(long long, long long)> progress)
{
    Options options;
    options.sampleType = how.type;
    options.channelRanges = how.channelRanges;
    options.statistics = how.statistics;
    options.threads = how.threads;
    options.progress = std::move(progress);
    return options;
}

bool write(Written const& how, Image& image, std::string const& path,
           std::function<bool(long long, long long)> progress = nullptr)
{
    if (how.format == Format::Zarr)
    {
        auto options = optionsOf<OmeZarrOptions>(how, std::move(progress));
        options.chunkSize = how.tile;
        options.compression = how.zarrCompression;
        return Nuvek::writeOmeZarr(image, path, options);
    }
    auto options = optionsOf<PyramidalTiffOptions>(how, std::move(progress));
    options.tileSize = how.tile;
    options.compression = how.tiffCompression;
    options.omeTiff = how.format == Format::OmeTiff;
    return Nuvek::writePyramidalTiff(image, path, options);
}

// The statistics as one comparable value, the stored extremes as bits.
std::tuple<long long, long long, std::uint64_t, std::uint64_t> countsOf(SampleStatistics const& statistics)
{
    return {statistics.samples, statistics.saturated, bitsOf(statistics.lowestStored),
            bitsOf(statistics.highestStored)};
}

// A slide through OpenSlide, a zarr group or array, else a TIFF file.
std::unique_ptr<Image> openFile(std::string const& path, std::size_t cacheBytes = Nuvek::defaultTileCacheBytes)
{
    if (path.find("slide.tif") != std::string::npos)
        return std::make_unique<Nuvek::SlideImage>(path, cacheBytes);
    if (path.find(".zarr") != std::string::npos)
        return std::make_unique<Nuvek::ZarrImage>(path, cacheBytes);
    return std::make_unique<TiffImage>(path, 0, cacheBytes);
}

std::string pathFor(std::string const& base, Format format)
{
    return base + (format == Format::Zarr ? ".ome.zarr" : format == Format::OmeTiff ? ".ome.tif" : ".tif");
}

// Writes `clamp | gaussian 5` over the source as a pyramid of 32 x 32 tiles; returns the file's bytes.
std::vector<unsigned char> writeChain(Image& source, std::string const& output, int threads)
{
    Nuvek::ClampingFilter clamp(&source, false);
    Nuvek::GaussianBlurFilter blur(&clamp, 5, false);
    write({Format::Tiff, TiffSampleType::UInt8, TiffCompression::Deflate, ZarrCompression::None, 32, threads}, blur,
          output);
    return readBytes(output);
}

} // namespace

// Every writer, sample type and compression, with channels, slices and per-channel ranges, on 1, 2
// and 8 threads: the same bytes each time, one request per tile (per channel for one-channel
// OME-TIFF pages), progress after every tile of every level, level 0 holding the stored values and
// counted in the statistics, each further level the 2 x 2 means of the one above, down to the level
// within one tile. JPEG, lossy, stays close on smooth images such as slides, its coarser levels
// made from the level above as read back, and OpenSlide decodes its RGB tiles as TiffImage does.
TEST(Writers, RoundTripEveryFormatSampleTypeCompressionAndLayout)
{
    using T = TiffSampleType;
    using C = TiffCompression;
    using Z = ZarrCompression;
    // How it is written, extent, channels, levels, whether each channel has a range of its own.
    std::vector<std::tuple<Written, Vector, long long, long long, bool>> const cases = {
        {{Format::Tiff, T::UInt8, C::None}, Vector(301, 170, 1), 3, 5, false},
        {{Format::Tiff, T::UInt16, C::Deflate}, Vector(301, 170, 1), 3, 5, true},
        {{Format::Tiff, T::Float32, C::LZW}, Vector(301, 170, 1), 3, 5, false},
        {{Format::Tiff, T::UInt8, C::Zstd}, Vector(333, 141, 1), 3, 5, false},
        {{Format::Tiff, T::UInt16, C::LZW, Z::None, 48}, Vector(90, 70, 3), 2, 2, true},
        {{Format::Tiff, T::Float32, C::Zstd}, Vector(333, 141, 1), 1, 5, false},
        {{Format::Tiff, T::UInt8, C::JPEG, Z::None, 64}, Vector(300, 200, 1), 3, 4, false},
        {{Format::Tiff, T::UInt8, C::JPEG, Z::None, 64}, Vector(300, 200, 1), 1, 4, false},
        {{Format::OmeTiff, T::UInt8, C::Deflate}, Vector(150, 100, 1), 3, 4, false},
        {{Format::OmeTiff, T::Float32, C::Deflate}, Vector(140, 110, 3), 1, 4, false},
        {{Format::OmeTiff, T::Float32, C::Deflate, Z::None, 16}, Vector(90, 70, 3), 2, 4, false},
        {{Format::OmeTiff, T::UInt16, C::Zstd, Z::None, 16}, Vector(75, 66, 1), 4, 4, true},
        {{Format::Zarr, T::UInt8, C::None, Z::None}, Vector(200, 150, 2), 2, 4, true},
        {{Format::Zarr, T::UInt16, C::None, Z::Zlib}, Vector(200, 150, 2), 2, 4, false},
        {{Format::Zarr, T::Float32, C::None, Z::Zstd}, Vector(200, 150, 2), 2, 4, false},
        {{Format::Zarr, T::Float32, C::None, Z::None, 48}, Vector(40, 50, 2), 4, 2, false},
        // Wide enough for several column stripes of tiles, and tiles large enough to be asked for
        // in bands of rows.
        {{Format::Tiff, T::UInt8, C::Deflate}, Vector(20 * 32 - 7, 4 * 32 + 9, 1), 3, 6, false},
        {{Format::Tiff, T::Float32, C::Deflate, Z::None, 512}, Vector(600, 530, 1), 3, 2, false},
        {{Format::Zarr, T::Float32, C::None, Z::Zstd}, Vector(20 * 32 - 7, 4 * 32 + 9, 2), 2, 6, false},
        {{Format::Zarr, T::UInt16, C::None, Z::Zstd, 512}, Vector(600, 530, 1), 3, 2, false},
    };
    TemporaryDirectory directory;
    std::mt19937_64 random(17);
    for (std::size_t index = 0; index < cases.size(); ++index)
    {
        auto const& [written, shape, channels, levels, perChannel] = cases[index];
        Written how = written;
        SCOPED_TRACE("case " + std::to_string(index));
        bool const jpeg = how.format == Format::Tiff && how.tiffCompression == C::JPEG;
        std::vector<double> smooth;
        for (long long i = 0; jpeg && i < Box(shape).getSize() * channels; ++i)
            smooth.push_back(std::floor(
                50.0 + 23.0 * std::sin(0.05 * static_cast<double>(i % shape.x + 7 * (i / Box(shape).getSize()))) *
                           std::cos(0.04 * static_cast<double>(i / shape.x % shape.y))));
        auto values = jpeg ? std::make_shared<MemoryImage>(shape, channels, smooth)
                           : randomImage(random, shape, channels, {-20.0, 120.0, 0.02});
        values->setValueRange(ValueRange<double>(0.0, 100.0));
        values->setVoxelSize(Vector(250, 500, 2000));
        std::vector<std::string> names;
        std::vector<ValueRange<double>> ranges;
        for (long long c = 0; c < channels; ++c)
        {
            names.push_back("stain " + std::to_string(c) + " \"q\" 'µ' &<x>");
            ranges.emplace_back(perChannel ? -10.0 * c : 0.0, perChannel ? 100.0 - 20.0 * c : 100.0);
        }
        values->setChannelNames(names);
        RecordingImage image(values);
        how.channelRanges = perChannel ? ranges : std::vector<ValueRange<double>>();
        SampleStatistics statistics;
        how.statistics = &statistics;
        std::vector<std::pair<long long, long long>> calls;
        std::map<std::string, std::vector<unsigned char>> first;
        // The recording image is asked for whole tiles; the memory image itself, which gives the
        // same bits in bands of rows, for bands: the same files either way.
        for (int threads : {1, 2, 8})
            for (Image* source : {static_cast<Image*>(&image), static_cast<Image*>(values.get())})
            {
                how.threads = threads;
                calls.clear();
                std::string const folder = directory.path(std::to_string(index) + "-" + std::to_string(threads) +
                                                          (source == &image ? "" : "-bands"));
                std::filesystem::create_directories(folder);
                ASSERT_TRUE(
                    write(how, *source, pathFor(folder + "/out", how.format), [&](long long done, long long all) {
                        calls.emplace_back(done, all);
                        return true;
                    }));
                if (threads == 1 && source == &image)
                    first = contentsOf(folder);
                else
                    EXPECT_EQ(contentsOf(folder), first)
                        << threads << " threads" << (source == &image ? "" : ", bands");
            }
        std::string const path = pathFor(directory.path(std::to_string(index) + "-1/out"), how.format);
        auto file = openFile(path);
        ASSERT_EQ(file->getExtent(0), shape);
        ASSERT_EQ(file->getNumChannels(), channels);
        ASSERT_EQ(file->getNumLevels(), levels);
        // Progress after every tile of every level, counting each page of one-channel OME-TIFF pages
        // and each chunk of every channel in zarr; one request per level-0 tile of each page.
        bool const plain = how.format == Format::Tiff;
        bool const rgb = channels == 3 && (plain || (how.format == Format::OmeTiff && how.type == T::UInt8));
        long long const planes = plain || rgb ? 1 : channels;
        auto tiles = [&](Vector const& extent) {
            return (extent.x + how.tile - 1) / how.tile * ((extent.y + how.tile - 1) / how.tile) * extent.z;
        };
        EXPECT_EQ(static_cast<long long>(image.requests().size()),
                  3 * tiles(shape) * (how.format == Format::OmeTiff ? planes : 1));
        long long total = 0;
        for (long long level = 0; level < levels; ++level)
            total += tiles(file->getExtent(level)) * planes;
        for (Request const& request : image.requests())
            EXPECT_TRUE(request.level == 0 && request.box.intersected(Box(shape)) == request.box);
        ASSERT_EQ(static_cast<long long>(calls.size()), total);
        for (std::size_t i = 0; i < calls.size(); ++i)
            EXPECT_EQ(calls[i], std::make_pair(static_cast<long long>(i) + 1, total));
        // A zarr group has one array per level, chunks named level/c/z/y/x.
        if (how.format == Format::Zarr)
        {
            std::string const last =
                std::to_string(levels - 1) + "/" + std::to_string(channels - 1) + "/" + std::to_string(shape.z - 1);
            EXPECT_EQ(first.count("out.ome.zarr/.zgroup") + first.count("out.ome.zarr/" + last + "/0/0"), 2u);
        }
        // Plain TIFF has no names (three channels are RGB) and no slice spacing. The one channel of
        // an OME-TIFF RGB page takes the first name, to which the reader adds the colours.
        for (long long c = 0; c < channels; ++c)
        {
            std::string const colour = c == 0 ? "Red" : c == 1 ? "Green" : "Blue";
            EXPECT_EQ(file->getChannelName(c), rgb ? (plain ? colour : names[0] + " " + colour)
                                                   : (plain ? "Channel " + std::to_string(c) : names[c]));
        }
        EXPECT_EQ(file->getVoxelSize(1), Vector(500, 1000, plain ? 1 : 2000));
        EXPECT_EQ(file->getTileExtent(), Vector(how.tile, how.tile, 1));
        // Integer files cover their type's range; float files keep the image's.
        double const top = how.type == T::UInt8 ? 255.0 : how.type == T::UInt16 ? 65535.0 : 100.0;
        EXPECT_EQ(file->getValueRange().max, top);

        std::vector<double> expected;
        SampleStatistics counted{0, 0, how.type == T::Float32 ? 0.0 : top, 0.0};
        std::size_t const channelSize = static_cast<std::size_t>(Box(shape).getSize());
        for (std::size_t i = 0; i < values->getValues().size(); ++i)
        {
            double const value = values->getValues()[i];
            ValueRange<double> const& range = ranges[i / channelSize];
            // Integers: round((v - min) / (max - min) * top) with halves up, clamped, NaN as 0.
            double const scaled = std::floor((value - range.min) / (range.max - range.min) * top + 0.5);
            bool const number = !std::isnan(value) && how.type != T::Float32;
            expected.push_back(how.type == T::Float32 ? static_cast<double>(static_cast<float>(value))
                                                      : (number ? std::clamp(scaled, 0.0, top) : 0.0));
            if (!number)
                continue;
            counted.samples += 1;
            counted.saturated += scaled < 0.0 || scaled > top ? 1 : 0;
            counted.lowestStored = std::min(counted.lowestStored, expected.back());
            counted.highestStored = std::max(counted.highestStored, expected.back());
        }
        EXPECT_EQ(countsOf(statistics), countsOf(counted));
        Box const whole(shape);
        std::vector<double> const stored = openWhole(*file, 0, whole);
        EXPECT_TRUE(jpeg ? nearlyEqual(expected, stored, whole, 16.0) : sameBits(expected, stored, whole));
        if (jpeg && rgb)
        {
            Nuvek::SlideImage slide(path);
            EXPECT_TRUE(sameBits(stored, openWhole(slide, 0, whole), whole));
        }
        for (long long level = 1; level < levels; ++level)
        {
            Vector const up = file->getExtent(level - 1);
            Vector const extent = file->getExtent(level);
            EXPECT_EQ(extent, Vector(up.x / 2, up.y / 2, up.z));
            // Level L + 1 from level L as read back: the 2 x 2 block means of each slice.
            std::vector<double> const above = openWhole(*file, level - 1, Box(up));
            std::vector<double> means;
            for (long long i = 0; i < Box(extent).getSize() * channels; ++i)
            {
                long long const x = 2 * (i % extent.x);
                long long const y = i / (extent.x * extent.y) * up.y + 2 * (i / extent.x % extent.y);
                auto at = [&](long long dx, long long dy) {
                    return above[static_cast<std::size_t>((y + dy) * up.x + x + dx)];
                };
                double const mean = (at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1)) / 4.0;
                means.push_back(how.type == T::Float32 ? static_cast<double>(static_cast<float>(mean))
                                                       : std::min(top, std::floor(mean + 0.5)));
            }
            // Which NaN a mean of +inf and -inf gives depends on the order of the sums: no contract.
            std::vector<double> const read = openWhole(*file, level, Box(extent));
            std::string const context = "level " + std::to_string(level);
            EXPECT_TRUE(jpeg ? nearlyEqual(means, read, Box(extent), 16.0, context)
                             : sameBitsAnyNaN(means, read, Box(extent), context));
        }
    }
}

// A cancelled or failed write leaves nothing behind and an existing target as it was; a finished
// one replaces the target.
TEST(Writers, CancellingOrFailingLeavesNothingAndAnExistingTargetAlone)
{
    std::mt19937_64 random(7);
    auto source = randomImage(random, Vector(128, 128, 1), 2);
    FaultyImage image(source);
    auto cancelAtFive = [](long long done, long long) { return done < 5; };
    for (Format format : {Format::Tiff, Format::Zarr})
    {
        Written const how{format, TiffSampleType::Float32, TiffCompression::Deflate, ZarrCompression::Zstd, 32, 3};
        TemporaryDirectory directory;
        std::string const path = pathFor(directory.path("out"), format);
        for (bool existing : {false, true})
        {
            if (existing)
            {
                std::filesystem::create_directories(format == Format::Zarr ? path : directory.path(""));
                writeBytes(format == Format::Zarr ? path + "/old" : path, {'o', 'l', 'd'});
            }
            auto const before = contentsOf(directory.path(""));
            // The source fails on its first, a middle or its last call, or progress cancels.
            for (int failingCall : {1, 7, 16, 0})
            {
                image.arm(failingCall);
                if (failingCall == 0)
                    EXPECT_FALSE(write(how, image, path, cancelAtFive));
                else
                    EXPECT_EQ(messageOf([&] { write(how, image, path); }), "injected fault");
                EXPECT_EQ(contentsOf(directory.path("")), before) << failingCall;
            }
        }
        ASSERT_TRUE(write(how, image, path));
        EXPECT_EQ(directory.files().size(), 1u);
        EXPECT_EQ(openFile(path)->getExtent(0), Vector(128, 128, 1));
    }
}

TEST(Writers, BadOptionsAreRefusedBeforeAnythingIsWritten)
{
    TemporaryDirectory directory;
    MemoryImage image(Vector(40, 40, 1), 1);
    image.setValueRange(ValueRange<double>(0.0, 1.0));
    MemoryImage twoChannels(Vector(40, 40, 1), 2);
    MemoryImage empty(Vector(0, 5, 1), 1);
    using Case = std::pair<std::function<void(std::string const&)>, std::string>;
    auto tiff = [&](std::function<void(PyramidalTiffOptions&)> change, std::string const& message,
                    Image* other = nullptr) -> Case {
        return {[&image, change, other](std::string const& path) {
                    PyramidalTiffOptions options;
                    change(options);
                    Nuvek::writePyramidalTiff(other ? *other : image, path, options);
                },
                "writePyramidalTiff: " + message};
    };
    auto zarr = [&](std::function<void(OmeZarrOptions&)> change, std::string const& message,
                    Image* other = nullptr) -> Case {
        return {[&image, change, other](std::string const& path) {
                    OmeZarrOptions options;
                    change(options);
                    Nuvek::writeOmeZarr(other ? *other : image, path, options);
                },
                "writeOmeZarr: " + message};
    };
    std::string const integerRange = "the value range must be finite with max > min to map onto integer samples";
    std::vector<Case> const cases = {
        tiff([](auto& o) { o.tileSize = 100; }, "the tile size must be a multiple of 16 from 16 to 65536, not 100"),
        tiff([](auto& o) { o.tileSize = 0; }, "the tile size must be a multiple of 16 from 16 to 65536, not 0"),
        tiff([](auto& o) { o.deflateLevel = 0; }, "the Deflate level must be from 1 to 12, not 0"),
        tiff([](auto& o) { o.zstdLevel = 23; }, "the zstd level must be from 1 to 22, not 23"),
        tiff([](auto& o) { o.jpegQuality = 0; }, "the JPEG quality must be from 1 to 100, not 0"),
        tiff([](auto& o) { o.threads = -1; }, "the number of threads must not be negative"),
        tiff([](auto& o) { o.level = 6; }, "the image has no level 6"),
        tiff(
            [](auto& o) {
                o.compression = TiffCompression::JPEG;
                o.sampleType = TiffSampleType::UInt16;
            },
            "JPEG compression needs uint8 samples"),
        tiff([](auto& o) { o.compression = TiffCompression::JPEG; },
             "JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has 2", &twoChannels),
        tiff([](auto& o) { o.channelRanges.assign(2, ValueRange<double>(0.0, 1.0)); },
             "there are 2 channel ranges for 1 channels"),
        tiff([](auto& o) { o.channelRanges.assign(1, ValueRange<double>(0.0, -1.0)); }, integerRange),
        tiff([](auto& o) { o.valueRange = ValueRange<double>(1.0, 1.0); }, integerRange),
        tiff([](auto& o) { o.valueRange = ValueRange<double>(0.0, inf); }, integerRange),
        tiff([](auto&) {}, "the image is empty at level 0", &empty),
        zarr([](auto&) {}, "the image is empty at level 0", &empty),
        zarr([](auto& o) { o.chunkSize = 20; }, "the chunk size must be a multiple of 16 from 16 to 65536, not 20"),
        zarr(
            [](auto& o) {
                o.compression = ZarrCompression::Zlib;
                o.compressionLevel = 10;
            },
            "the zlib level must be from 1 to 9, not 10"),
        zarr([](auto& o) { o.channelRanges.assign(2, ValueRange<double>(0.0, 1.0)); },
             "there are 2 channel ranges for 1 channels"),
    };
    for (Case const& test : cases)
        EXPECT_EQ(messageOf([&] { test.first(directory.path("out")); }), test.second);
    EXPECT_TRUE(directory.files().empty());
    std::string const nowhere = directory.path("missing/out");
    EXPECT_EQ(messageOf([&] { Nuvek::writePyramidalTiff(image, nowhere); }),
              "writePyramidalTiff: " + nowhere + ": cannot create a file beside it (No such file or directory)");
    EXPECT_EQ(messageOf([&] { Nuvek::writeOmeZarr(image, nowhere); }),
              "writeOmeZarr: " + nowhere + ": cannot create a folder beside it (No such file or directory)");
    // Float samples are stored unscaled, so any range will do.
    image.setValueRange(ValueRange<double>(0.0, inf));
    EXPECT_TRUE(write({Format::Tiff}, image, directory.path("float.tif")));
}

// The row conversion the compiler vectorises stores the bits and statistics of the plain loop, for
// widths below, at and off its four lanes, fresh statistics and ones carried over from earlier
// tiles, on NaN, infinities, signed zeros, the largest doubles and values next to where rounding
// turns; a range whose span overflows takes the plain loop.
TEST(TileSamples, RowConversionStoresThePlainLoopsBitsAndStatistics)
{
    double const huge = std::numeric_limits<double>::max();
    std::vector<double> const special = {NaN, inf, -inf, 0.0, -0.0, huge, -huge, 5e-324};
    std::mt19937_64 random(91);
    for (ValueRange<double> const range : std::vector<ValueRange<double>>{
             {0.0, 255.0}, {0.0, 65535.0}, {0.0, 1.0}, {-3.5, 17.25}, {-1e-3, 2e-3}, {-1e6, 1e9}, {-huge, huge}})
        for (TiffSampleType type : {TiffSampleType::UInt8, TiffSampleType::UInt16})
            for (long long width : {1, 7, 29, 30, 33, 37, 61, 64})
            {
                long long const channels = width % 4 + 1;
                double const top = type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
                // One channel more before the stored ones: firstChannel 1.
                Nuvek::TileLayout const layout{type, 64, channels, {static_cast<std::size_t>(channels + 1), range}};
                std::uniform_int_distribution<int> step(-1, static_cast<int>(top) + 1);
                std::vector<double> region = randomValues(random, (channels + 1) * width * 5, {range.min, range.max});
                for (double& value : region)
                {
                    double const half = (step(random) + 0.5) / top * (range.max - range.min) + range.min;
                    double const picks[] = {special[random() % special.size()], half,  std::nextafter(half, inf),
                                            std::nextafter(half, -inf),         value, value};
                    value = picks[random() % 6];
                }
                std::vector<unsigned char> fast(static_cast<std::size_t>(layout.tileBytes()), 0xAA);
                std::vector<unsigned char> plain(fast.size(), 0x55);
                for (SampleStatistics const start : {SampleStatistics(), SampleStatistics{5, 2, 3.0, 4.0}})
                {
                    SampleStatistics fastStatistics = start;
                    SampleStatistics plainStatistics = start;
                    Nuvek::storeRegion(layout, region.data(), 1, width, 5, fast.data(), fastStatistics);
                    Nuvek::storeRegion(layout, region.data(), 1, width, 5, plain.data(), plainStatistics, true);
                    SCOPED_TRACE("width " + std::to_string(width) + ", range " + hexfloat(range.min) + " " +
                                 hexfloat(range.max));
                    ASSERT_TRUE(fast == plain);
                    EXPECT_EQ(countsOf(fastStatistics), countsOf(plainStatistics));
                }
            }
}

// Halves round up: 255.5 to 256, which saturates, -0.5 to 0, which does not, 2.5 to 3. NaN, stored
// as 0, is no sample.
TEST(TileSamples, RowConversionCountsOnlyNumbersAndSaturatesAtTheHalves)
{
    using Case = std::tuple<std::vector<double>, std::vector<double>, SampleStatistics>;
    std::vector<Case> const cases = {{{NaN, 255.5, 254.9, -0.5, -0.6, 2.5}, {0, 255, 255, 0, 0, 3}, {5, 2, 0.0, 255.0}},
                                     {{NaN, 3.0, 7.0, 5.0, NaN, 4.0}, {0, 3, 7, 5, 0, 4}, {4, 0, 3.0, 7.0}}};
    Nuvek::TileLayout const layout{TiffSampleType::UInt8, 16, 1, {{0.0, 255.0}}};
    for (auto const& [region, stored, expected] : cases)
    {
        std::vector<unsigned char> tile(static_cast<std::size_t>(layout.tileBytes()));
        SampleStatistics statistics;
        Nuvek::storeRegion(layout, region.data(), 0, 6, 1, tile.data(), statistics);
        EXPECT_EQ(std::vector<double>(tile.begin(), tile.begin() + 6), stored);
        EXPECT_EQ(countsOf(statistics), countsOf(expected));
    }
}

// RGB tiles, separate planes in strips, a slide OpenSlide reads and a zarr group, each with no
// cache, a tiny one (about one tile, so that blocks leave while other threads still need them), one
// of three rows of 7 x 5 tiles and a few more, and the default one, on 1, 2 and 8 threads: the
// same file each time. With the default cache, or the rows on one thread, each tile is decoded once.
TEST(TileCache, WrittenChainIsTheSameForAnyThreadsAndCacheSizeAndDecodesEachTileOnce)
{
    TemporaryDirectory directory;
    TiffLayout layout = tiledRgb({{203, 141}});
    layout.tileWidth = layout.tileHeight = 32;
    writeTiff(directory.path("tiles.tif"), layout);
    layout.pages.push_back({101, 70, true});
    writeTiff(directory.path("slide.tif"), layout);
    layout.tileWidth = 0;
    layout.planar = true;
    writeTiff(directory.path("strips.tif"), layout);
    write({Format::Zarr, TiffSampleType::UInt8, TiffCompression::None, ZarrCompression::Zstd, 32},
          *openFile(directory.path("tiles.tif")), directory.path("image.zarr"));
    std::size_t const rows = (3 * 7 + 3) * 32 * 32 * 3;
    for (std::string const input : {"tiles.tif", "strips.tif", "slide.tif", "image.zarr"})
    {
        std::vector<unsigned char> const expected =
            writeChain(*openFile(directory.path(input), 0), directory.path("expected.tif"), 1);
        for (std::size_t cacheBytes : {std::size_t(0), std::size_t(4000), rows, Nuvek::defaultTileCacheBytes})
            for (int threads : {1, 2, 8})
            {
                std::unique_ptr<Image> image = openFile(directory.path(input), cacheBytes);
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
                throw InjectedFault();
            bytes.assign(100, 7);
        };
        std::vector<DecodedTileCache::Block> blocks(threads);
        std::vector<std::thread> workers;
        for (std::size_t t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                ++arrived;
                if (!fail)
                    blocks[t] = cache.get(3, 5, slowDecode);
                else
                {
                    // Only the type: the exception is one object that every waiter gets.
                    EXPECT_THROW(cache.get(3, 5, slowDecode), InjectedFault);
                }
            });
        for (std::thread& worker : workers)
            worker.join();
        for (std::size_t t = 0; t < threads; ++t)
            EXPECT_EQ(blocks[t], blocks[0]);
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
