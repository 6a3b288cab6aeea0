// The pyramid writer's order of work: column stripes of tiles, tiles asked for in bands of rows.
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/VoxelCompare.h"

#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

using Nuvek::Box;
using Nuvek::Image;
using Nuvek::Vector;

namespace {

std::vector<unsigned char> writePyramid(Image& image, std::string const& path, long long tileSize,
                                        Nuvek::TiffSampleType type, int threads)
{
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = tileSize;
    options.threads = threads;
    options.sampleType = type;
    options.valueRange = Nuvek::ValueRange<double>(0.0, 255.0);
    Nuvek::writePyramidalTiff(image, path, options);
    return NuvekTest::readBytes(path);
}

std::vector<double> regionOf(Image& image, long long level)
{
    Box const box(image.getExtent(level));
    std::vector<double> values(static_cast<std::size_t>(box.getSize() * image.getNumChannels()));
    image.openRegion(values.data(), level, box);
    return values;
}

} // namespace

TEST(WriterOrder, StripesAndBandsKeepEveryTileInPlaceAndTheBytesFixed)
{
    // 20 tiles across (two whole stripes of 8 and a narrow one), 5 down with a short last row; and
    // tiles of 512 x 512, which the memory image is asked for in bands of rows. The same values
    // behind a user-defined image are asked for whole tiles. Both files, for any number of threads,
    // hold the same bytes.
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(23);
    struct Case
    {
        Vector extent;
        long long tileSize;
        Nuvek::TiffSampleType type;
    };
    Case const cases[] = {{Vector(20 * 32 - 7, 4 * 32 + 9, 1), 32, Nuvek::TiffSampleType::UInt8},
                          {Vector(20 * 32 - 7, 4 * 32 + 9, 1), 32, Nuvek::TiffSampleType::Float32},
                          {Vector(600, 530, 1), 512, Nuvek::TiffSampleType::UInt8}};
    for (Case const& c : cases)
    {
        Vector const extent = c.extent;
        Nuvek::TiffSampleType const type = c.type;
        // Whole numbers for uint8, so that the coarser levels can be checked from the stored ones.
        std::vector<double> values = NuvekTest::randomValues(random, extent.prod() * 3, {-20.0, 280.0, 0.02});
        if (type == Nuvek::TiffSampleType::UInt8)
            for (double& value : values)
                value = std::floor(value);
        auto memory = std::make_shared<Nuvek::MemoryImage>(extent, 3, values);
        NuvekTest::RecordingImage whole(memory);
        std::string const name = std::string(type == Nuvek::TiffSampleType::UInt8 ? "uint8" : "float32") +
                                 " in tiles of " + std::to_string(c.tileSize);
        std::vector<unsigned char> const expected =
            writePyramid(whole, directory.path("whole.tif"), c.tileSize, type, 1);
        for (NuvekTest::Request const& request : whole.requests())
            EXPECT_TRUE(request.box.getExtent().y == c.tileSize || request.box.max.y == extent.y - 1) << name;
        for (int threads : {1, 2, 8})
            EXPECT_TRUE(writePyramid(*memory, directory.path("bands.tif"), c.tileSize, type, threads) == expected)
                << name << ", " << threads << " threads";

        // Level 0 holds the values where they belong (floats as they are, integers clamped); each
        // coarser level the 2 x 2 means of the stored level above, halves rounded up.
        Nuvek::TiffImage file(directory.path("whole.tif"));
        std::vector<double> stored = regionOf(*memory, 0);
        for (double& value : stored)
            value = type == Nuvek::TiffSampleType::Float32
                        ? static_cast<double>(static_cast<float>(value))
                        : (std::isnan(value) ? 0.0 : std::min(255.0, std::max(0.0, value)));
        ASSERT_TRUE(NuvekTest::sameBitsAnyNaN(stored, regionOf(file, 0), Box(extent), name));
        if (type != Nuvek::TiffSampleType::UInt8)
            continue;
        for (long long level = 1; level < file.getNumLevels(); ++level)
        {
            Vector const above = file.getExtent(level - 1);
            Vector const size = file.getExtent(level);
            std::vector<double> const values = regionOf(file, level - 1);
            std::vector<double> means(static_cast<std::size_t>(size.prod() * 3));
            for (long long c = 0; c < 3; ++c)
                for (long long y = 0; y < size.y; ++y)
                    for (long long x = 0; x < size.x; ++x)
                    {
                        auto at = [&](long long i, long long j) {
                            return values[static_cast<std::size_t>(c * above.prod() + (2 * y + j) * above.x + 2 * x +
                                                                   i)];
                        };
                        double const sum = at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1);
                        means[static_cast<std::size_t>(c * size.prod() + y * size.x + x)] = std::floor(sum / 4.0 + 0.5);
                    }
            EXPECT_TRUE(NuvekTest::sameBits(means, regionOf(file, level), Box(size), "level " + std::to_string(level)));
        }
    }
}

TEST(WriterOrder, ZarrChunksInStripesAndBandsHoldTheValuesOfWholeTiles)
{
    // The zarr writer follows the same order: every level of every group reads back the same bits,
    // written from bands over the memory image or from whole tiles over a user-defined one.
    NuvekTest::TemporaryDirectory directory;
    std::mt19937_64 random(29);
    for (long long chunkSize : {32LL, 512LL})
    {
        Vector const extent = chunkSize == 32 ? Vector(20 * 32 - 7, 4 * 32 + 9, 2) : Vector(600, 530, 1);
        auto memory = NuvekTest::randomImage(random, extent, 2, {-1e3, 1e3, 0.02});
        NuvekTest::RecordingImage whole(memory);
        auto write = [&](Image& image, std::string const& name, int threads) {
            Nuvek::OmeZarrOptions options;
            options.chunkSize = chunkSize;
            options.threads = threads;
            options.sampleType = Nuvek::TiffSampleType::Float32;
            Nuvek::writeOmeZarr(image, directory.path(name), options);
            return std::make_unique<Nuvek::ZarrImage>(directory.path(name));
        };
        std::unique_ptr<Nuvek::ZarrImage> const expected = write(whole, "whole.zarr", 1);
        for (int threads : {1, 2, 8})
        {
            std::unique_ptr<Nuvek::ZarrImage> const actual =
                write(*memory, "bands-" + std::to_string(threads) + ".zarr", threads);
            ASSERT_EQ(actual->getNumLevels(), expected->getNumLevels());
            for (long long level = 0; level < expected->getNumLevels(); ++level)
                EXPECT_TRUE(NuvekTest::sameBits(
                    regionOf(*expected, level), regionOf(*actual, level), Box(expected->getExtent(level)),
                    "chunks of " + std::to_string(chunkSize) + ", " + std::to_string(threads) + " threads, level " +
                        std::to_string(level)));
        }
        // Level 0 holds the values, as floats, where they belong.
        std::vector<double> stored = memory->getValues();
        for (double& value : stored)
            value = static_cast<double>(static_cast<float>(value));
        EXPECT_TRUE(NuvekTest::sameBitsAnyNaN(stored, regionOf(*expected, 0), Box(extent)));
    }
}
