#include "view/ViewCommand.h"

#include "view/TileServer.h"
#include "view/ViewAssets.h"

#include <nuvek/io/ImageOpener.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <thread>

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

namespace NuvekTool {

namespace {

// Set by SIGINT and SIGTERM; a watcher thread stops the server (stopping is not signal-safe).
std::atomic<bool> stopRequested{false};

extern "C" void onStopSignal(int)
{
    stopRequested.store(true);
}

char const* const viewHelp = R"(Usage: nuvek view INPUT [--chain EXPR]... [options]

Serves a page that shows INPUT in a deep-zoom viewer, with each chain as a layer over it, and
prints its address. Tiles are computed only where and when the page looks, at the level that
matches the zoom, on the worker threads, and kept in a cache. The page has a box to type new chains.

Options:
  --chain EXPR      a layer (repeatable); 'nuvek run --help' describes chain expressions
  --port N          port to listen on (default 8642; 0 picks a free one)
  --host ADDR       address to listen on (default 127.0.0.1, this machine only)
  --threads N       threads that compute tiles (default: all cores)
  --cache-mb N      bound of the tile cache in MiB (default 256)
  --input-cache-mb N  bound of the input's decoded tiles kept for the workers, in MiB (default
                    96; 0 keeps none)

Display: each layer's values map linearly to 0..255 over its range (automatic from a coarse level,
editable in the page); one channel shows grey or a colour map, several channels the first three as
RGB; NaN is transparent. Ctrl-C stops the server. Exit status 2 for bad usage, an unreadable input,
an invalid chain, a port that cannot be used or a missing viewer installation.
)";

long long wholeNumber(std::string const& name, std::string const& text, long long minimum, long long maximum)
{
    try
    {
        std::size_t used = 0;
        long long const value = std::stoll(text, &used);
        if (used == text.size() && value >= minimum && value <= maximum)
            return value;
    }
    catch (std::exception const&)
    {
    }
    throw std::runtime_error("--" + name + " must be a whole number from " + std::to_string(minimum) + " to " +
                             std::to_string(maximum) + ", got '" + text + "'.");
}

} // namespace

int viewCommand(std::vector<std::string> const& arguments)
{
    if (std::find(arguments.begin(), arguments.end(), "--help") != arguments.end() ||
        std::find(arguments.begin(), arguments.end(), "-h") != arguments.end())
    {
        std::fputs(viewHelp, stdout);
        return 0;
    }
    std::vector<std::string> inputs;
    std::vector<std::string> chains;
    TileServerSettings settings;
    std::size_t inputCacheBytes = Nuvek::defaultTileCacheBytes;
    settings.threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    for (std::size_t i = 0; i < arguments.size(); ++i)
    {
        std::string name = arguments[i];
        if (name.size() < 2 || name.compare(0, 2, "--") != 0)
        {
            inputs.push_back(name);
            continue;
        }
        name = name.substr(2);
        std::string value;
        if (name.find('=') != std::string::npos)
        {
            value = name.substr(name.find('=') + 1);
            name = name.substr(0, name.find('='));
        }
        else
        {
            if (i + 1 >= arguments.size())
                throw std::runtime_error("--" + name + " needs a value.");
            value = arguments[++i];
        }
        if (name == "chain")
            chains.push_back(value);
        else if (name == "port")
            settings.port = static_cast<int>(wholeNumber(name, value, 0, 65535));
        else if (name == "host")
            settings.host = value;
        else if (name == "threads")
            settings.threads = static_cast<int>(wholeNumber(name, value, 1, 1024));
        else if (name == "cache-mb")
            settings.cacheBytes = static_cast<std::size_t>(wholeNumber(name, value, 1, 1 << 20)) << 20;
        else if (name == "input-cache-mb")
            inputCacheBytes = static_cast<std::size_t>(wholeNumber(name, value, 0, 1 << 20)) << 20;
        else
            throw std::runtime_error("unknown option --" + name + ".");
    }
    if (inputs.size() != 1)
        throw std::runtime_error("expected one INPUT; 'nuvek view --help' shows the usage.");

    ViewAssets assets = ViewAssets::locate();
    std::unique_ptr<Nuvek::Image> source = Nuvek::openImage(inputs[0], 0, inputCacheBytes);
    settings.title = std::filesystem::path(inputs[0]).filename().string();
    TileServer server(*source, std::move(assets), settings);
    for (std::string const& chain : chains)
    {
        try
        {
            server.addLayer(chain);
        }
        catch (std::runtime_error const& error)
        {
            throw std::runtime_error("--chain '" + chain + "': " + error.what());
        }
    }
    int const port = server.bind();

    stopRequested.store(false);
    auto const previousInterrupt = std::signal(SIGINT, onStopSignal);
    auto const previousTerminate = std::signal(SIGTERM, onStopSignal);
    std::atomic<bool> served{false};
    std::thread watcher([&] {
        while (!served.load())
        {
            // Repeated: a stop before the server listens would be lost.
            if (stopRequested.load())
                server.stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    std::string const shownHost =
        settings.host.find(':') != std::string::npos ? "[" + settings.host + "]" : settings.host;
    std::printf("nuvek view: %s with %zu chain layer%s at http://%s:%d/  (%d threads, cache %zu MiB; Ctrl-C stops)\n",
                settings.title.c_str(), chains.size(), chains.size() == 1 ? "" : "s", shownHost.c_str(), port,
                settings.threads, settings.cacheBytes >> 20);
    std::fflush(stdout);
    server.serve();
    served.store(true);
    watcher.join();
    std::signal(SIGINT, previousInterrupt);
    std::signal(SIGTERM, previousTerminate);
    TileCache::Statistics const statistics = server.getCacheStatistics();
    std::printf("nuvek view: stopped after %lld tiles computed (%lld cache hits, %lld tiles not computed because "
                "their client had gone).\n",
                server.getTilesComputed(), statistics.hits, server.getTilesAbandoned());
    return 0;
}

} // namespace NuvekTool
