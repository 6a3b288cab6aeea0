#include "ViewTestServer.h"

#include <png.h>
#include <turbojpeg.h>

#include <cstring>
#include <fstream>
#include <random>

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer sees the HTTP library's accesses only through the memcpy and memcmp it calls, not
// the synchronisation of its uninstrumented code (Debian ships it compiled), and reports races
// between its connection threads that are none. Races with a frame inside that library are
// suppressed; its other calls (close, accept) stay visible, so descriptors are still followed.
extern "C" char const* __tsan_default_suppressions()
{
    return "race:libcpp-httplib.so\n";
}
#endif

namespace NuvekTest {

ViewTestServer::ViewTestServer(Nuvek::Image& source, NuvekTool::TileServerSettings settings)
{
    std::random_device device;
    assets = std::filesystem::temp_directory_path() / ("nuvek-view-test-" + std::to_string(device()));
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

ViewTestServer::~ViewTestServer()
{
    tileServer->stop();
    serving.join();
    tileServer.reset();
    std::filesystem::remove_all(assets);
}

void ViewTestServer::removeAssetFiles()
{
    std::filesystem::remove_all(assets);
}

std::unique_ptr<httplib::Client> ViewTestServer::client() const
{
    auto client = std::make_unique<httplib::Client>("127.0.0.1", boundPort);
    client->set_read_timeout(120, 0);
    return client;
}

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

DecodedTile decodeJpeg(std::string const& bytes)
{
    tjhandle const handle = tjInitDecompress();
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    auto const* data = reinterpret_cast<unsigned char const*>(bytes.data());
    DecodedTile tile;
    if (tjDecompressHeader3(handle, data, bytes.size(), &width, &height, &subsampling, &colourspace) == 0)
    {
        tile = DecodedTile{width, height, std::vector<unsigned char>(static_cast<std::size_t>(width) * height * 4)};
        if (tjDecompress2(handle, data, bytes.size(), tile.rgba.data(), width, 0, height, TJPF_RGBA, 0) != 0)
            tile = {};
    }
    tjDestroy(handle);
    return tile;
}

} // namespace NuvekTest
