#include "view/TileServer.h"

#include "view/DisplayMapping.h"
#include "view/TileEncoder.h"
#include "view/TileWorkers.h"
#include "view/ViewLayer.h"

#include <httplib.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <stdexcept>

namespace NuvekTool {

namespace {

// Layers a page may add before the server refuses more.
std::size_t const maxLayers = 100;
// A chain expression longer than this is refused.
std::size_t const maxExpressionLength = 4096;

std::string jsonString(std::string const& text)
{
    std::string out = "\"";
    for (char const character : text)
    {
        unsigned char const code = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\')
            out += std::string("\\") + character;
        else if (code < 0x20)
        {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
            out += escaped;
        }
        else
            out += character;
    }
    return out + "\"";
}

// Non-finite values have no JSON form: null.
std::string jsonNumber(double value)
{
    if (!std::isfinite(value))
        return "null";
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

// Thrown by request parsing: answered with this status and message.
struct RequestError
{
    int status;
    std::string message;
};

long long integerParameter(httplib::Request const& request, std::string const& name, long long fallback, bool required)
{
    if (!request.has_param(name))
    {
        if (required)
            throw RequestError{400, "the parameter '" + name + "' is missing."};
        return fallback;
    }
    std::string const text = request.get_param_value(name);
    try
    {
        std::size_t used = 0;
        long long const value = std::stoll(text, &used);
        if (used == text.size() && text.size() <= 12)
            return value;
    }
    catch (std::exception const&)
    {
    }
    throw RequestError{400, "the parameter '" + name + "' must be a whole number, got '" + text + "'."};
}

double numberParameter(httplib::Request const& request, std::string const& name, double fallback)
{
    if (!request.has_param(name))
        return fallback;
    std::string const text = request.get_param_value(name);
    try
    {
        std::size_t used = 0;
        double const value = std::stod(text, &used);
        if (used == text.size() && std::isfinite(value))
            return value;
    }
    catch (std::exception const&)
    {
    }
    throw RequestError{400, "the parameter '" + name + "' must be a finite number, got '" + text + "'."};
}

// Whether the client of a request has closed its connection. The connection is found among the
// process's sockets by its two ports (the server's thread that serves it holds it open); a peek that
// reads the end of the stream, or fails for a reason other than "nothing yet", means it is gone.
bool clientHasGone(httplib::Request const& request)
{
    auto portOf = [](sockaddr_storage const& address) -> int {
        if (address.ss_family == AF_INET)
            return ntohs(reinterpret_cast<sockaddr_in const&>(address).sin_port);
        if (address.ss_family == AF_INET6)
            return ntohs(reinterpret_cast<sockaddr_in6 const&>(address).sin6_port);
        return -1;
    };
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd", error))
    {
        int descriptor = -1;
        try
        {
            descriptor = std::stoi(entry.path().filename().string());
        }
        catch (std::exception const&)
        {
            continue;
        }
        sockaddr_storage local{};
        socklen_t length = sizeof local;
        if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
            portOf(local) != request.local_port)
            continue;
        sockaddr_storage peer{};
        length = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            portOf(peer) != request.remote_port)
            continue;
        char byte = 0;
        ssize_t const read = recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return read == 0 || (read < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
    }
    return false;
}

// What a worker made of a request.
struct Reply
{
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::shared_ptr<std::string const> body;
};

Reply textReply(int status, std::string const& message)
{
    return Reply{status, "text/plain; charset=utf-8", std::make_shared<std::string const>(message + "\n")};
}

} // namespace

struct TileServer::Internals
{
    Internals(Nuvek::Image& source, ViewAssets assets, TileServerSettings const& settings)
        : source(source), assets(std::move(assets)), settings(settings), cache(settings.cacheBytes),
          workers(settings.threads, settings.maxPending)
    {
    }

    Nuvek::Image& source;
    ViewAssets assets;
    TileServerSettings settings;
    TileCache cache;
    httplib::Server http;
    std::mutex layersMutex;
    std::map<int, std::shared_ptr<ViewLayer>> layers;
    int nextLayer = 0;
    std::atomic<long long> tilesComputed{0};
    std::atomic<long long> tilesAbandoned{0};
    // Declared last: destroyed first, so that no worker outlives what its tasks use.
    TileWorkers workers;

    std::shared_ptr<ViewLayer> layerFor(std::string const& idText)
    {
        int const id = std::stoi(idText);
        std::lock_guard<std::mutex> lock(layersMutex);
        auto const found = layers.find(id);
        if (found == layers.end())
            throw RequestError{404, "there is no layer " + idText + "."};
        return found->second;
    }

