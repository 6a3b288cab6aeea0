// The tile server over HTTP on loopback: its tiles against the same chain opened in memory, its
// endpoints in one table, its cache, its faults and many clients at once.
#include "view/TileServer.h"
#include "view/DisplayMapping.h"
#include "view/ViewAssets.h"

#include <nuvek/NuvekChains.h>

#include "support/NuvekTest.h"

#include "support/FaultyImage.h"

#include <httplib.h>
#include <png.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

// A TileServer over an image, serving on a free loopback port from a thread of its own, with
// placeholder page files.
class ViewTestServer
{
public:
    ViewTestServer(Nuvek::Image& source, NuvekTool::TileServerSettings settings)
        : assets(std::filesystem::temp_directory_path() / ("nuvek-view-test-" + std::to_string(std::random_device()())))
    {
        std::filesystem::create_directories(assets);
        for (char const* name : {"index.html", "viewer.js", "viewer.css", "openseadragon.min.js"})
            std::ofstream(assets / name) << "placeholder " << name;
        settings.host = "127.0.0.1";
        settings.port = 0;
        tileServer = std::make_unique<NuvekTool::TileServer>(
            source, NuvekTool::ViewAssets(assets.string(), (assets / "openseadragon.min.js").string()), settings);
        boundPort = tileServer->bind();
        serving = std::thread([this] { tileServer->serve(); });
    }
    ~ViewTestServer()
    {
        tileServer->stop();
        serving.join();
        tileServer.reset();
        std::filesystem::remove_all(assets);
    }

    NuvekTool::TileServer& server() { return *tileServer; }
    // The server keeps its page in memory: the files may go.
    void removeAssetFiles() { std::filesystem::remove_all(assets); }
    std::unique_ptr<httplib::Client> client() const
    {
        auto client = std::make_unique<httplib::Client>("127.0.0.1", boundPort);
        client->set_read_timeout(120, 0);
        return client;
    }

private:
    std::filesystem::path assets;
    std::unique_ptr<NuvekTool::TileServer> tileServer;
    int boundPort = 0;
    std::thread serving;
};

// 4 bytes per voxel, RGBA; empty when the bytes are no PNG image.
struct DecodedTile
{
    long long width = 0;
    long long height = 0;
    std::vector<unsigned char> rgba;
};

DecodedTile decodePng(std::string const& bytes)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size()))
        return {};
    image.format = PNG_FORMAT_RGBA;
    DecodedTile tile{image.width, image.height, std::vector<unsigned char>(PNG_IMAGE_SIZE(image))};
    if (!png_image_finish_read(&image, nullptr, tile.rgba.data(), 0, nullptr))
        return {};
    return tile;
}

// The documented mapping, written out: round(255 (v - min) / (max - min)), halves up, clamped; NaN 0.
unsigned char displayByte(double value, double min, double max)
{
    double const scaled = 255.0 * (value - min) / (max - min);
    if (std::isnan(value) || scaled <= 0.0)
        return 0;
    return scaled >= 255.0 ? 255 : static_cast<unsigned char>(std::floor(scaled + 0.5));
}

// The expected RGBA of the chain over source in a tile box: grey for one channel, the first three
// channels as RGB otherwise, transparent where a value is NaN.
std::vector<unsigned char> expectedTile(Nuvek::Image& source, std::string const& text, long long level, Box const& box,
                                        double min, double max)
{
    auto const chain = Nuvek::FilterRegistry::buildChain(
        text.empty() ? Nuvek::ChainExpression() : Nuvek::parseChainExpression(text), &source);
    long long const voxels = box.getSize();
    long long const channels = chain->output->getNumChannels();
    std::vector<double> values(static_cast<std::size_t>(voxels * channels));
    chain->output->openRegion(values.data(), level, box);
    std::vector<unsigned char> rgba(static_cast<std::size_t>(voxels * 4), 255);
    for (long long i = 0; i < voxels; ++i)
        for (long long c = 0; c < 3; ++c)
        {
            long long const from = channels == 1 ? 0 : c;
            double const value = from < channels ? values[static_cast<std::size_t>(from * voxels + i)] : 0.0;
            rgba[static_cast<std::size_t>(4 * i + c)] = displayByte(value, min, max);
            if (std::isnan(value))
                rgba[static_cast<std::size_t>(4 * i + 3)] = 0;
        }
    return rgba;
}

