#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

using Nuvek::Box;
using Nuvek::MemoryImage;
using Nuvek::PyramidalTiffOptions;
using Nuvek::TiffCompression;
using Nuvek::TiffImage;
using Nuvek::TiffSampleType;
using Nuvek::Vector;
using Nuvek::writePyramidalTiff;
using NuvekTest::messageOf;

namespace {

// What the file should hold at level 0 for a value, written out step by step.
double storedReference(double value, TiffSampleType type, double low, double high)
{
    if (type == TiffSampleType::Float32)
        return static_cast<double>(static_cast<float>(value));
    double const top = type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
    if (std::isnan(value))
        return 0.0;
    double scaled = (value - low) / (high - low);
    scaled = scaled * top;
    double rounded = std::floor(scaled + 0.5);
    if (rounded < 0.0)
        rounded = 0.0;
    if (rounded > top)
        rounded = top;
    return rounded;
}

// Level L + 1 from level L as read back: the 2 x 2 block means, stored like the writer stores them.
std::vector<double> halvedReference(std::vector<double> const& above, Vector const& aboveExtent, Vector const& extent,
                                    long long channels, TiffSampleType type)
{
    std::vector<double> values;
    double const top = type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < extent.z; ++z)
            for (long long y = 0; y < extent.y; ++y)
                for (long long x = 0; x < extent.x; ++x)
                {
                    auto at = [&](long long ax, long long ay) {
                        return above[static_cast<std::size_t>(
                            ((c * aboveExtent.z + z) * aboveExtent.y + ay) * aboveExtent.x + ax)];
                    };
                    double sum = 0.0;
                    sum += at(2 * x, 2 * y);
                    sum += at(2 * x + 1, 2 * y);
                    sum += at(2 * x, 2 * y + 1);
                    sum += at(2 * x + 1, 2 * y + 1);
                    double const mean = sum / 4.0;
                    if (type == TiffSampleType::Float32)
                        values.push_back(static_cast<double>(static_cast<float>(mean)));
                    else
                        values.push_back(std::min(top, std::max(0.0, std::floor(mean + 0.5))));
                }
    return values;
}

std::string nameOf(TiffSampleType type, TiffCompression compression)
{
    std::string const types[] = {"uint8", "uint16", "float32"};
    std::string const compressions[] = {"none", "deflate", "lzw", "jpeg", "zstd"};
    return types[static_cast<int>(type)] + "/" + compressions[static_cast<int>(compression)];
}

// An image whose openRegion fails on the given call, counted from 1.
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

TEST(PyramidalTiffWriter, EverySampleTypeAndCompressionRoundTrips)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(17);
    NuvekTest::ValueMix mix;
    mix.low = -20.0;
    mix.high = 120.0;
    mix.specialShare = 0.02;
    auto image = NuvekTest::randomImage(random, Vector(301, 170, 1), 3, mix);
    image->setValueRange(Nuvek::ValueRange<double>(0.0, 100.0));
    for (TiffSampleType type : {TiffSampleType::UInt8, TiffSampleType::UInt16, TiffSampleType::Float32})
        for (TiffCompression compression :
             {TiffCompression::None, TiffCompression::Deflate, TiffCompression::LZW, TiffCompression::Zstd})
        {
            std::string const name = nameOf(type, compression);
            std::string const path = directory.path("round" + std::to_string(static_cast<int>(type)) +
                                                    std::to_string(static_cast<int>(compression)) + ".tif");
            PyramidalTiffOptions options;
            options.tileSize = 64;
            options.sampleType = type;
            options.compression = compression;
            options.threads = 3;
            ASSERT_TRUE(writePyramidalTiff(*image, path, options)) << name;

            TiffImage file(path);
            ASSERT_EQ(file.getExtent(0), Vector(301, 170, 1)) << name;
            ASSERT_EQ(file.getNumChannels(), 3);
            EXPECT_EQ(file.getChannelName(0), "Red");
            std::vector<double> expected;
            for (double value : image->getValues())
                expected.push_back(storedReference(value, type, 0.0, 100.0));
            Box const whole(Vector(301, 170, 1));
            EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(file, 0, whole), whole, name));
            if (type == TiffSampleType::Float32)
            {
                EXPECT_EQ(file.getValueRange().min, 0.0);
                EXPECT_EQ(file.getValueRange().max, 100.0);
            }
        }
}

