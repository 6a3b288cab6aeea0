#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/MemoryImage.h>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace NuvekTest {

/// The fault a FaultyImage throws.
class InjectedFault : public std::runtime_error
{
public:
    InjectedFault() : std::runtime_error("injected fault") {}
};

/// An image that serves a MemoryImage's values but throws InjectedFault from its N-th openRegion call
/// (counting from 1 after arm(N)), then serves again: a source that fails once and recovers.
class FaultyImage : public Nuvek::Filter
{
public:
    explicit FaultyImage(std::shared_ptr<Nuvek::MemoryImage> source) : Filter(source.get(), false), source(source) {}

    /// The n-th call from now throws; 0 disarms.
    void arm(long long n)
    {
        calls = 0;
        failOn = n;
    }
    long long callsSinceArmed() const { return calls.load(); }

    void openRegion(double* out, long long level, Nuvek::Box const& box) override
    {
        if (++calls == failOn)
            throw InjectedFault();
        Filter::openRegion(out, level, box);
    }

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    std::atomic<long long> calls{0};
    std::atomic<long long> failOn{0};
};

} // namespace NuvekTest