std::string tilePath(int layer, long long level, long long x, long long y, std::string const& rest = ".png")
{
    return "/api/layers/" + std::to_string(layer) + "/tiles/" + std::to_string(level) + "/" + std::to_string(x) + "_" +
           std::to_string(y) + rest;
}

class TileServerTest : public ::testing::Test
{
protected:
    TileServerTest()
    {
        std::mt19937_64 random(2026);
        // 600 x 420: edge tiles of every level are cut; 2 % each of NaN, +inf and -inf.
        source = NuvekTest::randomImage(random, Vector(600, 420, 1), 3, {0.0, 255.0, 0.02});
        settings.threads = 2;
        settings.tileSize = 128;
    }

    std::shared_ptr<Nuvek::MemoryImage> source;
    NuvekTool::TileServerSettings settings;
};

TEST_F(TileServerTest, TilesEqualTheChainOpenedInMemoryAtEveryLevelIncludingEdgeTiles)
{
    ViewTestServer view(*source, settings);
    auto client = view.client();
    ASSERT_GE(source->getNumLevels(), 3);
    for (std::string const text :
         {"", "clamp | gaussian 3", "channel 1 | threshold 100 0 1", "concat (channel 2) (channel 0)"})
    {
        int const id = text.empty() ? 0 : view.server().addLayer(text);
        bool const binary = text.find("threshold") != std::string::npos;
        double const min = binary ? 0.0 : 30.5;
        double const max = binary ? 1.0 : 220.0;
        for (long long level = 0; level < source->getNumLevels(); ++level)
        {
            Vector const extent = source->getExtent(level);
            for (long long y = 0; y * 128 < extent.y; ++y)
                for (long long x = 0; x * 128 < extent.x; ++x)
                {
                    std::string const path =
                        tilePath(id, level, x, y, binary ? ".png?min=0&max=1" : ".png?min=30.5&max=220");
                    auto const response = client->Get(path.c_str());
                    ASSERT_TRUE(response && response->status == 200) << path;
                    Box const box(Vector(x * 128, y * 128, 0), Vector(std::min(extent.x, x * 128 + 128) - 1,
                                                                      std::min(extent.y, y * 128 + 128) - 1, 0));
                    DecodedTile const tile = decodePng(response->body);
                    ASSERT_EQ(box.getExtent().x, tile.width) << path;
                    ASSERT_EQ(box.getExtent().y, tile.height) << path;
                    ASSERT_EQ(expectedTile(*source, text, level, box, min, max), tile.rgba) << text << " " << path;
                }
        }
    }
}

TEST_F(TileServerTest, WithoutARangeTilesUseTheLayersAutomaticRangeAndOneChannelTakesAColourMap)
{
    ViewTestServer view(*source, settings);
    std::string const chain = "clamp | gaussian 5 | channel 0";
    int const id = view.server().addLayer(chain);
    auto client = view.client();
    std::string const info = client->Get("/api/info")->body;
    std::size_t const at = info.find("\"range\":[", info.find("\"id\":" + std::to_string(id)));
    ASSERT_NE(std::string::npos, at) << info;
    double const min = std::stod(info.substr(at + 9));
    double const max = std::stod(info.substr(info.find(',', at) + 1));
    ASSERT_LT(min, max);

    std::vector<unsigned char> const grey =
        expectedTile(*source, chain, 1, Box(Vector(128, 0, 0), Vector(255, 127, 0)), min, max);
    EXPECT_EQ(grey, decodePng(client->Get(tilePath(id, 1, 1, 0).c_str())->body).rgba);
    std::vector<unsigned char> const heat =
        decodePng(client->Get(tilePath(id, 1, 1, 0, ".png?map=heat").c_str())->body).rgba;
    ASSERT_EQ(grey.size(), heat.size());
    for (std::size_t i = 0; i < grey.size(); i += 4)
    {
        auto const colour = NuvekTool::DisplayMapping::colourOf(NuvekTool::ColourMap::Heat, grey[i]);
        ASSERT_EQ(colour, (std::array<unsigned char, 3>{heat[i], heat[i + 1], heat[i + 2]})) << i / 4;
    }
}

