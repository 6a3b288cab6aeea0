#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
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

#include <atomic>
#include <filesystem>
#include <map>
#include <random>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::OmeZarrOptions;
using Nuvek::TiffSampleType;
using Nuvek::Vector;
using Nuvek::writeOmeZarr;
using Nuvek::ZarrCompression;
using Nuvek::ZarrImage;
using NuvekTest::messageOf;

namespace {

// Every file below a folder, by relative path, with its bytes.
std::map<std::string, std::vector<unsigned char>> contentsOf(std::string const& folder)
{
    std::map<std::string, std::vector<unsigned char>> contents;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            contents[std::filesystem::relative(entry.path(), folder).string()] =
                NuvekTest::readBytes(entry.path().string());
    return contents;
}

std::shared_ptr<MemoryImage> testImage(std::mt19937_64& random, Vector const& extent, long long channels,
                                       double specialShare)
{
    NuvekTest::ValueMix mix;
    mix.low = -20.0;
    mix.high = 120.0;
    mix.specialShare = specialShare;
    auto image = NuvekTest::randomImage(random, extent, channels, mix);
    image->setValueRange(Nuvek::ValueRange<double>(0.0, 100.0));
    image->setVoxelSize(Vector(250, 500, 2000));
    image->setChannelNames(std::vector<std::string>(static_cast<std::size_t>(channels), "dye"));
    return image;
}

// A large image whose values are computed, so that only what the writers keep takes memory.
class ComputedImage : public Nuvek::Image
{
public:
    explicit ComputedImage(Vector const& extent) : extent(extent) {}

    Vector getExtent(long long level) const override { return Vector(extent.x >> level, extent.y >> level, extent.z); }
    long long getNumChannels() const override { return 2; }
    long long getNumLevels() const override { return 1; }
    Nuvek::ValueRange<double> getValueRange() const override { return Nuvek::ValueRange<double>(0.0, 255.0); }
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

// Fails on its third openRegion call, as a chain whose filter throws would.
class FailingImage : public ComputedImage
{
public:
    FailingImage() : ComputedImage(Vector(100, 100, 1)) {}

    void openRegion(double* out, long long level, Box const& box) override
    {
        if (++calls == 3)
            throw std::runtime_error("the source failed");
        ComputedImage::openRegion(out, level, box);
    }

private:
    std::atomic<int> calls{0};
};

// The peak resident size is measured only without sanitizers: they keep freed memory in quarantine
// and shadow every byte, so a peak under them says nothing about the writers.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
long long peakMegabytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}
#endif

} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(OmeZarrWriter, MemoryStaysFlatInImageSize)
{
    // 8192 x 8192 x 2 channels: 1 GiB as doubles, 128 MiB as bytes. Both writers stay far below.
    NuvekTest::TemporaryDirectory directory;
    ComputedImage image(Vector(8192, 8192, 1));
    long long const before = peakMegabytes();
    OmeZarrOptions options;
    options.sampleType = TiffSampleType::UInt8;
    options.threads = 2;
    ASSERT_TRUE(writeOmeZarr(image, directory.path("large.ome.zarr"), options));
    Nuvek::PyramidalTiffOptions tiffOptions;
    tiffOptions.omeTiff = true;
    tiffOptions.threads = 2;
    tiffOptions.compression = Nuvek::TiffCompression::Zstd;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(image, directory.path("large.ome.tif"), tiffOptions));
    EXPECT_LT(peakMegabytes() - before, 64);
}
#endif

TEST(OmeZarrWriter, EveryLevelEqualsTheTiffWritersForEverySampleType)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(41);
    auto image = testImage(random, Vector(200, 150, 2), 2, 0.0);
    for (TiffSampleType type : {TiffSampleType::UInt8, TiffSampleType::UInt16, TiffSampleType::Float32})
        for (ZarrCompression compression : {ZarrCompression::None, ZarrCompression::Zlib, ZarrCompression::Zstd})
        {
            std::string const name =
                std::to_string(static_cast<int>(type)) + std::to_string(static_cast<int>(compression));
            std::string const zarrPath = directory.path("image" + name + ".ome.zarr");
            std::string const tiffPath = directory.path("image" + name + ".tif");
            OmeZarrOptions options;
            options.chunkSize = 32;
            options.sampleType = type;
            options.compression = compression;
            options.threads = 3;
            ASSERT_TRUE(writeOmeZarr(*image, zarrPath, options)) << name;
            Nuvek::PyramidalTiffOptions tiffOptions;
            tiffOptions.tileSize = 32;
            tiffOptions.sampleType = type;
            ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, tiffPath, tiffOptions));

            ZarrImage zarr(zarrPath);
            Nuvek::TiffImage tiff(tiffPath);
            ASSERT_EQ(zarr.getNumLevels(), tiff.getNumLevels()) << name;
            ASSERT_EQ(zarr.getNumLevels(), 4) << name;
            EXPECT_EQ(zarr.getNumChannels(), 2);
            EXPECT_EQ(zarr.getChannelName(1), "dye");
            EXPECT_EQ(zarr.getVoxelSize(0), Vector(250, 500, 2000));
            EXPECT_EQ(zarr.getVoxelSize(2), Vector(1000, 2000, 2000));
            EXPECT_EQ(zarr.getTileExtent(), Vector(32, 32, 1));
            EXPECT_EQ(zarr.getValueRange().max, type == TiffSampleType::Float32 ? 100.0 : tiff.getValueRange().max);
            for (long long level = 0; level < zarr.getNumLevels(); ++level)
            {
                ASSERT_EQ(zarr.getExtent(level), tiff.getExtent(level));
                Box const box = Box(zarr.getExtent(level)).expanded(Vector(2, 3, 0));
                EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(tiff, level, box),
                                                NuvekTest::openWhole(zarr, level, box), box,
                                                name + " level " + std::to_string(level)));
            }
        }
}

