#pragma once

#include <nuvek/core/Image.h>

#include <vector>

namespace NuvekTest {

/// Opens box at level in one request.
std::vector<double> openWhole(Nuvek::Image& image, long long level, Nuvek::Box const& box);

/// Opens box at level as tiles cut at the given x and y positions (each a coordinate where a new tile
/// starts), on `threads` threads, and assembles the tiles into one region buffer of box.
std::vector<double> openTiled(Nuvek::Image& image, long long level, Nuvek::Box const& box,
                              std::vector<long long> const& cutsX, std::vector<long long> const& cutsY,
                              int threads = 1);

} // namespace NuvekTest
