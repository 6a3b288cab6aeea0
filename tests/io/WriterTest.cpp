#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tiffio.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <random>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::OmeZarrOptions;
using Nuvek::PyramidalTiffOptions;
using Nuvek::TiffCompression;
using Nuvek::TiffImage;
using Nuvek::TiffSampleType;
using Nuvek::ValueRange;
using Nuvek::Vector;
using Nuvek::ZarrCompression;
using NuvekTest::messageOf;

namespace {

enum class Format
{
    Tiff,
    OmeTiff,
    Zarr
};

// What the file should hold for a value at level 0, written out step by step.
double stored(double value, TiffSampleType type, double low, double high)
{
    if (type == TiffSampleType::Float32)
        return static_cast<double>(static_cast<float>(value));
    double const top = type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
    if (std::isnan(value))
        return 0.0;
    double const rounded = std::floor((value - low) / (high - low) * top + 0.5);
    return std::min(top, std::max(0.0, rounded));
}

// Level L + 1 from level L as read back: the 2 x 2 block means of each slice, stored like level 0.
std::vector<double> halved(std::vector<double> const& above, Vector const& aboveExtent, Vector const& extent,
                           long long channels, TiffSampleType type)
{
    std::vector<double> values;
    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < extent.y; ++y)
                for (long long x = 0; x < extent.x; ++x)
                {
                    auto at = [&](long long ax, long long ay) {
                        return above[static_cast<std::size_t>(
                            ((c * aboveExtent.z + z) * aboveExtent.y + ay) * aboveExtent.x + ax)];
                    };
                    double const mean =
                        (at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) + at(2 * x + 1, 2 * y + 1)) /
                        4.0;
                    double const top = type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
                    values.push_back(type == TiffSampleType::Float32
                                         ? static_cast<double>(static_cast<float>(mean))
                                         : std::min(top, std::max(0.0, std::floor(mean + 0.5))));
                }
    return values;
}

struct Written
{
    Format format;
    TiffSampleType type = TiffSampleType::Float32;
    TiffCompression tiffCompression = TiffCompression::Deflate;
    ZarrCompression zarrCompression = ZarrCompression::Zstd;
    long long tile = 32;
    int threads = 2;
};

bool write(Written const& how, Nuvek::Image& image, std::string const& path,
           std::function<bool(long long, long long)> progress = nullptr)
{
    if (how.format == Format::Zarr)
    {
        OmeZarrOptions options;
        options.chunkSize = how.tile;
        options.sampleType = how.type;
        options.compression = how.zarrCompression;
        options.threads = how.threads;
        options.progress = std::move(progress);
        return Nuvek::writeOmeZarr(image, path, options);
    }
    PyramidalTiffOptions options;
    options.tileSize = how.tile;
    options.sampleType = how.type;
    options.compression = how.tiffCompression;
    options.omeTiff = how.format == Format::OmeTiff;
    options.threads = how.threads;
    options.progress = std::move(progress);
    return Nuvek::writePyramidalTiff(image, path, options);
}

std::unique_ptr<Nuvek::Image> readBack(Format format, std::string const& path)
{
    if (format == Format::Zarr)
        return std::make_unique<Nuvek::ZarrImage>(path);
    return std::make_unique<TiffImage>(path);
}

std::string pathFor(std::string const& base, Format format)
{
    return base + (format == Format::Zarr ? ".ome.zarr" : format == Format::OmeTiff ? ".ome.tif" : ".tif");
}

} // namespace

