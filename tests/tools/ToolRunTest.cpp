// Runs the nuvek program itself: its command lines in one table, and what it writes against the same
// chain opened in memory.
#include <nuvek/NuvekChains.h>

#include "support/NuvekTest.h"
#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/TiffImage.h>

#include <png.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class ToolRun : public ::testing::Test
{
protected:
    void SetUp() override
    {
        directory =
            std::filesystem::temp_directory_path() / ("nuvek-tool-test-" + std::to_string(::getpid()) + "-" +
                                                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
        input = writeInput("input.tif", Vector(301, 259, 1), 3, 255.0, Nuvek::TiffSampleType::Float32);
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    // Random values of 0 to top (and that value range) as a pyramid of 64 x 64 tiles.
    std::string writeInput(std::string const& name, Vector const& extent, long long channels, double top,
                           Nuvek::TiffSampleType type)
    {
        std::mt19937_64 random(91);
        image = NuvekTest::randomImage(random, extent, channels, {0.0, top, 0.0});
        image->setValueRange(Nuvek::ValueRange<double>(0, top));
        Nuvek::PyramidalTiffOptions options;
        options.sampleType = type;
        options.tileSize = 64;
        EXPECT_TRUE(Nuvek::writePyramidalTiff(*image, path(name), options));
        return path(name);
    }

    Outcome nuvek(std::string const& arguments) const
    {
        std::string const command =
            std::string(NUVEK_TOOL_PATH) + " " + arguments + " 2> " + path("stderr.txt") + " > " + path("stdout.txt");
        int const status = std::system(command.c_str());
        Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(path("stderr.txt")),
                        readFile(path("stdout.txt"))};
        std::filesystem::remove(path("stderr.txt"));
        std::filesystem::remove(path("stdout.txt"));
        return outcome;
    }

    // `nuvek run` with --quiet; expects exit 0 and returns the file written, opened.
    std::unique_ptr<Nuvek::Image> run(std::string const& from, std::string const& chain, std::string const& options,
                                      std::string const& output = "out.tif")
    {
        Outcome const outcome =
            nuvek("run " + from + " " + path(output) + " --quiet --chain '" + chain + "' " + options);
        EXPECT_EQ(outcome.status, 0) << chain << " " << options << ": " << outcome.errors;
        return Nuvek::openImage(path(output));
    }

    std::string path(std::string const& name) const { return (directory / name).string(); }

    std::filesystem::path directory;
    std::string input;
    std::shared_ptr<Nuvek::MemoryImage> image;
};

// The chain over a file opened in memory, rounded to float as float32 output stores it.
std::vector<double> expectedOutput(std::string const& from, std::string const& chainText, long long level,
                                   Box const& box)
{
    Nuvek::TiffImage source(from);
    auto const chain = Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(chainText), &source);
    std::vector<double> values = NuvekTest::openWhole(*chain->output, level, box);
    for (double& value : values)
        value = static_cast<double>(static_cast<float>(value));
    return values;
}

} // namespace