TEST(PyramidalTiffWriter, LevelsAreTwoByTwoMeansOfTheLevelAboveDownToOneTile)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(3);
    NuvekTest::ValueMix mix;
    mix.low = 0.0;
    mix.high = 1.0;
    auto image = NuvekTest::randomImage(random, Vector(333, 141, 1), 2, mix);
    image->setValueRange(Nuvek::ValueRange<double>(0.0, 1.0));
    for (TiffSampleType type : {TiffSampleType::UInt8, TiffSampleType::UInt16, TiffSampleType::Float32})
    {
        std::string const path = directory.path("levels.tif");
        PyramidalTiffOptions options;
        options.tileSize = 32;
        options.sampleType = type;
        options.compression = TiffCompression::LZW;
        ASSERT_TRUE(writePyramidalTiff(*image, path, options));
        TiffImage file(path);
        // 333 x 141, 166 x 70, 83 x 35, 41 x 17, 20 x 8: the first within one 32 x 32 tile.
        ASSERT_EQ(file.getNumLevels(), 5);
        EXPECT_EQ(file.getExtent(3), Vector(41, 17, 1));
        EXPECT_EQ(file.getExtent(4), Vector(20, 8, 1));
        for (long long level = 1; level < 5; ++level)
        {
            Vector const aboveExtent = file.getExtent(level - 1);
            Vector const extent = file.getExtent(level);
            std::vector<double> const above = NuvekTest::openWhole(file, level - 1, Box(aboveExtent));
            Box const box(extent);
            EXPECT_TRUE(NuvekTest::sameBits(halvedReference(above, aboveExtent, extent, 2, type),
                                            NuvekTest::openWhole(file, level, box), box,
                                            nameOf(type, options.compression) + " level " + std::to_string(level)));
        }
    }
}

TEST(PyramidalTiffWriter, SlicesChannelsAndVoxelSizeSurviveTheRoundTrip)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(8);
    NuvekTest::ValueMix mix;
    mix.low = 0.0;
    mix.high = 65535.0;
    std::vector<double> values = NuvekTest::randomValues(random, 90 * 70 * 3 * 2, mix);
    for (double& value : values)
        value = std::floor(value);
    MemoryImage image(Vector(90, 70, 3), 2, values);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 65535.0));
    image.setVoxelSize(Vector(250, 400, 2000));
    PyramidalTiffOptions options;
    options.tileSize = 48;
    options.sampleType = TiffSampleType::UInt16;
    std::string const path = directory.path("stack.tif");
    ASSERT_TRUE(writePyramidalTiff(image, path, options));

    TiffImage file(path);
    ASSERT_EQ(file.getExtent(0), Vector(90, 70, 3));
    ASSERT_EQ(file.getNumLevels(), 2);
    EXPECT_EQ(file.getExtent(1), Vector(45, 35, 3));
    EXPECT_EQ(file.getNumChannels(), 2);
    EXPECT_EQ(file.getChannelName(1), "Channel 1");
    EXPECT_EQ(file.getVoxelSize(0), Vector(250, 400, 1));
    Box const whole(Vector(90, 70, 3));
    EXPECT_TRUE(NuvekTest::sameBits(values, NuvekTest::openWhole(file, 0, whole), whole));
    // Each slice's level 1 is made from that slice alone.
    std::vector<double> const above = NuvekTest::openWhole(file, 0, whole);
    EXPECT_TRUE(
        NuvekTest::sameBits(halvedReference(above, whole.getExtent(), Vector(45, 35, 3), 2, TiffSampleType::UInt16),
                            NuvekTest::openWhole(file, 1, Box(Vector(45, 35, 3))), Box(Vector(45, 35, 3))));
}