TEST(DisplayMappingTest, ColourMapsPassTheirStopsAndAnEmptyRangeSplitsAtItsValue)
{
    using NuvekTool::ColourMap;
    using NuvekTool::DisplayMapping;
    using Colour = std::array<unsigned char, 3>;
    EXPECT_EQ((Colour{255, 0, 0}), DisplayMapping::colourOf(ColourMap::Heat, 85));
    // Byte 128 is just past the middle stop (33, 144, 141), a 64th of the way to (39, 173, 129).
    EXPECT_EQ((Colour{33, 144, 141}), DisplayMapping::colourOf(ColourMap::Viridis, 128));
    // An empty range shows everything at or above it white, and a value below it black.
    DisplayMapping const flat(5.0, 5.0, ColourMap::Grey, -1);
    EXPECT_EQ(255, flat.toByte(5.0));
    EXPECT_EQ(0, flat.toByte(4.999));
    EXPECT_EQ(0, flat.toByte(std::nan("")));
}

TEST_F(TileServerTest, EveryEndpointAnswersWithItsStatusBodyAndType)
{
    source->setValue(Vector(17, 9, 0), 1, std::nan(""));
    ViewTestServer view(*source, settings);
    view.server().addLayer("clamp | gaussian 3");
    view.removeAssetFiles();
    auto client = view.client();
    std::string const levels = std::to_string(source->getNumLevels());
    // The source's values at one voxel as the server gives them: %.17g, and null for NaN or infinity.
    auto valuesAt = [&](long long level, long long x, long long y) {
        double values[3];
        source->openRegion(values, level, Box(Vector(x, y, 0), Vector(x, y, 0)));
        std::string json = "{\"level\":" + std::to_string(level) + ",\"x\":" + std::to_string(x) +
                           ",\"y\":" + std::to_string(y) + ",\"z\":0,\"values\":[";
        for (int c = 0; c < 3; ++c)
        {
            char number[32];
            std::snprintf(number, sizeof number, "%.17g", values[c]);
            json += (c == 0 ? "" : ",") + (std::isfinite(values[c]) ? std::string(number) : std::string("null"));
        }
        return json + "]}";
    };
    struct Case
    {
        std::string path;
        std::string posted; // a POST of this body when not empty
        int status;
        std::string body; // not checked when empty
        std::string type;
    };
    std::string const text = "text/plain; charset=utf-8";
    std::string const script = "text/javascript; charset=utf-8";
    Case const cases[] = {
        {"/", "", 200, "placeholder index.html", "text/html; charset=utf-8"},
        {"/viewer.js", "", 200, "placeholder viewer.js", script},
        {"/viewer.css", "", 200, "placeholder viewer.css", "text/css; charset=utf-8"},
        {"/openseadragon.min.js", "", 200, "placeholder openseadragon.min.js", script},
        {"/api/filters", "", 200, Nuvek::FilterRegistry::describe(), text},
        {"/api/layers/7/tiles/0/0_0.png", "", 404, "there is no layer 7.\n", ""},
        {"/api/layers/1/tiles/" + levels + "/0_0.png", "", 404,
         "level " + levels + " is beyond the layer's " + levels + " levels.\n", ""},
        {"/api/layers/1/tiles/0/5_0.png", "", 404, "tile 5_0 is outside level 0 (5 x 4 tiles).\n", ""},
        {"/api/layers/1/tiles/0/0_4.png", "", 404, "tile 0_4 is outside level 0 (5 x 4 tiles).\n", ""},
        {"/api/layers/1/tiles/0/0_0.png?min=abc", "", 400, "the parameter 'min' must be a finite number, got 'abc'.\n",
         ""},
        {"/api/layers/1/tiles/0/0_0.png?max=inf", "", 400, "the parameter 'max' must be a finite number, got 'inf'.\n",
         ""},
        {"/api/layers/1/tiles/0/0_0.png?map=rainbow", "", 400,
         "unknown colour map 'rainbow': use grey, heat or viridis.\n", ""},
        {"/api/layers/1/tiles/0/0_0.png?channel=3", "", 400,
         "the parameter 'channel' must be -1 (all) or a channel from 0 to 2, got 3.\n", ""},
        {"/api/layers/1/tiles/0/0_0.png?z=1", "", 404, "slice 1 is outside the image's 1 slices.\n", ""},
        {"/api/layers/1/tiles/0/0_0.gif", "", 404, "not found: /api/layers/1/tiles/0/0_0.gif\n", ""},
        {"/api/layers/1/tiles/0/-1_0.png", "", 404, "not found: /api/layers/1/tiles/0/-1_0.png\n", ""},
        {"/api/layers/1/tiles/0/99999999999_0.png", "", 404, "not found: /api/layers/1/tiles/0/99999999999_0.png\n",
         ""},
        {"/api/layers/1/tiles/0/0_0.png?min=" + std::string(10000, '1'), "", 414, "", ""},
        {"/api/layers/0/values?x=17&y=9", "", 200, valuesAt(0, 17, 9), ""},
        {"/api/layers/0/values?x=4&y=2&level=2", "", 200, valuesAt(2, 4, 2), ""},
        {"/api/layers/1/values?x=3", "", 400, "the parameter 'y' is missing.\n", ""},
        {"/api/layers/1/values?x=600&y=0", "", 404, "(600, 0) is outside level 0 (600 x 420).\n", ""},
        {"/api/layers/1/values?x=0&y=0&level=" + levels, "", 404,
         "level " + levels + " is not among the layer's " + levels + " levels.\n", ""},
        {"/index.html", "", 404, "not found: /index.html\n", ""},
        {"/../../etc/passwd", "", 404, "", ""},
        {"/%2e%2e/%2e%2e/etc/passwd", "", 404, "", ""},
        {"/api/layers", "clamp | gaussian x", 400, "gaussian: parameter 'k' must be a whole number, got 'x'.\n", ""},
        {"/api/layers", "blur 3", 400, "Unknown filter 'blur'. 'nuvek filters' lists them.\n", ""},
        {"/api/layers", std::string(5000, ' '), 413, "a chain expression may be at most 4096 characters long.\n", ""},
        {"/api/layers", std::string(100000, ' '), 413, "", ""},
        // The server still serves after all that.
        {"/api/layers/1/tiles/0/0_0.png", "", 200, "", "image/png"},
        {"/api/layers/1/tiles/0/0_0.jpg", "", 200, "", "image/jpeg"},
    };
    for (Case const& c : cases)
    {
        auto const response =
            c.posted.empty() ? client->Get(c.path.c_str()) : client->Post(c.path.c_str(), c.posted, "text/plain");
        ASSERT_TRUE(response) << c.path;
        EXPECT_EQ(c.status, response->status) << c.path;
        EXPECT_TRUE(c.body.empty() || c.body == response->body) << c.path << ": " << response->body;
        EXPECT_TRUE(c.type.empty() || c.type == response->get_header_value("Content-Type")) << c.path;
        EXPECT_EQ(std::string::npos, response->body.find("root:")) << c.path;
    }
}