TEST_F(ToolRun, CommandLinesExitWithTheirCodeAndMessageAndBadOnesWriteNothing)
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
    std::string const busy = std::to_string(ntohs(address.sin_port));
    struct Case
    {
        std::string arguments;
        int status;
        std::string message; // in stderr, or in stdout for exit 0
    };
    std::string const run = "run " + input + " " + path("never.tif");
    Case const cases[] = {
        {run + " --chain 'gaussian 4'", 2, "gaussian: Kernel size must be odd."},
        {run + " --chain 'clamp |'", 2, "Bad chain expression at character 8"},
        {run, 2, "--chain is missing"},
        {"run " + path("missing.tif") + " " + path("never.tif") + " --chain clamp", 2, "no such file"},
        {run + " --chain clamp --threads 0", 2, "--threads must be a whole number"},
        {run + " --chain clamp --level 9", 2, "--level 9 is not among the input's"},
        {run + " --chain clamp --type int7", 2, "--type must be uint8, uint16 or float32"},
        {run + " --chain clamp --compression jpeg --type float32", 2, "JPEG compression needs uint8 samples"},
        {run + " --chain 'channel 0 2' --compression jpeg --type uint8", 2,
         "JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has 2"},
        {run + " --chain clamp --compression lzw --quality 80", 2, "--quality applies to jpeg compression only."},
        {run + " --chain clamp --compression zstd --compression-level 23", 2,
         "--compression-level must be from 1 to 22 for zstd, got 23."},
        {run + " --chain clamp --type uint8 --range 5,5", 2, "--range takes LO,HI with LO < HI"},
        {run + " --chain clamp --type uint8 --range 0,x", 2, "--range takes LO,HI"},
        {run + " --chain clamp --type uint8 --range '0,1;0,2'", 2,
         "--range gives 2 ranges, the output has 3 channels."},
        {run + " --chain clamp --type float32 --range 0,1", 2, "--range applies to uint8 and uint16 output only"},
        {"run " + input + " " + path("never.png") + " --chain clamp", 2, "the output's name must end in"},
        {"run " + input + " " + path("never.ome.zarr") + " --chain clamp --compression jpeg", 2,
         "zarr output takes --compression none, deflate (zarr's zlib) or zstd, not jpeg."},
        {"run " + input + " " + path("no/such/dir/out.tif") + " --chain clamp", 2, "writePyramidalTiff"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"view", 2, "nuvek view: expected one INPUT; 'nuvek view --help' shows the usage.\n"},
        {"view " + input + " --port 70000", 2,
         "nuvek view: --port must be a whole number from 0 to 65535, got '70000'.\n"},
        {"view " + input + " --threads 0", 2,
         "nuvek view: --threads must be a whole number from 1 to 1024, got '0'.\n"},
        {"view " + input + " --cache-mb lots", 2,
         "nuvek view: --cache-mb must be a whole number from 1 to 1048576, got 'lots'.\n"},
        {"view " + input + " --zoom 2", 2, "nuvek view: unknown option --zoom.\n"},
        {"view " + input + " --chain", 2, "nuvek view: --chain needs a value.\n"},
        {"view " + input + " --chain 'gaussian x'", 2,
         "nuvek view: --chain 'gaussian x': gaussian: parameter 'k' must be a whole number, got 'x'.\n"},
        {"view " + path("missing.tif"), 2, path("missing.tif")},
        {"view " + input + " --port " + busy, 2,
         "nuvek view: cannot listen on 127.0.0.1:" + busy +
             " (in use, or not an address of this machine); choose another with --port or --host.\n"},
        {"info " + input, 0, "Reader:      TiffImage\n"},
        {"info " + input, 0, "level 0   301 x 259 x 1 voxels, voxel size "},
        {"filters", 0, "gaussian k"},
        {"run --help", 0, "Default: the input's own sample type when the chain"},
    };
    for (Case const& test : cases)
    {
        Outcome const outcome = nuvek(test.arguments);
        EXPECT_EQ(outcome.status, test.status) << test.arguments << ": " << outcome.errors;
        std::string const& shown = test.status == 0 ? outcome.output : outcome.errors;
        EXPECT_NE(shown.find(test.message), std::string::npos) << test.arguments << ": " << shown;
    }
    ::close(socket);
    // Nothing but the input is left in the folder (no temporary files either).
    for (auto const& entry : std::filesystem::directory_iterator(directory))
        EXPECT_EQ(entry.path().filename(), "input.tif");

    // Without --quiet, a run ends with its summary.
    EXPECT_NE(nuvek(run + " --chain clamp").errors.find(" voxels in "), std::string::npos);
}