// Every writer, sample type and compression, with channels and slices: level 0 holds the stored
// values, each further level the 2 x 2 means of the one above, down to the level within one tile.
TEST(Writers, RoundTripEveryFormatSampleTypeCompressionAndLayout)
{
    using T = TiffSampleType;
    using C = TiffCompression;
    using Z = ZarrCompression;
    struct Case
    {
        Written how;
        Vector extent;
        long long channels;
        long long levels;
    };
    std::vector<Case> const cases = {
        {{Format::Tiff, T::UInt8, C::None}, Vector(301, 170, 1), 3, 5},
        {{Format::Tiff, T::UInt16, C::Deflate}, Vector(301, 170, 1), 3, 5},
        {{Format::Tiff, T::Float32, C::LZW}, Vector(301, 170, 1), 3, 5},
        {{Format::Tiff, T::UInt8, C::Zstd}, Vector(333, 141, 1), 2, 5},
        {{Format::Tiff, T::UInt16, C::LZW, Z::None, 48}, Vector(90, 70, 3), 2, 2},
        {{Format::Tiff, T::Float32, C::Zstd}, Vector(333, 141, 1), 1, 5},
        {{Format::OmeTiff, T::UInt8, C::Deflate}, Vector(150, 100, 1), 3, 4},
        {{Format::OmeTiff, T::Float32, C::Deflate}, Vector(140, 110, 3), 1, 4},
        {{Format::OmeTiff, T::Float32, C::Deflate, Z::None, 16}, Vector(90, 70, 3), 2, 4},
        {{Format::OmeTiff, T::UInt16, C::Zstd, Z::None, 16}, Vector(75, 66, 1), 4, 4},
        {{Format::Zarr, T::UInt8, C::None, Z::None}, Vector(200, 150, 2), 2, 4},
        {{Format::Zarr, T::UInt16, C::None, Z::Zlib}, Vector(200, 150, 2), 2, 4},
        {{Format::Zarr, T::Float32, C::None, Z::Zstd}, Vector(200, 150, 2), 2, 4},
        {{Format::Zarr, T::Float32, C::None, Z::None, 48}, Vector(40, 50, 2), 4, 2},
    };
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(17);
    int index = 0;
    for (Case const& test : cases)
    {
        std::string const label = "case " + std::to_string(index);
        NuvekTest::ValueMix mix;
        mix.low = -20.0;
        mix.high = 120.0;
        mix.specialShare = 0.02;
        auto image = NuvekTest::randomImage(random, test.extent, test.channels, mix);
        image->setValueRange(ValueRange<double>(0.0, 100.0));
        image->setVoxelSize(Vector(250, 500, 2000));
        std::vector<std::string> names;
        for (long long c = 0; c < test.channels; ++c)
            names.push_back("stain " + std::to_string(c) + " µ&<x>");
        image->setChannelNames(names);
        std::string const path = pathFor(directory.path("round" + std::to_string(index++)), test.how.format);
        ASSERT_TRUE(write(test.how, *image, path)) << label;

        auto file = readBack(test.how.format, path);
        ASSERT_EQ(file->getExtent(0), test.extent) << label;
        ASSERT_EQ(file->getNumChannels(), test.channels) << label;
        ASSERT_EQ(file->getNumLevels(), test.levels) << label;
        // Plain TIFF has no names (three channels are RGB) and no slice spacing. OME-TIFF stores
        // 8-bit RGB as one interleaved page whose one channel takes the first name, to which the
        // reader adds the colours.
        bool const plain = test.how.format == Format::Tiff;
        bool const rgb =
            test.channels == 3 && (plain || (test.how.format == Format::OmeTiff && test.how.type == T::UInt8));
        for (long long c = 0; c < test.channels; ++c)
        {
            std::string const colour = c == 0 ? "Red" : c == 1 ? "Green" : "Blue";
            std::string const name = names[static_cast<std::size_t>(c)];
            EXPECT_EQ(file->getChannelName(c), rgb ? (plain ? colour : names[0] + " " + colour)
                                                   : (plain ? "Channel " + std::to_string(c) : name))
                << label;
        }
        EXPECT_EQ(file->getVoxelSize(1), Vector(500, 1000, plain ? 1 : 2000)) << label;
        EXPECT_EQ(file->getTileExtent(), Vector(test.how.tile, test.how.tile, 1)) << label;
        // Integer files cover their type's range; float files keep the image's.
        double const top = test.how.type == T::UInt8 ? 255.0 : test.how.type == T::UInt16 ? 65535.0 : 100.0;
        EXPECT_EQ(file->getValueRange().max, top) << label;

        Box const whole(test.extent);
        std::vector<double> expected;
        for (double value : image->getValues())
            expected.push_back(stored(value, test.how.type, 0.0, 100.0));
        EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(*file, 0, whole), whole, label));
        for (long long level = 1; level < test.levels; ++level)
        {
            Vector const aboveExtent = file->getExtent(level - 1);
            Vector const extent = file->getExtent(level);
            EXPECT_EQ(extent, Vector(aboveExtent.x / 2, aboveExtent.y / 2, aboveExtent.z)) << label;
            std::vector<double> const above = NuvekTest::openWhole(*file, level - 1, Box(aboveExtent));
            Box const box = Box(extent).expanded(Vector(2, 1, 0));
            std::vector<double> inside = halved(above, aboveExtent, extent, test.channels, test.how.type);
            std::vector<double> withFrame(static_cast<std::size_t>(box.getSize() * test.channels), 0.0);
            NuvekTest::paste(withFrame, box, inside, Box(extent), test.channels);
            // Which NaN a mean of +inf and -inf gives depends on the order of the sums: no contract.
            auto anyNaN = [](std::vector<double> values) {
                for (double& value : values)
                    value = std::isnan(value) ? std::numeric_limits<double>::quiet_NaN() : value;
                return values;
            };
            EXPECT_TRUE(NuvekTest::sameBits(anyNaN(withFrame), anyNaN(NuvekTest::openWhole(*file, level, box)), box,
                                            label + " level " + std::to_string(level)));
        }
    }
}

