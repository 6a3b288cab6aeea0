"""Speed-up of a 4-worker dask.distributed LocalCluster over one process for a chain over a TIFF.

Writes a synthetic 4096 x 4096 RGB TIFF pyramid, then computes a chain over it at level 0 with
512 x 512 chunks: in one process on one thread (dask's synchronous scheduler), in one process on 4
threads (open_region releases the interpreter lock), and on a LocalCluster of 4 worker processes
with one thread each. Each run reduces the chunks on the workers (mean per channel), so
that what is timed is the chain, not moving the array to the client. Cluster start-up is not timed.
Prints the median of the runs and the ratio.

    PYTHONPATH=build/python /usr/bin/python3 python/bench/bench_dask.py [runs]
"""

import statistics
import sys
import tempfile
import time
from pathlib import Path

import numpy as np
import tifffile
from dask.distributed import Client, LocalCluster

import nuvek
import nuvek.dask

EXPRESSION = "clamp | gaussian 9 | sobel magnitude 3"
EXTENT = 4096


def make_slide(directory):
    rng = np.random.default_rng(3)
    y, x = np.mgrid[0:EXTENT, 0:EXTENT]
    base = 128 + 60 * np.sin(x / 37.0) * np.cos(y / 23.0)
    rgb = np.stack([base + rng.normal(0, 12, base.shape) + 20 * c for c in range(3)], axis=-1)
    plain = Path(directory) / "plain.tif"
    tifffile.imwrite(plain, np.clip(rgb, 0, 255).astype(np.uint8), photometric="rgb", tile=(256, 256))
    pyramid = Path(directory) / "slide.tif"
    nuvek.write_pyramidal_tiff(nuvek.TiffImage(str(plain)), str(pyramid), tile_size=256)
    return str(pyramid)


def timed(compute, runs):
    seconds = []
    result = None
    for run in range(runs):
        start = time.perf_counter()
        result = compute(run)
        seconds.append(time.perf_counter() - start)
    return statistics.median(seconds), result


def channel_means(slide, label):
    # A graph name of its own per run: a cluster may otherwise hand back a result it still holds.
    array = nuvek.dask.chain_array(EXPRESSION, slide, level=0, chunks=512, name=f"bench-{label}")
    return array.mean(axis=(1, 2, 3)), array.size


def main():
    runs = int(sys.argv[1]) if len(sys.argv) > 1 else 3
    with tempfile.TemporaryDirectory() as directory:
        slide = make_slide(directory)
        voxels = channel_means(slide, "size")[1]
        one, expected = timed(lambda run: channel_means(slide, f"one-{run}")[0].compute(scheduler="synchronous"), runs)
        threaded, _ = timed(
            lambda run: channel_means(slide, f"threads-{run}")[0].compute(scheduler="threads", num_workers=4), runs
        )
        with LocalCluster(n_workers=4, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
            with Client(cluster):
                channel_means(slide, "warm-up")[0].compute()  # workers import nuvek and open the slide
                four, result = timed(lambda run: channel_means(slide, f"four-{run}")[0].compute(), runs)
        assert np.allclose(result, expected, rtol=1e-12)
    print(f"chain '{EXPRESSION}' over {EXTENT} x {EXTENT} x 3, 512 x 512 chunks, median of {runs} runs")
    print(f"one process, one thread:            {one:7.2f} s  {voxels / one / 1e6:7.1f} Mvoxel/s")
    print(f"one process, 4 threads:             {threaded:7.2f} s  {voxels / threaded / 1e6:7.1f} Mvoxel/s  "
          f"speed-up {one / threaded:.2f}")
    print(f"LocalCluster, 4 workers x 1 thread: {four:7.2f} s  {voxels / four / 1e6:7.1f} Mvoxel/s  "
          f"speed-up {one / four:.2f}")


if __name__ == "__main__":
    main()