TEST_F(ToolRun, OutputEqualsTheChainInMemoryForAnyTilesThreadsBoxLevelAndFormat)
{
    Box const whole(Vector(301, 259, 1));
    for (std::string const chain : {"clamp | gaussian 5", "clamp | difference () (median 3)", "channel 1 | localnorm 2",
                                    "channel 0 | threshold 128 | distance 1 6", "clamp | sobel vector 3"})
    {
        std::vector<double> const expected = expectedOutput(input, chain, 0, whole);
        for (std::string const options :
             {"--tile 16 --threads 1", "--tile 64 --threads 3", "--tile 1024 --threads 2", "--tile 48 --threads 8"})
            EXPECT_TRUE(NuvekTest::sameBits(expected, NuvekTest::openWhole(*run(input, chain, options), 0, whole),
                                            whole, chain + " " + options));
    }

    Box const box(Vector(20, 30, 0), Vector(119, 79, 0));
    Box const local(Vector(100, 50, 1));
    auto const part = run(input, "clamp | box 3", "--box 20,30,100,50 --tile 32");
    EXPECT_EQ(part->getExtent(0), local.getExtent());
    EXPECT_TRUE(NuvekTest::sameBits(expectedOutput(input, "clamp | box 3", 0, box),
                                    NuvekTest::openWhole(*part, 0, local), local));
    Box const coarse(Vector(150, 129, 1));
    auto const level = run(input, "clamp", "--level 1", "level1.tif");
    EXPECT_EQ(level->getExtent(0), coarse.getExtent());
    EXPECT_TRUE(NuvekTest::sameBits(expectedOutput(input, "clamp", 1, coarse), NuvekTest::openWhole(*level, 0, coarse),
                                    coarse));

    // OME-Zarr by its name, described by info and read back as an input.
    std::vector<double> const blurred = expectedOutput(input, "clamp | gaussian 3", 0, whole);
    auto const zarr = run(input, "clamp | gaussian 3", "--tile 64 --compression zstd", "out.ome.zarr");
    EXPECT_EQ(zarr->getNumLevels(), 4);
    EXPECT_TRUE(NuvekTest::sameBits(blurred, NuvekTest::openWhole(*zarr, 0, whole), whole));
    Outcome const info = nuvek("info " + path("out.ome.zarr"));
    EXPECT_NE(info.output.find("level 3   37 x 32 x 1 voxels"), std::string::npos) << info.output;
    auto const again = run(path("out.ome.zarr"), "clamp", "", "again.tif");
    EXPECT_TRUE(NuvekTest::sameBits(blurred, NuvekTest::openWhole(*again, 0, whole), whole));
}

TEST_F(ToolRun, IntegerOutputMapsTheGivenRangeAndHintsWhenTheDefaultHidesTheData)
{
    // Fluorescence-like: 16-bit samples that use only 0 to 3000 of 0 to 65535.
    std::mt19937_64 random(93);
    auto dim = NuvekTest::randomImage(random, Vector(120, 90, 1), 2, {0.0, 3000.0, 0.0});
    std::vector<double> values = dim->getValues();
    for (double& value : values)
        value = std::floor(value);
    dim->setValues(values);
    dim->setValueRange(Nuvek::ValueRange<double>(0, 65535));
    Nuvek::PyramidalTiffOptions options;
    options.sampleType = Nuvek::TiffSampleType::UInt16;
    options.valueRange = Nuvek::ValueRange<double>(0, 65535);
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*dim, path("dim.tif"), options));
    Box const whole(Vector(120, 90, 1));

    Outcome const dark =
        nuvek("run " + path("dim.tif") + " " + path("dark.tif") + " --quiet --chain clamp --type uint8");
    EXPECT_NE(dark.errors.find("hint: the output uses only the values 0 to 12 of 0 to 255; --range"), std::string::npos)
        << dark.errors;

    // One range for both channels, then one per channel: round((v - lo) / (hi - lo) * 255), clamped.
    for (std::string const range : {"0,3000", "0,3000;1000,2000"})
    {
        std::vector<double> const read = NuvekTest::openWhole(
            *run(path("dim.tif"), "clamp", "--type uint8 --range '" + range + "'", "mapped.tif"), 0, whole);
        for (std::size_t i = 0; i < values.size(); ++i)
        {
            bool const second = range.find(';') != std::string::npos && i >= values.size() / 2;
            double const low = second ? 1000.0 : 0.0;
            double const high = second ? 2000.0 : 3000.0;
            ASSERT_EQ(read[i], std::clamp(std::floor((values[i] - low) / (high - low) * 255.0 + 0.5), 0.0, 255.0))
                << range << " at " << i;
        }
    }

    // auto: the percentiles of the output at a coarse level spread the values over most of 0..255.
    std::vector<double> const stretched =
        NuvekTest::openWhole(*run(path("dim.tif"), "clamp", "--type uint8 --range auto", "auto.tif"), 0, whole);
    EXPECT_GE(*std::max_element(stretched.begin(), stretched.end()), 250.0);
    EXPECT_LE(*std::min_element(stretched.begin(), stretched.end()), 5.0);

    // A range that saturates most samples is hinted at too: float samples of 0 to 3000 that claim 0 to 1000.
    dim->setValueRange(Nuvek::ValueRange<double>(0, 1000));
    options.sampleType = Nuvek::TiffSampleType::Float32;
    options.valueRange = Nuvek::ValueRange<double>(0, 1000);
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*dim, path("bright.tif"), options));
    Outcome const saturated =
        nuvek("run " + path("bright.tif") + " " + path("saturated.tif") + " --quiet --chain clamp --type uint8");
    EXPECT_NE(saturated.errors.find("of the samples lie outside the value range and are stored as 0 or 255; --range"),
              std::string::npos)
        << saturated.errors;
}

