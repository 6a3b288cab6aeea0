#pragma once

#include <nuvek/chains/ChainExpression.h>
#include <nuvek/core/Image.h>

#include <vector>

namespace NuvekTool {

/// \brief The range of each channel of a chain's output for `--range auto`: from the 0.1st to the
/// 99.9th percentile of the finite values, read at a coarse level of the source.
///
/// The chain runs over the box scaled to the finest level of the source, from `level` on, at which
/// the box holds at most 2^22 voxels (or the coarsest level), so that neighbourhood filters see
/// coarser voxels than in the run itself: the range is an estimate. A channel without finite values
/// gets (0, 1); one whose percentiles coincide gets its minimum and maximum, and when those coincide
/// too, (v, v + 1).
std::vector<Nuvek::ValueRange<double>> estimateChannelRanges(Nuvek::ChainExpression const& expression,
                                                             Nuvek::Image& source, long long level,
                                                             Nuvek::Box const& box);

} // namespace NuvekTool
