// Runs the nuvek program itself and compares what it wrote with the same chain opened in memory.
#include <nuvek/Nuvek.h>
#include <nuvek/NuvekChains.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <png.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

struct Outcome
{
    int status;
    std::string errors;
    std::string output;
};

std::string readFile(std::string const& path)
{
    std::ifstream stream(path);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

class ToolRun : public ::testing::Test
{
protected:
    void SetUp() override
    {
        directory = std::filesystem::temp_directory_path() /
                    ("nuvek-tool-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                     ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
        std::mt19937_64 random(91);
        auto image = NuvekTest::randomImage(random, Vector(301, 259, 1), 3, {0.0, 255.0, 0.0});
        image->setValueRange(Nuvek::ValueRange<double>(0, 255));
        input = (directory / "input.tif").string();
        Nuvek::PyramidalTiffOptions options;
        options.sampleType = Nuvek::TiffSampleType::Float32;
        options.tileSize = 64;
        ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, input, options));
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    Outcome nuvek(std::string const& arguments) const
    {
        std::string const errors = (directory / "stderr.txt").string();
        std::string const output = (directory / "stdout.txt").string();
        std::string const command = std::string(NUVEK_TOOL_PATH) + " " + arguments + " 2> " + errors + " > " + output;
        int const status = std::system(command.c_str());
        Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(errors), readFile(output)};
        std::filesystem::remove(errors);
        std::filesystem::remove(output);
        return outcome;
    }

    std::string path(std::string const& name) const { return (directory / name).string(); }

    std::filesystem::path directory;
    std::string input;
};

// The chain over the input file, opened in memory at level 0 and rounded to float as float32 output stores it.
std::vector<double> expectedOutput(std::string const& inputPath, std::string const& chainText, Box const& box)
{
    Nuvek::TiffImage source(inputPath);
    std::unique_ptr<Nuvek::Chain> chain =
        Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(chainText), &source);
    std::vector<double> values = NuvekTest::openWhole(*chain->output, 0, box);
    for (double& value : values)
        value = static_cast<double>(static_cast<float>(value));
    return values;
}

} // namespace

TEST_F(ToolRun, OutputEqualsTheChainInMemoryForAnyTileSizeAndThreadCount)
{
    Box const whole(Vector(301, 259, 1));
    char const* const chains[] = {"clamp | gaussian 5", "clamp | difference () (median 3)", "channel 1 | localnorm 2",
                                  "channel 0 | threshold 128 | distance 1 6", "clamp | sobel vector 3"};
    struct Run
    {
        int tile;
        int threads;
    };
    Run const runs[] = {{16, 1}, {64, 3}, {1024, 2}, {48, 8}};
    for (char const* chain : chains)
    {
        std::vector<double> const expected = expectedOutput(input, chain, whole);
        for (Run const& run : runs)
        {
            std::string const output = path("out.tif");
            std::string const context =
                std::string(chain) + ", tile " + std::to_string(run.tile) + ", threads " + std::to_string(run.threads);
            Outcome const outcome = nuvek("run " + input + " " + output + " --quiet --chain '" + chain + "' --tile " +
                                          std::to_string(run.tile) + " --threads " + std::to_string(run.threads));
            ASSERT_EQ(outcome.status, 0) << context << ": " << outcome.errors;
            Nuvek::TiffImage written(output);
            EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(written, 0, whole), whole, context));
        }
    }
}

TEST_F(ToolRun, BoxAndLevelSelectWhatIsWritten)
{
    Box const box(Vector(20, 30, 0), Vector(119, 79, 0));
    std::vector<double> const expected = expectedOutput(input, "clamp | box 3", box);
    std::string const output = path("box.tif");
    Outcome const outcome =
        nuvek("run " + input + " " + output + " --quiet --chain 'clamp | box 3' --box 20,30,100,50 --tile 32");
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    Nuvek::TiffImage written(output);
    EXPECT_EQ(written.getExtent(0), Vector(100, 50, 1));
    Box const local(Vector(100, 50, 1));
    EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(written, 0, local), local));

    Outcome const coarse = nuvek("run " + input + " " + path("level1.tif") + " --quiet --chain 'clamp' --level 1");
    ASSERT_EQ(coarse.status, 0) << coarse.errors;
    EXPECT_EQ(Nuvek::TiffImage(path("level1.tif")).getExtent(0), Vector(150, 129, 1));
}

