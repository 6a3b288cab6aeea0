#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

using Nuvek::Box;
using Nuvek::Vector;
using NuvekTest::PageShape;
using NuvekTest::RawEntry;
using NuvekTest::TiffLayout;

namespace {

enum class Reader
{
    Tiff,
    Slide,
    Zarr,
    Opener
};

void writeText(std::string const& path, std::string const& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

// A tiled RGB file that OpenSlide reads as a generic TIFF.
TiffLayout tiledRgb(std::vector<PageShape> pages, std::string description = "")
{
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.tileWidth = 64;
    layout.tileHeight = 64;
    layout.compression = 8;
    layout.description = std::move(description);
    layout.pages = std::move(pages);
    return layout;
}

// Opens path with reader at the time point and reads the whole of level, returning the message.
std::string failureOf(Reader reader, std::string const& path, long long timePoint, long long level)
{
    return NuvekTest::messageOf([&] {
        std::unique_ptr<Nuvek::Image> image;
        if (reader == Reader::Tiff)
            image = std::make_unique<Nuvek::TiffImage>(path, timePoint);
        else if (reader == Reader::Slide)
            image = std::make_unique<Nuvek::SlideImage>(path);
        else if (reader == Reader::Zarr)
            image = std::make_unique<Nuvek::ZarrImage>(path);
        else
            image = Nuvek::openImage(path, timePoint);
        NuvekTest::openWhole(*image, level, Box(image->getExtent(level)));
    });
}

} // namespace

// Every way a file can be unreadable, with the message the reader gives: "@" stands for the path;
// a message with "*" must start with what comes before it and hold what comes after it (the part
// libtiff or OpenSlide words).
TEST(ReaderMessages, BadFilesNameTheFileAndTheProblem)
{
    std::vector<unsigned char> const pixels(16, 9);
    // A valid 4 x 4 grey strip image, then variants with one thing wrong.
    std::vector<RawEntry> const good = {{256, 3, 1, 4}, {257, 3, 1, 4}, {258, 3, 1, 8}, {259, 3, 1, 1}, {262, 3, 1, 1},
                                        {273, 4, 1, 8}, {277, 3, 1, 1}, {278, 3, 1, 4}, {279, 4, 1, 16}};
    auto raw = [&](std::function<void(std::vector<RawEntry>&)> change, std::vector<unsigned char> data = {}) {
        return [=](std::string const& path) {
            std::vector<RawEntry> entries = good;
            change(entries);
            NuvekTest::writeBytes(path, NuvekTest::rawTiff(entries, data.empty() ? pixels : data));
        };
    };
    auto with = [&](std::uint16_t tag, std::uint32_t value) {
        return raw([=](std::vector<RawEntry>& entries) {
            for (RawEntry& entry : entries)
                if (entry.tag == tag)
                    entry.value = value;
        });
    };
    auto without = [&](std::uint16_t tag) {
        return raw([=](std::vector<RawEntry>& entries) {
            entries.erase(
                std::remove_if(entries.begin(), entries.end(), [=](RawEntry const& e) { return e.tag == tag; }),
                entries.end());
        });
    };
    auto bytes = [](std::vector<unsigned char> content) {
        return [=](std::string const& path) { NuvekTest::writeBytes(path, content); };
    };
    auto tiff = [](TiffLayout layout) { return [=](std::string const& path) { NuvekTest::writeTiff(path, layout); }; };
    auto truncated = [](TiffLayout layout, std::size_t size) {
        return [=](std::string const& path) {
            NuvekTest::writeTiff(path, layout);
            std::vector<unsigned char> content = NuvekTest::readBytes(path);
            content.resize(size);
            NuvekTest::writeBytes(path, content);
        };
    };
    auto zarray = [](std::string text) { return [=](std::string const& path) { writeText(path + "/.zarray", text); }; };
    auto group = [](std::string attributes) {
        return [=](std::string const& path) {
            writeText(path + "/.zattrs", attributes);
            writeText(path + "/0/.zarray", R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4, 4], "dtype": "<u1"})");
        };
    };
    auto nothing = [](std::string const&) {};
    TiffLayout grey;
    grey.pages = {PageShape{30, 20}};
    TiffLayout gap = tiledRgb({PageShape{256, 256}, PageShape{64, 64, true}});
    TiffLayout wrongImageJ = grey;
    wrongImageJ.samples = 2;
    wrongImageJ.description = "ImageJ=1.53c\nimages=6\nchannels=2\nslices=3\n";
    wrongImageJ.pages = std::vector<PageShape>(5, PageShape{12, 8});
    TiffLayout hyperstack = wrongImageJ;
    hyperstack.description = "ImageJ=1.53c\nimages=4\nchannels=2\nframes=2\n";
    hyperstack.pages.pop_back();
    TiffLayout strips = tiledRgb({PageShape{100, 100}});
    strips.tileWidth = 0;
    std::string const supported = " (8, 16 and 32-bit integers and 32 and 64-bit floating point are supported)";
    std::string const valid = R"("zarr_format": 2, "shape": [4, 4], "chunks": [4, 4], "compressor": null)";

    struct Case
    {
        Reader reader;
        std::function<void(std::string const&)> make;
        std::string message;
        long long timePoint = 0;
        long long level = 0;
    };
    std::vector<Case> const cases = {
        {Reader::Tiff, bytes({'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '\n'}),
         "TiffImage: @: *Not a TIFF"},
        {Reader::Tiff, bytes({}), "TiffImage: @: *Cannot read TIFF header"},
        {Reader::Tiff, truncated(grey, 12), "TiffImage: @: *"},
        {Reader::Tiff, nothing, "TiffImage: @: *No such file"},
        {Reader::Tiff, with(259, 60000), "TiffImage: @: unsupported compression 60000"},
        {Reader::Tiff, with(259, 34892), "TiffImage: @: unsupported compression 34892 (lossy JPEG)"},
        {Reader::Tiff, raw([](auto& e) {
             e.push_back({339, 3, 1, 6});
         }),
         "TiffImage: @: unsupported sample format: 8-bit complex floating point" + supported},
        {Reader::Tiff, with(258, 12), "TiffImage: @: unsupported sample format: 12-bit unsigned integer" + supported},
        {Reader::Tiff,
         raw(
             [](auto& e) {
                 e.push_back({339, 3, 1, 3});
                 e[2].value = 16;
             },
             std::vector<unsigned char>(32, 0)),
         "TiffImage: @: unsupported sample format: 16-bit floating point" + supported},
        {Reader::Tiff, without(256), "TiffImage: @: *zero scanline size"},
        {Reader::Tiff, without(273), "TiffImage: @: *StripOffsets"},
        {Reader::Tiff, with(273, 4000), "TiffImage: @: cannot decode strip 0*"},
        {Reader::Tiff, tiff(wrongImageJ), "TiffImage: @: there is no time point 1 (the file has 1)", 1},
        {Reader::Tiff, tiff(hyperstack), "TiffImage: @: there is no time point 2 (the file has 2)", 2},
        {Reader::Tiff, tiff(gap), "TiffImage: @: level 1 is not present in the file", 0, 1},
        {Reader::Tiff, tiff(gap), "TiffImage: @: level 3 is not present in the file", 0, 3},
        {Reader::Slide, bytes({'n', 'o', 't', ' ', 'a', ' ', 's', 'l', 'i', 'd', 'e'}),
         "SlideImage: @: not a slide that OpenSlide can read"},
        {Reader::Slide, nothing, "SlideImage: @: not a slide that OpenSlide can read"},
        // OpenSlide reads only tiled TIFFs as slides.
        {Reader::Slide, tiff(strips), "SlideImage: @: not a slide that OpenSlide can read"},
        // A truncated tiled file opens, and reading its lost tiles fails with OpenSlide's message.
        {Reader::Slide, truncated(tiledRgb({PageShape{256, 256}}), 40), "SlideImage: @: *"},
        {Reader::Slide, tiff(gap), "SlideImage: @: level 1 is not present in the slide", 0, 1},
        {Reader::Opener, nothing, "cannot read @: no such file."},
        {Reader::Opener, [](std::string const& path) { std::filesystem::create_directory(path); },
         "cannot read @: no such file."},
        {Reader::Opener, tiff(tiledRgb({PageShape{200, 130}}, "Aperio Image Library v12.0.15\r\n200x130|MPP = 0.25")),
         "SlideImage: @: there is no time point 1 (a slide has one)", 1},
        {Reader::Zarr, zarray("not json"), "ZarrImage: @: .zarray is not valid JSON"},
        {Reader::Zarr, zarray("[]"), "ZarrImage: @: .zarray is not a JSON object"},
        {Reader::Zarr, zarray(R"({"zarr_format": 3, "shape": [4, 4], "chunks": [4, 4], "dtype": "<u1"})"),
         "ZarrImage: @: .zarray: only zarr_format 2 is supported"},
        {Reader::Zarr, zarray("{" + valid + R"(, "dtype": "<c8"})"),
         "ZarrImage: @: .zarray: the data type \"<c8\" is not supported (unsigned, signed or float numbers)"},
        {Reader::Zarr, zarray("{" + valid + R"(, "dtype": "<u1", "order": "F"})"),
         "ZarrImage: @: .zarray: only the order \"C\" is supported"},
        {Reader::Zarr, zarray("{" + valid + R"(, "dtype": "<u1", "filters": [{"id": "delta"}]})"),
         "ZarrImage: @: .zarray: filters are not supported"},
        {Reader::Zarr, zarray(R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4, 0], "dtype": "<u1"})"),
         "ZarrImage: @: .zarray: \"chunks\" holds 0, out of range"},
        {Reader::Zarr, zarray(R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4], "dtype": "<u1"})"),
         "ZarrImage: @: .zarray: \"chunks\" and \"shape\" differ in length"},
        {Reader::Zarr, zarray(R"({"zarr_format": 2, "shape": [4], "chunks": [4], "dtype": "<u1"})"),
         "ZarrImage: @: a plain array needs 2 to 5 dimensions, not 1"},
        {Reader::Zarr,
         zarray("{" + valid.substr(0, valid.find("\"compressor\"")) +
                R"("dtype": "<u1", "compressor": {"id": "lz4"}})"),
         "ZarrImage: @: .zarray: the compressor \"lz4\" is not supported"},
        {Reader::Zarr, zarray("{" + valid + R"(, "dtype": "<f4", "fill_value": "-Inf"})"),
         "ZarrImage: @: .zarray: \"fill_value\" is not a number"},
        {Reader::Zarr,
         group(R"({"multiscales": [{"axes": [{"name": "y"}, {"name": "q"}], "datasets": [{"path": "0"}]}]})"),
         "ZarrImage: @: the axis \"q\" is not one of t, c, z, y, x"},
        {Reader::Zarr, group(R"({"multiscales": [{"axes": ["y", "x"], "datasets": [{"path": "../0"}]}]})"),
         "ZarrImage: @: .zattrs: the dataset path \"../0\" does not name a folder inside the group"},
        {Reader::Zarr,
         [&](std::string const& path) {
             writeText(path + "/.zarray", "{" + valid.substr(0, valid.find("\"compressor\"")) +
                                              R"("dtype": "<u1", "compressor": {"id": "zstd"}})");
             NuvekTest::writeBytes(path + "/0.0", {1, 2, 3});
         },
         "ZarrImage: @: level 0, chunk 0.0: a chunk does not decompress to its size"},
    };
    NuvekTest::TemporaryDirectory directory;
    int index = 0;
    for (Case const& test : cases)
    {
        std::string const path =
            directory.path("bad" + std::to_string(index++) + (test.reader == Reader::Zarr ? ".zarr" : ".tif"));
        test.make(path);
        std::string expected = test.message;
        expected.replace(expected.find('@'), 1, path);
        std::string const message = failureOf(test.reader, path, test.timePoint, test.level);
        std::size_t const star = expected.find('*');
        if (star == std::string::npos)
        {
            EXPECT_EQ(message, expected);
        }
        else
        {
            EXPECT_EQ(message.rfind(expected.substr(0, star), 0), 0u) << message;
            EXPECT_NE(message.find(expected.substr(star + 1)), std::string::npos) << expected << " / " << message;
        }
    }
}

// Damaged files the fuzzer once found: each reads the same twice or fails naming the file.
TEST(ReaderMessages, DamagedFilesTheFuzzerFoundReadTheSameTwiceOrFail)
{
    std::vector<std::string> paths;
    for (auto const& entry : std::filesystem::directory_iterator(NUVEK_IO_REGRESSIONS))
        paths.push_back(entry.path().string());
    ASSERT_FALSE(paths.empty());
    for (std::string const& path : paths)
    {
        std::string const message = NuvekTest::messageOf([&] {
            Nuvek::TiffImage image(path);
            for (long long level = 0; level < image.getNumLevels(); ++level)
                if (image.hasLevel(level))
                {
                    Box const box = Box(image.getExtent(level)).expanded(Vector(1, 1, 0));
                    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(image, level, box),
                                                    NuvekTest::openWhole(image, level, box), box, path));
                }
        });
        if (message != "(nothing thrown)")
        {
            EXPECT_EQ(message.rfind("TiffImage: " + path + ": ", 0), 0u) << message;
        }
    }
}