// Each writer asks for each tile or chunk once, and its bytes do not depend on the number of threads.
TEST(Writers, OneRequestPerTileAndTheSameBytesOnAnyNumberOfThreads)
{
    struct Case
    {
        Written how;
        long long channels;
        std::size_t requests;
    };
    // 150 x 90 in 48 x 48 tiles: 4 x 2 at level 0; the coarser levels are made from those. OME-TIFF
    // pages of one channel each ask for every tile once per channel.
    std::vector<Case> const cases = {
        {{Format::Tiff, TiffSampleType::UInt16, TiffCompression::Deflate, ZarrCompression::None, 48}, 1, 8},
        {{Format::OmeTiff, TiffSampleType::Float32, TiffCompression::LZW, ZarrCompression::None, 48}, 2, 16},
        {{Format::Tiff, TiffSampleType::UInt8, TiffCompression::JPEG, ZarrCompression::None, 48}, 3, 8},
        {{Format::Zarr, TiffSampleType::Float32, TiffCompression::None, ZarrCompression::Zstd, 48}, 3, 8},
    };
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(42);
    int index = 0;
    for (Case const& test : cases)
    {
        NuvekTest::ValueMix mix;
        mix.specialShare = 0.05;
        NuvekTest::RecordingImage image(NuvekTest::randomImage(random, Vector(150, 90, 1), test.channels, mix));
        std::map<std::string, std::vector<unsigned char>> first;
        for (int threads : {1, 2, 8})
        {
            Written how = test.how;
            how.threads = threads;
            std::string const folder = directory.path(std::to_string(index) + "-" + std::to_string(threads));
            std::filesystem::create_directories(folder);
            image.clearRequests();
            ASSERT_TRUE(write(how, image, pathFor(folder + "/out", how.format)));
            if (threads == 1)
            {
                first = NuvekTest::contentsOf(folder);
                EXPECT_EQ(image.requests().size(), test.requests) << index;
                // A group with one array per level, chunks named level/c/z/y/x.
                if (how.format == Format::Zarr)
                {
                    EXPECT_EQ(first.count("out.ome.zarr/.zgroup"), 1u);
                    EXPECT_EQ(first.count("out.ome.zarr/1/2/0/0/1"), 1u);
                }
            }
            else
                EXPECT_EQ(NuvekTest::contentsOf(folder), first) << index << ", " << threads << " threads";
        }
        ++index;
    }
}