TEST(PyramidalTiffWriter, AsksTheImageForEachTileOnceAndTheOutputDoesNotDependOnThreads)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(4);
    auto source = NuvekTest::randomImage(random, Vector(200, 130, 1), 1);
    NuvekTest::RecordingImage image(source);
    PyramidalTiffOptions options;
    options.tileSize = 64;
    options.level = 1;
    options.valueRange = Nuvek::ValueRange<double>(-100.0, 100.0);
    options.threads = 1;
    ASSERT_TRUE(writePyramidalTiff(image, directory.path("one.tif"), options));
    // Level 1 is 100 x 65: tiles 2 x 2, clipped to the extent.
    std::vector<NuvekTest::Request> requests = image.requests();
    ASSERT_EQ(requests.size(), 4u);
    std::vector<Box> const expected = {
        Box(Vector(0, 0, 0), Vector(63, 63, 0)), Box(Vector(64, 0, 0), Vector(99, 63, 0)),
        Box(Vector(0, 64, 0), Vector(63, 64, 0)), Box(Vector(64, 64, 0), Vector(99, 64, 0))};
    for (std::size_t i = 0; i < 4; ++i)
    {
        EXPECT_EQ(requests[i].level, 1);
        EXPECT_EQ(requests[i].box, expected[i]);
    }
    for (int threads : {2, 5})
    {
        options.threads = threads;
        std::string const path = directory.path("threads" + std::to_string(threads) + ".tif");
        ASSERT_TRUE(writePyramidalTiff(image, path, options));
        EXPECT_EQ(NuvekTest::readBytes(path), NuvekTest::readBytes(directory.path("one.tif"))) << threads;
    }
}

TEST(PyramidalTiffWriter, ProgressCountsTilesAndCancellingLeavesTheTargetAlone)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(6);
    auto image = NuvekTest::randomImage(random, Vector(100, 100, 1), 1);
    std::string const path = directory.path("out.tif");
    NuvekTest::writeBytes(path, {'o', 'l', 'd'});

    std::vector<std::pair<long long, long long>> calls;
    PyramidalTiffOptions options;
    options.tileSize = 32;
    options.threads = 2;
    options.progress = [&calls](long long done, long long total) {
        calls.emplace_back(done, total);
        return done < 5;
    };
    EXPECT_FALSE(writePyramidalTiff(*image, path, options));
    EXPECT_EQ(calls.size(), 5u);
    EXPECT_EQ(NuvekTest::readBytes(path), (std::vector<unsigned char>{'o', 'l', 'd'}));
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.tif"});

    // 4 x 4 tiles, then 50 x 50 in 2 x 2, then 25 x 25 in one.
    calls.clear();
    options.progress = [&calls](long long done, long long total) {
        calls.emplace_back(done, total);
        return true;
    };
    EXPECT_TRUE(writePyramidalTiff(*image, path, options));
    ASSERT_EQ(calls.size(), 21u);
    for (std::size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(calls[i], std::make_pair(static_cast<long long>(i) + 1, 21LL));
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.tif"});
    EXPECT_EQ(TiffImage(path).getNumLevels(), 3);
}

TEST(PyramidalTiffWriter, AFailingImageLeavesNoFileAndTheTargetAlone)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(7);
    auto source = NuvekTest::randomImage(random, Vector(128, 128, 1), 2);
    std::string const path = directory.path("out.tif");
    for (int failingCall : {1, 7, 16})
    {
        FailingImage image(source, failingCall);
        PyramidalTiffOptions options;
        options.tileSize = 32;
        options.threads = 3;
        EXPECT_EQ(messageOf([&] { writePyramidalTiff(image, path, options); }), "the source failed");
        EXPECT_TRUE(directory.files().empty()) << failingCall;
    }
    NuvekTest::writeBytes(path, {'o', 'l', 'd'});
    FailingImage image(source, 3);
    PyramidalTiffOptions options;
    options.tileSize = 32;
    EXPECT_THROW(writePyramidalTiff(image, path, options), std::runtime_error);
    EXPECT_EQ(NuvekTest::readBytes(path), (std::vector<unsigned char>{'o', 'l', 'd'}));
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.tif"});
}

