#include "filters/internal/Absorptance.h"

#include "filters/internal/TargetClones.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Nuvek {

namespace {

// An unevaluated sum hi + lo with |lo| at most half a unit in the last place of hi.
struct DoubleDouble
{
    double hi;
    double lo;
};

// Dekker's exact product, a * b = hi + lo, without fused multiply-add (the library is built with
// contraction off, so every operation here rounds once, as written).
constexpr DoubleDouble exactProduct(double a, double b)
{
    constexpr double splitter = 134217729.0; // 2^27 + 1
    double const ca = splitter * a;
    double const aHi = ca - (ca - a);
    double const aLo = a - aHi;
    double const cb = splitter * b;
    double const bHi = cb - (cb - b);
    double const bLo = b - bHi;
    double const hi = a * b;
    double const lo = ((aHi * bHi - hi) + aHi * bLo + aLo * bHi) + aLo * bLo;
    return {hi, lo};
}

constexpr DoubleDouble multiply(DoubleDouble const& a, DoubleDouble const& b)
{
    DoubleDouble const product = exactProduct(a.hi, b.hi);
    double const error = product.lo + (a.hi * b.lo + a.lo * b.hi);
    double const hi = product.hi + error;
    return {hi, error - (hi - product.hi)};
}

constexpr int tableBits = 10;
constexpr std::int64_t tableSize = 1 << tableBits;

// 2^(j/1024) for j = 0 .. 1023, each the previous times 2^(1/1024), at compile time: 1023
// double-double products leave an error near 2^-94, far below what the result needs.
constexpr std::array<DoubleDouble, tableSize> makePowersOfTwo()
{
    constexpr DoubleDouble step{0x1.002c605e2e8cfp+0, -0x1.d7c96f201bb2fp-55};
    std::array<DoubleDouble, tableSize> table{};
    table[0] = {1.0, 0.0};
    for (std::size_t j = 1; j < table.size(); ++j)
        table[j] = multiply(table[j - 1], step);
    return table;
}

constexpr std::array<DoubleDouble, tableSize> powersOfTwo = makePowersOfTwo();

// The reduction y = k * log10(2) / 1024 + r, |r| <= log10(2) / 2048: the step in two parts, the
// first with 36 significant bits so that k * stepHi is exact for |k| < 2^17.
constexpr double inverseStep = 3401.654369164659; // 1024 / log10(2)
constexpr double stepHi = 0x1.3441350a00000p-12;
constexpr double stepLo = -0x1.0c0219dc1da99p-49;
constexpr double roundingShift = 0x1.8p52;

// 10^r - 1 = ln10 r + (ln10 r)^2 / 2! + ... to the fourth power; the fifth term is below 2^-64.
constexpr double c1 = 0x1.26bb1bbb55516p+1;
constexpr double c2 = 0x1.53524c73cea69p+1;
constexpr double c3 = 0x1.0470591de2ca4p+1;
constexpr double c4 = 0x1.2bd7609fd98c4p+0;

// How far from the precise power, in units in the last place, pow may land (see the header).
constexpr double possibleDistance = 0.53;
// For 1 < hi < 2, whose unit in the last place is 2^-52: a remainder below this leaves both
// neighbours of hi out of pow's reach.
constexpr double uniqueShare = (1.0 - possibleDistance) * 0x1p-52;

// Beyond this density 10^-density < 2^-54, and 1.0 minus it rounds to 1.0.
constexpr double saturatingDensity = 16.5;
// Evaluated in the block passes in place of densities that need no exponential, so that every
// voxel runs the same operations.
constexpr double placeholderDensity = 3.0;

[[gnu::always_inline]] inline std::uint64_t bitsOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

[[gnu::always_inline]] inline double fromBits(std::uint64_t bits)
{
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// All bits set for true: comparisons combine with & and select through masks, without branches.
[[gnu::always_inline]] inline std::uint64_t maskOf(bool condition)
{
    return 0 - static_cast<std::uint64_t>(condition);
}

[[gnu::always_inline]] inline std::uint64_t evaluatedMask(double density)
{
    return maskOf((density > 0.0) & (density <= saturatingDensity));
}

// The steps of the estimate. Each takes and gives plain values, so that the block passes below can
// run one step over many voxels; the steps and their helpers are always inlined, so that the
// passes can be vectorised.

// The reduction of y = -density: r, and k.
[[gnu::always_inline]] inline double reduce(double density, std::int64_t& k)
{
    double const y = -density;
    double const shifted = y * inverseStep + roundingShift;
    double const kd = shifted - roundingShift;
    // shifted = 1.5 * 2^52 + k exactly: its bits differ from those of 1.5 * 2^52 by k.
    k = static_cast<std::int64_t>(bitsOf(shifted) - bitsOf(roundingShift));
    return (y - kd * stepHi) - kd * stepLo;
}

// 10^y = 2^(k >> 10) * 2^(j / 1024) * 10^r, k <= 0, j = k & 1023: the table's entry for j, the
// power 2^(k >> 10), and whether j > 0.
struct Power
{
    double hi;
    double lo;
    double scale;
    std::uint64_t tabled;
};

[[gnu::always_inline]] inline Power lookUp(std::int64_t k)
{
    std::int64_t const j = k & (tableSize - 1);
    DoubleDouble const& entry = powersOfTwo[static_cast<std::size_t>(j)];
    return {entry.hi, entry.lo, fromBits(static_cast<std::uint64_t>(1023 + (k >> tableBits)) << 52), maskOf(j != 0)};
}

// 1.0 minus the nearest double to the precise power into value; all bits set where that is pow's.
[[gnu::always_inline]] inline std::uint64_t settle(double r, double powerHi, double powerLo, double scale,
                                                   std::uint64_t tabled, double& value)
{
    // Paired rather than nested, for a shorter chain of dependent operations.
    double const r2 = r * r;
    double const powerOfTenMinusOne = r * ((c1 + c2 * r) + r2 * (c3 + c4 * r));
    double const lo = powerLo + powerHi * powerOfTenMinusOne;
    double const hi = powerHi + lo;
    double const hiLo = (powerHi - hi) + lo;
    // The nearest double to the precise power, and its neighbour on the side of the remainder. For
    // j > 0, 1 < hi < 2 and the neighbours are evenly spaced; j = 0 is left to pow. The power is
    // then below 1.0 (k < 0) and its neighbour at most 1.0: min(1.0, ...) changes neither.
    double const nearest = hi * scale;
    double const neighbour = fromBits(bitsOf(nearest) + 1 - 2 * (bitsOf(hiLo) >> 63));
    value = 1.0 - nearest;
    return tabled & (maskOf(std::fabs(hiLo) < uniqueShare) | maskOf(1.0 - neighbour == value));
}

[[gnu::noinline]] double absorptanceByPow(double density)
{
    if (!(density > 0.0))
        return 0.0;
    return 1.0 - std::min(1.0, std::pow(10.0, -density));
}

// One block: each pass a short chain of operations per voxel, so the processor keeps many voxels in
// flight; the arithmetic passes run over a fixed count, so the compiler uses vector instructions
// for them. The padding past the count holds the placeholder density and is never copied out.
struct Block
{
    static constexpr std::size_t size = absorptanceBlockSize;
    alignas(32) double density[size];
    alignas(32) double reduced[size];
    alignas(32) std::int64_t exponent[size];
    alignas(32) double powerHi[size];
    alignas(32) double powerLo[size];
    alignas(32) double scale[size];
    alignas(32) std::uint64_t tabled[size];
    alignas(32) double value[size];
    alignas(32) std::uint64_t settled[size];
};

NUVEK_TARGET_CLONES void reduceBlock(Block& block)
{
    for (std::size_t i = 0; i < Block::size; ++i)
    {
        double const density = block.density[i];
        std::uint64_t const evaluated = evaluatedMask(density);
        double const reduced = fromBits((bitsOf(density) & evaluated) | (bitsOf(placeholderDensity) & ~evaluated));
        block.reduced[i] = reduce(reduced, block.exponent[i]);
    }
}

void lookUpBlock(Block& block)
{
    for (std::size_t i = 0; i < Block::size; ++i)
    {
        Power const power = lookUp(block.exponent[i]);
        block.powerHi[i] = power.hi;
        block.powerLo[i] = power.lo;
        block.scale[i] = power.scale;
        block.tabled[i] = power.tabled;
    }
}

NUVEK_TARGET_CLONES void settleBlock(Block& block)
{
    for (std::size_t i = 0; i < Block::size; ++i)
    {
        double value;
        std::uint64_t const settled =
            settle(block.reduced[i], block.powerHi[i], block.powerLo[i], block.scale[i], block.tabled[i], value);
        double const density = block.density[i];
        std::uint64_t const evaluated = evaluatedMask(density);
        // Not evaluated: 1.0 where saturated, else 0.0, whose bits are all clear.
        block.value[i] = fromBits((bitsOf(value) & evaluated) | (bitsOf(1.0) & maskOf(density > saturatingDensity)));
        block.settled[i] = settled | ~evaluated;
    }
}

// 1.0 - min(1.0, 10^-density) by the fast exponential into value; false where pow must decide.
bool settledAbsorptance(double density, double& value)
{
    // One voxel at a time the branches are cheaper than the masks of the block passes.
    if (!(density > 0.0))
    {
        value = 0.0;
        return true;
    }
    if (density > saturatingDensity)
    {
        value = 1.0;
        return true;
    }
    std::int64_t k;
    double const r = reduce(density, k);
    Power const power = lookUp(k);
    return settle(r, power.hi, power.lo, power.scale, power.tabled, value) != 0;
}

// The self-check's sample: a fixed sequence, the same on every platform.
std::vector<double> checkedDensities()
{
    std::vector<double> densities;
    // Spread over (0, 16.5] and over (0, log10(2)], by the golden ratio's fractional parts.
    double const golden = 0.6180339887498949;
    for (int i = 1; i <= 3000; ++i)
    {
        double const fraction = std::fmod(i * golden, 1.0);
        densities.push_back(saturatingDensity * fraction);
        densities.push_back(0.30102999566398120 * fraction);
    }
    // Around the powers of two (m log10(2)) and a spread of the table steps (j log10(2) / 1024).
    double const log10Of2 = 0.30102999566398120;
    std::vector<double> edges;
    for (int m = 0; m <= 54; ++m)
        edges.push_back(m * log10Of2);
    for (int j = 1; j < 56 * 1024; j += 37)
        edges.push_back(j * log10Of2 / 1024.0);
    for (double edge : edges)
    {
        double below = edge;
        double above = edge;
        for (int ulps = 0; ulps < 2; ++ulps)
        {
            densities.push_back(below);
            densities.push_back(above);
            below = std::nextafter(below, 0.0);
            above = std::nextafter(above, 100.0);
        }
    }
    return densities;
}

} // namespace

bool fastExponentialAgreesWith(double (*power)(double base, double exponent))
{
    for (double density : checkedDensities())
    {
        double fast = 0.0;
        if (!settledAbsorptance(density, fast))
            continue;
        double const expected = 1.0 - std::min(1.0, power(10.0, -density));
        if (bitsOf(expected) != bitsOf(fast))
            return false;
    }
    return true;
}

bool fastExponentialIsUsed()
{
    // A function-local static: initialised once, and other threads wait for it.
    static bool const used =
        fastExponentialAgreesWith([](double base, double exponent) { return std::pow(base, exponent); });
    return used;
}

double absorptance(double density)
{
    double value = 0.0;
    if (fastExponentialIsUsed() && settledAbsorptance(density, value))
        return value;
    return absorptanceByPow(density);
}

void absorptanceOfBlock(double const* density, double* out, std::size_t count)
{
    absorptanceOfBlockUsing(fastExponentialIsUsed(), density, out, count);
}

void absorptanceOfBlockUsing(bool fastExponential, double const* density, double* out, std::size_t count)
{
    if (!fastExponential)
    {
        for (std::size_t i = 0; i < count; ++i)
            out[i] = absorptanceByPow(density[i]);
        return;
    }
    Block block;
    std::copy(density, density + count, block.density);
    std::fill(block.density + count, block.density + Block::size, placeholderDensity);
    reduceBlock(block);
    lookUpBlock(block);
    settleBlock(block);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = block.settled[i] != 0 ? block.value[i] : absorptanceByPow(density[i]);
}

} // namespace Nuvek
