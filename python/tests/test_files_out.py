"""OME-TIFF as other software reads it: tifffile must see OME axes, levels, names and sizes."""
import xml.etree.ElementTree as ElementTree

import numpy as np
import pytest
import tifffile

import nuvek

from conftest import same_bits

OME = "{http://www.openmicroscopy.org/Schemas/OME/2016-06}"


def halved(values):
    """Level L + 1 from level L (..., y, x) of float32 values: 2 x 2 means added row by row."""
    height, width = values.shape[-2] // 2, values.shape[-1] // 2
    v = values[..., : 2 * height, : 2 * width].astype(np.float64)
    total = v[..., 0::2, 0::2] + v[..., 0::2, 1::2]
    total = total + v[..., 1::2, 0::2]
    total = total + v[..., 1::2, 1::2]
    return (total / 4.0).astype(np.float32)


def pixels_of(tiff):
    return ElementTree.fromstring(tiff.ome_metadata).find(f"{OME}Image/{OME}Pixels")


def test_channels_and_slices_become_ome_pages_with_their_names_sizes_and_levels(rng, tmp_path):
    values = rng.normal(100.0, 30.0, size=(4, 3, 150, 200))
    source = nuvek.MemoryImage(values)
    names = ["DAPI", "GFP & <tag>", 'say "hi"', "Cy5"]
    source.set_channel_names(names)
    source.set_voxel_size((250, 250, 2000))
    path = tmp_path / "stack.ome.tif"
    assert nuvek.write_pyramidal_tiff(source, str(path), tile_size=64, sample_type="float32", ome_tiff=True, threads=3)
    with tifffile.TiffFile(path) as tiff:
        assert tiff.is_ome
        assert len(tiff.series) == 1
        series = tiff.series[0]
        assert series.axes == "ZCYX"
        assert series.shape == (3, 4, 150, 200)
        assert [level.shape[-2:] for level in series.levels] == [(150, 200), (75, 100), (37, 50)]
        stored = values.astype(np.float32)
        level0 = series.levels[0].asarray()
        assert same_bits(level0, np.moveaxis(stored, 0, 1))
        level1 = halved(stored)
        assert same_bits(series.levels[1].asarray(), np.moveaxis(level1, 0, 1))
        assert same_bits(series.levels[2].asarray(), np.moveaxis(halved(level1), 0, 1))

        pixels = pixels_of(tiff)
        assert pixels.get("DimensionOrder") == "XYCZT"
        assert (pixels.get("SizeC"), pixels.get("SizeZ"), pixels.get("Type")) == ("4", "3", "float")
        assert [channel.get("Name") for channel in pixels.findall(f"{OME}Channel")] == names
        assert float(pixels.get("PhysicalSizeX")) == 0.25
        assert float(pixels.get("PhysicalSizeY")) == 0.25
        assert float(pixels.get("PhysicalSizeZ")) == 2.0
        assert pixels.get("PhysicalSizeXUnit") == "\u00b5m"


def test_rgb_is_one_interleaved_page_per_slice_and_plain_names_stay_plain(rng, tmp_path):
    values = np.floor(rng.uniform(0, 256, size=(3, 1, 130, 170)))
    source = nuvek.MemoryImage(values)
    source.set_value_range((0.0, 255.0))
    path = tmp_path / "slide.ome.tiff"
    assert nuvek.write_pyramidal_tiff(source, str(path), tile_size=64, ome_tiff=True, compression="zstd")
    with tifffile.TiffFile(path) as tiff:
        assert tiff.is_ome
        series = tiff.series[0]
        assert series.axes == "YXS"
        assert len(series.levels) == 3
        pixels = pixels_of(tiff)
        assert (pixels.get("SizeC"), pixels.get("Interleaved")) == ("3", "true")
        assert pixels.find(f"{OME}Channel").get("SamplesPerPixel") == "3"
    reread = nuvek.TiffImage(str(path))
    assert reread.get_num_levels() == 3
    assert same_bits(reread.open_region(0, ((0, 0, 0), (169, 129, 0))), values)

    plain = tmp_path / "slide.tif"
    assert nuvek.write_pyramidal_tiff(source, str(plain), tile_size=64)
    with tifffile.TiffFile(plain) as tiff:
        assert not tiff.is_ome


