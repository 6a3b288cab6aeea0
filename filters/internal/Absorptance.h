#pragma once

// Internal to the library: not installed.

#include <cstddef>

namespace Nuvek {

/// The share of light absorbed at optical density `density`: 1.0 - min(1.0, std::pow(10.0, -density)),
/// bit for bit, for every density (0.0 when the density is not positive or NaN).
///
/// The exponential is the expensive part of colour unmixing, so it is evaluated in about 2^-62
/// relative precision from a table of 2^(j/1024) and a short polynomial. The C library's pow lands
/// within 0.53 units in the last place of the precise power (glibc bounds its error by 0.509 units,
/// 0.511 without fused multiply-add, for the exponential, plus about 1.5 * 2^-15 units per unit of
/// |y ln 10| for the logarithm: under 0.514 for every density here). So wherever only one double
/// lies within 0.53 units of the precise power, that double is pow's result. Where its neighbour
/// does too and their complements differ (a few densities in a hundred below log10(2), fewer
/// above), pow itself decides. Densities above 16.5 give 1.0: 10^-16.5 is below 2^-54, so 1.0 minus
/// any such power rounds to 1.0.
///
/// That bound is the C library's, not the language's. So the fast exponential is used only once a
/// self-check, run at the first call (once per process, safe from several threads), has found it
/// agreeing with std::pow on a fixed sample of densities; otherwise every density goes to pow.
double absorptance(double density);

/// The number of densities absorptanceOfBlock takes at most.
constexpr std::size_t absorptanceBlockSize = 256;

/// out[i] = absorptance(density[i]) for i < count <= absorptanceBlockSize, computed in passes over
/// the whole block so that independent voxels overlap and, where the processor allows, share vector
/// instructions. out may not overlap density.
void absorptanceOfBlock(double const* density, double* out, std::size_t count);

/// absorptanceOfBlock with the fast exponential on or off, whatever the self-check found.
void absorptanceOfBlockUsing(bool fastExponential, double const* density, double* out, std::size_t count);

/// The self-check: whether 1.0 - min(1.0, power(10.0, -d)) has the bits of the fast exponential's
/// result at every density d of the sample where the fast exponential decides without pow. About
/// 12000 densities: spread over (0, 16.5], dense where half or more of the light passes, and a few
/// units in the last place around every power of two and every table step of 10^-d.
bool fastExponentialAgreesWith(double (*power)(double base, double exponent));

/// Whether this process uses the fast exponential: the self-check against std::pow, run once.
bool fastExponentialIsUsed();

} // namespace Nuvek
