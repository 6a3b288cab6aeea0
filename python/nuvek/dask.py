"""Chains of nuvek filters as lazy dask arrays, and writing such arrays out.

A chain is described the way the nuvek tool describes it, by a chain expression and an input path,
so that every worker of a dask.distributed cluster can rebuild it from those two strings:

    import dask.distributed
    import nuvek.dask

    client = dask.distributed.Client(dask.distributed.LocalCluster(n_workers=4, threads_per_worker=1))
    blurred = nuvek.dask.chain_array("clamp | gaussian 9", "slide.tif", level=1)   # lazy
    nuvek.dask.to_tiff(blurred, "blurred.tif", sample_type="uint8", value_range=(0, 255))

The array has the shape (channels, z, y, x) and dtype float64; each chunk is one open_region call
of the chain at that level. Each process keeps the chains it has rebuilt (at most CACHE_SIZE, keyed
by expression, path and the file's modification time and size) so that a chain is not rebuilt for
every chunk; clear_cache() empties it. The threads of a worker share one chain: every filter may
serve several threads at once.
"""

import collections
import os
import threading

import dask
import dask.array as da
import numpy as np

from . import _nuvek

__all__ = ["chain_array", "to_tiff", "to_zarr", "write", "clear_cache", "CACHE_SIZE"]

CACHE_SIZE = 8

_cache_lock = threading.Lock()
_cache = collections.OrderedDict()


def _file_key(path):
    status = os.stat(path)
    return (status.st_mtime_ns, status.st_size)


def _open_chain(expression, path):
    key = (expression, path, _file_key(path))
    with _cache_lock:
        chain = _cache.get(key)
        if chain is not None:
            _cache.move_to_end(key)
            return chain
    # Built outside the lock: opening a slide may take a while. Two threads that race here build
    # twice, and the first one stored wins.
    built = _nuvek.Chain(expression, _nuvek.open_image(path))
    with _cache_lock:
        chain = _cache.setdefault(key, built)
        _cache.move_to_end(key)
        while len(_cache) > CACHE_SIZE:
            _cache.popitem(last=False)
    return chain


def clear_cache():
    """Forgets the chains this process has rebuilt."""
    with _cache_lock:
        _cache.clear()


def _open_chunk(expression, path, level, box):
    return _open_chain(expression, path).open_region(level, box)


def _splits(start, stop, step):
    """(first, last) pairs, inclusive, covering start .. stop - 1 in runs of step."""
    return [(first, min(first + step, stop) - 1) for first in range(start, stop, step)]


def chain_array(expression, path, level=0, chunks=512, box=None, name=None):
    """The chain `expression` over the image at `path`, at `level`, as a lazy dask array.

    The array covers `box` (default: the whole extent of the chain's output at that level) and has
    the shape (channels, z, y, x); chunks hold every channel, one z slice and up to `chunks` voxels
    along y and x (an int, or a (y, x) pair). The chain is built once here, so that a bad expression
    or path raises at once; workers rebuild it from the expression and the absolute path. `name`
    is the graph's name; by default it is derived from the arguments and the file's modification
    time and size, so that equal descriptions of an unchanged file share results.
    """
    path = os.path.abspath(path)
    output = _open_chain(expression, path).output
    if box is None:
        x, y, z = output.get_extent(level)
        box = ((0, 0, 0), (x - 1, y - 1, z - 1))
    (x0, y0, z0), (x1, y1, z1) = box
    if x1 < x0 or y1 < y0 or z1 < z0:
        raise ValueError(f"chain_array: the box {box} is empty.")
    chunk_y, chunk_x = (chunks, chunks) if isinstance(chunks, int) else chunks
    if chunk_y < 1 or chunk_x < 1:
        raise ValueError(f"chain_array: chunk sizes must be positive, got {chunks}.")
    channels = output.get_num_channels()

    zs = _splits(z0, z1 + 1, 1)
    ys = _splits(y0, y1 + 1, chunk_y)
    xs = _splits(x0, x1 + 1, chunk_x)
    if name is None:
        name = "nuvek-chain-" + dask.base.tokenize(expression, path, _file_key(path), level, box, chunk_y, chunk_x)
    graph = {}
    for iz, (za, zb) in enumerate(zs):
        for iy, (ya, yb) in enumerate(ys):
            for ix, (xa, xb) in enumerate(xs):
                graph[(name, 0, iz, iy, ix)] = (_open_chunk, expression, path, level, ((xa, ya, za), (xb, yb, zb)))
    sizes = (
        (channels,),
        tuple(b - a + 1 for a, b in zs),
        tuple(b - a + 1 for a, b in ys),
        tuple(b - a + 1 for a, b in xs),
    )
    return da.Array(graph, name, sizes, dtype=np.float64, meta=np.empty((0, 0, 0, 0), dtype=np.float64))


