// Many threads open overlapping and disjoint tiles of one shared filter at several levels; every
// result must equal the serial one. Run under ThreadSanitizer in CI.
#include "reliability/FilterCases.h"

#include <nuvek/Nuvek.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <random>
#include <thread>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

struct Request
{
    long long level;
    Box box;
};

// Tiles of a regular grid (disjoint) and random boxes (overlapping, some across the border) at levels 0 to 2.
std::vector<Request> requestsFor(Nuvek::Image& image, std::mt19937_64& random)
{
    std::vector<Request> requests;
    for (long long level = 0; level < 3; ++level)
    {
        Vector const extent = image.getExtent(level);
        for (long long y = 0; y < extent.y; y += 37)
            for (long long x = 0; x < extent.x; x += 45)
                requests.push_back({level, Box(Vector(x, y, 0), Vector(x + 44, y + 36, 0))});
        for (int i = 0; i < 6; ++i)
            requests.push_back({level, NuvekTest::randomOverlappingBox(random, extent, 50, 1)});
    }
    std::shuffle(requests.begin(), requests.end(), random);
    return requests;
}

} // namespace

TEST(Concurrency, EveryShareableFilterGivesTheSerialResultOnManyThreads)
{
    int cases = 0;
    for (NuvekTest::FilterCase const& test : NuvekTest::filterCases())
    {
        if (!test.shareable)
            continue;
        SCOPED_TRACE(test.name);
        std::mt19937_64 random(1000 + static_cast<unsigned>(cases));
        auto source = NuvekTest::randomImage(random, Vector(181, 149, 1), test.channels, {0.0, 255.0, 0.01});
        source->setValueRange(Nuvek::ValueRange<double>(0, 255));
        std::unique_ptr<Nuvek::Image> filter = test.make(source.get());
        std::vector<Request> const requests = requestsFor(*filter, random);

        std::vector<std::vector<double>> serial;
        for (Request const& request : requests)
            serial.push_back(NuvekTest::openWhole(*filter, request.level, request.box));

        // Every thread walks all requests from its own starting point, so that equal and
        // overlapping requests run at the same time.
        int const threads = 6;
        std::vector<std::vector<std::vector<double>>> results(threads, std::vector<std::vector<double>>(requests.size()));
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t]() {
                for (std::size_t i = 0; i < requests.size(); ++i)
                {
                    std::size_t const at = (i + static_cast<std::size_t>(t) * requests.size() / threads) % requests.size();
                    results[static_cast<std::size_t>(t)][at] =
                        NuvekTest::openWhole(*filter, requests[at].level, requests[at].box);
                }
            });
        for (std::thread& thread : pool)
            thread.join();
        for (int t = 0; t < threads; ++t)
            for (std::size_t i = 0; i < requests.size(); ++i)
                ASSERT_TRUE(NuvekTest::sameBits(serial[i], results[static_cast<std::size_t>(t)][i], requests[i].box,
                                                test.name + " level " + std::to_string(requests[i].level) +
                                                    " thread " + std::to_string(t)));
        ++cases;
    }
    EXPECT_GE(cases, 25);
}

TEST(Concurrency, LocalNormalizationServesOneThreadAtATime)
{
    // Documented as not shareable: its work buffer is a member. Used by several threads in turn
    // (never at once), or one filter per thread, it gives the serial result.
    std::mt19937_64 random(77);
    auto source = NuvekTest::randomImage(random, Vector(181, 149, 1), 2, {0.0, 255.0, 0.0});
    source->setValueRange(Nuvek::ValueRange<double>(0, 255));
    Nuvek::LocalNormalizationFilter shared(source.get(), 2, false);
    std::vector<Request> const requests = requestsFor(shared, random);
    std::vector<std::vector<double>> serial;
    for (Request const& request : requests)
        serial.push_back(NuvekTest::openWhole(shared, request.level, request.box));

    std::mutex turn;
    std::atomic<std::size_t> next{0};
    std::vector<std::vector<double>> inTurn(requests.size());
    std::vector<std::thread> pool;
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([&]() {
            Nuvek::LocalNormalizationFilter own(source.get(), 2, false);
            for (std::size_t i = next++; i < requests.size(); i = next++)
            {
                std::vector<double> const mine = NuvekTest::openWhole(own, requests[i].level, requests[i].box);
                std::lock_guard<std::mutex> guard(turn);
                inTurn[i] = NuvekTest::openWhole(shared, requests[i].level, requests[i].box);
                EXPECT_TRUE(NuvekTest::sameBits(inTurn[i], mine, requests[i].box));
            }
        });
    for (std::thread& thread : pool)
        thread.join();
    for (std::size_t i = 0; i < requests.size(); ++i)
        EXPECT_TRUE(NuvekTest::sameBits(serial[i], inTurn[i], requests[i].box));
}