def test_jpeg_is_refused_for_other_than_8_bit_grey_or_rgb(tmp_path):
    source = nuvek.MemoryImage(np.zeros((2, 1, 20, 20)))
    with pytest.raises(RuntimeError, match="JPEG compression needs 1 \\(grey\\) or 3 \\(RGB\\) channels"):
        nuvek.write_pyramidal_tiff(source, str(tmp_path / "two.tif"), compression="jpeg")
    assert list(tmp_path.iterdir()) == []


SPACE_UNITS = {"angstrom", "attometer", "centimeter", "decimeter", "exameter", "femtometer", "foot", "gigameter",
               "hectometer", "inch", "kilometer", "megameter", "meter", "micrometer", "mile", "millimeter",
               "nanometer", "parsec", "petameter", "picometer", "terameter", "yard", "yoctometer", "yottameter",
               "zeptometer", "zettameter"}


def ngff_04_problems(attributes):
    """What the NGFF 0.4 multiscales schema refuses in a group's attributes (empty when it validates)."""
    problems = []
    multiscales = attributes.get("multiscales")
    if not isinstance(multiscales, list) or not multiscales:
        return ["multiscales must be a non-empty list"]
    for image in multiscales:
        if image.get("version") != "0.4":
            problems.append("version must be 0.4")
        axes = image.get("axes")
        if not isinstance(axes, list) or not 2 <= len(axes) <= 5:
            problems.append("axes must list 2 to 5 axes")
            continue
        names = [axis.get("name") for axis in axes]
        if len(set(names)) != len(names) or not all(isinstance(name, str) for name in names):
            problems.append("axis names must be unique strings")
        types = [axis.get("type") for axis in axes]
        if types.count("space") not in (2, 3) or types.count("time") > 1 or types.count("channel") > 1:
            problems.append("2 or 3 space axes, at most one time and one channel axis")
        order = {"time": 0, "channel": 1, "space": 2}
        if [order.get(kind, 1) for kind in types] != sorted(order.get(kind, 1) for kind in types):
            problems.append("axes must be ordered time, channel, space")
        for axis in axes:
            if axis.get("type") == "space" and "unit" in axis and axis["unit"] not in SPACE_UNITS:
                problems.append(f"unknown space unit {axis['unit']}")
        datasets = image.get("datasets")
        if not isinstance(datasets, list) or not datasets:
            problems.append("datasets must be a non-empty list")
            continue
        for dataset in datasets:
            if not isinstance(dataset.get("path"), str):
                problems.append("every dataset needs a path")
            transformations = dataset.get("coordinateTransformations")
            if not isinstance(transformations, list) or not 1 <= len(transformations) <= 2:
                problems.append("a dataset needs one scale and at most one translation")
                continue
            if transformations[0].get("type") != "scale" or len(transformations[0].get("scale", [])) != len(axes):
                problems.append("the first transformation must be a scale with one value per axis")
            if len(transformations) == 2 and transformations[1].get("type") != "translation":
                problems.append("the second transformation must be a translation")
    return problems


