#pragma once

#include <nuvek/core/Image.h>

#include "support/RandomImages.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace NuvekTest {

/// The random choices of one round of expectMatchesReference. A filter's make function draws its
/// parameters through it, so that they are printed with the seed when the round fails.
class Draw
{
public:
    Draw(std::uint64_t seed, Nuvek::Box const& box) : random(seed), box(box) {}

    long long integer(long long low, long long high, char const* name);
    double number(double low, double high, char const* name);
    bool flip(char const* name) { return integer(0, 1, name) == 1; }
    /// An odd kernel size: 1, 3 to 9, or larger than the box's shorter side in x and y.
    long long kernel(char const* name = "k");

    std::mt19937_64 random;
    /// The box the round opens (known before the filter is made).
    Nuvek::Box box;
    /// "name=value " for every draw so far.
    std::string parameters;
};

/// How expectMatchesReference draws its rounds, e.g. HarnessOptions(60, 7).channels({1, 2}).tolerance(1e-9).
struct HarnessOptions
{
    HarnessOptions(int rounds = 60, std::uint64_t seed = 1) : rounds(rounds), seed(seed) {}

    HarnessOptions& channels(std::vector<long long> counts) { return channelCounts = std::move(counts), *this; }
    HarnessOptions& slices(long long most) { return maxSlices = most, *this; }
    HarnessOptions& mix(ValueMix values) { return valueMix = values, *this; }
    HarnessOptions& integers() { return integerValues = true, *this; }
    HarnessOptions& tolerance(double absolute) { return absoluteTolerance = absolute, *this; }
    /// NaN payloads and signs must agree too (filters that pass input values through).
    HarnessOptions& exactNaN() { return nanBits = true, *this; }
    HarnessOptions& shape(std::function<void(std::vector<double>&, std::mt19937_64&)> reshape)
    {
        return reshapeValues = std::move(reshape), *this;
    }

    int rounds;
    std::uint64_t seed;
    std::vector<long long> channelCounts = {1, 2, 3, 4};
    long long maxSlices = 3;
    long long maxLevel = 2;
    /// Extent of level 0 in x and y (the slice count is drawn).
    long long width = 80;
    long long height = 70;
    ValueMix valueMix = {-100.0, 100.0, 0.01};
    /// Rounds the drawn values down to whole numbers.
    bool integerValues = false;
    /// Negative: bits must agree (any NaN meeting any NaN); otherwise the absolute tolerance.
    double absoluteTolerance = -1.0;
    bool nanBits = false;
    /// When set, reshapes the drawn input values (e.g. into a mask) before the image is made.
    std::function<void(std::vector<double>& values, std::mt19937_64& random)> reshapeValues;
};

using MakeFilter = std::function<std::unique_ptr<Nuvek::Image>(Nuvek::Image* input, Draw& draw)>;
using Reference = std::function<std::vector<double>(Nuvek::Image& input, long long level, Nuvek::Box const& box)>;

/// Opens the filter that make builds over a random MemoryImage and compares it with the reference
/// (which reads the same input) over seeded rounds: boxes inside, across and outside the border,
/// levels 0 to maxLevel, the drawn channel and slice counts, the widths where vector and block paths
/// switch (7/8/9, 15/16/17, 31/32/33, 63/64/65). A failure prints the seed, level, channels, slices,
/// box and drawn parameters, then the first differing voxel and both values in hexfloat.
void expectMatchesReference(MakeFilter const& make, Reference const& reference, HarnessOptions const& options = {});

} // namespace NuvekTest