    std::string layerJson(int id, ViewLayer const& layer) const
    {
        std::string json = "{\"id\":" + std::to_string(id) + ",\"expression\":" + jsonString(layer.getExpression()) +
                           ",\"channels\":" + std::to_string(layer.getNumChannels()) + ",\"channelNames\":[";
        for (std::size_t c = 0; c < layer.getChannelNames().size(); ++c)
            json += (c == 0 ? "" : ",") + jsonString(layer.getChannelNames()[c]);
        json += "],\"levels\":[";
        for (long long level = 0; level < layer.getNumLevels(); ++level)
        {
            Nuvek::Vector const extent = layer.getExtent(level);
            json += (level == 0 ? "[" : ",[") + std::to_string(extent.x) + "," + std::to_string(extent.y) + "," +
                    std::to_string(extent.z) + "]";
        }
        json += "],\"range\":[" + jsonNumber(layer.getAutoMin()) + "," + jsonNumber(layer.getAutoMax()) +
                "],\"rangeLevel\":" + std::to_string(layer.getRangeLevel()) +
                ",\"shareable\":" + (layer.isShareable() ? "true" : "false") + "}";
        return json;
    }

    std::string infoJson()
    {
        Nuvek::Vector const voxel = source.getVoxelSize(0);
        std::string json = "{\"title\":" + jsonString(settings.title) +
                           ",\"tileSize\":" + std::to_string(settings.tileSize) + ",\"voxelSize\":[" +
                           std::to_string(voxel.x) + "," + std::to_string(voxel.y) + "," + std::to_string(voxel.z) +
                           "],\"layers\":[";
        std::lock_guard<std::mutex> lock(layersMutex);
        bool first = true;
        for (auto const& [id, layer] : layers)
        {
            json += (first ? "" : ",") + layerJson(id, *layer);
            first = false;
        }
        return json + "]}";
    }

    // Runs `make` on a worker unless the client has gone by then; waits for its reply.
    Reply onWorker(httplib::Request const& request, std::function<Reply()> make)
    {
        auto promise = std::make_shared<std::promise<Reply>>();
        std::future<Reply> reply = promise->get_future();
        workers.submit(
            [this, promise, make, &request] {
                if (clientHasGone(request))
                {
                    ++tilesAbandoned;
                    promise->set_value(textReply(503, "the client went away; nothing was computed."));
                    return;
                }
                try
                {
                    promise->set_value(make());
                }
                catch (std::exception const& error)
                {
                    promise->set_value(textReply(500, error.what()));
                }
            },
            [promise] {
                promise->set_value(
                    textReply(503, "dropped: newer requests superseded this one; nothing was computed."));
            });
        return reply.get();
    }

    DisplayMapping mappingFor(httplib::Request const& request, ViewLayer const& layer)
    {
        double const min = numberParameter(request, "min", layer.getAutoMin());
        double const max = numberParameter(request, "max", layer.getAutoMax());
        ColourMap colourMap = ColourMap::Grey;
        if (request.has_param("map"))
        {
            try
            {
                colourMap = DisplayMapping::colourMapNamed(request.get_param_value("map"));
            }
            catch (std::runtime_error const& error)
            {
                throw RequestError{400, error.what()};
            }
        }
        long long const channel = integerParameter(request, "channel", -1, false);
        if (channel < -1 || channel >= layer.getNumChannels())
            throw RequestError{400, "the parameter 'channel' must be -1 (all) or a channel from 0 to " +
                                        std::to_string(layer.getNumChannels() - 1) + ", got " +
                                        std::to_string(channel) + "."};
        return DisplayMapping(min, max, colourMap, channel);
    }

    long long sliceFor(httplib::Request const& request, Nuvek::Vector const& extent)
    {
        long long const z = integerParameter(request, "z", 0, false);
        if (z < 0 || z >= extent.z)
            throw RequestError{404, "slice " + std::to_string(z) + " is outside the image's " +
                                        std::to_string(extent.z) + " slices."};
        return z;
    }

