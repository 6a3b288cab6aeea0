#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <filesystem>
#include <fstream>
#include <functional>

using namespace NuvekTest;

namespace {

using Make = std::function<void(std::string const& path)>;

// A valid 4 x 4 grey strip image with the given entries replaced or added (count 0 removes the tag).
Make raw(std::vector<RawEntry> const& changes,
         std::vector<unsigned char> const& data = std::vector<unsigned char>(16, 9))
{
    return [=](std::string const& path) {
        std::vector<RawEntry> entries = {{256, 3, 1, 4}, {257, 3, 1, 4}, {258, 3, 1, 8}, {259, 3, 1, 1}, {262, 3, 1, 1},
                                         {273, 4, 1, 8}, {277, 3, 1, 1}, {278, 3, 1, 4}, {279, 4, 1, 16}};
        for (RawEntry const& change : changes)
        {
            auto const same = [&](RawEntry const& entry) { return entry.tag == change.tag; };
            entries.erase(std::remove_if(entries.begin(), entries.end(), same), entries.end());
            if (change.count > 0)
                entries.push_back(change);
        }
        writeBytes(path, rawTiff(entries, data));
    };
}

// layout's file, cut to its first `keep` bytes when keep is not 0.
Make tiff(TiffLayout const& layout, std::size_t keep = 0)
{
    return [=](std::string const& path) {
        writeTiff(path, layout);
        std::vector<unsigned char> content = readBytes(path);
        content.resize(keep > 0 ? keep : content.size());
        writeBytes(path, content);
    };
}

Make text(std::string const& name, std::string const& content)
{
    return [=](std::string const& path) {
        std::filesystem::create_directories(std::filesystem::path(path + "/" + name).parent_path());
        std::ofstream(path + "/" + name) << content;
    };
}

Make zarray(std::string const& content)
{
    return text(".zarray", content);
}

// Opens path with the reader the expected message names (through openImage for its own messages
// and for a time point of a slide) and reads the whole of level, returning the message.
std::string failureOf(std::string const& expected, std::string const& path, long long timePoint, long long level)
{
    return messageOf([&] {
        std::unique_ptr<Nuvek::Image> image;
        bool const slide = expected.rfind("SlideImage", 0) == 0;
        if (expected.rfind("cannot read", 0) == 0 || (slide && timePoint > 0))
            image = Nuvek::openImage(path, timePoint);
        else if (slide)
            image = std::make_unique<Nuvek::SlideImage>(path);
        else if (expected.rfind("ZarrImage", 0) == 0)
            image = std::make_unique<Nuvek::ZarrImage>(path);
        else
            image = std::make_unique<Nuvek::TiffImage>(path, timePoint);
        openWhole(*image, level, Box(image->getExtent(level)));
    });
}

} // namespace