TEST_F(ToolRun, BadUsageExitsWithTwoAndLeavesNoOutput)
{
    // A port taken by another listener, for the viewer to find in use.
    int const socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(socket, 1));
    ASSERT_EQ(0, ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length));
    int const busyPort = ntohs(address.sin_port);
    struct Case
    {
        std::string arguments;
        std::string message;
    };
    std::string const output = path("never.tif");
    Case const cases[] = {
        {"run " + input + " " + output + " --chain 'gaussian 4'", "gaussian: Kernel size must be odd."},
        {"run " + input + " " + output + " --chain 'blur 3'", "Unknown filter 'blur'"},
        {"run " + input + " " + output + " --chain 'clamp |'", "Bad chain expression at character 8"},
        {"run " + input + " " + output, "--chain is missing"},
        {"run " + path("missing.tif") + " " + output + " --chain clamp", "no such file"},
        {"run " + input + " " + output + " --chain clamp --threads 0", "--threads must be a whole number"},
        {"run " + input + " " + output + " --chain clamp --type int7", "--type must be uint8, uint16 or float32"},
        {"run " + input + " " + output + " --chain clamp --compression jpeg --type float32",
         "JPEG compression needs uint8 samples"},
        {"run " + input + " " + output + " --chain 'channel 0 2' --compression jpeg --type uint8",
         "JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has 2"},
        {"run " + input + " " + output + " --chain clamp --compression lzw --quality 80",
         "--quality applies to jpeg compression only."},
        {"run " + input + " " + output + " --chain clamp --compression zstd --compression-level 23",
         "--compression-level must be from 1 to 22 for zstd, got 23."},
        {"run " + input + " " + output + " --chain clamp --type uint8 --range 5,5", "--range takes LO,HI with LO < HI"},
        {"run " + input + " " + output + " --chain clamp --type uint8 --range '0,1;'", "--range takes LO,HI"},
        {"run " + input + " " + output + " --chain clamp --type uint8 --range 0,x", "--range takes LO,HI"},
        {"run " + input + " " + output + " --chain clamp --type uint8 --range '0,1;0,2'",
         "--range gives 2 ranges, the output has 3 channels."},
        {"run " + input + " " + output + " --chain clamp --type float32 --range 0,1",
         "--range applies to uint8 and uint16 output only"},
        {"run " + input + " " + path("never.png") + " --chain clamp", "the output's name must end in"},
        {"run " + input + " " + path("never.ome.zarr") + " --chain clamp --compression jpeg",
         "zarr output takes --compression none, deflate (zarr's zlib) or zstd, not jpeg."},
        {"run " + input + " " + path("no/such/dir/out.tif") + " --chain clamp", "writePyramidalTiff"},
        {"frobnicate", "unknown command 'frobnicate'"},
        {"view", "nuvek view: expected one INPUT; 'nuvek view --help' shows the usage.\n"},
        {"view " + input + " --port 70000",
         "nuvek view: --port must be a whole number from 0 to 65535, got '70000'.\n"},
        {"view " + input + " --threads 0", "nuvek view: --threads must be a whole number from 1 to 1024, got '0'.\n"},
        {"view " + input + " --cache-mb lots",
         "nuvek view: --cache-mb must be a whole number from 1 to 1048576, got 'lots'.\n"},
        {"view " + input + " --zoom 2", "nuvek view: unknown option --zoom.\n"},
        {"view " + input + " --chain", "nuvek view: --chain needs a value.\n"},
        {"view " + input + " --chain 'gaussian x'",
         "nuvek view: --chain 'gaussian x': gaussian: parameter 'k' must be a whole number, got 'x'.\n"},
        {"view " + path("missing.tif"), path("missing.tif")},
        {"view " + input + " --port " + std::to_string(busyPort),
         "nuvek view: cannot listen on 127.0.0.1:" + std::to_string(busyPort) +
             " (in use, or not an address of this machine); choose another with --port or --host.\n"},
    };
    for (Case const& test : cases)
    {
        Outcome const outcome = nuvek(test.arguments);
        EXPECT_EQ(outcome.status, 2) << test.arguments << ": " << outcome.errors;
        EXPECT_NE(outcome.errors.find(test.message), std::string::npos) << test.arguments << ": " << outcome.errors;
        EXPECT_FALSE(std::filesystem::exists(output)) << test.arguments;
    }
    ::close(socket);
    EXPECT_FALSE(std::filesystem::exists(path("never.ome.zarr")));
    // Nothing but the input is left in the folder (no temporary files either).
    for (auto const& entry : std::filesystem::directory_iterator(directory))
        EXPECT_EQ(entry.path().filename(), "input.tif");
}