TEST(ViewAssetsTest, AMissingViewerFileIsNamed)
{
    std::filesystem::path const page =
        std::filesystem::temp_directory_path() / ("nuvek-view-page-" + std::to_string(::getpid()));
    std::filesystem::create_directories(page);
    std::ofstream(page / "index.html") << "<html></html>";
    EXPECT_EQ(NuvekTest::messageOf([&] { NuvekTool::ViewAssets assets(page.string(), (page / "osd.js").string()); }),
              "the viewer's file " + (page / "viewer.js").string() +
                  " is missing: run scripts/install-deps.sh and rebuild, or reinstall nuvek.");
    std::filesystem::remove_all(page);
}

TEST_F(TileServerTest, RevisitedTilesComeFromTheCacheWhichStaysWithinItsBound)
{
    settings.cacheBytes = 200 * 1024;
    ViewTestServer view(*source, settings);
    int const id = view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    auto const first = client->Get(tilePath(id, 0, 1, 1).c_str());
    auto const second = client->Get(tilePath(id, 0, 1, 1).c_str());
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->body, second->body);
    EXPECT_EQ(1, view.server().getTilesComputed());
    EXPECT_EQ(1, view.server().getCacheStatistics().hits);
    // Another mapping of the same box is another tile.
    EXPECT_NE(first->body, client->Get(tilePath(id, 0, 1, 1, ".png?min=0&max=100").c_str())->body);
    EXPECT_EQ(2, view.server().getTilesComputed());

    // Every tile of every level under many mappings: far more than the bound holds.
    for (int range = 0; range < 6; ++range)
        for (long long level = 0; level < 3; ++level)
            for (long long y = 0; y * 128 < source->getExtent(level).y; ++y)
                for (long long x = 0; x * 128 < source->getExtent(level).x; ++x)
                {
                    auto const response =
                        client->Get(tilePath(id, level, x, y, ".png?min=" + std::to_string(range)).c_str());
                    ASSERT_TRUE(response && response->status == 200);
                    ASSERT_LE(view.server().getCacheStatistics().bytes, settings.cacheBytes);
                }
    EXPECT_GT(view.server().getCacheStatistics().evictions, 0);
    EXPECT_GT(view.server().getCacheStatistics().bytes, settings.cacheBytes / 2);
    // The most recent tile is still there.
    long long const computed = view.server().getTilesComputed();
    ASSERT_TRUE(client->Get(tilePath(id, 2, 1, 0, ".png?min=5").c_str()));
    EXPECT_EQ(computed, view.server().getTilesComputed());
}

