#include <nuvek/filters/texture/RankFilter.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Keys whose unsigned order is the order of the values: the sign-magnitude bits made monotone, then
// rotated so that the NaNs with the sign bit set, which would come first, come last.
constexpr std::uint64_t signBit = 0x8000000000000000ULL;
constexpr std::uint64_t negativeNaNCount = (1ULL << 52) - 1;

inline std::uint64_t keyOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    std::uint64_t const monotone = (bits & signBit) != 0 ? ~bits : bits | signBit;
    return monotone - negativeNaNCount;
}

inline double valueOf(std::uint64_t key)
{
    std::uint64_t const monotone = key + negativeNaNCount;
    std::uint64_t const bits = (monotone & signBit) != 0 ? monotone & ~signBit : ~monotone;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// The rank of every window of one channel's first slice, selected among the windows' keys.
void selectRanks(double const* plane, long long width, double* out, Vector const& extent, long long k,
                 long long rank)
{
    long long const height = extent.y + k - 1;
    std::vector<std::uint64_t> keys(static_cast<std::size_t>(width * height));
    for (long long i = 0; i < width * height; ++i)
        keys[static_cast<std::size_t>(i)] = keyOf(plane[i]);
    std::vector<std::uint64_t> window(static_cast<std::size_t>(k * k));
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
        {
            auto filled = window.begin();
            for (long long j = 0; j < k; ++j)
            {
                auto const row = keys.begin() + (y + j) * width + x;
                filled = std::copy(row, row + k, filled);
            }
            std::nth_element(window.begin(), window.begin() + rank, window.end());
            out[y * extent.x + x] = valueOf(window[static_cast<std::size_t>(rank)]);
        }
}

} // namespace

RankFilter::RankFilter(Image* input, long long kernelSize, long long rankIndex, bool ownsInput)
    : Filter(input, ownsInput), kernelSize(kernelSize), rankIndex(rankIndex)
{
    if ((kernelSize & 1) == 0)
        throw std::runtime_error("Kernel size must be odd.");
    long long windowSize = 0;
    // A square beyond the integers exceeds every rank index.
    bool const huge = __builtin_mul_overflow(kernelSize, kernelSize, &windowSize);
    if (!huge && windowSize <= rankIndex)
        throw std::runtime_error("Rank index must be within [0, kernel size ^ 2].");
    if (rankIndex < 0)
        throw std::runtime_error("Rank index must not be negative.");
}

void RankFilter::openRegion(double* out, long long level, Box const& box)
{
    if (kernelSize < 0)
        throw std::runtime_error("Kernel size must not be negative.");
    if (box.isEmpty())
        return;
    long long const k = kernelSize;
    long long const half = k / 2;
    Box const inputBox(box.min - Vector(half, half, 0), box.max + Vector(half, half, 0));
    Box const clipped = inputBox.intersected(Box(input->getExtent(level)));
    if (clipped.isEmpty())
        return;

    long long const numChannels = input->getNumChannels();
    long long const size = box.getSize();
    long long const inputSize = inputBox.getSize();
    // Not clipped: what lies beyond the border is the input's decision.
    std::vector<double> work(static_cast<std::size_t>(inputSize * numChannels), 0.0);
    input->openRegion(work.data(), level, inputBox);
    if (inputSize != clipped.getSize())
        std::fill(out, out + numChannels * size, 0.0);

    // Only the first slice is computed; the others keep what out held.
    for (long long c = 0; c < numChannels; ++c)
        selectRanks(work.data() + c * inputSize, inputBox.getExtent().x, out + c * size, box.getExtent(), k, rankIndex);
}

} // namespace Nuvek
