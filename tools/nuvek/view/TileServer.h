#pragma once

#include "view/TileCache.h"
#include "view/ViewAssets.h"

#include <nuvek/core/Image.h>

#include <cstddef>
#include <memory>
#include <string>

namespace NuvekTool {

struct TileServerSettings
{
    /// The address to listen on; loopback unless the user asks otherwise.
    std::string host = "127.0.0.1";
    /// 0: any free port.
    int port = 8642;
    /// Threads that compute tiles.
    int threads = 1;
    std::size_t cacheBytes = std::size_t(256) << 20;
    long long tileSize = 256;
    /// Tile and value requests waiting for a worker beyond this many drop the oldest one.
    std::size_t maxPending = 256;
    /// Shown as the page's title: the input's file name.
    std::string title;
};

/// \brief The HTTP server of `nuvek view`: the page and its assets, the layers (chains over the
/// viewed image), their tiles as PNG or JPEG and their values at one voxel.
///
/// Routes (everything else is 404 with a message):
///   GET  /, /viewer.js, /viewer.css, /openseadragon.min.js   the page, from memory
///   GET  /api/info                                           the image and the layers (JSON)
///   GET  /api/filters                                        every filter with its parameters (text)
///   POST /api/layers                                         body: a chain expression; the new layer (JSON)
///   GET  /api/layers/ID/tiles/LEVEL/X_Y.png|jpg[?min=&max=&map=grey|heat|viridis&channel=C&z=Z]
///   GET  /api/layers/ID/values?x=&y=&level=[&z=]             the chain's values at one voxel (JSON)
/// Layer 0 is the image itself. A tile is the box [X*T, (X+1)*T) x [Y*T, (Y+1)*T) of LEVEL, T the
/// tile size, cut at the level's extent, mapped to bytes by DisplayMapping (the layer's automatic
/// range unless min and max are given). Tiles are computed on the server's worker threads and kept
/// in a TileCache keyed by the chain, the level, the box, the chain's getHash, the format and the
/// mapping. Before computing a tile, the worker checks that the client still holds the connection;
/// a tile whose client has gone is not computed. A failing chain answers 500 with its message.
class TileServer
{
public:
    TileServer(Nuvek::Image& source, ViewAssets assets, TileServerSettings settings);
    ~TileServer();
    TileServer(TileServer const&) = delete;
    TileServer& operator=(TileServer const&) = delete;

    /// Adds a layer and returns its id. Throws std::runtime_error with the chain library's message.
    int addLayer(std::string const& expression);

    /// Binds to the configured address and returns the port. Throws std::runtime_error when it cannot.
    int bind();
    /// Serves until stop() is called (from any thread).
    void serve();
    void stop();

    TileCache::Statistics getCacheStatistics() const;
    long long getTilesComputed() const;
    long long getTilesAbandoned() const;

private:
    struct Internals;
    std::unique_ptr<Internals> internals;
};

} // namespace NuvekTool
