// Many threads open overlapping and disjoint tiles of one shared filter at several levels; every
// result must equal the serial one. Run under ThreadSanitizer in CI.
#include "reliability/FilterCases.h"

#include <nuvek/Nuvek.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
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

// Serves a MemoryImage's values, but the first openRegion call waits (at most 30 seconds) until a
// second call has arrived; later calls pass straight through.
class MeetingImage : public Nuvek::Image
{
public:
    explicit MeetingImage(std::shared_ptr<Nuvek::MemoryImage> source) : source(std::move(source)) {}

    bool met() const
    {
        std::lock_guard<std::mutex> guard(mutex);
        return arrived >= 2 && !gaveUp;
    }

    Vector getExtent(long long level) const override { return source->getExtent(level); }
    long long getNumChannels() const override { return source->getNumChannels(); }
    long long getNumLevels() const override { return source->getNumLevels(); }
    Nuvek::ValueRange<double> getValueRange() const override { return source->getValueRange(); }
    Vector getVoxelSize(long long level) const override { return source->getVoxelSize(level); }
    void openRegion(double* out, long long level, Box const& box) override
    {
        {
            std::unique_lock<std::mutex> guard(mutex);
            if (++arrived == 2)
                arrival.notify_all();
            else if (arrived == 1 &&
                     !arrival.wait_for(guard, std::chrono::seconds(30), [this]() { return arrived >= 2; }))
                gaveUp = true;
        }
        source->openRegion(out, level, box);
    }
    std::string getChannelName(long long index) override { return source->getChannelName(index); }
    std::uint64_t getHash() override { return source->getHash(); }

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    mutable std::mutex mutex;
    std::condition_variable arrival;
    long long arrived = 0;
    bool gaveUp = false;
};

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
        std::vector<std::vector<std::vector<double>>> results(threads,
                                                              std::vector<std::vector<double>>(requests.size()));
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t]() {
                for (std::size_t i = 0; i < requests.size(); ++i)
                {
                    std::size_t const at =
                        (i + static_cast<std::size_t>(t) * requests.size() / threads) % requests.size();
                    results[static_cast<std::size_t>(t)][at] =
                        NuvekTest::openWhole(*filter, requests[at].level, requests[at].box);
                }
            });
        for (std::thread& thread : pool)
            thread.join();
        for (int t = 0; t < threads; ++t)
            for (std::size_t i = 0; i < requests.size(); ++i)
                ASSERT_TRUE(NuvekTest::sameBits(serial[i], results[static_cast<std::size_t>(t)][i], requests[i].box,
                                                test.name + " level " + std::to_string(requests[i].level) + " thread " +
                                                    std::to_string(t)));
        ++cases;
    }
    EXPECT_GE(cases, 25);
}

TEST(Concurrency, TwoCallsRunInsideEveryShareableFilterAtOnce)
{
    // The source holds the first call that reaches it until a second call has reached it too. A filter
    // that let only one call at a time reach its input would keep the second one out until the
    // first gave up waiting.
    int cases = 0;
    for (NuvekTest::FilterCase const& test : NuvekTest::filterCases())
    {
        if (!test.shareable)
            continue;
        SCOPED_TRACE(test.name);
        std::mt19937_64 random(2000 + static_cast<unsigned>(cases));
        auto values = NuvekTest::randomImage(random, Vector(64, 48, 1), test.channels, {0.0, 255.0, 0.0});
        values->setValueRange(Nuvek::ValueRange<double>(0, 255));
        MeetingImage source(values);
        std::unique_ptr<Nuvek::Image> filter = test.make(&source);
        Box const box(Vector(-2, 3, 0), Vector(40, 30, 0));

        std::vector<double> first;
        std::vector<double> second;
        std::thread other([&]() { second = NuvekTest::openWhole(*filter, 0, box); });
        first = NuvekTest::openWhole(*filter, 0, box);
        other.join();
        EXPECT_TRUE(source.met()) << "the second call did not reach the input while the first was inside";
        EXPECT_TRUE(NuvekTest::sameBits(first, second, box));
        EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(*filter, 0, box), first, box));
        ++cases;
    }
    EXPECT_GE(cases, 29);
}
