#pragma once

#include <nuvek/core/Box.h>
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

/// A random non-empty box whose x and y sizes are at most maxSize and z size at most maxDepth, with
/// min anywhere from -maxSize to extent; so it may lie inside the image, straddle its border or lie
/// wholly outside it.
Nuvek::Box randomBox(std::mt19937_64& random, Nuvek::Vector const& extent, long long maxSize, long long maxDepth);

/// A random box with at least one voxel inside the extent on every axis.
Nuvek::Box randomOverlappingBox(std::mt19937_64& random, Nuvek::Vector const& extent, long long maxSize,
                                long long maxDepth);

} // namespace NuvekTest