// A source the test controls while the server runs: its values may change, and its reads may wait
// at a gate until the test opens it. Reads and changes take one lock.
class ControlledImage : public NuvekTest::FaultyImage
{
public:
    ControlledImage(std::shared_ptr<Nuvek::MemoryImage> source, bool gated)
        : FaultyImage(source), source(source), open(!gated)
    {
    }

    void openRegion(double* out, long long level, Box const& box) override
    {
        ++reads;
        std::unique_lock<std::mutex> lock(mutex);
        opened.wait(lock, [this] { return open; });
        FaultyImage::openRegion(out, level, box);
    }
    std::uint64_t getHash() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        return FaultyImage::getHash();
    }
    void setValues(std::vector<double> values)
    {
        std::lock_guard<std::mutex> lock(mutex);
        source->setValues(std::move(values));
    }
    void openGate()
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        opened.notify_all();
    }

    std::atomic<int> reads{0};

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    std::mutex mutex;
    std::condition_variable opened;
    bool open;
};

TEST_F(TileServerTest, AFailingTileAnswers500AndIsRetriedAndAChangedHashIsNeverServedStale)
{
    ControlledImage changing(source, false);
    ViewTestServer view(changing, settings);
    int const id = view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    std::string const tile = tilePath(id, 0, 0, 0, ".png?min=0&max=255");
    changing.arm(1);
    auto const failed = client->Get(tile.c_str());
    ASSERT_TRUE(failed);
    EXPECT_EQ(500, failed->status);
    EXPECT_EQ("the chain failed on this tile: injected fault\n", failed->body);
    auto const before = client->Get(tile.c_str());
    ASSERT_TRUE(before && before->status == 200);
    EXPECT_EQ(1, view.server().getTilesComputed());
    std::vector<double> values = source->getValues();
    for (double& value : values)
        value = 255.0 - value;
    changing.setValues(values);
    auto const after = client->Get(tile.c_str());
    ASSERT_TRUE(after);
    EXPECT_EQ(2, view.server().getTilesComputed());
    EXPECT_EQ(expectedTile(changing, "clamp | gaussian 3", 0, Box(Vector(0, 0, 0), Vector(127, 127, 0)), 0, 255),
              decodePng(after->body).rgba);
    EXPECT_NE(before->body, after->body);
}

TEST_F(TileServerTest, ATileWhoseClientHasGoneIsNotComputed)
{
    ControlledImage gated(source, true);
    settings.threads = 1;
    ViewTestServer view(gated, settings);
    std::thread first([&] {
        auto const response = view.client()->Get("/api/layers/0/tiles/0/0_0.png");
        EXPECT_TRUE(response && response->status == 200);
    });
    while (gated.reads == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // A second client asks for a tile while the only worker is busy, and hangs up after half a
    // second: long enough for the server to read the request and queue its tile behind the first.
    auto impatient = view.client();
    impatient->set_read_timeout(0, 500000);
    EXPECT_FALSE(impatient->Get("/api/layers/0/tiles/0/1_0.png"));
    impatient.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    gated.openGate();
    first.join();
    for (int wait = 0; wait < 500 && view.server().getTilesAbandoned() == 0; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, view.server().getTilesAbandoned());
    EXPECT_EQ(1, view.server().getTilesComputed());
    EXPECT_EQ(1, gated.reads);
}

} // namespace
