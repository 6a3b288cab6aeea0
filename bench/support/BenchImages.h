#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>
#include <nuvek/core/MemoryImage.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace NuvekBench {

/// A MemoryImage of uniform noise in [0, 255), filled once from a fixed seed.
std::shared_ptr<Nuvek::MemoryImage> noiseImage(Nuvek::Vector const& extent, long long numChannels,
                                               unsigned seed = 12345);

/// The tiles of `whole` with the given tile size, row by row.
std::vector<Nuvek::Box> tilesOf(Nuvek::Box const& whole, long long tileSize);

/// Opens every tile of `tiles` at level into `out`, a region buffer of `whole`, the way an
/// application reads an image tile by tile. `scratch` holds one tile.
void openTiles(Nuvek::Image& image, long long level, Nuvek::Box const& whole, std::vector<Nuvek::Box> const& tiles,
               std::vector<double>& scratch, double* out);

/// Opens box at level of image once per iteration of state, into one buffer for all channels, and
/// counts the box's voxels (not values) as items.
void openRepeatedly(benchmark::State& state, Nuvek::Image& image, Nuvek::Box const& box, long long level = 0);

} // namespace NuvekBench
