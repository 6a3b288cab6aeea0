#pragma once

#include <nuvek/core/Vector.h>

namespace Nuvek {

// The two ways a RankFilter computes its output from the padded region it read: the plain pass,
// selection among the keys of every window, and the fast ones (sorting networks, a sliding ranked
// set), which give the same bits. `work` holds numChannels channels of inputExtent, the box grown by
// k / 2 in x and y; for every channel the first slice of `out`, a region buffer of `extent`, receives
// the value of rank `rank` of every k x k window. k is odd and positive, 0 <= rank < k * k.

/// The plain pass; any region.
void ranksOfRegionPlain(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                        long long rank, double* out, Vector const& extent);

/// The fast passes; false, with out untouched, when they cannot serve the region (a sorting network
/// for a row of fewer than four windows, a plane too large for 32-bit positions).
bool ranksOfRegionFast(double const* work, Vector const& inputExtent, long long numChannels, long long k,
                       long long rank, double* out, Vector const& extent);

} // namespace Nuvek
