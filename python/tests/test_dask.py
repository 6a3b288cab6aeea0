import dask
import dask.array as da
import numpy as np
import pytest
import tifffile
import zarr
from conftest import first_difference, same_bits

import nuvek
import nuvek.dask


@pytest.fixture(scope="module")
def slide(tmp_path_factory):
    """An RGB TIFF pyramid of 700 x 600 voxels: smooth structures plus noise."""
    rng = np.random.default_rng(12)
    y, x = np.mgrid[0:600, 0:700]
    base = 128 + 60 * np.sin(x / 37.0) * np.cos(y / 23.0)
    rgb = np.stack([base + rng.normal(0, 12, base.shape) + 20 * c for c in range(3)], axis=-1)
    path = tmp_path_factory.mktemp("slide") / "slide.tif"
    tifffile.imwrite(path, np.clip(rgb, 0, 255).astype(np.uint8), photometric="rgb", tile=(128, 128))
    nuvek.write_pyramidal_tiff(nuvek.TiffImage(str(path)), str(path.with_name("pyramid.tif")), tile_size=128)
    return str(path.with_name("pyramid.tif"))


def one_process(expression, path, level, box=None):
    chain = nuvek.Chain(expression, nuvek.open_image(path))
    return chain.open_region(level, box or nuvek.whole_box(chain.output, level))


def test_the_array_is_lazy_and_chunked_by_open_region(slide):
    array = nuvek.dask.chain_array("clamp | gaussian 5", slide, level=0, chunks=256)
    assert isinstance(array, da.Array) and array.shape == (3, 1, 600, 700) and array.dtype == np.float64
    assert array.chunks == ((3,), (1,), (256, 256, 88), (256, 256, 188))
    # Same description, same graph name: dask may reuse results.
    assert array.name == nuvek.dask.chain_array("clamp | gaussian 5", slide, level=0, chunks=256).name
    chunk = array.blocks[0, 0, 1, 2].compute(scheduler="synchronous")
    assert same_bits(chunk, one_process("clamp | gaussian 5", slide, 0, ((512, 256, 0), (699, 511, 0))))


@pytest.mark.parametrize("expression, level, chunks, box", [
    ("clamp | gaussian 7 | sobel magnitude 3", 0, 200, None),
    ("channel 1 | localnorm 2", 0, (150, 333), None),
    ("unmix hematoxylin+eosin 0 | median 3", 1, 128, None),
    ("erode 3", 0, 128, ((100, 50, 0), (399, 249, 0))),
])
def test_chunks_together_equal_one_request(slide, expression, level, chunks, box):
    computed = nuvek.dask.chain_array(expression, slide, level=level, chunks=chunks, box=box).compute(
        scheduler="threads", num_workers=4)
    expected = one_process(expression, slide, level, box)
    assert same_bits(computed, expected), first_difference(computed, expected)


@pytest.mark.parametrize("call, error, message", [
    (lambda s, t: nuvek.dask.chain_array("blur 3", s), RuntimeError, "Unknown filter 'blur'"),
    (lambda s, t: nuvek.dask.chain_array("clamp", str(t / "missing.tif")), FileNotFoundError, "missing.tif"),
    (lambda s, t: nuvek.dask.chain_array("clamp", s, chunks=0), ValueError, "chunk sizes must be positive"),
    (lambda s, t: nuvek.dask.chain_array("clamp", s, box=((5, 5, 0), (4, 5, 0))), ValueError, "is empty"),
    (lambda s, t: nuvek.dask.to_tiff(da.zeros((2, 3, 4)), str(t / "bad.tif")), ValueError, r"got shape \(2, 3, 4\)"),
])
def test_bad_descriptions_fail_at_once(slide, tmp_path, call, error, message):
    with pytest.raises(error, match=message):
        call(slide, tmp_path)


def test_writing_to_tiff_and_zarr_keeps_the_values(slide, tmp_path):
    array = nuvek.dask.chain_array("clamp | box 5", slide, level=1, chunks=128)
    expected = one_process("clamp | box 5", slide, 1)
    with dask.config.set(scheduler="threads"):
        assert nuvek.dask.write(array, tmp_path / "out.tif", sample_type="float32")
        nuvek.dask.write(array, tmp_path / "out.zarr")
    written = nuvek.TiffImage(str(tmp_path / "out.tif"))
    assert written.get_num_levels() >= 2 and written.get_tile_extent() == (128, 128, 1)
    assert same_bits(written.open_region(0, nuvek.whole_box(written)), expected.astype(np.float32))
    finite = expected[np.isfinite(expected)]
    assert written.get_value_range() == (np.float32(finite.min()), np.float32(finite.max()))
    assert same_bits(zarr.open(str(tmp_path / "out.zarr"), mode="r")[:], expected)
