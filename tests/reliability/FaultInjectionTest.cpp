// A source that throws on its N-th openRegion call: every filter must pass the exception on, free
// what it allocated (LeakSanitizer checks in CI), and work again once the source recovers.
#include "reliability/FilterCases.h"

#include <nuvek/Nuvek.h>

#include "support/FaultyImage.h"
#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <random>

using Nuvek::Box;
using Nuvek::Vector;

TEST(FaultInjection, EveryFilterPassesTheFaultOnAndRecovers)
{
    long long faults = 0;
    for (NuvekTest::FilterCase const& test : NuvekTest::filterCases())
    {
        SCOPED_TRACE(test.name);
        std::mt19937_64 random(31337);
        auto values = NuvekTest::randomImage(random, Vector(67, 53, 1), test.channels, {0.0, 255.0, 0.0});
        values->setValueRange(Nuvek::ValueRange<double>(0, 255));
        NuvekTest::FaultyImage source(values);
        std::unique_ptr<Nuvek::Image> filter = test.make(&source);
        for (long long level = 0; level < 2; ++level)
        {
            Box const box(Vector(-3, 5, 0), Vector(40 >> level, 30 >> level, 0));
            source.arm(0);
            std::vector<double> const clean = NuvekTest::openWhole(*filter, level, box);
            long long const calls = source.callsSinceArmed();
            ASSERT_GT(calls, 0);
            for (long long n = 1; n <= calls; ++n)
            {
                source.arm(n);
                EXPECT_THROW(NuvekTest::openWhole(*filter, level, box), NuvekTest::InjectedFault)
                    << "call " << n << " of " << calls << " at level " << level;
                ++faults;
                source.arm(0);
                EXPECT_TRUE(NuvekTest::sameBits(clean, NuvekTest::openWhole(*filter, level, box), box,
                                                "after a fault on call " + std::to_string(n)));
            }
        }
    }
    std::printf("[ faults   ] %lld faults injected\n", faults);
    EXPECT_GT(faults, 60);
}

TEST(FaultInjection, UpsampleReleasesItsLockWhenItsSourceFails)
{
    std::mt19937_64 random(5);
    auto values = NuvekTest::randomImage(random, Vector(64, 64, 1), 1);
    NuvekTest::FaultyImage source(values);
    Nuvek::UpsampleFilter filter(&source, 1, Nuvek::UpsampleFilter::Interpolation::Bilinear, false);
    Box const box(Vector(0, 0, 0), Vector(20, 20, 0));
    source.arm(1);
    EXPECT_THROW(NuvekTest::openWhole(filter, 0, box), NuvekTest::InjectedFault);
    source.arm(0);
    // Another thread must be served; a lock left held would block it for ever.
    auto other = std::async(std::launch::async, [&]() { return NuvekTest::openWhole(filter, 0, box); });
    ASSERT_EQ(other.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "the lock was not released";
    EXPECT_EQ(other.get().size(), static_cast<std::size_t>(box.getSize()));
}