TEST(Writers, TheTiffWriterAsksForTheChosenLevelInTilesClippedToTheExtent)
{
    std::mt19937_64 random(4);
    NuvekTest::RecordingImage image(NuvekTest::randomImage(random, Vector(200, 130, 1), 1));
    NuvekTest::TemporaryDirectory directory;
    PyramidalTiffOptions options;
    options.tileSize = 64;
    options.level = 1;
    options.valueRange = ValueRange<double>(-100.0, 100.0);
    options.threads = 1;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(image, directory.path("one.tif"), options));
    // Level 1 is 100 x 65: tiles 2 x 2, clipped to the extent.
    std::vector<Box> const expected = {
        Box(Vector(0, 0, 0), Vector(63, 63, 0)), Box(Vector(64, 0, 0), Vector(99, 63, 0)),
        Box(Vector(0, 64, 0), Vector(63, 64, 0)), Box(Vector(64, 64, 0), Vector(99, 64, 0))};
    std::vector<NuvekTest::Request> const requests = image.requests();
    ASSERT_EQ(requests.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        EXPECT_EQ(requests[i].level, 1);
        EXPECT_EQ(requests[i].box, expected[i]);
    }
}

namespace {

// Fails on the given openRegion call, counted from 1, as a chain whose filter throws would.
class FailingImage : public NuvekTest::RecordingImage
{
public:
    FailingImage(std::shared_ptr<MemoryImage> source, int failingCall)
        : RecordingImage(std::move(source)), failingCall(failingCall)
    {
    }

    void openRegion(double* out, long long level, Box const& box) override
    {
        if (++calls == failingCall)
            throw std::runtime_error("the source failed");
        RecordingImage::openRegion(out, level, box);
    }

private:
    int failingCall;
    std::atomic<int> calls{0};
};

} // namespace

// A cancelled or failed write leaves nothing behind and an existing target as it was; a finished
// one replaces the target.
TEST(Writers, CancellingOrFailingLeavesNothingAndAnExistingTargetAlone)
{
    std::mt19937_64 random(7);
    auto source = NuvekTest::randomImage(random, Vector(128, 128, 1), 2);
    for (Format format : {Format::Tiff, Format::Zarr})
    {
        Written const how{format, TiffSampleType::Float32, TiffCompression::Deflate, ZarrCompression::Zstd, 32, 3};
        NuvekTest::TemporaryDirectory directory;
        std::string const path = pathFor(directory.path("out"), format);
        auto cancelAtFive = [](long long done, long long) { return done < 5; };
        for (int failingCall : {1, 7, 16})
        {
            FailingImage image(source, failingCall);
            EXPECT_EQ(messageOf([&] { write(how, image, path); }), "the source failed");
            EXPECT_TRUE(directory.files().empty()) << failingCall;
        }
        EXPECT_FALSE(write(how, *source, path, cancelAtFive));
        EXPECT_TRUE(directory.files().empty());

        if (format == Format::Zarr)
        {
            std::filesystem::create_directories(path);
            NuvekTest::writeBytes(path + "/old", {'o', 'l', 'd'});
        }
        else
            NuvekTest::writeBytes(path, {'o', 'l', 'd'});
        auto const before = NuvekTest::contentsOf(directory.path(""));
        EXPECT_FALSE(write(how, *source, path, cancelAtFive));
        EXPECT_EQ(NuvekTest::contentsOf(directory.path("")), before);
        FailingImage failing(source, 3);
        EXPECT_EQ(messageOf([&] { write(how, failing, path); }), "the source failed");
        EXPECT_EQ(NuvekTest::contentsOf(directory.path("")), before);
        ASSERT_TRUE(write(how, *source, path));
        EXPECT_EQ(directory.files().size(), 1u);
        EXPECT_EQ(readBack(format, path)->getExtent(0), Vector(128, 128, 1));
    }
}

TEST(Writers, ProgressCountsEveryTileOfEveryLevel)
{
    std::mt19937_64 random(6);
    auto image = NuvekTest::randomImage(random, Vector(100, 100, 1), 1);
    NuvekTest::TemporaryDirectory directory;
    for (Format format : {Format::Tiff, Format::Zarr})
    {
        std::vector<std::pair<long long, long long>> calls;
        Written const how{format, TiffSampleType::UInt8, TiffCompression::Deflate, ZarrCompression::Zstd, 32, 2};
        ASSERT_TRUE(
            write(how, *image, pathFor(directory.path("out"), format), [&calls](long long done, long long total) {
                calls.emplace_back(done, total);
                return true;
            }));
        // 4 x 4 tiles, then 50 x 50 in 2 x 2, then 25 x 25 in one.
        ASSERT_EQ(calls.size(), 21u);
        for (std::size_t i = 0; i < calls.size(); ++i)
            EXPECT_EQ(calls[i], std::make_pair(static_cast<long long>(i) + 1, 21LL));
    }
}