    Reply tile(httplib::Request const& request)
    {
        std::shared_ptr<ViewLayer> const layer = layerFor(request.matches[1]);
        long long const level = std::stoll(request.matches[2]);
        long long const tileX = std::stoll(request.matches[3]);
        long long const tileY = std::stoll(request.matches[4]);
        TileFormat const format = request.matches[5] == "png" ? TileFormat::Png : TileFormat::Jpeg;
        if (level >= layer->getNumLevels())
            throw RequestError{404, "level " + std::to_string(level) + " is beyond the layer's " +
                                        std::to_string(layer->getNumLevels()) + " levels."};
        Nuvek::Vector const extent = layer->getExtent(level);
        long long const size = settings.tileSize;
        long long const tilesX = (extent.x + size - 1) / size;
        long long const tilesY = (extent.y + size - 1) / size;
        if (tileX >= tilesX || tileY >= tilesY)
            throw RequestError{404, "tile " + std::to_string(tileX) + "_" + std::to_string(tileY) +
                                        " is outside level " + std::to_string(level) + " (" + std::to_string(tilesX) +
                                        " x " + std::to_string(tilesY) + " tiles)."};
        long long const z = sliceFor(request, extent);
        DisplayMapping const mapping = mappingFor(request, *layer);
        Nuvek::Box const box(
            Nuvek::Vector(tileX * size, tileY * size, z),
            Nuvek::Vector(std::min(extent.x, (tileX + 1) * size) - 1, std::min(extent.y, (tileY + 1) * size) - 1, z));

        std::string const key =
            layer->getExpression() + "\n" + std::to_string(level) + ":" + std::to_string(box.min.x) + "," +
            std::to_string(box.min.y) + "," + std::to_string(box.min.z) + "-" + std::to_string(box.max.x) + "," +
            std::to_string(box.max.y) + "," + std::to_string(box.max.z) + ":" + std::to_string(layer->getHash()) + ":" +
            TileEncoder::contentType(format) + ":" + mapping.describe();
        if (std::shared_ptr<std::string const> const cached = cache.find(key))
            return Reply{200, TileEncoder::contentType(format), cached};

        Reply reply = onWorker(request, [&] {
            Nuvek::Vector const tileExtent = box.getExtent();
            long long const voxels = box.getSize();
            std::vector<double> values(static_cast<std::size_t>(voxels * layer->getNumChannels()));
            layer->openRegion(values.data(), level, box);
            std::vector<unsigned char> rgba(static_cast<std::size_t>(voxels * 4));
            mapping.apply(values.data(), voxels, layer->getNumChannels(), rgba.data());
            ++tilesComputed;
            return Reply{200, TileEncoder::contentType(format),
                         std::make_shared<std::string const>(
                             TileEncoder::encode(rgba.data(), tileExtent.x, tileExtent.y, format))};
        });
        if (reply.status == 200)
            cache.insert(key, reply.body);
        else if (reply.status == 500)
            reply.body = std::make_shared<std::string const>("the chain failed on this tile: " + *reply.body);
        return reply;
    }

    Reply values(httplib::Request const& request)
    {
        std::shared_ptr<ViewLayer> const layer = layerFor(request.matches[1]);
        long long const level = integerParameter(request, "level", 0, false);
        if (level < 0 || level >= layer->getNumLevels())
            throw RequestError{404, "level " + std::to_string(level) + " is not among the layer's " +
                                        std::to_string(layer->getNumLevels()) + " levels."};
        Nuvek::Vector const extent = layer->getExtent(level);
        long long const x = integerParameter(request, "x", 0, true);
        long long const y = integerParameter(request, "y", 0, true);
        long long const z = sliceFor(request, extent);
        if (x < 0 || y < 0 || x >= extent.x || y >= extent.y)
            throw RequestError{404, "(" + std::to_string(x) + ", " + std::to_string(y) + ") is outside level " +
                                        std::to_string(level) + " (" + std::to_string(extent.x) + " x " +
                                        std::to_string(extent.y) + ")."};
        return onWorker(request, [&] {
            Nuvek::Box const box(Nuvek::Vector(x, y, z), Nuvek::Vector(x, y, z));
            std::vector<double> values(static_cast<std::size_t>(layer->getNumChannels()));
            layer->openRegion(values.data(), level, box);
            std::string json = "{\"level\":" + std::to_string(level) + ",\"x\":" + std::to_string(x) +
                               ",\"y\":" + std::to_string(y) + ",\"z\":" + std::to_string(z) + ",\"values\":[";
            for (std::size_t c = 0; c < values.size(); ++c)
                json += (c == 0 ? "" : ",") + jsonNumber(values[c]);
            return Reply{200, "application/json", std::make_shared<std::string const>(json + "]}")};
        });
    }

    // Answers with a handler's reply, a request error's status and message, or a chain's message.
    void answer(httplib::Response& response, std::function<Reply()> const& handle)
    {
        Reply reply;
        try
        {
            reply = handle();
        }
        catch (RequestError const& error)
        {
            reply = textReply(error.status, error.message);
        }
        catch (std::exception const& error)
        {
            reply = textReply(500, error.what());
        }
        response.status = reply.status;
        response.set_header("Cache-Control", "no-store");
        response.set_content(*reply.body, reply.contentType.c_str());
    }