TEST_F(ToolRun, IntegerOutputMapsTheGivenRangeAndHintsWhenTheDefaultHidesTheData)
{
    // Fluorescence-like: 16-bit samples that use only 0 to 3000 of 0 to 65535.
    std::mt19937_64 random(93);
    auto image = NuvekTest::randomImage(random, Vector(120, 90, 1), 2, {0.0, 3000.0, 0.0});
    std::vector<double> whole16 = image->getValues();
    for (double& value : whole16)
        value = std::floor(value);
    image->setValues(whole16);
    image->setValueRange(Nuvek::ValueRange<double>(0, 65535));
    std::string const dim = path("dim.tif");
    Nuvek::PyramidalTiffOptions options;
    options.sampleType = Nuvek::TiffSampleType::UInt16;
    options.valueRange = Nuvek::ValueRange<double>(0, 65535);
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, dim, options));
    Box const whole(Vector(120, 90, 1));
    std::vector<double> const values = NuvekTest::openWhole(*image, 0, whole);

    Outcome const dark = nuvek("run " + dim + " " + path("dark.tif") + " --quiet --chain clamp --type uint8");
    ASSERT_EQ(dark.status, 0) << dark.errors;
    EXPECT_NE(dark.errors.find("hint: the output uses only the values 0 to 12 of 0 to 255; --range"), std::string::npos)
        << dark.errors;

    // One range for both channels, then one per channel: round((v - lo) / (hi - lo) * 255), clamped.
    for (std::string const range : {"0,3000", "0,3000;1000,2000"})
    {
        Outcome const mapped = nuvek("run " + dim + " " + path("mapped.tif") +
                                     " --quiet --chain clamp --type uint8 "
                                     "--range '" +
                                     range + "'");
        ASSERT_EQ(mapped.status, 0) << mapped.errors;
        EXPECT_EQ(mapped.errors, "");
        Nuvek::TiffImage written(path("mapped.tif"));
        std::vector<double> const read = NuvekTest::openWhole(written, 0, whole);
        for (std::size_t i = 0; i < values.size(); ++i)
        {
            bool const second = range.find(';') != std::string::npos && i >= values.size() / 2;
            double const low = second ? 1000.0 : 0.0;
            double const high = second ? 2000.0 : 3000.0;
            double const expected =
                std::min(255.0, std::max(0.0, std::floor((values[i] - low) / (high - low) * 255.0 + 0.5)));
            ASSERT_EQ(read[i], expected) << range << " at " << i;
        }
    }

    // auto: the percentiles of the output at a coarse level spread the values over most of 0..255.
    Outcome const automatic =
        nuvek("run " + dim + " " + path("auto.tif") + " --quiet --chain clamp --type uint8 --range auto");
    ASSERT_EQ(automatic.status, 0) << automatic.errors;
    EXPECT_EQ(automatic.errors, "");
    std::vector<double> const stretched =
        NuvekTest::openWhole(*std::make_unique<Nuvek::TiffImage>(path("auto.tif")), 0, whole);
    EXPECT_LE(*std::max_element(stretched.begin(), stretched.end()), 255.0);
    EXPECT_GE(*std::max_element(stretched.begin(), stretched.end()), 250.0);
    EXPECT_LE(*std::min_element(stretched.begin(), stretched.end()), 5.0);

    // A range that saturates most samples is hinted at too: float samples of 0 to 3000 that claim 0 to 1000.
    std::string const bright = path("bright.tif");
    options.sampleType = Nuvek::TiffSampleType::Float32;
    options.valueRange = Nuvek::ValueRange<double>(0, 1000);
    image->setValueRange(Nuvek::ValueRange<double>(0, 1000));
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, bright, options));
    Outcome const saturated =
        nuvek("run " + bright + " " + path("saturated.tif") + " --quiet --chain clamp --type uint8");
    ASSERT_EQ(saturated.status, 0) << saturated.errors;
    EXPECT_NE(saturated.errors.find("of the samples lie outside the value range and are stored as 0 or 255; --range"),
              std::string::npos)
        << saturated.errors;
}

TEST_F(ToolRun, TheTypeDefaultsToTheInputsWhereTheChainKeepsItsValues)
{
    std::mt19937_64 random(94);
    auto image = NuvekTest::randomImage(random, Vector(64, 48, 1), 3, {0.0, 255.0, 0.0});
    image->setValueRange(Nuvek::ValueRange<double>(0, 255));
    std::string const eight = path("eight.tif");
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = 32;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, eight, options));
    struct Case
    {
        std::string input;
        std::string chain;
        double top;
    };
    // The value range TiffImage reports tells the stored type: 255 for 8 bits, 65535 for 16, the
    // chain's own range for float.
    Case const cases[] = {{eight, "clamp", 255.0},
                          {eight, "channel 1 | zslice 0", 255.0},
                          {eight, "clamp | gaussian 3", 0.0},
                          {input, "clamp", 0.0}};
    for (Case const& test : cases)
    {
        Outcome const outcome = nuvek("run " + test.input + " " + path("typed.tif") + " --quiet --chain '" +
                                      test.chain + "' --compression zstd");
        ASSERT_EQ(outcome.status, 0) << test.chain << ": " << outcome.errors;
        Nuvek::TiffImage written(path("typed.tif"));
        if (test.top > 0.0)
            EXPECT_EQ(written.getValueRange().max, test.top) << test.chain;
        else
            EXPECT_NE(written.getValueRange().max, 65535.0) << test.chain;
        std::filesystem::remove(path("typed.tif"));
    }
    Outcome const help = nuvek("run --help");
    EXPECT_NE(help.output.find("Default: the input's own sample type when the chain"), std::string::npos);
}