TEST(Writers, BadOptionsAreRefusedBeforeAnythingIsWritten)
{
    NuvekTest::TemporaryDirectory directory;
    MemoryImage image(Vector(40, 40, 1), 1);
    image.setValueRange(ValueRange<double>(0.0, 1.0));
    MemoryImage twoChannels(Vector(40, 40, 1), 2);
    MemoryImage empty(Vector(0, 5, 1), 1);
    auto tiff = [&](std::function<void(PyramidalTiffOptions&)> change, Nuvek::Image* other = nullptr) {
        return [&image, change, other](std::string const& path) {
            PyramidalTiffOptions options;
            change(options);
            Nuvek::writePyramidalTiff(other ? *other : image, path, options);
        };
    };
    auto zarr = [&](std::function<void(OmeZarrOptions&)> change, Nuvek::Image* other = nullptr) {
        return [&image, change, other](std::string const& path) {
            OmeZarrOptions options;
            change(options);
            Nuvek::writeOmeZarr(other ? *other : image, path, options);
        };
    };
    std::string const integerRange =
        "writePyramidalTiff: the value range must be finite with max > min to map onto integer samples";
    struct Case
    {
        std::function<void(std::string const&)> write;
        std::string message;
    };
    std::vector<Case> const cases = {
        {tiff([](auto& o) { o.tileSize = 100; }),
         "writePyramidalTiff: the tile size must be a multiple of 16 from 16 to 65536, not 100"},
        {tiff([](auto& o) { o.tileSize = 0; }),
         "writePyramidalTiff: the tile size must be a multiple of 16 from 16 to 65536, not 0"},
        {tiff([](auto& o) { o.deflateLevel = 0; }),
         "writePyramidalTiff: the Deflate level must be from 1 to 12, not 0"},
        {tiff([](auto& o) { o.zstdLevel = 23; }), "writePyramidalTiff: the zstd level must be from 1 to 22, not 23"},
        {tiff([](auto& o) { o.jpegQuality = 0; }), "writePyramidalTiff: the JPEG quality must be from 1 to 100, not 0"},
        {tiff([](auto& o) { o.threads = -1; }), "writePyramidalTiff: the number of threads must not be negative"},
        {tiff([](auto& o) { o.level = 6; }), "writePyramidalTiff: the image has no level 6"},
        {tiff([](auto& o) {
             o.compression = TiffCompression::JPEG;
             o.sampleType = TiffSampleType::UInt16;
         }),
         "writePyramidalTiff: JPEG compression needs uint8 samples"},
        {tiff([](auto& o) { o.compression = TiffCompression::JPEG; }, &twoChannels),
         "writePyramidalTiff: JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has 2"},
        {tiff([](auto& o) {
             o.channelRanges = {ValueRange<double>(0.0, 1.0), ValueRange<double>(0.0, 2.0)};
         }),
         "writePyramidalTiff: there are 2 channel ranges for 1 channels"},
        {tiff([](auto& o) { o.channelRanges = {ValueRange<double>(0.0, -1.0)}; }), integerRange},
        {tiff([](auto& o) { o.valueRange = ValueRange<double>(1.0, 1.0); }), integerRange},
        {tiff([](auto& o) { o.valueRange = ValueRange<double>(0.0, std::numeric_limits<double>::infinity()); }),
         integerRange},
        {tiff([](auto&) {}, &empty), "writePyramidalTiff: the image is empty at level 0"},
        {zarr([](auto&) {}, &empty), "writeOmeZarr: the image is empty at level 0"},
        {zarr([](auto& o) { o.chunkSize = 20; }),
         "writeOmeZarr: the chunk size must be a multiple of 16 from 16 to 65536, not 20"},
        {zarr([](auto& o) {
             o.compression = ZarrCompression::Zlib;
             o.compressionLevel = 10;
         }),
         "writeOmeZarr: the zlib level must be from 1 to 9, not 10"},
        {zarr([](auto& o) {
             o.sampleType = TiffSampleType::UInt8;
             o.channelRanges = {ValueRange<double>(0, 1), ValueRange<double>(0, 1)};
         }),
         "writeOmeZarr: there are 2 channel ranges for 1 channels"},
    };
    for (Case const& test : cases)
        EXPECT_EQ(messageOf([&] { test.write(directory.path("out")); }), test.message);
    EXPECT_TRUE(directory.files().empty());
    // Float samples are stored unscaled, so any range will do.
    auto const floats = tiff([](auto& o) {
        o.sampleType = TiffSampleType::Float32;
        o.valueRange = ValueRange<double>(0.0, std::numeric_limits<double>::infinity());
    });
    EXPECT_EQ(messageOf([&] { floats(directory.path("float.tif")); }), "(nothing thrown)");
    std::string const nowhere = directory.path("missing/out");
    EXPECT_EQ(messageOf([&] {
                  Nuvek::writePyramidalTiff(image, nowhere);
              }).rfind("writePyramidalTiff: " + nowhere + ": cannot create a file beside it", 0),
              0u);
    EXPECT_EQ(messageOf([&] {
                  Nuvek::writeOmeZarr(image, nowhere);
              }).rfind("writeOmeZarr: " + nowhere + ": cannot create a folder beside it", 0),
              0u);
}