TEST(PyramidalTiffWriter, BadOptionsAreRejectedBeforeAnythingIsWritten)
{
    NuvekTest::TemporaryDirectory directory;
    MemoryImage image(Vector(40, 40, 1), 1);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 1.0));
    std::string const path = directory.path("out.tif");
    auto write = [&](PyramidalTiffOptions const& options) {
        return messageOf([&] { writePyramidalTiff(image, path, options); });
    };
    PyramidalTiffOptions options;
    options.tileSize = 100;
    EXPECT_EQ(write(options), "writePyramidalTiff: the tile size must be a multiple of 16 from 16 to 65536, not 100");
    options.tileSize = 0;
    EXPECT_EQ(write(options), "writePyramidalTiff: the tile size must be a multiple of 16 from 16 to 65536, not 0");
    options.tileSize = 16;
    options.deflateLevel = 0;
    EXPECT_EQ(write(options), "writePyramidalTiff: the Deflate level must be from 1 to 12, not 0");
    options.deflateLevel = 1;
    options.zstdLevel = 23;
    EXPECT_EQ(write(options), "writePyramidalTiff: the zstd level must be from 1 to 22, not 23");
    options.zstdLevel = 1;
    options.jpegQuality = 0;
    EXPECT_EQ(write(options), "writePyramidalTiff: the JPEG quality must be from 1 to 100, not 0");
    options.jpegQuality = 90;
    options.threads = -1;
    EXPECT_EQ(write(options), "writePyramidalTiff: the number of threads must not be negative");
    options.threads = 0;
    options.level = 6;
    EXPECT_EQ(write(options), "writePyramidalTiff: the image has no level 6");
    options.level = 0;
    options.compression = TiffCompression::JPEG;
    options.sampleType = TiffSampleType::UInt16;
    EXPECT_EQ(write(options), "writePyramidalTiff: JPEG compression needs uint8 samples");
    options.sampleType = TiffSampleType::UInt8;
    MemoryImage twoChannels(Vector(40, 40, 1), 2);
    EXPECT_EQ(messageOf([&] { writePyramidalTiff(twoChannels, path, options); }),
              "writePyramidalTiff: JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has 2");
    options.compression = TiffCompression::Deflate;
    options.channelRanges = {Nuvek::ValueRange<double>(0.0, 1.0), Nuvek::ValueRange<double>(0.0, 2.0)};
    EXPECT_EQ(write(options), "writePyramidalTiff: there are 2 channel ranges for 1 channels");
    options.channelRanges = {Nuvek::ValueRange<double>(0.0, -1.0)};
    EXPECT_EQ(write(options),
              "writePyramidalTiff: the value range must be finite with max > min to map onto integer samples");
    options.channelRanges.clear();
    options.valueRange = Nuvek::ValueRange<double>(1.0, 1.0);
    EXPECT_EQ(write(options),
              "writePyramidalTiff: the value range must be finite with max > min to map onto integer samples");
    options.valueRange = Nuvek::ValueRange<double>(0.0, std::numeric_limits<double>::infinity());
    EXPECT_EQ(write(options),
              "writePyramidalTiff: the value range must be finite with max > min to map onto integer samples");
    // Float samples are stored unscaled, so any range will do.
    options.sampleType = TiffSampleType::Float32;
    EXPECT_EQ(write(options), "(nothing thrown)");
    EXPECT_EQ(directory.files(), std::vector<std::string>{"out.tif"});

    MemoryImage empty(Vector(0, 5, 1), 1);
    EXPECT_EQ(messageOf([&] { writePyramidalTiff(empty, directory.path("empty.tif")); }),
              "writePyramidalTiff: the image is empty at level 0");
    std::string const nowhere = directory.path("missing/out.tif");
    EXPECT_EQ(messageOf([&] {
                  writePyramidalTiff(image, nowhere);
              }).rfind("writePyramidalTiff: " + nowhere + ": cannot create a file beside it", 0),
              0u);
}