TEST_F(ToolRun, TheTypeDefaultsToTheInputsWhereTheChainKeepsItsValues)
{
    std::string const eight = writeInput("eight.tif", Vector(64, 48, 1), 3, 255.0, Nuvek::TiffSampleType::UInt8);
    struct Case
    {
        std::string input;
        std::string chain;
        bool eightBit; // else float32, which keeps fractions
    };
    Case const cases[] = {{eight, "clamp", true},
                          {eight, "channel 1 | zslice 0", true},
                          {eight, "clamp | gaussian 3", false},
                          {input, "clamp", false}};
    for (Case const& test : cases)
    {
        auto const written = run(test.input, test.chain, "--compression zstd");
        std::vector<double> const values = NuvekTest::openWhole(*written, 0, Box(written->getExtent(0)));
        bool const fractions = std::any_of(values.begin(), values.end(), [](double v) { return v != std::floor(v); });
        EXPECT_EQ(fractions, !test.eightBit) << test.chain;
        std::filesystem::remove(path("out.tif"));
    }
}

TEST_F(ToolRun, InterruptStopsCleanlyAndLeavesNoOutput)
{
    // A run long enough to be caught in the middle: a large median over small tiles on one thread.
    std::string const large = writeInput("large.tif", Vector(1500, 1500, 1), 1, 255.0, Nuvek::TiffSampleType::Float32);
    std::string const command =
        "timeout --preserve-status -s INT 2 " + std::string(NUVEK_TOOL_PATH) + " run " + large + " " +
        path("interrupted.tif") +
        " --quiet --chain 'clamp | median 15 | median 15 | median 15' --tile 16 --threads 1 2> " +
        path("interrupt.txt");
    int const status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130) << readFile(path("interrupt.txt"));
    EXPECT_NE(readFile(path("interrupt.txt")).find("interrupted; no output was left behind"), std::string::npos);
    std::filesystem::remove(path("interrupt.txt"));
    for (auto const& entry : std::filesystem::directory_iterator(directory))
        EXPECT_TRUE(entry.path().filename() == "input.tif" || entry.path().filename() == "large.tif") << entry.path();
}

TEST_F(ToolRun, ThePreviewShowsAColourOutputInItsOwnRange)
{
    run(input, "clamp", "--preview " + path("preview.png"));
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
    std::vector<double> const values = expectedOutput(input, "clamp", 0, whole);
    for (long long c = 0; c < 3; ++c)
        for (long long i = 0; i < whole.getSize(); ++i)
        {
            // The preview may round the float or the double value: they differ at halves only.
            double const value = values[static_cast<std::size_t>(c * whole.getSize() + i)];
            ASSERT_LE(std::fabs(pixels[static_cast<std::size_t>(i * 3 + c)] - std::floor(value + 0.5)), 1.0) << i;
        }
}