def _as_four_dimensional(array):
    if array.ndim == 2:
        return array[np.newaxis, np.newaxis]
    if array.ndim == 4:
        return array
    raise ValueError(f"expected an array of shape (channels, z, y, x) or (y, x), got shape {array.shape}.")


class _ArrayImage(_nuvek.Image):
    """A dask array (channels, z, y, x) as a one-level nuvek image; open_region computes a slice."""

    def __init__(self, array, value_range):
        super().__init__()
        self.array = array
        self.value_range = value_range

    def get_extent(self, level):
        channels, z, y, x = self.array.shape
        return (x >> level, y >> level, z)

    def get_num_channels(self):
        return self.array.shape[0]

    def get_num_levels(self):
        return 1

    def get_value_range(self):
        return self.value_range

    def get_voxel_size(self, level):
        return (1 << level, 1 << level, 1)

    def get_channel_name(self, index):
        return f"Channel {index}"

    def get_hash(self):
        return 0

    def open_region(self, level, box):
        if level != 0:
            raise ValueError(f"the array has only level 0, not level {level}.")
        (x0, y0, z0), (x1, y1, z1) = box
        out = np.zeros((self.array.shape[0], z1 - z0 + 1, y1 - y0 + 1, x1 - x0 + 1))
        channels, depth, height, width = self.array.shape
        xa, ya, za = max(x0, 0), max(y0, 0), max(z0, 0)
        xb, yb, zb = min(x1, width - 1), min(y1, height - 1), min(z1, depth - 1)
        if xa <= xb and ya <= yb and za <= zb:
            part = self.array[:, za : zb + 1, ya : yb + 1, xa : xb + 1].compute()
            out[:, za - z0 : zb - z0 + 1, ya - y0 : yb - y0 + 1, xa - x0 : xb - x0 + 1] = part
        return out


def _finite_range(array):
    finite = da.where(da.isfinite(array), array, np.nan)
    low, high = dask.compute(da.nanmin(finite), da.nanmax(finite))
    if not np.isfinite(low):
        return (0.0, 1.0)
    return (float(low), float(high) if high > low else float(low) + 1.0)


def _default_threads():
    try:
        from dask.distributed import default_client

        return max(1, sum(default_client().nthreads().values()))
    except (ImportError, ValueError):
        return os.cpu_count() or 1


def to_tiff(array, path, *, tile_size=None, compression="deflate", sample_type="float32", value_range=None,
            threads=None, progress=None):
    """Writes array (channels, z, y, x), or (y, x), as a tiled pyramidal BigTIFF.

    Tiles are computed through dask, `threads` of them at a time (default: the threads of the
    current dask.distributed client, else the processors), so memory stays bounded. `tile_size`
    defaults to the array's chunk width when that is a multiple of 16, else 256. Values are stored
    as write_pyramidal_tiff stores them; `value_range` defaults to the smallest and largest finite
    value of the array (one more pass over it). Returns True when the file was written, False
    when progress(done, total) returned False.
    """
    array = _as_four_dimensional(da.asarray(array)).astype(np.float64)
    if tile_size is None:
        width = array.chunks[3][0]
        tile_size = width if width % 16 == 0 and 16 <= width <= 65536 else 256
    if value_range is None:
        value_range = _finite_range(array)
    image = _ArrayImage(array, tuple(value_range))
    return _nuvek.write_pyramidal_tiff(
        image,
        os.fspath(path),
        tile_size=tile_size,
        compression=compression,
        sample_type=sample_type,
        value_range=tuple(value_range),
        threads=threads if threads is not None else _default_threads(),
        progress=progress,
    )


def to_zarr(array, store, *, component=None, overwrite=False, **kwargs):
    """Writes array to a Zarr store (a path or a zarr store object), one chunk per dask chunk, each
    written by the worker that computed it. Further keyword arguments go to dask.array.to_zarr."""
    array = da.asarray(array)
    if isinstance(store, (str, os.PathLike)):
        store = os.fspath(store)
    return da.to_zarr(array, store, component=component, overwrite=overwrite, **kwargs)


def write(array, path, **options):
    """to_tiff for a path ending in .tif or .tiff, else to_zarr."""
    if os.fspath(path).lower().endswith((".tif", ".tiff")):
        return to_tiff(array, path, **options)
    return to_zarr(array, path, **options)
