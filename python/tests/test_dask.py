import dask
import dask.array as da
import numpy as np
import pytest
import tifffile
import zarr
from conftest import first_difference, same_bits
from dask.distributed import Client, LocalCluster

import nuvek
import nuvek.dask


@pytest.fixture(scope="module")
def slide(tmp_path_factory):
    """A generated RGB TIFF pyramid of 700 x 600 voxels: smooth structures plus noise."""
    rng = np.random.default_rng(12)
    y, x = np.mgrid[0:600, 0:700]
    base = 128 + 60 * np.sin(x / 37.0) * np.cos(y / 23.0)
    rgb = np.stack([base + rng.normal(0, 12, base.shape) + 20 * c for c in range(3)], axis=-1)
    path = tmp_path_factory.mktemp("slide") / "slide.tif"
    tifffile.imwrite(path, np.clip(rgb, 0, 255).astype(np.uint8), photometric="rgb", tile=(128, 128))
    source = nuvek.TiffImage(str(path))
    pyramid = path.with_name("pyramid.tif")
    nuvek.write_pyramidal_tiff(source, str(pyramid), tile_size=128)
    return str(pyramid)


def one_process(expression, path, level):
    chain = nuvek.Chain(expression, nuvek.open_image(path))
    return chain.open_region(level, nuvek.whole_box(chain.output, level))


def test_the_array_is_lazy_and_chunked_by_open_region(slide):
    array = nuvek.dask.chain_array("clamp | gaussian 5", slide, level=0, chunks=256)
    assert isinstance(array, da.Array)
    assert array.shape == (3, 1, 600, 700) and array.dtype == np.float64
    assert array.chunks == ((3,), (1,), (256, 256, 88), (256, 256, 188))
    # Same description, same graph name: dask may reuse results.
    assert array.name == nuvek.dask.chain_array("clamp | gaussian 5", slide, level=0, chunks=256).name
    chunk = array.blocks[0, 0, 1, 2].compute(scheduler="synchronous")
    expected = nuvek.Chain("clamp | gaussian 5", nuvek.open_image(slide)).open_region(0, ((512, 256, 0), (699, 511, 0)))
    assert same_bits(chunk, expected)


@pytest.mark.parametrize(
    "expression, level, chunks",
    [
        ("clamp | gaussian 7 | sobel magnitude 3", 0, 200),
        ("channel 1 | localnorm 2", 0, (150, 333)),
        ("unmix hematoxylin+eosin 0 | median 3", 1, 128),
    ],
)
def test_chunks_together_equal_one_request(slide, expression, level, chunks):
    array = nuvek.dask.chain_array(expression, slide, level=level, chunks=chunks)
    computed = array.compute(scheduler="threads", num_workers=4)
    expected = one_process(expression, slide, level)
    assert same_bits(computed, expected), first_difference(computed, expected)


def test_a_box_selects_part_of_the_level(slide):
    box = ((100, 50, 0), (399, 249, 0))
    array = nuvek.dask.chain_array("erode 3", slide, level=0, chunks=128, box=box)
    assert array.shape == (3, 1, 200, 300)
    chain = nuvek.Chain("erode 3", nuvek.open_image(slide))
    assert same_bits(array.compute(scheduler="synchronous"), chain.open_region(0, box))


def test_bad_descriptions_fail_at_once(slide, tmp_path):
    with pytest.raises(RuntimeError, match="Unknown filter 'blur'"):
        nuvek.dask.chain_array("blur 3", slide)
    with pytest.raises(FileNotFoundError, match="missing.tif"):
        nuvek.dask.chain_array("clamp", str(tmp_path / "missing.tif"))
    with pytest.raises(ValueError, match="chunk sizes must be positive"):
        nuvek.dask.chain_array("clamp", slide, chunks=0)
    with pytest.raises(ValueError, match="is empty"):
        nuvek.dask.chain_array("clamp", slide, box=((5, 5, 0), (4, 5, 0)))
    with pytest.raises(ValueError, match=r"got shape \(2, 3, 4\)"):
        nuvek.dask.to_tiff(da.zeros((2, 3, 4)), str(tmp_path / "bad.tif"))


def test_writing_to_tiff_and_zarr_keeps_the_values(slide, tmp_path):
    array = nuvek.dask.chain_array("clamp | box 5", slide, level=1, chunks=128)
    expected = one_process("clamp | box 5", slide, 1)
    with dask.config.set(scheduler="threads"):
        assert nuvek.dask.write(array, tmp_path / "out.tif", sample_type="float32")
        nuvek.dask.write(array, tmp_path / "out.zarr")
    written = nuvek.TiffImage(str(tmp_path / "out.tif"))
    assert written.get_num_levels() >= 2 and written.get_tile_extent() == (128, 128, 1)
    assert same_bits(written.open_region(0, nuvek.whole_box(written)), expected.astype(np.float32))
    low, high = written.get_value_range()
    finite = expected[np.isfinite(expected)]
    assert (low, high) == (np.float32(finite.min()), np.float32(finite.max()))
    assert same_bits(zarr.open(str(tmp_path / "out.zarr"), mode="r")[:], expected)


def test_a_local_cluster_of_worker_processes_gives_the_one_process_array(slide, tmp_path):
    expression = "clamp | gaussian 5 | sobel magnitude 3"
    expected = one_process(expression, slide, 0)
    nuvek.dask.clear_cache()
    with LocalCluster(n_workers=3, threads_per_worker=2, processes=True, dashboard_address=None) as cluster, Client(
        cluster
    ) as client:
        array = nuvek.dask.chain_array(expression, slide, level=0, chunks=160)
        computed = client.compute(array).result()
        workers = client.run(lambda: __import__("os").getpid())
        assert len(set(workers.values())) == 3
        # Every worker rebuilt the chain itself.
        built = client.run(lambda: len(__import__("nuvek.dask").dask._cache))
        assert sum(built.values()) >= 2
        nuvek.dask.to_tiff(array, tmp_path / "cluster.tif", sample_type="uint16", value_range=(0, 5000))
        nuvek.dask.to_zarr(array, str(tmp_path / "cluster.zarr"))
    assert same_bits(computed, expected), first_difference(computed, expected)
    assert same_bits(zarr.open(str(tmp_path / "cluster.zarr"), mode="r")[:], expected)
    written = nuvek.TiffImage(str(tmp_path / "cluster.tif")).open_region(0, nuvek.whole_box(nuvek.TiffImage(str(tmp_path / "cluster.tif"))))
    stored = np.clip(np.floor(expected / 5000 * 65535 + 0.5), 0, 65535)
    stored[np.isnan(expected)] = 0
    assert same_bits(written, stored)
