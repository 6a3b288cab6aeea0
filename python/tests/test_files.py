"""Files through the bindings, checked with other software's readers and writers (tifffile, zarr):
TIFF and OME-TIFF, OME-Zarr, the readers' tile cache, progress and cancelling."""
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor

import numcodecs
import numpy as np
import pytest
import tifffile
import zarr
from conftest import same_bits, whole

import nuvek

OME = "{http://www.openmicroscopy.org/Schemas/OME/2016-06}"


def halved(values):
    """Level L + 1 from level L (..., y, x) of float32 values: 2 x 2 means added row by row."""
    v = values[..., : values.shape[-2] // 2 * 2, : values.shape[-1] // 2 * 2].astype(np.float64)
    total = v[..., 0::2, 0::2] + v[..., 0::2, 1::2] + v[..., 1::2, 0::2] + v[..., 1::2, 1::2]
    return (total / 4.0).astype(np.float32)


def test_tiff_and_slide_sources_read_what_tifffile_wrote(rng, tmp_path):
    rgb = rng.integers(0, 256, size=(300, 260, 3), dtype=np.uint8)
    tifffile.imwrite(tmp_path / "plain.tif", rgb, photometric="rgb", tile=(64, 64))
    image = nuvek.open_image(str(tmp_path / "plain.tif"))
    assert isinstance(image, nuvek.TiffImage) and image.get_channel_names() == ["Red", "Green", "Blue"]
    assert same_bits(image.open_region(0, whole(image)), np.moveaxis(rgb, 2, 0)[:, np.newaxis])
    assert nuvek.write_pyramidal_tiff(image, str(tmp_path / "pyramid.tif"), tile_size=64, sample_type="uint8")
    slide = nuvek.SlideImage(str(tmp_path / "pyramid.tif"))
    assert slide.has_level(1) and same_bits(slide.open_region(0, whole(slide)), image.open_region(0, whole(image)))


def test_writing_reports_progress_and_cancelling_leaves_nothing(rng, tmp_path):
    source = nuvek.MemoryImage(rng.normal(size=(2, 1, 70, 90)))
    calls = []
    assert nuvek.write_pyramidal_tiff(source, str(tmp_path / "floats.tif"), tile_size=32,
                                      progress=lambda done, total: calls.append((done, total)) or True)
    assert calls[-1][0] == calls[-1][1] > 1
    assert not nuvek.write_pyramidal_tiff(source, str(tmp_path / "no.tif"), tile_size=32, progress=lambda d, t: False)
    with pytest.raises(ValueError, match="compression must be"):
        nuvek.write_pyramidal_tiff(source, str(tmp_path / "no.tif"), compression="zip")
    with pytest.raises(RuntimeError, match="^writePyramidalTiff: "):
        nuvek.write_pyramidal_tiff(source, str(tmp_path / "no.tif"), tile_size=30)
    assert [p.name for p in tmp_path.iterdir()] == ["floats.tif"]


def test_ome_tiff_shows_tifffile_its_axes_levels_names_sizes_and_rgb_layout(rng, tmp_path):
    values = rng.normal(100.0, 30.0, size=(4, 3, 150, 200))
    source = nuvek.MemoryImage(values)
    names = ["DAPI", "GFP & <tag>", 'say "hi"', "Cy5"]
    source.set_channel_names(names)
    source.set_voxel_size((250, 250, 2000))
    assert nuvek.write_pyramidal_tiff(source, str(tmp_path / "stack.ome.tif"), tile_size=64, sample_type="float32",
                                      ome_tiff=True, threads=3)
    rgb = nuvek.MemoryImage(np.floor(rng.uniform(0, 256, size=(3, 1, 130, 170))))
    rgb.set_value_range((0.0, 255.0))
    assert nuvek.write_pyramidal_tiff(rgb, str(tmp_path / "rgb.ome.tif"), tile_size=64, ome_tiff=True)
    assert nuvek.write_pyramidal_tiff(rgb, str(tmp_path / "rgb.tif"), tile_size=64)
    with tifffile.TiffFile(tmp_path / "stack.ome.tif") as tiff:
        series = tiff.series[0]
        assert tiff.is_ome and len(tiff.series) == 1 and series.axes == "ZCYX" and len(series.levels) == 3
        level = values.astype(np.float32)
        for stored in series.levels:
            assert same_bits(stored.asarray(), np.moveaxis(level, 0, 1))
            level = halved(level)
        pixels = ElementTree.fromstring(tiff.ome_metadata).find(f"{OME}Image/{OME}Pixels")
        assert [pixels.get(k) for k in ("DimensionOrder", "SizeC", "SizeZ", "Type")] == ["XYCZT", "4", "3", "float"]
        assert [channel.get("Name") for channel in pixels.findall(f"{OME}Channel")] == names
        assert [float(pixels.get(f"PhysicalSize{a}")) for a in "XYZ"] == [0.25, 0.25, 2.0]
        assert pixels.get("PhysicalSizeXUnit") == "\u00b5m"
    with tifffile.TiffFile(tmp_path / "rgb.ome.tif") as tiff:
        assert tiff.is_ome and tiff.series[0].axes == "YXS"
        pixels = ElementTree.fromstring(tiff.ome_metadata).find(f"{OME}Image/{OME}Pixels")
        assert (pixels.get("SizeC"), pixels.get("Interleaved")) == ("3", "true")
        assert pixels.find(f"{OME}Channel").get("SamplesPerPixel") == "3"
    with tifffile.TiffFile(tmp_path / "rgb.tif") as tiff:
        assert not tiff.is_ome


def test_ome_zarr_holds_the_ome_tiffs_levels_under_ngff_04_metadata(rng, tmp_path):
    source = nuvek.MemoryImage(rng.uniform(-10.0, 110.0, size=(2, 2, 150, 170)))
    source.set_value_range((0.0, 100.0))
    source.set_channel_names(["DAPI", "GFP"])
    source.set_voxel_size((325, 325, 1500))
    for sample_type in ("uint16", "float32"):
        group_path, tiff_path = tmp_path / f"{sample_type}.ome.zarr", tmp_path / f"{sample_type}.ome.tif"
        assert nuvek.write_ome_zarr(source, str(group_path), chunk_size=64, sample_type=sample_type)
        assert nuvek.write_pyramidal_tiff(source, str(tiff_path), tile_size=64, sample_type=sample_type, ome_tiff=True)
        group = zarr.open_group(str(group_path), mode="r")
        multiscale = group.attrs["multiscales"][0]
        assert multiscale["version"] == "0.4"
        assert [(a["name"], a["type"]) for a in multiscale["axes"]] == [
            ("c", "channel"), ("z", "space"), ("y", "space"), ("x", "space")]
        assert all(a.get("unit", "micrometer") == "micrometer" for a in multiscale["axes"] if a["type"] == "space")
        assert [d["coordinateTransformations"][0]["type"] for d in multiscale["datasets"]] == ["scale"] * 3
        assert multiscale["datasets"][1]["coordinateTransformations"][0]["scale"] == [1.0, 1.5, 0.65, 0.65]
        assert [channel["label"] for channel in group.attrs["omero"]["channels"]] == ["DAPI", "GFP"]
        with tifffile.TiffFile(tiff_path) as tiff:
            assert len(tiff.series[0].levels) == 3
            for level, dataset in zip(tiff.series[0].levels, multiscale["datasets"]):
                array = group[dataset["path"]]
                assert array.dtype == np.dtype(sample_type) and array.chunks == (1, 1, 64, 64)
                # tifffile gives (z, c, y, x); the group holds (c, z, y, x).
                assert np.array_equal(np.moveaxis(level.asarray(), 0, 1), array[...])
        reread = nuvek.ZarrImage(str(group_path))
        assert reread.get_num_levels() == 3 and reread.get_channel_name(1) == "GFP"
        assert same_bits(reread.open_region(1, ((0, 0, 0), (84, 74, 1))), group["1"][...])


@pytest.mark.parametrize("shape, dtype, compressor, separator", [
    ((70, 90), "|u1", zarr.storage.default_compressor, "."),
    ((3, 70, 90), ">i2", numcodecs.Zlib(level=3), "."),
    ((2, 3, 70, 90), "<f8", numcodecs.Zstd(level=2), "/"),
    ((1, 2, 3, 70, 90), "<u2", None, "/"),
])
def test_zarr_image_reads_arrays_python_zarr_writes(rng, tmp_path, shape, dtype, compressor, separator):
    data = rng.uniform(0, 100, size=shape).astype(np.dtype(dtype))
    store = zarr.DirectoryStore(str(tmp_path / "plain.zarr"), dimension_separator=separator)
    zarr.create(shape=shape, chunks=tuple(min(s, 32) for s in shape), dtype=dtype, store=store,
                compressor=compressor, fill_value=0)[...] = data
    image = nuvek.open_image(str(tmp_path / "plain.zarr"))
    expected = data.reshape((1,) * (5 - data.ndim) + shape)[0]
    assert isinstance(image, nuvek.ZarrImage) and image.get_num_channels() == expected.shape[0]
    assert same_bits(image.open_region(0, whole(image)), expected)


def test_the_cache_size_reaches_the_readers_and_is_checked(rng, tmp_path):
    source = nuvek.MemoryImage(rng.integers(0, 256, size=(3, 1, 141, 203)).astype(np.float64))
    paths = [str(tmp_path / "tiles.tif"), str(tmp_path / "image.zarr")]
    nuvek.write_pyramidal_tiff(source, paths[0], tile_size=32, sample_type="uint8")
    nuvek.write_ome_zarr(source, paths[1], chunk_size=32, sample_type="uint8")
    # Boxes of 40 x 40 cut across the 32 x 32 stored tiles, reaching past the border, on threads.
    boxes = [((x, y, 0), (x + 39, y + 39, 0)) for y in range(-8, 150, 40) for x in range(-8, 210, 40)]
    cached, uncached = nuvek.open_image(paths[0]), nuvek.TiffImage(paths[0], cache_mb=0)
    with ThreadPoolExecutor(4) as pool:
        for image in (cached, uncached, nuvek.open_image(paths[1], cache_mb=1)):
            results = pool.map(lambda box: image.open_region(0, box), boxes * 2)
            assert all(same_bits(a, source.open_region(0, box)) for a, box in zip(results, boxes * 2))
    assert cached.get_blocks_decoded() == 7 * 5 < uncached.get_blocks_decoded()
    for cache_mb in (-1, 2**20 + 1):
        for make, path in ((nuvek.open_image, paths[0]), (nuvek.TiffImage, paths[0]), (nuvek.ZarrImage, paths[1])):
            with pytest.raises(ValueError, match=rf"^cache_mb must be from 0 to 1048576 \(MiB\), got {cache_mb}\.$"):
                make(path, cache_mb=cache_mb)
