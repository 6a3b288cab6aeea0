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
double absorptance(double density);

/// The number of densities absorptanceOfBlock takes at most.
constexpr std::size_t absorptanceBlockSize = 256;

/// out[i] = absorptance(density[i]) for i < count <= absorptanceBlockSize, computed in passes over
/// the whole block so that independent voxels overlap and, where the processor allows, share vector
/// instructions. out may not overlap density.
void absorptanceOfBlock(double const* density, double* out, std::size_t count);

} // namespace Nuvek