TEST(PyramidalTiffWriter, OmeTiffReadsBackBitForBitWithItsLevelsAsSubIfds)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(31);
    struct Case
    {
        long long channels;
        Vector extent;
        TiffSampleType type;
    };
    // One RGB page per slice, and single-channel float slices: both read as slices by TiffImage.
    Case const cases[] = {{3, Vector(150, 100, 1), TiffSampleType::UInt8},
                          {1, Vector(140, 110, 3), TiffSampleType::Float32}};
    for (Case const& test : cases)
    {
        NuvekTest::ValueMix mix;
        mix.low = 0.0;
        mix.high = 255.0;
        mix.specialShare = 0.0;
        auto image = NuvekTest::randomImage(random, test.extent, test.channels, mix);
        image->setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
        image->setVoxelSize(Vector(500, 500, 3000));
        std::string const path = directory.path("image" + std::to_string(test.channels) + ".ome.tif");
        PyramidalTiffOptions options;
        options.tileSize = 32;
        options.sampleType = test.type;
        options.omeTiff = true;
        ASSERT_TRUE(writePyramidalTiff(*image, path, options));

        TiffImage file(path);
        ASSERT_EQ(file.getExtent(0), test.extent);
        ASSERT_EQ(file.getNumChannels(), test.channels);
        ASSERT_EQ(file.getNumLevels(), 4);
        EXPECT_EQ(file.getVoxelSize(1), Vector(1000, 1000, 3000));
        Box const whole(test.extent);
        std::vector<double> expected;
        for (double value : image->getValues())
            expected.push_back(storedReference(value, test.type, 0.0, 255.0));
        EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(file, 0, whole), whole));
        for (long long level = 1; level < 4; ++level)
        {
            Vector const aboveExtent = file.getExtent(level - 1);
            Vector const extent = file.getExtent(level);
            std::vector<double> const above = NuvekTest::openWhole(file, level - 1, Box(aboveExtent));
            EXPECT_TRUE(NuvekTest::sameBits(halvedReference(above, aboveExtent, extent, test.channels, test.type),
                                            NuvekTest::openWhole(file, level, Box(extent)), Box(extent)))
                << "level " << level;
        }

        // The main chain holds only full-resolution pages; the first one describes the image.
        TIFF* tiff = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(tiff, nullptr);
        EXPECT_EQ(TIFFNumberOfDirectories(tiff), test.extent.z);
        std::uint16_t count = 0;
        toff_t* offsets = nullptr;
        ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_SUBIFD, &count, &offsets), 1);
        EXPECT_EQ(count, 3);
        char* description = nullptr;
        ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description), 1);
        std::string const xml = description;
        TIFFClose(tiff);
        EXPECT_NE(xml.find("DimensionOrder=\"XYCZT\""), std::string::npos) << xml;
        EXPECT_NE(xml.find("SizeZ=\"" + std::to_string(test.extent.z) + "\""), std::string::npos) << xml;
        EXPECT_NE(xml.find("PhysicalSizeX=\"0.5\" PhysicalSizeXUnit=\"\xc2\xb5m\""), std::string::npos) << xml;
        EXPECT_NE(xml.find("PhysicalSizeZ=\"3\""), std::string::npos) << xml;
    }
}

// Pages of one channel each: the reader must put them back as channels and slices by the OME-XML,
// with the names and the voxel size it gives, and every float, NaN and infinities included, intact.
TEST(PyramidalTiffWriter, OmeTiffChannelPagesReadBackAsChannelsWithNamesAndVoxelSize)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(37);
    struct Case
    {
        long long channels;
        Vector extent;
    };
    Case const cases[] = {{2, Vector(90, 70, 3)}, {4, Vector(75, 66, 1)}, {4, Vector(40, 50, 2)}};
    for (Case const& test : cases)
    {
        NuvekTest::ValueMix mix;
        mix.specialShare = 0.02;
        auto image = NuvekTest::randomImage(random, test.extent, test.channels, mix);
        std::vector<std::string> names;
        for (long long c = 0; c < test.channels; ++c)
            names.push_back("stain " + std::to_string(c) + " µ&<x>");
        image->setChannelNames(names);
        image->setVoxelSize(Vector(250, 250, 2000));
        std::string const path = directory.path("channels" + std::to_string(test.channels) + "z" +
                                                std::to_string(test.extent.z) + ".ome.tif");
        PyramidalTiffOptions options;
        options.tileSize = 16;
        options.sampleType = TiffSampleType::Float32;
        options.omeTiff = true;
        ASSERT_TRUE(writePyramidalTiff(*image, path, options));

        std::string const label =
            std::to_string(test.channels) + " channels, " + std::to_string(test.extent.z) + " slices";
        TiffImage file(path);
        ASSERT_EQ(file.getExtent(0), test.extent) << label;
        ASSERT_EQ(file.getNumChannels(), test.channels) << label;
        EXPECT_TRUE(file.knowsVoxelSize()) << label;
        EXPECT_EQ(file.getVoxelSize(0), Vector(250, 250, 2000)) << label;
        EXPECT_EQ(file.getVoxelSize(1), Vector(500, 500, 2000)) << label;
        for (long long c = 0; c < test.channels; ++c)
            EXPECT_EQ(file.getChannelName(c), names[static_cast<std::size_t>(c)]) << label;
        Box const whole(test.extent);
        std::vector<double> expected;
        for (double value : image->getValues())
            expected.push_back(storedReference(value, TiffSampleType::Float32, 0.0, 1.0));
        EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(file, 0, whole), whole)) << label;
    }
}

