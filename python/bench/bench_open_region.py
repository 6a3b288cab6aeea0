"""What open_region costs from Python against the same openRegion calls made from C++.

Opens every 512 x 512 tile of a 2048 x 2048 in-memory image through a few chains, once per pass,
from Python and from C++ in the same process (one buffer reused), and prints the medians over the
passes, the overhead per tile and the ratio to C++. Python opens each tile twice: into a new
float64 array (open_region(level, box)) and into one array reused (open_region(level, box, out=)).

    PYTHONPATH=build/python /usr/bin/python3 python/bench/bench_open_region.py [passes]
"""

import statistics
import sys
import time

import numpy as np

import nuvek
from nuvek import _nuvek

CHAINS = ["clamp", "threshold 100", "clamp | gaussian 5", "clamp | median 5"]
EXTENT = 2048
TILE = 512


def main():
    passes = int(sys.argv[1]) if len(sys.argv) > 1 else 15
    rng = np.random.default_rng(7)
    print(f"{EXTENT} x {EXTENT} image, {TILE} x {TILE} tiles, medians of {passes} passes")
    print(f"{'chain':<22} {'ch':>2} {'C++ ms':>8} {'new ms':>8} {'ovh us':>8} {'ratio':>6} "
          f"{'out= ms':>8} {'ovh us':>8} {'ratio':>6} {'C++ Mvox/s':>10} {'new Mvox/s':>10}")
    for channels in (1, 3):
        source = nuvek.MemoryImage(rng.uniform(0, 255, size=(channels, 1, EXTENT, EXTENT)))
        tiles = [((x, y, 0), (x + TILE - 1, y + TILE - 1, 0)) for y in range(0, EXTENT, TILE) for x in range(0, EXTENT, TILE)]
        for expression in CHAINS:
            chain = nuvek.Chain(expression, source)
            image = chain.output
            for box in tiles[:2]:
                image.open_region(0, box)
            out = np.empty((channels, 1, TILE, TILE))
            native, fresh, reused = [], [], []
            # Interleaved, so that load from other processes hits every variant alike.
            for _ in range(passes):
                native += _nuvek._time_open_region_passes(image, 0, tiles, 1)
                start = time.perf_counter()
                for box in tiles:
                    image.open_region(0, box)
                fresh.append(time.perf_counter() - start)
                start = time.perf_counter()
                for box in tiles:
                    image.open_region(0, box, out=out)
                reused.append(time.perf_counter() - start)
            native_tile, fresh_tile, reused_tile = (statistics.median(t) / len(tiles) for t in (native, fresh, reused))
            voxels = TILE * TILE * channels
            print(f"{expression:<22} {channels:>2} {native_tile * 1e3:>8.3f} {fresh_tile * 1e3:>8.3f} "
                  f"{(fresh_tile - native_tile) * 1e6:>8.1f} {fresh_tile / native_tile:>6.3f} "
                  f"{reused_tile * 1e3:>8.3f} {(reused_tile - native_tile) * 1e6:>8.1f} "
                  f"{reused_tile / native_tile:>6.3f} {voxels / native_tile / 1e6:>10.1f} {voxels / fresh_tile / 1e6:>10.1f}")


if __name__ == "__main__":
    main()