TEST(Writers, ChannelRangesMapEachChannelAndTheStatisticsCountWhatWasClipped)
{
    std::mt19937_64 random(23);
    NuvekTest::ValueMix mix;
    mix.low = -10.0;
    mix.high = 30.0;
    mix.specialShare = 0.05;
    auto image = NuvekTest::randomImage(random, Vector(90, 70, 1), 2, mix);
    std::vector<ValueRange<double>> const ranges = {ValueRange<double>(0.0, 20.0), ValueRange<double>(-10.0, 10.0)};
    long long samples = 0;
    long long saturated = 0;
    double lowest = 65535.0;
    double highest = 0.0;
    std::vector<double> expected;
    std::vector<double> const& values = image->getValues();
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        ValueRange<double> const range = ranges[i / (90 * 70)];
        expected.push_back(stored(values[i], TiffSampleType::UInt16, range.min, range.max));
        if (std::isnan(values[i]))
            continue;
        ++samples;
        double const scaled = std::floor((values[i] - range.min) / (range.max - range.min) * 65535.0 + 0.5);
        saturated += scaled < 0.0 || scaled > 65535.0 ? 1 : 0;
        lowest = std::min(lowest, expected.back());
        highest = std::max(highest, expected.back());
    }
    ASSERT_GT(saturated, 0);
    NuvekTest::TemporaryDirectory directory;
    for (Format format : {Format::Tiff, Format::Zarr})
    {
        Nuvek::SampleStatistics statistics;
        std::string const path = pathFor(directory.path("ranges"), format);
        if (format == Format::Zarr)
        {
            OmeZarrOptions options;
            options.chunkSize = 32;
            options.sampleType = TiffSampleType::UInt16;
            options.channelRanges = ranges;
            options.statistics = &statistics;
            options.threads = 3;
            ASSERT_TRUE(Nuvek::writeOmeZarr(*image, path, options));
        }
        else
        {
            PyramidalTiffOptions options;
            options.tileSize = 32;
            options.sampleType = TiffSampleType::UInt16;
            options.channelRanges = ranges;
            options.statistics = &statistics;
            options.threads = 3;
            ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, path, options));
        }
        Box const whole(Vector(90, 70, 1));
        EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(*readBack(format, path), 0, whole), whole));
        EXPECT_EQ(statistics.samples, samples);
        EXPECT_EQ(statistics.saturated, saturated);
        EXPECT_EQ(statistics.lowestStored, lowest);
        EXPECT_EQ(statistics.highestStored, highest);
    }
}