TEST(PyramidalTiffWriter, OmeXmlEscapesChannelNames)
{
    NuvekTest::TemporaryDirectory directory;
    MemoryImage image(Vector(20, 20, 1), 2);
    image.setChannelNames({"a&b <c>", "\"q\" 'r'\x01"});
    std::string const path = directory.path("names.ome.tif");
    PyramidalTiffOptions options;
    options.omeTiff = true;
    options.sampleType = TiffSampleType::Float32;
    ASSERT_TRUE(writePyramidalTiff(image, path, options));
    TIFF* tiff = TIFFOpen(path.c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    char* description = nullptr;
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description), 1);
    std::string const xml = description;
    TIFFClose(tiff);
    EXPECT_NE(xml.find("Name=\"a&amp;b &lt;c&gt;\""), std::string::npos) << xml;
    EXPECT_NE(xml.find("Name=\"&quot;q&quot; &apos;r&apos; \""), std::string::npos) << xml;
    EXPECT_NE(xml.find("Name=\"names\""), std::string::npos) << xml;
}

TEST(PyramidalTiffWriter, ChannelRangesMapEachChannelAndTheStatisticsCountWhatWasClipped)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(23);
    NuvekTest::ValueMix mix;
    mix.low = -10.0;
    mix.high = 30.0;
    mix.specialShare = 0.05;
    auto image = NuvekTest::randomImage(random, Vector(90, 70, 1), 2, mix);
    PyramidalTiffOptions options;
    options.tileSize = 32;
    options.sampleType = TiffSampleType::UInt16;
    options.channelRanges = {Nuvek::ValueRange<double>(0.0, 20.0), Nuvek::ValueRange<double>(-10.0, 10.0)};
    Nuvek::SampleStatistics statistics;
    options.statistics = &statistics;
    options.threads = 3;
    std::string const path = directory.path("ranges.tif");
    ASSERT_TRUE(writePyramidalTiff(*image, path, options));

    std::vector<double> const& values = image->getValues();
    std::vector<double> expected;
    long long samples = 0;
    long long saturated = 0;
    double lowest = 65535.0;
    double highest = 0.0;
    long long const plane = 90 * 70;
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        Nuvek::ValueRange<double> const range = options.channelRanges[i / static_cast<std::size_t>(plane)];
        double const stored = storedReference(values[i], TiffSampleType::UInt16, range.min, range.max);
        expected.push_back(stored);
        if (std::isnan(values[i]))
            continue;
        ++samples;
        double const scaled = std::floor((values[i] - range.min) / (range.max - range.min) * 65535.0 + 0.5);
        saturated += scaled < 0.0 || scaled > 65535.0 ? 1 : 0;
        lowest = std::min(lowest, stored);
        highest = std::max(highest, stored);
    }
    TiffImage file(path);
    Box const whole(Vector(90, 70, 1));
    EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(file, 0, whole), whole));
    EXPECT_EQ(statistics.samples, samples);
    EXPECT_EQ(statistics.saturated, saturated);
    EXPECT_GT(saturated, 0);
    EXPECT_EQ(statistics.lowestStored, lowest);
    EXPECT_EQ(statistics.highestStored, highest);
}