def test_ome_zarr_equals_the_tiff_output_and_validates_as_ngff_04(rng, tmp_path):
    import zarr

    values = rng.uniform(-10.0, 110.0, size=(2, 2, 150, 170))
    source = nuvek.MemoryImage(values)
    source.set_value_range((0.0, 100.0))
    source.set_channel_names(["DAPI", "GFP"])
    source.set_voxel_size((325, 325, 1500))
    for sample_type in ("uint16", "float32"):
        group_path = tmp_path / f"{sample_type}.ome.zarr"
        tiff_path = tmp_path / f"{sample_type}.ome.tif"
        assert nuvek.write_ome_zarr(source, str(group_path), chunk_size=64, sample_type=sample_type)
        assert nuvek.write_pyramidal_tiff(source, str(tiff_path), tile_size=64, sample_type=sample_type,
                                          ome_tiff=True)
        group = zarr.open_group(str(group_path), mode="r")
        assert ngff_04_problems(dict(group.attrs)) == []
        multiscale = group.attrs["multiscales"][0]
        assert [axis["name"] for axis in multiscale["axes"]] == ["c", "z", "y", "x"]
        assert multiscale["datasets"][1]["coordinateTransformations"][0]["scale"] == [1.0, 1.5, 0.65, 0.65]
        assert [channel["label"] for channel in group.attrs["omero"]["channels"]] == ["DAPI", "GFP"]
        with tifffile.TiffFile(tiff_path) as tiff:
            levels = tiff.series[0].levels
            assert len(levels) == len(multiscale["datasets"]) == 3
            for index, level in enumerate(levels):
                array = group[multiscale["datasets"][index]["path"]]
                assert array.dtype == np.dtype(sample_type)
                assert array.chunks == (1, 1, 64, 64)
                # tifffile gives (z, c, y, x); the group holds (c, z, y, x).
                assert np.array_equal(np.moveaxis(level.asarray(), 0, 1), array[...])

        reread = nuvek.ZarrImage(str(group_path))
        assert reread.get_num_levels() == 3
        assert reread.get_channel_name(1) == "GFP"
        assert same_bits(reread.open_region(1, ((0, 0, 0), (84, 74, 1))), group["1"][...].astype(np.float64))


@pytest.mark.parametrize(
    "shape, dtype, compressor, separator",
    [
        ((70, 90), "|u1", "default", "."),
        ((3, 70, 90), ">i2", "zlib", "."),
        ((2, 3, 70, 90), "<f8", "zstd", "/"),
        ((1, 2, 3, 70, 90), "<u2", None, "/"),
    ],
)
def test_zarr_image_reads_arrays_python_zarr_writes(rng, tmp_path, shape, dtype, compressor, separator):
    import numcodecs
    import zarr

    data = (rng.uniform(0, 100, size=shape)).astype(np.dtype(dtype))
    codecs = {"default": zarr.storage.default_compressor, "zlib": numcodecs.Zlib(level=3),
              "zstd": numcodecs.Zstd(level=2), None: None}
    path = tmp_path / "plain.zarr"
    store = zarr.DirectoryStore(str(path), dimension_separator=separator)
    array = zarr.create(shape=shape, chunks=tuple(min(s, 32) for s in shape), dtype=dtype, store=store,
                        compressor=codecs[compressor], fill_value=0)
    array[...] = data
    image = nuvek.open_image(str(path))
    assert isinstance(image, nuvek.ZarrImage)
    expected = data.astype(np.float64)
    while expected.ndim < 5:
        expected = expected[np.newaxis]
    expected = expected[0]
    z, y, x = expected.shape[1:]
    assert image.get_num_channels() == expected.shape[0]
    assert same_bits(image.open_region(0, ((0, 0, 0), (x - 1, y - 1, z - 1))), expected)


def test_dask_and_the_tool_take_ome_zarr_as_input(rng, tmp_path):
    import nuvek.dask

    values = rng.uniform(0.0, 255.0, size=(3, 1, 200, 180))
    source = nuvek.MemoryImage(values)
    group_path = tmp_path / "in.ome.zarr"
    tiff_path = tmp_path / "in.tif"
    assert nuvek.write_ome_zarr(source, str(group_path), chunk_size=64)
    assert nuvek.write_pyramidal_tiff(source, str(tiff_path), tile_size=64, sample_type="float32")
    expression = "clamp | gaussian 5"
    from_zarr = nuvek.dask.chain_array(expression, str(group_path), chunks=64).compute(scheduler="threads")
    from_tiff = nuvek.dask.chain_array(expression, str(tiff_path), chunks=64).compute(scheduler="threads")
    assert same_bits(from_zarr, from_tiff)