TEST(OmeZarrWriter, FloatsKeepTheirBitsAndTheOutputDoesNotDependOnThreads)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(42);
    auto source = testImage(random, Vector(150, 90, 1), 3, 0.05);
    NuvekTest::RecordingImage image(source);
    std::map<std::string, std::vector<unsigned char>> first;
    for (int threads : {1, 2, 8})
    {
        std::filesystem::create_directories(directory.path(std::to_string(threads)));
        std::string const path = directory.path(std::to_string(threads) + "/out.ome.zarr");
        OmeZarrOptions options;
        options.chunkSize = 48;
        options.threads = threads;
        ASSERT_TRUE(writeOmeZarr(image, path, options));
        if (threads == 1)
        {
            // One request per chunk position at level 0, for all channels at once.
            EXPECT_EQ(image.requests().size(), 4u * 2u);
            first = contentsOf(path);
            ZarrImage zarr(path);
            Box const whole(Vector(150, 90, 1));
            std::vector<double> expected;
            for (double value : source->getValues())
                expected.push_back(static_cast<double>(static_cast<float>(value)));
            EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(zarr, 0, whole), whole));
        }
        else
            EXPECT_EQ(contentsOf(path), first) << threads << " threads";
    }
    EXPECT_EQ(first.count(".zgroup"), 1u);
    EXPECT_EQ(first.count("1/2/0/0/1"), 1u);
}

TEST(OmeZarrWriter, CancellingOrFailingLeavesNothingAndAnExistingTargetAlone)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(43);
    auto image = testImage(random, Vector(100, 100, 1), 1, 0.0);
    std::string const path = directory.path("out.ome.zarr");
    OmeZarrOptions options;
    options.chunkSize = 16;
    options.progress = [](long long done, long long) { return done < 5; };
    EXPECT_FALSE(writeOmeZarr(*image, path, options));
    EXPECT_TRUE(directory.files().empty());

    // An existing target survives a cancelled write and is replaced by a finished one.
    std::filesystem::create_directories(path);
    NuvekTest::writeBytes(path + "/old", {'o', 'l', 'd'});
    EXPECT_FALSE(writeOmeZarr(*image, path, options));
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.ome.zarr"});
    EXPECT_TRUE(std::filesystem::exists(path + "/old"));
    options.progress = nullptr;
    ASSERT_TRUE(writeOmeZarr(*image, path, options));
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.ome.zarr"});
    EXPECT_FALSE(std::filesystem::exists(path + "/old"));
    EXPECT_EQ(ZarrImage(path).getExtent(0), Vector(100, 100, 1));
    FailingImage failing;
    EXPECT_EQ(messageOf([&] { writeOmeZarr(failing, path, options); }), "the source failed");
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.ome.zarr"});
    // Still the one-channel group written before.
    EXPECT_EQ(ZarrImage(path).getNumChannels(), 1);

    MemoryImage empty(Vector(0, 4, 1), 1);
    EXPECT_EQ(messageOf([&] { writeOmeZarr(empty, directory.path("empty.ome.zarr")); }),
              "writeOmeZarr: the image is empty at level 0");
    options.chunkSize = 20;
    EXPECT_EQ(messageOf([&] { writeOmeZarr(*image, directory.path("bad.ome.zarr"), options); }),
              "writeOmeZarr: the chunk size must be a multiple of 16 from 16 to 65536, not 20");
    options.chunkSize = 16;
    options.compression = ZarrCompression::Zlib;
    options.compressionLevel = 10;
    EXPECT_EQ(messageOf([&] { writeOmeZarr(*image, directory.path("bad.ome.zarr"), options); }),
              "writeOmeZarr: the zlib level must be from 1 to 9, not 10");
    options.compressionLevel = 0;
    options.sampleType = TiffSampleType::UInt8;
    options.channelRanges = {Nuvek::ValueRange<double>(0, 1), Nuvek::ValueRange<double>(0, 1)};
    EXPECT_EQ(messageOf([&] { writeOmeZarr(*image, directory.path("bad.ome.zarr"), options); }),
              "writeOmeZarr: there are 2 channel ranges for 1 channels");
    EXPECT_EQ(
        messageOf([&] {
            writeOmeZarr(*image, directory.path("missing/out.ome.zarr"));
        }).rfind("writeOmeZarr: " + directory.path("missing/out.ome.zarr") + ": cannot create a folder beside it", 0),
        0u);
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.ome.zarr"});
}
