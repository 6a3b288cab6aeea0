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
    paths = []
    for threads in (1, 2, 8):
        # The same name in each folder: the OME-XML names the image after its file.
        (tmp_path / str(threads)).mkdir()
        path = tmp_path / str(threads) / "stack.ome.tif"
        assert nuvek.write_pyramidal_tiff(source, str(path), tile_size=64, sample_type="float32", ome_tiff=True,
                                          threads=threads)
        paths.append(path)
    assert paths[0].read_bytes() == paths[1].read_bytes() == paths[2].read_bytes()

    with tifffile.TiffFile(paths[0]) as tiff:
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