    void route()
    {
        http.Get(R"(/(|viewer\.js|viewer\.css|openseadragon\.min\.js))",
                 [this](httplib::Request const& request, httplib::Response& response) {
                     ViewAssets::Asset const* asset = assets.find(request.path);
                     if (asset == nullptr)
                     {
                         response.status = 404;
                         return;
                     }
                     response.set_content(asset->bytes, asset->contentType.c_str());
                 });
        http.Get("/api/info", [this](httplib::Request const&, httplib::Response& response) {
            answer(response, [this] {
                return Reply{200, "application/json", std::make_shared<std::string const>(infoJson())};
            });
        });
        http.Get("/api/filters", [](httplib::Request const&, httplib::Response& response) {
            response.set_content(ViewLayer::describeFilters(), "text/plain; charset=utf-8");
        });
        http.Post("/api/layers", [this](httplib::Request const& request, httplib::Response& response) {
            answer(response, [&] {
                if (request.body.size() > maxExpressionLength)
                    throw RequestError{413, "a chain expression may be at most " + std::to_string(maxExpressionLength) +
                                                " characters long."};
                int const id = addLayerFromRequest(request.body);
                std::shared_ptr<ViewLayer> const layer = layerFor(std::to_string(id));
                return Reply{201, "application/json", std::make_shared<std::string const>(layerJson(id, *layer))};
            });
        });
        http.Get(R"(/api/layers/(\d{1,6})/tiles/(\d{1,2})/(\d{1,9})_(\d{1,9})\.(png|jpg))",
                 [this](httplib::Request const& request, httplib::Response& response) {
                     answer(response, [&] { return tile(request); });
                 });
        http.Get(R"(/api/layers/(\d{1,6})/values)",
                 [this](httplib::Request const& request, httplib::Response& response) {
                     answer(response, [&] { return values(request); });
                 });
        // Anything else, and errors the library itself answers (oversized requests), get a message.
        http.set_error_handler(
            httplib::Server::HandlerWithResponse([](httplib::Request const& request, httplib::Response& response) {
                if (!response.body.empty())
                    return httplib::Server::HandlerResponse::Unhandled;
                std::string const message = response.status == 404
                                                ? "not found: " + request.path
                                                : "request refused (HTTP " + std::to_string(response.status) + ")";
                response.set_content(message + "\n", "text/plain; charset=utf-8");
                return httplib::Server::HandlerResponse::Handled;
            }));
        http.set_exception_handler([](httplib::Request const&, httplib::Response& response, std::exception_ptr error) {
            std::string message = "internal error";
            try
            {
                std::rethrow_exception(error);
            }
            catch (std::exception const& caught)
            {
                message = caught.what();
            }
            catch (...)
            {
            }
            response.status = 500;
            response.set_content(message + "\n", "text/plain; charset=utf-8");
        });
    }

    int addLayerFromRequest(std::string const& expression)
    {
        {
            std::lock_guard<std::mutex> lock(layersMutex);
            if (layers.size() >= maxLayers)
                throw RequestError{429, "this viewer already has " + std::to_string(maxLayers) +
                                            " layers; restart it for more."};
        }
        try
        {
            return addLayer(expression);
        }
        catch (std::runtime_error const& error)
        {
            throw RequestError{400, error.what()};
        }
    }

    int addLayer(std::string const& expression)
    {
        auto layer = std::make_shared<ViewLayer>(expression, source);
        std::lock_guard<std::mutex> lock(layersMutex);
        int const id = nextLayer++;
        layers[id] = std::move(layer);
        return id;
    }
};

TileServer::TileServer(Nuvek::Image& source, ViewAssets assets, TileServerSettings settings)
    : internals(std::make_unique<Internals>(source, std::move(assets), settings))
{
    int const connections = std::max(8, 2 * settings.threads + 4);
    internals->http.new_task_queue = [connections] {
        return new httplib::ThreadPool(static_cast<std::size_t>(connections));
    };
    internals->http.set_payload_max_length(64 * 1024);
    internals->http.set_keep_alive_timeout(2);
    internals->http.set_keep_alive_max_count(1000);
    internals->route();
    // Layer 0 is the image itself.
    internals->addLayer("");
}

TileServer::~TileServer()
{
    stop();
}

int TileServer::addLayer(std::string const& expression)
{
    return internals->addLayer(expression);
}

int TileServer::bind()
{
    TileServerSettings const& settings = internals->settings;
    int const port = settings.port == 0
                         ? internals->http.bind_to_any_port(settings.host)
                         : (internals->http.bind_to_port(settings.host, settings.port) ? settings.port : -1);
    if (port < 0)
        throw std::runtime_error("cannot listen on " + settings.host + ":" + std::to_string(settings.port) +
                                 " (in use, or not an address of this machine); choose another with --port or --host.");
    return port;
}

void TileServer::serve()
{
    internals->http.listen_after_bind();
}

void TileServer::stop()
{
    internals->http.stop();
}

TileCache::Statistics TileServer::getCacheStatistics() const
{
    return internals->cache.getStatistics();
}

long long TileServer::getTilesComputed() const
{
    return internals->tilesComputed.load();
}

long long TileServer::getTilesAbandoned() const
{
    return internals->tilesAbandoned.load();
}

} // namespace NuvekTool
