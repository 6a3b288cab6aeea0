#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

using Nuvek::Box;
using Nuvek::Vector;
using Nuvek::ZarrImage;
using NuvekTest::messageOf;

namespace {

void writeText(std::string const& path, std::string const& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

// A big-endian 16-bit chunk of `count` values starting at `first`, counting up.
std::vector<unsigned char> bigEndianChunk(long long count, int first)
{
    std::vector<unsigned char> bytes;
    for (long long i = 0; i < count; ++i)
    {
        int const value = first + static_cast<int>(i);
        bytes.push_back(static_cast<unsigned char>(value >> 8));
        bytes.push_back(static_cast<unsigned char>(value & 0xff));
    }
    return bytes;
}

} // namespace

TEST(ZarrImage, APlainArrayReadsItsChunksAndFillsTheMissingOnes)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("plain.zarr");
    // (z, y, x) = (2, 5, 7) in chunks of (1, 3, 4): chunk 1.1.1 is not stored.
    writeText(path + "/.zarray", R"({"zarr_format": 2, "shape": [2, 5, 7], "chunks": [1, 3, 4], "dtype": ">u2",
        "compressor": null, "fill_value": 9, "order": "C", "filters": null})");
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 2; ++x)
                if (!(z == 1 && y == 1 && x == 1))
                    NuvekTest::writeBytes(path + "/" + std::to_string(z) + "." + std::to_string(y) + "." +
                                              std::to_string(x),
                                          bigEndianChunk(12, 1000 * z + 100 * y + 10 * x));
    ASSERT_TRUE(ZarrImage::isZarr(path));
    ZarrImage image(path);
    EXPECT_EQ(image.getNumLevels(), 1);
    EXPECT_EQ(image.getNumChannels(), 1);
    EXPECT_EQ(image.getExtent(0), Vector(7, 5, 2));
    EXPECT_EQ(image.getValueRange().max, 65535.0);
    EXPECT_EQ(image.getVoxelSize(0), Vector(1, 1, 1));
    EXPECT_EQ(image.getChannelName(0), "Channel 0");
    EXPECT_EQ(image.getDataType(), ">u2");
    Box const box(Vector(-1, 0, 0), Vector(7, 4, 1));
    std::vector<double> const values = NuvekTest::openWhole(image, 0, box);
    auto at = [&](long long x, long long y, long long z) {
        return values[static_cast<std::size_t>(((z - box.min.z) * 5 + y) * 9 + (x - box.min.x))];
    };
    EXPECT_EQ(at(-1, 0, 0), 0.0);
    EXPECT_EQ(at(7, 0, 0), 0.0);
    EXPECT_EQ(at(0, 0, 0), 0.0 + 0.0);
    EXPECT_EQ(at(5, 4, 0), 100.0 + 10.0 + (1 * 4 + 1));
    EXPECT_EQ(at(6, 2, 1), 1000.0 + 10.0 + (2 * 4 + 2));
    EXPECT_EQ(at(4, 3, 1), 9.0);
    EXPECT_EQ(at(6, 4, 1), 9.0);
}

TEST(ZarrImage, MissingChunksTakeTheFillValueWrittenInAnyOfItsForms)
{
    NuvekTest::TemporaryDirectory directory;
    for (std::string const fill : {"\"NaN\"", "\"Infinity\"", "\"-Infinity\"", "true", "-2.5"})
    {
        std::string const path = directory.path("fill" + std::to_string(fill.size()) + ".zarr");
        writeText(path + "/.zarray", R"({"zarr_format": 2, "shape": [2, 3], "chunks": [2, 3], "dtype": "<f8",
            "compressor": null, "fill_value": )" +
                                         fill + "}");
        ZarrImage image(path);
        std::vector<double> const values = NuvekTest::openWhole(image, 0, Box(Vector(3, 2, 1)));
        double const expected = fill == "\"NaN\""         ? std::nan("")
                                : fill == "\"Infinity\""  ? HUGE_VAL
                                : fill == "\"-Infinity\"" ? -HUGE_VAL
                                : fill == "true"          ? 1.0
                                                          : -2.5;
        for (double value : values)
            EXPECT_TRUE(std::isnan(expected) ? std::isnan(value) : value == expected) << fill << ": " << value;
    }
}

TEST(ZarrImage, IntegerArraysCoverTheRangeOfTheirType)
{
    struct Case
    {
        std::string dtype;
        double min;
        double max;
    };
    Case const cases[] = {
        {"|u1", 0.0, 255.0}, {"<i2", -32768.0, 32767.0}, {"|i1", -128.0, 127.0}, {">i4", -2147483648.0, 2147483647.0}};
    NuvekTest::TemporaryDirectory directory;
    for (Case const& test : cases)
    {
        std::string const path = directory.path(test.dtype.substr(1) + ".zarr");
        writeText(path + "/.zarray",
                  R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4, 4], "compressor": null, "dtype": ")" +
                      test.dtype + "\"}");
        ZarrImage image(path);
        EXPECT_EQ(image.getValueRange().min, test.min) << test.dtype;
        EXPECT_EQ(image.getValueRange().max, test.max) << test.dtype;
    }
}