TEST(PyramidalTiffWriter, JpegTilesAreCloseToTheImageAndTheOutputDoesNotDependOnThreads)
{
    NuvekTest::TemporaryDirectory directory;
    // Smooth colours with some texture, as a slide has: JPEG's loss stays small there.
    for (long long channels : {3LL, 1LL})
    {
        MemoryImage image(Vector(300, 200, 1), channels);
        std::vector<double> values(static_cast<std::size_t>(300 * 200 * channels));
        for (long long c = 0; c < channels; ++c)
            for (long long y = 0; y < 200; ++y)
                for (long long x = 0; x < 300; ++x)
                    values[static_cast<std::size_t>((c * 200 + y) * 300 + x)] =
                        std::floor(128.0 + 60.0 * std::sin(0.05 * static_cast<double>(x + 7 * c)) *
                                               std::cos(0.04 * static_cast<double>(y)));
        image.setValues(values);
        image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
        std::vector<unsigned char> first;
        for (int threads : {1, 2, 8})
        {
            PyramidalTiffOptions options;
            options.tileSize = 64;
            options.compression = TiffCompression::JPEG;
            options.threads = threads;
            std::string const path =
                directory.path("jpeg" + std::to_string(channels) + "-" + std::to_string(threads) + ".tif");
            ASSERT_TRUE(writePyramidalTiff(image, path, options));
            if (threads == 1)
                first = NuvekTest::readBytes(path);
            else
                EXPECT_EQ(NuvekTest::readBytes(path), first) << channels << " channels, " << threads << " threads";
        }
        std::string const path = directory.path("jpeg" + std::to_string(channels) + "-1.tif");
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
            // Slide viewers read it: OpenSlide gives the same RGB values as libtiff's decoder.
            Nuvek::SlideImage slide(path);
            EXPECT_TRUE(NuvekTest::sameBits(read, NuvekTest::openWhole(slide, 0, whole), whole));
        }
    }
}

TEST(PyramidalTiffWriter, FilesOpenInTiffinfoAndOpenSlide)
{
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(12);
    NuvekTest::ValueMix mix;
    mix.low = 0.0;
    mix.high = 255.0;
    auto image = NuvekTest::randomImage(random, Vector(512, 384, 1), 3, mix);
    image->setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    image->setVoxelSize(Vector(250, 250, 1));
    for (TiffCompression compression :
         {TiffCompression::Deflate, TiffCompression::LZW, TiffCompression::None, TiffCompression::Zstd})
    {
        std::string const path = directory.path("slide" + std::to_string(static_cast<int>(compression)) + ".tif");
        PyramidalTiffOptions options;
        options.tileSize = 128;
        options.compression = compression;
        ASSERT_TRUE(writePyramidalTiff(*image, path, options));

        std::string const tiffinfo = NUVEK_TIFFINFO;
        ASSERT_FALSE(tiffinfo.empty() || tiffinfo.find("NOTFOUND") != std::string::npos)
            << "tiffinfo was not found when the build was configured (package libtiff-tools)";
        std::string output;
        {
            std::string const command = "'" + tiffinfo + "' -D '" + path + "' 2>&1";
            FILE* pipe = popen(command.c_str(), "r");
            ASSERT_NE(pipe, nullptr);
            char buffer[4096];
            while (std::size_t const count = std::fread(buffer, 1, sizeof buffer, pipe))
                output.append(buffer, count);
            EXPECT_EQ(pclose(pipe), 0) << output;
        }
        EXPECT_EQ(output.find("rror"), std::string::npos) << output;
        EXPECT_NE(output.find("Image Width: 512 Image Length: 384"), std::string::npos) << output;
        EXPECT_NE(output.find("Image Width: 128 Image Length: 96"), std::string::npos) << output;
        EXPECT_NE(output.find("Tile Width: 128 Tile Length: 128"), std::string::npos) << output;

        Nuvek::SlideImage slide(path);
        TiffImage file(path);
        EXPECT_EQ(slide.getProperty("openslide.vendor"), "generic-tiff");
        EXPECT_EQ(slide.getVoxelSize(1), Vector(500, 500, 1));
        ASSERT_EQ(file.getNumLevels(), 3);
        // Level 2 (128 x 96) is shorter than a tile, which OpenSlide 3 misreads.
        bool const openSlide3 = slide.getNumLevels() == 2;
        EXPECT_EQ(slide.hasLevel(2), !openSlide3);
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
