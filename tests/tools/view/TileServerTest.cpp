// The tile server over HTTP on loopback: its tiles against the same chain opened in memory, its
// refusals, its cache and its faults.
#include "ViewTestServer.h"

#include "view/DisplayMapping.h"
#include "view/ViewAssets.h"

#include <nuvek/Nuvek.h>
#include <nuvek/chains/ChainExpression.h>
#include <nuvek/chains/FilterRegistry.h>

#include "support/FaultyImage.h"
#include "support/Messages.h"
#include "support/RandomImages.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

// The documented mapping, written out: round(255 (v - min) / (max - min)), halves up, clamped; NaN 0.
unsigned char displayByte(double value, double min, double max)
{
    if (std::isnan(value))
        return 0;
    double const scaled = 255.0 * (value - min) / (max - min);
    if (scaled <= 0.0)
        return 0;
    if (scaled >= 255.0)
        return 255;
    return static_cast<unsigned char>(std::floor(scaled + 0.5));
}

// The expected RGBA of a tile box: grey for one channel, the first three channels as RGB otherwise.
std::vector<unsigned char> expectedTile(Nuvek::Image& chain, long long level, Box const& box, double min, double max)
{
    long long const voxels = box.getSize();
    long long const channels = chain.getNumChannels();
    std::vector<double> values(static_cast<std::size_t>(voxels * channels));
    chain.openRegion(values.data(), level, box);
    std::vector<unsigned char> rgba(static_cast<std::size_t>(voxels * 4));
    for (long long i = 0; i < voxels; ++i)
    {
        bool missing = false;
        for (long long c = 0; c < 3; ++c)
        {
            long long const from = channels == 1 ? 0 : c;
            double const value = from < channels ? values[static_cast<std::size_t>(from * voxels + i)] : 0.0;
            missing = missing || std::isnan(value);
            rgba[static_cast<std::size_t>(4 * i + c)] = displayByte(value, min, max);
        }
        rgba[static_cast<std::size_t>(4 * i + 3)] = missing ? 0 : 255;
    }
    return rgba;
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
    NuvekTest::ViewTestServer view(*source, settings);
    std::vector<std::string> const chains = {"", "clamp | gaussian 3", "channel 1 | threshold 100 0 1",
                                             "concat (channel 2) (channel 0)"};
    for (std::string const& text : chains)
    {
        int const id = text.empty() ? 0 : view.server().addLayer(text);
        Nuvek::ChainExpression const expression =
            text.empty() ? Nuvek::ChainExpression() : Nuvek::parseChainExpression(text);
        std::unique_ptr<Nuvek::Chain> const chain = Nuvek::FilterRegistry::buildChain(expression, source.get());
        auto client = view.client();
        double const min = text.find("threshold") != std::string::npos ? 0.0 : 30.5;
        double const max = text.find("threshold") != std::string::npos ? 1.0 : 220.0;
        long long tiles = 0;
        long long expectedTiles = 0;
        for (long long level = 0; level < source->getNumLevels(); ++level)
        {
            Vector const extent = source->getExtent(level);
            expectedTiles += (extent.x + 127) / 128 * ((extent.y + 127) / 128);
            for (long long y = 0; y * 128 < extent.y; ++y)
                for (long long x = 0; x * 128 < extent.x; ++x)
                {
                    std::string const path = "/api/layers/" + std::to_string(id) + "/tiles/" + std::to_string(level) +
                                             "/" + std::to_string(x) + "_" + std::to_string(y) +
                                             ".png?min=" + std::to_string(min) + "&max=" + std::to_string(max);
                    auto const response = client->Get(path.c_str());
                    ASSERT_TRUE(response) << path;
                    ASSERT_EQ(200, response->status) << path << ": " << response->body;
                    Box const box(Vector(x * 128, y * 128, 0), Vector(std::min(extent.x, x * 128 + 128) - 1,
                                                                      std::min(extent.y, y * 128 + 128) - 1, 0));
                    NuvekTest::DecodedTile const tile = NuvekTest::decodePng(response->body);
                    ASSERT_EQ(box.getExtent().x, tile.width) << path;
                    ASSERT_EQ(box.getExtent().y, tile.height) << path;
                    std::vector<unsigned char> const expected = expectedTile(*chain->output, level, box, min, max);
                    for (std::size_t i = 0; i < expected.size(); ++i)
                        ASSERT_EQ(int(expected[i]), int(tile.rgba[i]))
                            << "chain '" << text << "', " << path << ", voxel " << i / 4 << ", component " << i % 4;
                    ++tiles;
                }
        }
        EXPECT_EQ(expectedTiles, tiles) << "tiles over every level of '" << text << "'";
        EXPECT_GE(source->getNumLevels(), 3);
    }
}