TEST(Writers, JpegTilesAreCloseToTheImageAndSlideReadersAgreeOnThem)
{
    NuvekTest::TemporaryDirectory directory;
    // Smooth colours with some texture, as a slide has: JPEG's loss stays small there.
    for (long long channels : {3LL, 1LL})
    {
        std::vector<double> values(static_cast<std::size_t>(300 * 200 * channels));
        for (long long c = 0; c < channels; ++c)
            for (long long y = 0; y < 200; ++y)
                for (long long x = 0; x < 300; ++x)
                    values[static_cast<std::size_t>((c * 200 + y) * 300 + x)] =
                        std::floor(128.0 + 60.0 * std::sin(0.05 * static_cast<double>(x + 7 * c)) *
                                               std::cos(0.04 * static_cast<double>(y)));
        MemoryImage image(Vector(300, 200, 1), channels, values);
        image.setValueRange(ValueRange<double>(0.0, 255.0));
        PyramidalTiffOptions options;
        options.tileSize = 64;
        options.compression = TiffCompression::JPEG;
        std::string const path = directory.path("jpeg" + std::to_string(channels) + ".tif");
        ASSERT_TRUE(Nuvek::writePyramidalTiff(image, path, options));
        TiffImage file(path);
        ASSERT_EQ(file.getNumChannels(), channels);
        ASSERT_EQ(file.getNumLevels(), 4);
        Box const whole(Vector(300, 200, 1));
        std::vector<double> const read = NuvekTest::openWhole(file, 0, whole);
        double largest = 0.0;
        double sum = 0.0;
        for (std::size_t i = 0; i < read.size(); ++i)
        {
            largest = std::max(largest, std::fabs(read[i] - values[i]));
            sum += std::fabs(read[i] - values[i]);
        }
        EXPECT_LT(sum / static_cast<double>(read.size()), 1.5) << channels;
        EXPECT_LT(largest, 16.0) << channels;
        if (channels == 3)
        {
            Nuvek::SlideImage slide(path);
            EXPECT_TRUE(NuvekTest::sameBits(read, NuvekTest::openWhole(slide, 0, whole), whole));
        }
    }
}

TEST(Writers, OmeTiffKeepsFullResolutionPagesInTheMainChainAndDescribesThem)
{
    NuvekTest::TemporaryDirectory directory;
    MemoryImage image(Vector(70, 40, 2), 2);
    image.setChannelNames({"a&b <c>", "\"q\" 'r'\x01"});
    image.setVoxelSize(Vector(500, 500, 3000));
    std::string const path = directory.path("names.ome.tif");
    PyramidalTiffOptions options;
    options.omeTiff = true;
    options.tileSize = 16;
    options.sampleType = TiffSampleType::Float32;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(image, path, options));
    TIFF* tiff = TIFFOpen(path.c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    // One page per channel and slice, each with its reduced levels as SubIFDs.
    EXPECT_EQ(TIFFNumberOfDirectories(tiff), 4);
    std::uint16_t count = 0;
    toff_t* offsets = nullptr;
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_SUBIFD, &count, &offsets), 1);
    EXPECT_EQ(count, 3);
    char* description = nullptr;
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description), 1);
    std::string const xml = description;
    TIFFClose(tiff);
    for (std::string const part : {"Name=\"a&amp;b &lt;c&gt;\"", "Name=\"&quot;q&quot; &apos;r&apos; \"",
                                   "Name=\"names\"", "DimensionOrder=\"XYCZT\"", "SizeZ=\"2\"",
                                   "PhysicalSizeX=\"0.5\" PhysicalSizeXUnit=\"\xc2\xb5m\"", "PhysicalSizeZ=\"3\""})
        EXPECT_NE(xml.find(part), std::string::npos) << part << " in " << xml;
}

