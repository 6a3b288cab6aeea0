#pragma once

#include "view/TileServer.h"

#include <nuvek/core/Image.h>

#include <httplib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace NuvekTest {

/// A TileServer over an image, serving on a free loopback port from a thread of its own, with
/// placeholder page files; and the decoding of its PNG and JPEG tiles.
class ViewTestServer
{
public:
    ViewTestServer(Nuvek::Image& source, NuvekTool::TileServerSettings settings);
    ~ViewTestServer();

    NuvekTool::TileServer& server() { return *tileServer; }
    int port() const { return boundPort; }
    /// Deletes the page files the server was made with (it serves them from memory).
    void removeAssetFiles();
    /// A new client of the server (one per thread).
    std::unique_ptr<httplib::Client> client() const;

private:
    std::filesystem::path assets;
    std::unique_ptr<NuvekTool::TileServer> tileServer;
    int boundPort = 0;
    std::thread serving;
};

struct DecodedTile
{
    long long width = 0;
    long long height = 0;
    /// 4 bytes per voxel, RGBA; JPEG tiles have alpha 255.
    std::vector<unsigned char> rgba;
};

/// Empty when the bytes are not a PNG (or JPEG) image.
DecodedTile decodePng(std::string const& bytes);
DecodedTile decodeJpeg(std::string const& bytes);

} // namespace NuvekTest