TEST_F(TileServerTest, WithoutARangeTilesUseTheLayersAutomaticRangeAndOneChannelTakesAColourMap)
{
    NuvekTest::ViewTestServer view(*source, settings);
    int const id = view.server().addLayer("clamp | gaussian 5 | channel 0");
    auto client = view.client();
    auto const info = client->Get("/api/info");
    ASSERT_TRUE(info);
    std::string const layer = "\"id\":" + std::to_string(id);
    std::size_t const at = info->body.find(layer);
    ASSERT_NE(std::string::npos, at) << info->body;
    std::size_t const rangeAt = info->body.find("\"range\":[", at) + 9;
    double const min = std::stod(info->body.substr(rangeAt));
    double const max = std::stod(info->body.substr(info->body.find(',', rangeAt) + 1));
    ASSERT_LT(min, max);

    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression("clamp | gaussian 5 | channel 0");
    std::unique_ptr<Nuvek::Chain> const chain = Nuvek::FilterRegistry::buildChain(expression, source.get());
    Box const box(Vector(128, 0, 0), Vector(255, 127, 0));
    std::vector<unsigned char> const grey = expectedTile(*chain->output, 1, box, min, max);
    auto const plain = client->Get(("/api/layers/" + std::to_string(id) + "/tiles/1/1_0.png").c_str());
    ASSERT_TRUE(plain);
    EXPECT_EQ(grey, NuvekTest::decodePng(plain->body).rgba);

    auto const heat = client->Get(("/api/layers/" + std::to_string(id) + "/tiles/1/1_0.png?map=heat").c_str());
    ASSERT_TRUE(heat);
    std::vector<unsigned char> const coloured = NuvekTest::decodePng(heat->body).rgba;
    ASSERT_EQ(grey.size(), coloured.size());
    for (std::size_t i = 0; i < grey.size(); i += 4)
    {
        auto const colour = NuvekTool::DisplayMapping::colourOf(NuvekTool::ColourMap::Heat, grey[i]);
        ASSERT_EQ(colour[0], coloured[i]);
        ASSERT_EQ(colour[1], coloured[i + 1]);
        ASSERT_EQ(colour[2], coloured[i + 2]);
    }
}

TEST(DisplayMappingTest, ColourMapsRunFromTheirFirstToTheirLastStopThroughTheMiddle)
{
    using NuvekTool::ColourMap;
    using NuvekTool::DisplayMapping;
    EXPECT_EQ((std::array<unsigned char, 3>{0, 0, 0}), DisplayMapping::colourOf(ColourMap::Heat, 0));
    EXPECT_EQ((std::array<unsigned char, 3>{255, 0, 0}), DisplayMapping::colourOf(ColourMap::Heat, 85));
    EXPECT_EQ((std::array<unsigned char, 3>{255, 255, 255}), DisplayMapping::colourOf(ColourMap::Heat, 255));
    EXPECT_EQ((std::array<unsigned char, 3>{68, 1, 84}), DisplayMapping::colourOf(ColourMap::Viridis, 0));
    EXPECT_EQ((std::array<unsigned char, 3>{253, 231, 37}), DisplayMapping::colourOf(ColourMap::Viridis, 255));
    // Byte 128 is just past the middle stop (33, 144, 141), a 64th of the way to (39, 173, 129).
    EXPECT_EQ((std::array<unsigned char, 3>{33, 144, 141}), DisplayMapping::colourOf(ColourMap::Viridis, 128));
    // An empty range shows everything at or above it white, and a value below it black.
    DisplayMapping const flat(5.0, 5.0, ColourMap::Grey, -1);
    EXPECT_EQ(255, flat.toByte(5.0));
    EXPECT_EQ(0, flat.toByte(4.999));
    EXPECT_EQ(0, flat.toByte(std::nan("")));
}

