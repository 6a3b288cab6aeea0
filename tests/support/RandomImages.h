#pragma once

#include <nuvek/core/MemoryImage.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace NuvekTest {

/// Which values a random image may hold.
struct ValueMix
{
    double low = -100.0;
    double high = 100.0;
    /// Share of NaN, +infinity and -infinity values, each.
    double specialShare = 0.0;
};

/// count values uniform in [mix.low, mix.high), with NaN and infinities mixed in as mix asks.
std::vector<double> randomValues(std::mt19937_64& random, long long count, ValueMix const& mix = ValueMix());

/// A MemoryImage of random values.
std::shared_ptr<Nuvek::MemoryImage> randomImage(std::mt19937_64& random, Nuvek::Vector const& extent,
                                                long long numChannels, ValueMix const& mix = ValueMix());

} // namespace NuvekTest