TEST_F(ToolRun, OmeZarrIsWrittenByNameAndReadAsInput)
{
    Box const whole(Vector(301, 259, 1));
    std::vector<double> const expected = expectedOutput(input, "clamp | gaussian 3", whole);
    std::string const group = path("out.ome.zarr");
    Outcome const outcome =
        nuvek("run " + input + " " + group + " --quiet --chain 'clamp | gaussian 3' --tile 64 --compression zstd");
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    Nuvek::ZarrImage written(group);
    EXPECT_EQ(written.getNumLevels(), 4);
    EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(written, 0, whole), whole));

    Outcome const info = nuvek("info " + group);
    ASSERT_EQ(info.status, 0) << info.errors;
    EXPECT_NE(info.output.find("level 3   37 x 32 x 1 voxels"), std::string::npos) << info.output;

    // The group as input: clamp keeps its float32 values, written as a plain pyramid.
    Outcome const again = nuvek("run " + group + " " + path("again.tif") + " --quiet --chain clamp");
    ASSERT_EQ(again.status, 0) << again.errors;
    Nuvek::TiffImage tiff(path("again.tif"));
    EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(tiff, 0, whole), whole));
}

TEST_F(ToolRun, InterruptStopsCleanlyAndLeavesNoOutput)
{
    // A run long enough to be caught in the middle: a large median over small tiles on one thread.
    std::mt19937_64 random(92);
    auto image = NuvekTest::randomImage(random, Vector(1500, 1500, 1), 1, {0.0, 255.0, 0.0});
    image->setValueRange(Nuvek::ValueRange<double>(0, 255));
    std::string const large = path("large.tif");
    Nuvek::PyramidalTiffOptions options;
    options.sampleType = Nuvek::TiffSampleType::Float32;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*image, large, options));

    std::string const output = path("interrupted.tif");
    std::string const command =
        "timeout --preserve-status -s INT 0.5 " + std::string(NUVEK_TOOL_PATH) + " run " + large + " " + output +
        " --quiet --chain 'clamp | median 15 | median 15 | median 15' --tile 16 --threads 1 2> " +
        path("interrupt.txt");
    int const status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130) << readFile(path("interrupt.txt"));
    EXPECT_NE(readFile(path("interrupt.txt")).find("interrupted; no output was left behind"), std::string::npos);
    for (auto const& entry : std::filesystem::directory_iterator(directory))
        EXPECT_TRUE(entry.path().filename() == "input.tif" || entry.path().filename() == "large.tif" ||
                    entry.path().filename() == "interrupt.txt")
            << entry.path();
}

TEST_F(ToolRun, InfoAndFiltersDescribeWhatIsThere)
{
    Outcome const info = nuvek("info " + input);
    ASSERT_EQ(info.status, 0) << info.errors;
    EXPECT_NE(info.output.find("Reader:      TiffImage\n"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("level 0   301 x 259 x 1 voxels, voxel size "), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("Channels:    3"), std::string::npos) << info.output;
    Outcome const filters = nuvek("filters");
    EXPECT_EQ(filters.status, 0);
    EXPECT_NE(filters.output.find("gaussian k"), std::string::npos) << filters.output;
    EXPECT_EQ(nuvek("run --help").status, 0);
}

TEST_F(ToolRun, ThePreviewShowsAColourOutputInItsOwnRange)
{
    Outcome const outcome =
        nuvek("run " + input + " " + path("out.tif") + " --quiet --chain clamp --preview " + path("preview.png"));
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&png, path("preview.png").c_str()));
    png.format = PNG_FORMAT_RGB;
    std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(png));
    ASSERT_TRUE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr));
    // Level 0 fits in 512 x 512; values of 0 to 255 show as themselves, rounded.
    ASSERT_EQ(png.width, 301u);
    ASSERT_EQ(png.height, 259u);
    Box const whole(Vector(301, 259, 1));
    std::vector<double> const values = expectedOutput(input, "clamp", whole);
    long long mismatches = 0;
    for (long long c = 0; c < 3; ++c)
        for (long long i = 0; i < whole.getSize(); ++i)
        {
            double const shown = pixels[static_cast<std::size_t>(i * 3 + c)];
            // The preview may round the float or the double value: they differ at halves only.
            mismatches +=
                std::fabs(shown - std::floor(values[static_cast<std::size_t>(c * whole.getSize() + i)] + 0.5)) > 1.0;
        }
    EXPECT_EQ(mismatches, 0);
}
