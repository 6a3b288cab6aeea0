#pragma once

#include <nuvek/core/Image.h>
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
class FaultyImage : public Nuvek::Image
{
public:
    explicit FaultyImage(std::shared_ptr<Nuvek::MemoryImage> source) : source(std::move(source)) {}

    /// The n-th call from now throws; 0 disarms.
    void arm(long long n)
    {
        calls = 0;
        failOn = n;
    }
    long long callsSinceArmed() const { return calls.load(); }

    Nuvek::Vector getExtent(long long level) const override { return source->getExtent(level); }
    long long getNumChannels() const override { return source->getNumChannels(); }
    long long getNumLevels() const override { return source->getNumLevels(); }
    Nuvek::ValueRange<double> getValueRange() const override { return source->getValueRange(); }
    Nuvek::Vector getVoxelSize(long long level) const override { return source->getVoxelSize(level); }
    void openRegion(double* out, long long level, Nuvek::Box const& box) override
    {
        if (++calls == failOn)
            throw InjectedFault();
        source->openRegion(out, level, box);
    }
    std::string getChannelName(long long index) override { return source->getChannelName(index); }
    std::uint64_t getHash() override { return source->getHash(); }

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    std::atomic<long long> calls{0};
    std::atomic<long long> failOn{0};
};

} // namespace NuvekTest