TEST_F(TileServerTest, JpegTilesDecodeToTheImageWithinTheEncodersError)
{
    NuvekTest::ViewTestServer view(*source, settings);
    auto client = view.client();
    auto const response = client->Get("/api/layers/0/tiles/0/4_3.jpg?min=0&max=255");
    ASSERT_TRUE(response);
    ASSERT_EQ(200, response->status);
    EXPECT_EQ("image/jpeg", response->get_header_value("Content-Type"));
    NuvekTest::DecodedTile const tile = NuvekTest::decodeJpeg(response->body);
    // The edge tile of a 600 x 420 level 0: 88 x 36.
    ASSERT_EQ(88, tile.width);
    ASSERT_EQ(36, tile.height);
    std::vector<unsigned char> const expected =
        expectedTile(*source, 0, Box(Vector(512, 384, 0), Vector(599, 419, 0)), 0, 255);
    double difference = 0.0;
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (i % 4 != 3)
            difference += std::abs(int(expected[i]) - int(tile.rgba[i]));
    // Random noise is JPEG's worst case; the mean error stays far below a wrong tile's (about 85).
    EXPECT_LT(difference / (88.0 * 36.0 * 3.0), 20.0);
}

TEST_F(TileServerTest, MalformedOrImpossibleRequestsAreRefusedWithTheirReason)
{
    NuvekTest::ViewTestServer view(*source, settings);
    view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    std::string const levels = std::to_string(source->getNumLevels());
    std::string const beyond = std::to_string(source->getNumLevels());
    struct Case
    {
        std::string path;
        int status;
        std::string message;
    };
    Case const cases[] = {
        {"/api/layers/7/tiles/0/0_0.png", 404, "there is no layer 7.\n"},
        {"/api/layers/1/tiles/" + beyond + "/0_0.png", 404,
         "level " + beyond + " is beyond the layer's " + levels + " levels.\n"},
        {"/api/layers/1/tiles/0/5_0.png", 404, "tile 5_0 is outside level 0 (5 x 4 tiles).\n"},
        {"/api/layers/1/tiles/0/0_4.png", 404, "tile 0_4 is outside level 0 (5 x 4 tiles).\n"},
        {"/api/layers/1/tiles/0/0_0.png?min=abc", 400, "the parameter 'min' must be a finite number, got 'abc'.\n"},
        {"/api/layers/1/tiles/0/0_0.png?max=inf", 400, "the parameter 'max' must be a finite number, got 'inf'.\n"},
        {"/api/layers/1/tiles/0/0_0.png?map=rainbow", 400,
         "unknown colour map 'rainbow': use grey, heat or viridis.\n"},
        {"/api/layers/1/tiles/0/0_0.png?channel=3", 400,
         "the parameter 'channel' must be -1 (all) or a channel from 0 to 2, got 3.\n"},
        {"/api/layers/1/tiles/0/0_0.png?z=1", 404, "slice 1 is outside the image's 1 slices.\n"},
        {"/api/layers/1/tiles/0/0_0.gif", 404, "not found: /api/layers/1/tiles/0/0_0.gif\n"},
        {"/api/layers/1/tiles/0/-1_0.png", 404, "not found: /api/layers/1/tiles/0/-1_0.png\n"},
        {"/api/layers/1/tiles/0/99999999999_0.png", 404, "not found: /api/layers/1/tiles/0/99999999999_0.png\n"},
        {"/api/layers/1/values?x=3", 400, "the parameter 'y' is missing.\n"},
        {"/api/layers/1/values?x=600&y=0", 404, "(600, 0) is outside level 0 (600 x 420).\n"},
        {"/api/layers/1/values?x=0&y=0&level=" + beyond, 404,
         "level " + beyond + " is not among the layer's " + levels + " levels.\n"},
        {"/index.html", 404, "not found: /index.html\n"},
        {"/../../etc/passwd", 404, ""},
        {"/%2e%2e/%2e%2e/etc/passwd", 404, ""},
    };
    for (Case const& c : cases)
    {
        auto const response = client->Get(c.path.c_str());
        ASSERT_TRUE(response) << c.path;
        EXPECT_EQ(c.status, response->status) << c.path;
        if (!c.message.empty())
        {
            EXPECT_EQ(c.message, response->body) << c.path;
        }
        EXPECT_EQ(std::string::npos, response->body.find("root:")) << c.path;
    }

    auto const badChain = client->Post("/api/layers", "clamp | gaussian x", "text/plain");
    ASSERT_TRUE(badChain);
    EXPECT_EQ(400, badChain->status);
    EXPECT_EQ("gaussian: parameter 'k' must be a whole number, got 'x'.\n", badChain->body);
    auto const unknown = client->Post("/api/layers", "blur 3", "text/plain");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(400, unknown->status);
    EXPECT_FALSE(unknown->body.empty());
    auto const tooLong = client->Post("/api/layers", std::string(5000, ' '), "text/plain");
    ASSERT_TRUE(tooLong);
    EXPECT_EQ(413, tooLong->status);
    EXPECT_EQ("a chain expression may be at most 4096 characters long.\n", tooLong->body);
    auto const oversized = client->Post("/api/layers", std::string(100000, ' '), "text/plain");
    ASSERT_TRUE(oversized);
    EXPECT_EQ(413, oversized->status);
    EXPECT_FALSE(oversized->body.empty());
    auto const longPath = client->Get(("/api/layers/1/tiles/0/0_0.png?min=" + std::string(10000, '1')).c_str());
    ASSERT_TRUE(longPath);
    EXPECT_EQ(414, longPath->status);

    // The server still serves after all that.
    auto const good = client->Get("/api/layers/1/tiles/0/0_0.png");
    ASSERT_TRUE(good);
    EXPECT_EQ(200, good->status);
}

