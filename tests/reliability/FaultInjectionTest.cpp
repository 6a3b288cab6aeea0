// A source that throws on its N-th openRegion call: every filter must pass the exception on, free
// what it allocated (LeakSanitizer checks in CI), and work again once the source recovers.
#include "reliability/FilterCases.h"

#include "support/FaultyImage.h"
#include "support/NuvekTest.h"

using namespace NuvekTest;

TEST(FaultInjection, EveryFilterPassesTheFaultOnAndRecovers)
{
    long long faults = 0;
    for (FilterCase const& test : filterCases())
    {
        FaultyImage source(test.source(Vector(67, 53, 1), 31337));
        std::unique_ptr<Image> filter = test.make(&source);
        for (long long level = 0; level < 2; ++level)
        {
            Box const box(Vector(-3, 5, 0), Vector(40 >> level, 30 >> level, 0));
            source.arm(0);
            std::vector<double> const clean = openWhole(*filter, level, box);
            long long const calls = source.callsSinceArmed();
            ASSERT_GT(calls, 0) << test.name;
            for (long long n = 1; n <= calls; ++n, ++faults)
            {
                std::string const context = test.name + ", call " + std::to_string(n) + " of " + std::to_string(calls) +
                                            " at level " + std::to_string(level);
                source.arm(n);
                EXPECT_THROW(openWhole(*filter, level, box), InjectedFault) << context;
                source.arm(0);
                EXPECT_TRUE(sameBits(clean, openWhole(*filter, level, box), box, "after a fault on " + context));
            }
        }
    }
    EXPECT_GT(faults, 60);
}