TEST(Writers, FilesOpenInTiffinfoAndOpenSlide)
{
    std::string const tiffinfo = NUVEK_TIFFINFO;
    ASSERT_FALSE(tiffinfo.empty() || tiffinfo.find("NOTFOUND") != std::string::npos)
        << "tiffinfo was not found when the build was configured (package libtiff-tools)";
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(12);
    NuvekTest::ValueMix mix;
    mix.low = 0.0;
    mix.high = 255.0;
    auto image = NuvekTest::randomImage(random, Vector(512, 384, 1), 3, mix);
    image->setValueRange(ValueRange<double>(0.0, 255.0));
    image->setVoxelSize(Vector(250, 250, 1));
    for (TiffCompression compression :
         {TiffCompression::Deflate, TiffCompression::LZW, TiffCompression::None, TiffCompression::Zstd})
    {
        std::string const path = directory.path("slide" + std::to_string(static_cast<int>(compression)) + ".tif");
        PyramidalTiffOptions options;
        options.tileSize = 128;
        options.compression = compression;
        ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, path, options));
        std::string output;
        FILE* pipe = popen(("'" + tiffinfo + "' -D '" + path + "' 2>&1").c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        char buffer[4096];
        while (std::size_t const read = std::fread(buffer, 1, sizeof buffer, pipe))
            output.append(buffer, read);
        EXPECT_EQ(pclose(pipe), 0) << output;
        EXPECT_EQ(output.find("rror"), std::string::npos) << output;
        for (std::string const part : {"Image Width: 512 Image Length: 384", "Image Width: 128 Image Length: 96",
                                       "Tile Width: 128 Tile Length: 128"})
            EXPECT_NE(output.find(part), std::string::npos) << output;

        Nuvek::SlideImage slide(path);
        TiffImage file(path);
        EXPECT_EQ(slide.getProperty("openslide.vendor"), "generic-tiff");
        EXPECT_EQ(slide.getVoxelSize(1), Vector(500, 500, 1));
        ASSERT_EQ(file.getNumLevels(), 3);
        // Level 2 (128 x 96) is shorter than a tile, which OpenSlide 3 misreads.
        EXPECT_EQ(slide.hasLevel(2), slide.getNumLevels() == 3);
        for (long long level = 0; level < slide.getNumLevels(); ++level)
        {
            ASSERT_EQ(slide.getExtent(level), file.getExtent(level));
            Box const box = Box(file.getExtent(level)).expanded(Vector(3, 2, 0));
            EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(file, level, box),
                                            NuvekTest::openWhole(slide, level, box), box,
                                            "level " + std::to_string(level)));
        }
    }
}

namespace {

// A large image whose values are computed, so that only what the writers keep takes memory.
class ComputedImage : public Nuvek::Image
{
public:
    explicit ComputedImage(Vector const& extent) : extent(extent) {}

    Vector getExtent(long long level) const override { return Vector(extent.x >> level, extent.y >> level, extent.z); }
    long long getNumChannels() const override { return 2; }
    long long getNumLevels() const override { return 1; }
    ValueRange<double> getValueRange() const override { return ValueRange<double>(0.0, 255.0); }
    Vector getVoxelSize(long long) const override { return Vector(1, 1, 1); }
    std::string getChannelName(long long index) override { return "c" + std::to_string(index); }
    std::uint64_t getHash() override { return 7; }
    void openRegion(double* out, long long, Box const& box) override
    {
        long long index = 0;
        for (long long c = 0; c < 2; ++c)
            for (long long z = box.min.z; z <= box.max.z; ++z)
                for (long long y = box.min.y; y <= box.max.y; ++y)
                    for (long long x = box.min.x; x <= box.max.x; ++x)
                        out[index++] = static_cast<double>((x * 7 + y * 13 + c * 101) % 256);
    }

private:
    Vector extent;
};

} // namespace

// The peak resident size is measured only without sanitizers: they keep freed memory in quarantine
// and shadow every byte, so a peak under them says nothing about the writers.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(Writers, MemoryStaysFlatInImageSize)
{
    // 8192 x 8192 x 2 channels: 1 GiB as doubles, 128 MiB as bytes. Both writers stay far below.
    auto peakMegabytes = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss / 1024;
    };
    NuvekTest::TemporaryDirectory directory;
    ComputedImage image(Vector(8192, 8192, 1));
    long long const before = peakMegabytes();
    Written how{Format::Zarr, TiffSampleType::UInt8, TiffCompression::Zstd, ZarrCompression::Zstd, 256, 2};
    ASSERT_TRUE(write(how, image, directory.path("large.ome.zarr")));
    how.format = Format::OmeTiff;
    ASSERT_TRUE(write(how, image, directory.path("large.ome.tif")));
    EXPECT_LT(peakMegabytes() - before, 64);
}
#endif