TEST_F(TileServerTest, ThePageAndItsAssetsComeFromMemory)
{
    NuvekTest::ViewTestServer view(*source, settings);
    view.removeAssetFiles();
    auto client = view.client();
    struct Case
    {
        char const* path;
        std::string body;
        char const* type;
    };
    Case const cases[] = {
        {"/", "placeholder index.html", "text/html; charset=utf-8"},
        {"/viewer.js", "placeholder viewer.js", "text/javascript; charset=utf-8"},
        {"/viewer.css", "placeholder viewer.css", "text/css; charset=utf-8"},
        {"/openseadragon.min.js", "placeholder openseadragon.min.js", "text/javascript; charset=utf-8"},
        {"/api/filters", Nuvek::FilterRegistry::describe(), "text/plain; charset=utf-8"},
    };
    for (Case const& c : cases)
    {
        auto const response = client->Get(c.path);
        ASSERT_TRUE(response) << c.path;
        EXPECT_EQ(200, response->status) << c.path;
        EXPECT_EQ(c.body, response->body) << c.path;
        EXPECT_EQ(c.type, response->get_header_value("Content-Type")) << c.path;
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

TEST_F(TileServerTest, PointValuesAreTheChainsValuesAtOneVoxelWithNaNAsNull)
{
    source->setValue(Vector(17, 9, 0), 1, std::nan(""));
    NuvekTest::ViewTestServer view(*source, settings);
    auto client = view.client();
    for (long long level : {0LL, 2LL})
    {
        Vector const at(level == 0 ? 17 : 4, level == 0 ? 9 : 2, 0);
        auto const response = client->Get(("/api/layers/0/values?x=" + std::to_string(at.x) +
                                           "&y=" + std::to_string(at.y) + "&level=" + std::to_string(level))
                                              .c_str());
        ASSERT_TRUE(response);
        ASSERT_EQ(200, response->status) << response->body;
        double values[3];
        source->openRegion(values, level, Box(at, at));
        std::string expected = "{\"level\":" + std::to_string(level) + ",\"x\":" + std::to_string(at.x) +
                               ",\"y\":" + std::to_string(at.y) + ",\"z\":0,\"values\":[";
        for (int c = 0; c < 3; ++c)
        {
            char text[32];
            std::snprintf(text, sizeof text, "%.17g", values[c]);
            expected += (c == 0 ? "" : ",") + (std::isfinite(values[c]) ? std::string(text) : std::string("null"));
        }
        EXPECT_EQ(expected + "]}", response->body);
        if (level == 0)
        {
            EXPECT_NE(std::string::npos, response->body.find(",null,")) << response->body;
        }
    }
}

TEST_F(TileServerTest, RevisitedTilesComeFromTheCacheWhichStaysWithinItsBound)
{
    settings.cacheBytes = 200 * 1024;
    NuvekTest::ViewTestServer view(*source, settings);
    int const id = view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    std::string const tile = "/api/layers/" + std::to_string(id) + "/tiles/0/1_1.png";
    auto const first = client->Get(tile.c_str());
    auto const second = client->Get(tile.c_str());
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->body, second->body);
    EXPECT_EQ(1, view.server().getTilesComputed());
    EXPECT_EQ(1, view.server().getCacheStatistics().hits);
    // Another mapping of the same box is another tile.
    auto const remapped = client->Get((tile + "?min=0&max=100").c_str());
    ASSERT_TRUE(remapped);
    EXPECT_NE(first->body, remapped->body);
    EXPECT_EQ(2, view.server().getTilesComputed());

    // Every tile of every level under many mappings: far more than the bound holds.
    for (int range = 0; range < 6; ++range)
        for (long long level = 0; level < 3; ++level)
            for (long long y = 0; y * 128 < source->getExtent(level).y; ++y)
                for (long long x = 0; x * 128 < source->getExtent(level).x; ++x)
                {
                    std::string const path = "/api/layers/" + std::to_string(id) + "/tiles/" + std::to_string(level) +
                                             "/" + std::to_string(x) + "_" + std::to_string(y) +
                                             ".png?min=" + std::to_string(range);
                    auto const response = client->Get(path.c_str());
                    ASSERT_TRUE(response);
                    ASSERT_EQ(200, response->status);
                    NuvekTool::TileCache::Statistics const statistics = view.server().getCacheStatistics();
                    ASSERT_LE(statistics.bytes, settings.cacheBytes);
                }
    NuvekTool::TileCache::Statistics const statistics = view.server().getCacheStatistics();
    EXPECT_GT(statistics.evictions, 0);
    EXPECT_GT(statistics.bytes, settings.cacheBytes / 2);
    // The most recent tile is still there.
    long long const computed = view.server().getTilesComputed();
    auto const again = client->Get(("/api/layers/" + std::to_string(id) + "/tiles/2/1_0.png?min=5").c_str());
    ASSERT_TRUE(again);
    EXPECT_EQ(computed, view.server().getTilesComputed());
}

// A source whose values the test may change while the server runs: reads and changes take one lock.
class ChangingImage : public NuvekTest::FaultyImage
{
public:
    explicit ChangingImage(std::shared_ptr<Nuvek::MemoryImage> source) : FaultyImage(source), source(source) {}

    void openRegion(double* out, long long level, Box const& box) override
    {
        std::lock_guard<std::mutex> lock(mutex);
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

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    std::mutex mutex;
};

TEST_F(TileServerTest, AChangedHashIsNeverServedStale)
{
    ChangingImage changing(source);
    NuvekTest::ViewTestServer view(changing, settings);
    int const id = view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    std::string const tile = "/api/layers/" + std::to_string(id) + "/tiles/0/0_0.png?min=0&max=255";
    auto const before = client->Get(tile.c_str());
    ASSERT_TRUE(before);
    std::vector<double> values = source->getValues();
    for (double& value : values)
        value = 255.0 - value;
    changing.setValues(values);
    auto const after = client->Get(tile.c_str());
    ASSERT_TRUE(after);
    EXPECT_EQ(2, view.server().getTilesComputed());
    EXPECT_NE(before->body, after->body);
    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression("clamp | gaussian 3");
    std::unique_ptr<Nuvek::Chain> const chain = Nuvek::FilterRegistry::buildChain(expression, &changing);
    EXPECT_EQ(expectedTile(*chain->output, 0, Box(Vector(0, 0, 0), Vector(127, 127, 0)), 0, 255),
              NuvekTest::decodePng(after->body).rgba);
}

TEST_F(TileServerTest, AFailingTileAnswers500WithTheChainsMessageAndTheServerGoesOn)
{
    NuvekTest::FaultyImage faulty(source);
    NuvekTest::ViewTestServer view(faulty, settings);
    int const id = view.server().addLayer("clamp | gaussian 3");
    auto client = view.client();
    faulty.arm(1);
    auto const failed = client->Get(("/api/layers/" + std::to_string(id) + "/tiles/0/0_0.png").c_str());
    ASSERT_TRUE(failed);
    EXPECT_EQ(500, failed->status);
    EXPECT_EQ("the chain failed on this tile: injected fault\n", failed->body);
    auto const retried = client->Get(("/api/layers/" + std::to_string(id) + "/tiles/0/0_0.png").c_str());
    ASSERT_TRUE(retried);
    EXPECT_EQ(200, retried->status);
    EXPECT_EQ(1, view.server().getTilesComputed());
}

// A source whose reads wait at a gate until the test opens it.
class GatedImage : public NuvekTest::FaultyImage
{
public:
    using FaultyImage::FaultyImage;

    void openRegion(double* out, long long level, Box const& box) override
    {
        {
            std::unique_lock<std::mutex> lock(mutex);
            ++reads;
            changed.notify_all();
            changed.wait(lock, [this] { return open; });
        }
        FaultyImage::openRegion(out, level, box);
    }
    void waitForReads(int count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return reads >= count; });
    }
    void openGate()
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
    int readCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return reads;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int reads = 0;
    bool open = false;
};

TEST_F(TileServerTest, ATileWhoseClientHasGoneIsNotComputed)
{
    GatedImage gated(source);
    settings.threads = 1;
    NuvekTest::ViewTestServer view(gated, settings);
    std::thread first([&] {
        auto client = view.client();
        auto const response = client->Get("/api/layers/0/tiles/0/0_0.png");
        EXPECT_TRUE(response && response->status == 200);
    });
    gated.waitForReads(1);
    // A second client asks for a tile while the only worker is busy, and hangs up.
    int const socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(view.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
    std::string const request = "GET /api/layers/0/tiles/0/1_0.png HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    ASSERT_EQ(static_cast<ssize_t>(request.size()), ::send(socket, request.data(), request.size(), 0));
    // Long enough for the server to read the request and queue its tile behind the first.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ::close(socket);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    gated.openGate();
    first.join();
    for (int wait = 0; wait < 500 && view.server().getTilesAbandoned() == 0; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, view.server().getTilesAbandoned());
    EXPECT_EQ(1, view.server().getTilesComputed());
    EXPECT_EQ(1, gated.readCount());
}

} // namespace
