#pragma once

#include <nuvek/core/Vector.h>

namespace Nuvek {

// The means of 2^levels x 2^levels blocks of a channel-planar buffer of `extent`, into a buffer of
// (extent.x / 2^levels, extent.y / 2^levels, extent.z): the coarser levels of MemoryImage and the
// levels the downsample filter computes, which must agree to the bit. Source rows and columns that
// do not fill a whole block are not used, and z slices are never mixed. Every mean is a double sum
// that starts at 0.0 and adds the block's values row by row of the block, columns inner, then one
// division by the block's voxel count. src and dst may be the same buffer (every destination value
// lies at or before the source values still to be read); otherwise they must not overlap. levels
// lies in 0 .. 62.

/// The block means, by the quicker of the two walks below for the block size.
void averageBlocks(double const* src, double* dst, Vector const& extent, long long numChannels, long long levels);

/// The block members as displacements from the block's first voxel, visited for every destination
/// voxel in turn.
void averageBlocksByDisplacements(double const* src, double* dst, Vector const& extent, long long numChannels,
                                  long long levels);

/// One destination row at a time, several columns side by side.
void averageBlocksByRows(double const* src, double* dst, Vector const& extent, long long numChannels, long long levels);

} // namespace Nuvek
