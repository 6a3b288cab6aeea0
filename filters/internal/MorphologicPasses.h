#pragma once

#include <nuvek/core/Vector.h>

namespace Nuvek {

// The two ways a MorphologicFilter computes its output from the padded region it read: the plain
// passes, a slot-order scan of every window along x and then down the columns, and the fast ones,
// which give the same bits. `work` holds numChannels planes of inputExtent (channel after channel,
// slice after slice); `out` receives (inputExtent.x - k + 1) x (inputExtent.y - k + 1) values for
// every plane, in the same order. maximum selects dilation, otherwise erosion; k is odd and positive.

/// The plain passes; any region.
void extremaOfRegionPlain(bool maximum, double const* work, Vector const& inputExtent, long long numChannels,
                          long long k, double* out);

/// The fast passes; false, with out untouched, for rows of fewer than four outputs.
bool extremaOfRegionFast(bool maximum, double const* work, Vector const& inputExtent, long long numChannels,
                         long long k, double* out);

} // namespace Nuvek
