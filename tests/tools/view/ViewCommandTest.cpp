// `nuvek view` refuses bad usage before it serves anything, with status 2 and a message.
#include "view/ViewAssets.h"

#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct Outcome
{
    int status;
    std::string errors;
};

class ViewCommandTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        directory =
            std::filesystem::temp_directory_path() / ("nuvek-view-command-" + std::to_string(::getpid()) + "-" +
                                                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(directory);
        input = (directory / "input.tif").string();
        Nuvek::MemoryImage image(Nuvek::Vector(64, 48, 1), 1, std::vector<double>(64 * 48, 7.0));
        image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
        ASSERT_TRUE(Nuvek::writePyramidalTiff(image, input));
    }
    void TearDown() override { std::filesystem::remove_all(directory); }

    Outcome view(std::string const& arguments) const
    {
        std::string const errors = (directory / "stderr.txt").string();
        std::string const command =
            std::string(NUVEK_TOOL_PATH) + " view " + arguments + " 2> " + errors + " > /dev/null";
        int const status = std::system(command.c_str());
        std::ifstream stream(errors);
        std::stringstream text;
        text << stream.rdbuf();
        return Outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, text.str()};
    }

    std::filesystem::path directory;
    std::string input;
};

TEST_F(ViewCommandTest, BadUsageExitsWithStatus2AndSaysWhy)
{
    struct Case
    {
        std::string arguments;
        std::string message;
    };
    Case const cases[] = {
        {"", "nuvek view: expected one INPUT; 'nuvek view --help' shows the usage.\n"},
        {input + " --port 70000", "nuvek view: --port must be a whole number from 0 to 65535, got '70000'.\n"},
        {input + " --threads 0", "nuvek view: --threads must be a whole number from 1 to 1024, got '0'.\n"},
        {input + " --cache-mb lots", "nuvek view: --cache-mb must be a whole number from 1 to 1048576, got 'lots'.\n"},
        {input + " --zoom 2", "nuvek view: unknown option --zoom.\n"},
        {input + " --chain", "nuvek view: --chain needs a value.\n"},
        {input + " --chain 'gaussian x'",
         "nuvek view: --chain 'gaussian x': gaussian: parameter 'k' must be a whole number, got 'x'.\n"},
    };
    for (Case const& c : cases)
    {
        Outcome const outcome = view(c.arguments);
        EXPECT_EQ(2, outcome.status) << c.arguments;
        EXPECT_EQ(c.message, outcome.errors) << c.arguments;
    }
    Outcome const missing = view((directory / "missing.tif").string());
    EXPECT_EQ(2, missing.status);
    EXPECT_NE(std::string::npos, missing.errors.find("missing.tif")) << missing.errors;
}

TEST_F(ViewCommandTest, APortInUseExitsWithStatus2)
{
    int const socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(socket, 1));
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length));
    int const port = ntohs(address.sin_port);
    Outcome const outcome = view(input + " --port " + std::to_string(port));
    ::close(socket);
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("nuvek view: cannot listen on 127.0.0.1:" + std::to_string(port) +
                  " (in use, or not an address of this machine); choose another with --port or --host.\n",
              outcome.errors);
}

TEST_F(ViewCommandTest, MissingViewerFilesAreNamed)
{
    std::filesystem::create_directories(directory / "page");
    std::ofstream(directory / "page" / "index.html") << "<html></html>";
    try
    {
        NuvekTool::ViewAssets const assets((directory / "page").string(), (directory / "osd.js").string());
        FAIL() << "no error for a page without its script";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_EQ("the viewer's file " + (directory / "page" / "viewer.js").string() +
                      " is missing: run scripts/install-deps.sh and rebuild, or reinstall nuvek.",
                  std::string(error.what()));
    }
}

} // namespace
