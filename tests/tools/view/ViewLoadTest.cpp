// Many clients at once against one tile server: every request answered, the memory within the
// cache's bound plus a fixed margin, and the throughput and latencies printed.
#include "ViewTestServer.h"

#include <nuvek/Nuvek.h>

#include "support/RandomImages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>

using Nuvek::Vector;

namespace {

// Resident memory of this process in bytes.
long long residentBytes()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoll(line.substr(6)) * 1024;
    return 0;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers keep freed memory in quarantine and shadow every byte.
long long const memoryMargin = 1024LL << 20;
#else
long long const memoryMargin = 128LL << 20;
#endif

TEST(ViewLoadTest, ManyConcurrentTileRequestsAllSucceedWithinTheCacheBound)
{
    std::mt19937_64 random(7);
    auto source = NuvekTest::randomImage(random, Vector(1536, 1536, 1), 1, {0.0, 1.0, 0.0});
    NuvekTool::TileServerSettings settings;
    settings.threads = 2;
    settings.cacheBytes = 8 << 20;
    NuvekTest::ViewTestServer view(*source, settings);
    int const id = view.server().addLayer("clamp | gaussian 5");

    int const clients = 6;
    int const requestsPerClient = 80;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(240);
    long long const memoryBefore = residentBytes();
    std::atomic<long long> memoryPeak{memoryBefore};
    std::atomic<int> failures{0};
    std::vector<std::vector<double>> latencies(clients);
    auto const start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int client = 0; client < clients; ++client)
        threads.emplace_back([&, client] {
            std::mt19937_64 choose(100 + client);
            auto http = view.client();
            for (int i = 0; i < requestsPerClient && std::chrono::steady_clock::now() < deadline; ++i)
            {
                long long const level = static_cast<long long>(choose() % 3);
                long long const tiles = (1536 >> level) / 256;
                // A few mappings, so that some requests repeat a tile and others do not.
                std::string const path = "/api/layers/" + std::to_string(id) + "/tiles/" + std::to_string(level) + "/" +
                                         std::to_string(choose() % tiles) + "_" + std::to_string(choose() % tiles) +
                                         ".png?max=" + std::to_string(1 + choose() % 4);
                auto const begin = std::chrono::steady_clock::now();
                auto const response = http->Get(path.c_str());
                latencies[static_cast<std::size_t>(client)].push_back(
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
                if (!response || response->status != 200)
                    ++failures;
                long long const now = residentBytes();
                long long peak = memoryPeak.load();
                while (now > peak && !memoryPeak.compare_exchange_weak(peak, now))
                {
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::vector<double> all;
    for (auto const& each : latencies)
        all.insert(all.end(), each.begin(), each.end());
    std::sort(all.begin(), all.end());
    ASSERT_FALSE(all.empty());
    auto percentile = [&](double fraction) { return all[static_cast<std::size_t>(fraction * double(all.size() - 1))]; };
    NuvekTool::TileCache::Statistics const statistics = view.server().getCacheStatistics();
    std::printf(
        "[ load     ] %zu requests from %d clients in %.2f s: %.1f requests/s; latency p50 %.1f ms, p90 %.1f ms, "
        "p99 %.1f ms, max %.1f ms; %lld tiles computed, %lld cache hits; memory grew %.1f MiB (cache bound %.1f MiB)\n",
        all.size(), clients, seconds, double(all.size()) / seconds, percentile(0.5), percentile(0.9), percentile(0.99),
        all.back(), view.server().getTilesComputed(), statistics.hits,
        double(memoryPeak.load() - memoryBefore) / double(1 << 20), double(settings.cacheBytes) / double(1 << 20));

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(static_cast<std::size_t>(clients * requestsPerClient), all.size()) << "the deadline cut the run short";
    EXPECT_LE(statistics.bytes, settings.cacheBytes);
    EXPECT_LT(memoryPeak.load() - memoryBefore, static_cast<long long>(settings.cacheBytes) + memoryMargin);
}

} // namespace
