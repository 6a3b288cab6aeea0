"""The file sources' cache of decoded tiles: the same values for any size, shared by threads."""
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import nuvek

from conftest import same_bits


@pytest.fixture
def files(rng, tmp_path):
    """A tiled TIFF of 32 x 32 tiles and an OME-Zarr group of 32 x 32 chunks, 8-bit RGB."""
    source = nuvek.MemoryImage(rng.integers(0, 256, size=(3, 1, 141, 203)).astype(np.float64))
    tiff = tmp_path / "tiles.tif"
    zarr = tmp_path / "image.zarr"
    nuvek.write_pyramidal_tiff(source, str(tiff), tile_size=32, sample_type="uint8", threads=1)
    nuvek.write_ome_zarr(source, str(zarr), chunk_size=32, sample_type="uint8", threads=1)
    return [str(tiff), str(zarr)]


def boxes():
    """Tiles of 40 x 40 cut across the 32 x 32 stored tiles, reaching past the border."""
    return [((x, y, 0), (x + 39, y + 39, 0)) for y in range(-8, 150, 40) for x in range(-8, 210, 40)]


@pytest.mark.parametrize("cache_mb", [0, 1, 96])
def test_any_cache_size_gives_the_uncached_values_on_threads(files, cache_mb):
    for path in files:
        expected = [nuvek.open_image(path, cache_mb=0).open_region(0, box) for box in boxes()]
        image = nuvek.open_image(path, cache_mb=cache_mb)
        with ThreadPoolExecutor(4) as pool:
            results = list(pool.map(lambda box: image.open_region(0, box), boxes() + boxes()))
        assert all(same_bits(a, b) for a, b in zip(expected + expected, results)), path


def test_a_cached_tiff_decodes_each_tile_once(files):
    image = nuvek.TiffImage(files[0])
    for box in boxes() + boxes():
        image.open_region(0, box)
    assert image.get_blocks_decoded() == 7 * 5
    uncached = nuvek.TiffImage(files[0], cache_mb=0)
    for box in boxes():
        uncached.open_region(0, box)
    assert uncached.get_blocks_decoded() > 7 * 5


@pytest.mark.parametrize("cache_mb", [-1, 2**20 + 1])
def test_a_cache_size_out_of_range_is_refused(files, cache_mb):
    message = f"cache_mb must be from 0 to 1048576 (MiB), got {cache_mb}."
    for make in (nuvek.open_image, nuvek.TiffImage, nuvek.ZarrImage):
        path = files[1] if make is nuvek.ZarrImage else files[0]
        with pytest.raises(ValueError) as error:
            make(path, cache_mb=cache_mb)
        assert str(error.value) == message