// Every way a file can be unreadable, with the message the reader gives: "@" stands for the path;
// a message with "*" must start with what comes before it and hold what comes after it (the part
// libtiff or OpenSlide words).
TEST(ReaderMessages, BadFilesNameTheFileAndTheProblem)
{
    auto const bytes = [](std::string content) {
        return [=](std::string const& path) { writeBytes(path, {content.begin(), content.end()}); };
    };
    Make const nothing = [](std::string const&) {};
    TiffLayout const gap = tiledRgb({PageShape{256, 256}, PageShape{64, 64, true}});
    TiffLayout hyperstack;
    hyperstack.samples = 2;
    hyperstack.description = "ImageJ=1.53c\nimages=4\nchannels=2\nframes=2\n";
    hyperstack.pages = std::vector<PageShape>(4, PageShape{12, 8});
    TiffLayout strips = tiledRgb({PageShape{100, 100}});
    strips.tileWidth = 0;
    TiffLayout aperio = tiledRgb({PageShape{200, 130}});
    aperio.description = "Aperio Image Library v12.0.15\r\n200x130|MPP = 0.25";
    std::string const supported = " (8, 16 and 32-bit integers and 32 and 64-bit floating point are supported)";
    std::string const array = R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4, 4], )";
    std::string const valid = array + R"("compressor": null, )";
    Make const chunk = [](std::string const& path) { writeBytes(path + "/0.0", {1, 2, 3}); };

    struct Case
    {
        std::vector<Make> make;
        std::string message;
        long long timePoint = 0;
        long long level = 0;
    };
    std::vector<Case> const cases = {
        {{bytes("hello world\n")}, "TiffImage: @: *Not a TIFF"},
        {{tiff(gap, 12)}, "TiffImage: @: *"},
        {{nothing}, "TiffImage: @: *No such file"},
        {{raw({{259, 3, 1, 60000}})}, "TiffImage: @: unsupported compression 60000"},
        {{raw({{259, 3, 1, 34892}})}, "TiffImage: @: unsupported compression 34892 (lossy JPEG)"},
        {{raw({{339, 3, 1, 6}})}, "TiffImage: @: unsupported sample format: 8-bit complex floating point" + supported},
        {{raw({{258, 3, 1, 12}})}, "TiffImage: @: unsupported sample format: 12-bit unsigned integer" + supported},
        {{raw({{339, 3, 1, 3}, {258, 3, 1, 16}}, std::vector<unsigned char>(32, 0))},
         "TiffImage: @: unsupported sample format: 16-bit floating point" + supported},
        {{raw({{256, 0, 0, 0}})}, "TiffImage: @: *zero scanline size"},
        {{raw({{273, 0, 0, 0}})}, "TiffImage: @: *StripOffsets"},
        {{raw({{273, 4, 1, 4000}})}, "TiffImage: @: cannot decode strip 0*"},
        {{tiff(hyperstack)}, "TiffImage: @: there is no time point 2 (the file has 2)", 2},
        {{tiff(gap)}, "TiffImage: @: level 1 is not present in the file", 0, 1},
        {{tiff(gap)}, "TiffImage: @: level 3 is not present in the file", 0, 3},
        {{nothing}, "SlideImage: @: not a slide that OpenSlide can read"},
        // OpenSlide reads only tiled TIFFs as slides.
        {{tiff(strips)}, "SlideImage: @: not a slide that OpenSlide can read"},
        // A truncated tiled file opens, and reading its lost tiles fails with OpenSlide's message.
        {{tiff(tiledRgb({PageShape{256, 256}}), 40)}, "SlideImage: @: *"},
        {{tiff(gap)}, "SlideImage: @: level 1 is not present in the slide", 0, 1},
        {{nothing}, "cannot read @: no such file."},
        {{[](std::string const& path) { std::filesystem::create_directory(path); }}, "cannot read @: no such file."},
        {{tiff(aperio)}, "SlideImage: @: there is no time point 1 (a slide has one)", 1},
        {{zarray("not json")}, "ZarrImage: @: .zarray is not valid JSON"},
        {{zarray("[]")}, "ZarrImage: @: .zarray is not a JSON object"},
        {{zarray(R"({"zarr_format": 3, "shape": [4, 4], "chunks": [4, 4], "dtype": "<u1"})")},
         "ZarrImage: @: .zarray: only zarr_format 2 is supported"},
        {{zarray(valid + R"("dtype": "<c8"})")},
         "ZarrImage: @: .zarray: the data type \"<c8\" is not supported (unsigned, signed or float numbers)"},
        {{zarray(valid + R"("dtype": "<u1", "order": "F"})")},
         "ZarrImage: @: .zarray: only the order \"C\" is supported"},
        {{zarray(valid + R"("dtype": "<u1", "filters": [{"id": "delta"}]})")},
         "ZarrImage: @: .zarray: filters are not supported"},
        {{zarray(R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4, 0], "dtype": "<u1"})")},
         "ZarrImage: @: .zarray: \"chunks\" holds 0, out of range"},
        {{zarray(R"({"zarr_format": 2, "shape": [4, 4], "chunks": [4], "dtype": "<u1"})")},
         "ZarrImage: @: .zarray: \"chunks\" and \"shape\" differ in length"},
        {{zarray(R"({"zarr_format": 2, "shape": [4], "chunks": [4], "dtype": "<u1"})")},
         "ZarrImage: @: a plain array needs 2 to 5 dimensions, not 1"},
        {{zarray(array + R"("dtype": "<u1", "compressor": {"id": "lz4"}})")},
         "ZarrImage: @: .zarray: the compressor \"lz4\" is not supported"},
        {{zarray(valid + R"("dtype": "<f4", "fill_value": "-Inf"})")},
         "ZarrImage: @: .zarray: \"fill_value\" is not a number"},
        {{text(".zattrs",
               R"({"multiscales": [{"axes": [{"name": "y"}, {"name": "q"}], "datasets": [{"path": "0"}]}]})"),
          text("0/.zarray", valid + R"("dtype": "<u1"})")},
         "ZarrImage: @: the axis \"q\" is not one of t, c, z, y, x"},
        {{text(".zattrs", R"({"multiscales": [{"axes": ["y", "x"], "datasets": [{"path": "../0"}]}]})"),
          text("0/.zarray", valid + R"("dtype": "<u1"})")},
         "ZarrImage: @: .zattrs: the dataset path \"../0\" does not name a folder inside the group"},
        {{zarray(array + R"("dtype": "<u1", "compressor": {"id": "zstd"}})"), chunk},
         "ZarrImage: @: level 0, chunk 0.0: a chunk does not decompress to its size"},
    };
    TemporaryDirectory directory;
    int index = 0;
    for (Case const& test : cases)
    {
        std::string const path = directory.path("bad" + std::to_string(index++) +
                                                (test.message.rfind("ZarrImage", 0) == 0 ? ".zarr" : ".tif"));
        for (Make const& make : test.make)
            make(path);
        std::string expected = test.message;
        expected.replace(expected.find('@'), 1, path);
        std::string const message = failureOf(test.message, path, test.timePoint, test.level);
        std::size_t const star = expected.find('*');
        EXPECT_EQ(message.substr(0, star), expected.substr(0, star));
        if (star != std::string::npos)
        {
            EXPECT_NE(message.find(expected.substr(star + 1)), std::string::npos) << expected << " / " << message;
        }
    }
}
