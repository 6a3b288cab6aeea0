#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <filesystem>
#include <fstream>
#include <tuple>

using namespace NuvekTest;
using Nuvek::ZarrImage;

namespace {

void writeText(std::string const& path, std::string const& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

} // namespace

// (z, y, x) = (2, 5, 7) in chunks of (1, 3, 4) of big-endian 16-bit values; chunk 1.1.1 is not
// stored and holds the fill value, 0 outside.
TEST(ZarrImage, APlainArrayReadsItsChunksAndFillsTheMissingOnes)
{
    TemporaryDirectory directory;
    std::string const path = directory.path("plain.zarr");
    writeText(path + "/.zarray", R"({"zarr_format": 2, "shape": [2, 5, 7], "chunks": [1, 3, 4], "dtype": ">u2",
        "compressor": null, "fill_value": 9, "order": "C", "filters": null})");
    // Chunk (z, y, x) counts up from 1000 z + 100 y + 10 x.
    for (int chunk = 0; chunk < 7; ++chunk)
    {
        std::vector<unsigned char> bytes;
        for (int i = 0; i < 12; ++i)
        {
            int const value = 1000 * (chunk / 4) + 100 * (chunk / 2 % 2) + 10 * (chunk % 2) + i;
            bytes.push_back(static_cast<unsigned char>(value >> 8));
            bytes.push_back(static_cast<unsigned char>(value & 0xff));
        }
        writeBytes(path + "/" + std::to_string(chunk / 4) + "." + std::to_string(chunk / 2 % 2) + "." +
                       std::to_string(chunk % 2),
                   bytes);
    }
    ASSERT_TRUE(ZarrImage::isZarr(path));
    ZarrImage image(path);
    EXPECT_EQ(image.getExtent(0), Vector(7, 5, 2));
    Box const box(Vector(-1, 0, 0), Vector(7, 4, 1));
    std::vector<double> expected;
    for (long long z = 0; z < 2; ++z)
        for (long long y = 0; y < 5; ++y)
            for (long long x = -1; x < 8; ++x)
            {
                double const stored = 1000.0 * z + 100.0 * (y / 3) + 10.0 * (x / 4) + 4.0 * (y % 3) + x % 4;
                expected.push_back(x < 0 || x > 6 ? 0.0 : (z == 1 && y > 2 && x > 3 ? 9.0 : stored));
            }
    EXPECT_TRUE(sameBits(expected, openWhole(image, 0, box), box));
}

// A chunk not stored holds the fill value in any of its written forms; integer arrays cover the
// range of their type, float arrays without omero windows (0, 1).
TEST(ZarrImage, FillValuesAndValueRangesFollowTheDataType)
{
    // Data type, fill value as written, as read, and the value range.
    std::vector<std::tuple<std::string, std::string, double, double, double>> const cases = {
        {"<f8", "\"NaN\"", NaN, 0.0, 1.0},        {"<f8", "\"Infinity\"", inf, 0.0, 1.0},
        {">f4", "\"-Infinity\"", -inf, 0.0, 1.0}, {"<f8", "true", 1.0, 0.0, 1.0},
        {"<f8", "-2.5", -2.5, 0.0, 1.0},          {"|u1", "7", 7.0, 0.0, 255.0},
        {">u2", "9", 9.0, 0.0, 65535.0},          {"<i2", "-7", -7.0, -32768.0, 32767.0},
        {"|i1", "5", 5.0, -128.0, 127.0},         {">i4", "0", 0.0, -2147483648.0, 2147483647.0}};
    TemporaryDirectory directory;
    int index = 0;
    for (auto const& [dtype, fill, value, min, max] : cases)
    {
        std::string const path = directory.path(std::to_string(index++) + ".zarr");
        writeText(path + "/.zarray", R"({"zarr_format": 2, "shape": [2, 3], "chunks": [2, 3], "dtype": ")" + dtype +
                                         R"(", "compressor": null, "fill_value": )" + fill + "}");
        ZarrImage image(path);
        EXPECT_EQ(image.getValueRange().min, min) << dtype;
        EXPECT_EQ(image.getValueRange().max, max) << dtype;
        EXPECT_TRUE(sameBitsAnyNaN(std::vector<double>(6, value), openWhole(image, 0, Box(Vector(3, 2, 1))),
                                   Box(Vector(3, 2, 1)), fill));
    }
}
