"""The bindings: every filter class reaches the library with its arguments in order, arrays cross in
both directions, errors arrive as Python exceptions, and Python objects keep alive what C++ reads."""
import gc
import weakref
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from conftest import first_difference, grey, integers, same_bits, whole

import nuvek


def hematoxylin_eosin_unmixing(source):
    unmixing = nuvek.ColorUnmixingFilter(nuvek.ChannelBank(source), ["Channel 0", "Channel 1", "Channel 2"])
    colors = [[57.4, 50.6, 132.5], [216.4, 26.2, 201.0]]
    unmixing.reinit(nuvek.ColorUnmixingFilter.compute_matrix_from_colors(colors)[1])
    return unmixing


INPUTS = {
    "grey": lambda rng: grey(rng),
    "grey3": lambda rng: grey(rng, channels=3),
    "clean": lambda rng: grey(rng, special=False),
    "unit3": lambda rng: grey(rng, channels=3, special=False) / 255.0,
    "stack": lambda rng: grey(rng, channels=2, z=3),
    "small3": lambda rng: integers(rng, high=4) + 1.0,
    "binary": lambda rng: integers(rng, channels=1, high=2),
    "rgb": lambda rng: integers(rng, high=256),
}

# Each class built in Python against the registry's chain of the same arguments:
# class name -> (arguments of its first registry filter, the filter built in Python, input).
BY_CLASS = {
    "ClampingFilter": ("", lambda s: nuvek.ClampingFilter(s), "grey"),
    "ThresholdFilter": ("100 -1 2", lambda s: nuvek.ThresholdFilter(s, 100.0, -1.0, 2.0), "grey"),
    "AdditionFilter": ("() ()", lambda s: nuvek.AdditionFilter(s, s), "grey"),
    "DifferenceFilter": ("() ()", lambda s: nuvek.DifferenceFilter(s, s), "grey3"),
    "ConcatFilter": ("() ()", lambda s: nuvek.ConcatFilter([s, s]), "grey3"),
    "ChannelFilter": ("1 2", lambda s: nuvek.ChannelFilter(s, 1, 2), "grey3"),
    "RGBToHSVFilter": ("", lambda s: nuvek.RGBToHSVFilter(s), "unit3"),
    "ZStackFilter": ("1", lambda s: nuvek.ZStackFilter(s, 1), "stack"),
    "VoxelSizeModificationFilter": ("3 4 5", lambda s: nuvek.VoxelSizeModificationFilter(s, (3, 4, 5)), "grey"),
    "ValueReplacementFilter": ("1,2,3 9,8,7", lambda s: nuvek.ValueReplacementFilter(s, [1, 2, 3], [9, 8, 7]), "small3"),
    "BoxFilter": ("5 sum round", lambda s: nuvek.BoxFilter(s, 5, normalize=False, rounding=True), "grey"),
    "SeparableConvolutionFilter": ("1,2,1 -1,0,1", lambda s: nuvek.SeparableConvolutionFilter(s, [1, 2, 1], [-1, 0, 1]), "grey"),
    "GaussianBlurFilter": ("7", lambda s: nuvek.GaussianBlurFilter(s, 7), "grey3"),
    "SobelVectorFilter": ("vector 3", lambda s: nuvek.SobelVectorFilter(s, 3), "grey3"),
    "SobelMagnitudeFilter": ("magnitude 5", lambda s: nuvek.SobelMagnitudeFilter(s, 5), "grey"),
    "HarrisEigenvaluesFilter": ("5", lambda s: nuvek.HarrisEigenvaluesFilter(s, 5), "clean"),
    "LocalNormalizationFilter": ("2", lambda s: nuvek.LocalNormalizationFilter(s, 2), "clean"),
    "DistanceTransformFilter": ("0 10", lambda s: nuvek.DistanceTransformFilter(s, 0.0, 10), "binary"),
    "RadialSymmetryFilter": ("3 0.1", lambda s: nuvek.RadialSymmetryFilter(s, 3.0, 0.1), "clean"),
    "HistogramFilter": ("3 8", lambda s: nuvek.HistogramFilter(s, 3, 8), "clean"),
    "LBPFilter": ("2", lambda s: nuvek.LBPFilter(s, 2.0), "grey"),
    "ErosionFilter": ("3", lambda s: nuvek.ErosionFilter(s, 3), "grey"),
    "DilationFilter": ("5", lambda s: nuvek.DilationFilter(s, 5), "grey3"),
    "RankFilter": ("3 4", lambda s: nuvek.RankFilter(s, 3, 4), "grey"),
    "DownsampleFilter": ("0", lambda s: nuvek.DownsampleFilter(s, 0), "grey"),
    "UpsampleFilter": ("1 nearest", lambda s: nuvek.UpsampleFilter(s, 1, nuvek.UpsampleFilter.Interpolation.NearestNeighbor), "grey"),
    "ColorUnmixingFilter": ("hematoxylin+eosin 1", hematoxylin_eosin_unmixing, "rgb"),
}


def test_every_class_the_registry_builds_is_bound_and_checked():
    for entry in nuvek.filters():
        for name in entry["classes"]:
            assert issubclass(getattr(nuvek, name), nuvek.Filter), name
            assert name in BY_CLASS, f"{name} ({entry['name']}) has no Python constructor check"


@pytest.mark.parametrize("class_name", sorted(BY_CLASS))
def test_a_filter_built_in_python_equals_the_registry_chain(class_name, rng):
    arguments, build, kind = BY_CLASS[class_name]
    entry = next(entry for entry in nuvek.filters() if class_name in entry["classes"])
    source = nuvek.MemoryImage(INPUTS[kind](rng))
    image = build(source)
    chain = nuvek.Chain(f"{entry['name']} {arguments}".strip(), source)
    assert type(image).__name__ == class_name and chain.shareable == entry["shareable"]
    x, y, z = image.get_extent(0)
    # One box straddling the border at level 0 and one at level 1, each over all slices.
    for level, box in ((0, ((-3, -2, 0), (x + 1, y // 2, z - 1))), (1, ((2, -1, 0), (x // 2 + 2, y // 2, z - 1)))):
        ours, theirs = image.open_region(level, box), chain.output.open_region(level, box)
        assert same_bits(ours, theirs), f"level {level}: {first_difference(ours, theirs)}"


def test_constructor_variants_and_metadata_reach_the_library(rng):
    values = integers(rng, high=3)
    source = nuvek.MemoryImage(values)
    box = whole(source)
    by_dict = nuvek.ValueReplacementFilter(source, {(1.0, 2.0, 0.0): (5.0, 5.0, 5.0), (0.0, 0.0, 0.0): (7.0, 7.0, 7.0)})
    by_pair = nuvek.ValueReplacementFilter(nuvek.ValueReplacementFilter(source, [1, 2, 0], [5, 5, 5]), [0, 0, 0], [7, 7, 7])
    assert same_bits(by_dict.open_region(0, box), by_pair.open_region(0, box)) and by_dict.is_valid()
    assert nuvek.VoxelSizeModificationFilter(source, (3, 4, 5)).get_voxel_size(2) == (12, 16, 5)
    assert nuvek.VoxelSizeModificationFilter(source).get_voxel_size(1) == (2, 2, 1)
    assert same_bits(nuvek.BinaryOperatorFilter(source, nuvek.MemoryImage(values + 1)).open_region(0, box), values)
    assert nuvek.ChannelFilter(source, 0, 2).get_channel_names() == ["Channel 0", "Channel 1"]
    assert nuvek.LBPFilter(nuvek.ChannelFilter(source, 0)).get_channel_names() == ["LBP"]
    assert nuvek.canonical_chain_expression("clamp|gaussian  5") == "clamp | gaussian 5"
    kernel = nuvek.GaussianBlurFilter.get_gaussian_kernel(5)
    assert same_bits(nuvek.GaussianBlurFilter(source, 5).open_region(0, box),
                     nuvek.SeparableConvolutionFilter(source, kernel).open_region(0, box))


def test_arrays_are_channels_z_y_x_in_any_layout_and_dtype(rng):
    values = rng.uniform(size=(2, 3, 4, 5))
    image = nuvek.MemoryImage(values)
    assert (image.get_extent(0), image.get_num_channels()) == ((5, 4, 3), 2)
    assert same_bits(image.open_region(0, whole(image)), values)
    assert image.open_region(0, ((4, 3, 2), (4, 3, 2)))[1, 0, 0, 0] == values[1, 2, 3, 4]
    # A plane is one channel and one slice.
    plane = rng.integers(0, 100, size=(6, 9)).astype(np.int32)
    for array in (plane, np.asfortranarray(plane), plane[:, ::-1][:, ::-1]):
        image = nuvek.MemoryImage(array)
        assert image.get_extent(0) == (9, 6, 1) and image.get_num_channels() == 1
        assert same_bits(image.open_region(0, whole(image))[0, 0], plane)
    empty = image.open_region(0, ((2, 2, 0), (1, 2, 0)))
    assert empty.size == 0 and empty.shape[0] == 1


def test_open_region_fills_a_given_array_of_the_right_shape_only(rng):
    chain = nuvek.GaussianBlurFilter(nuvek.MemoryImage(rng.uniform(size=(2, 1, 6, 7))), 3)
    box = ((-1, 2, 0), (4, 5, 0))
    out = np.full((2, 1, 4, 6), np.nan)
    assert chain.open_region(0, box, out=out) is out
    assert same_bits(out, chain.open_region(0, box))
    for wrong in (np.zeros((2, 1, 4, 5)), np.zeros((2, 1, 4, 6), dtype=np.float32)):
        with pytest.raises(ValueError, match="^open_region: out"):
            chain.open_region(0, box, out=wrong)
    with pytest.raises(ValueError, match="C-contiguous"):
        chain.open_region(0, box, out=np.zeros((2, 1, 4, 12))[..., ::2])


class PlaneImage(nuvek.Image):
    """A Python source over a NumPy array (channels, z, y, x), zero outside."""

    def __init__(self, values):
        super().__init__()
        self.values = values
        self.requests = []

    def get_extent(self, level):
        return (self.values.shape[3] >> level, self.values.shape[2] >> level, self.values.shape[1])

    def get_num_channels(self):
        return self.values.shape[0]

    def get_num_levels(self):
        return 1

    def get_value_range(self):
        return (0.0, 255.0)

    def get_voxel_size(self, level):
        return (1, 1, 1)

    def get_channel_name(self, index):
        return f"Channel {index}"

    def get_hash(self):
        return 7

    def open_region(self, level, box):
        self.requests.append((level, box))
        (x0, y0, z0), (x1, y1, z1) = box
        padded = np.pad(self.values, ((0, 0), (0, 0), (20, 20), (20, 20)))
        return padded[:, z0 : z1 + 1, y0 + 20 : y1 + 21, x0 + 20 : x1 + 21]


class Failing(PlaneImage):
    def open_region(self, level, box):
        raise KeyError("no such tile")


class WrongShape(PlaneImage):
    def open_region(self, level, box):
        return np.zeros((1, 1, 2, 2))


@pytest.mark.parametrize("make, error, message", [
    (lambda s: nuvek.BoxFilter(s, 4), RuntimeError, "^Kernel size must be odd.$"),
    (lambda s: nuvek.ChannelFilter(s, "Blue"), RuntimeError, '^No channel named "Blue" found.$'),
    (lambda s: s.open_region(-1, whole(s)), RuntimeError, "^MemoryImage: the level must not be negative.$"),
    (lambda s: nuvek.LBPFilter(nuvek.MemoryImage(np.zeros((2, 1, 3, 3)))), RuntimeError, "^Error: "),
    (lambda s: nuvek.TiffImage("/nonexistent/a.tif"), RuntimeError, "^TiffImage: /nonexistent/a.tif: "),
    (lambda s: nuvek.MemoryImage((4, 3, 1), 2).set_channel_names(["One"]), RuntimeError,
     "^MemoryImage: expected 2 channel names, got 1.$"),
    # Found only when a region is opened: a channel beyond the input.
    (lambda s: nuvek.GaussianBlurFilter(nuvek.ChannelFilter(s, 3), 3).open_region(0, whole(s)), RuntimeError, ""),
    (lambda s: nuvek.Chain("clamp | blurr 3", s), RuntimeError, "Unknown filter 'blurr'"),
    (lambda s: nuvek.Chain("gaussian x", s), RuntimeError, "^gaussian: parameter 'k'"),
    (lambda s: nuvek.is_shareable("blurr"), RuntimeError, "Unknown filter 'blurr'"),
    (lambda s: nuvek.MemoryImage(np.zeros((2, 3, 4))), ValueError, r"shape \(channels, z, y, x\) or \(y, x\), got \(2, 3, 4\)"),
    (lambda s: nuvek.MemoryImage(np.array([["a", "b"]])), ValueError, "array of numbers"),
    (lambda s: s.set_values(np.zeros((4, 3))), ValueError, r"shape \(4, 3\) differs"),
    (lambda s: nuvek.BoxFilter("not an image", 3), TypeError, ""),
    (lambda s: s.open_region(0, ((0, 0), (1, 1))), TypeError, ""),
    # A Python source's exceptions and bad results.
    (lambda s: nuvek.GaussianBlurFilter(Failing(np.zeros((1, 1, 8, 8))), 3).open_region(0, whole(s)), KeyError,
     "no such tile"),
    (lambda s: nuvek.GaussianBlurFilter(WrongShape(np.zeros((1, 1, 8, 8))), 3).open_region(0, ((0, 0, 0), (3, 3, 0))),
     ValueError, r"shape \(1, 1, 2, 2\) for a box that needs \(1, 1, 6, 6\)"),
    (lambda s: nuvek.ClampingFilter(type("Incomplete", (nuvek.Image,), {})()).get_num_channels(), RuntimeError,
     "get_num_channels"),
])
def test_errors_arrive_as_python_exceptions_with_the_library_message(make, error, message):
    with pytest.raises(error, match=message):
        make(nuvek.MemoryImage(np.zeros((5, 5))))


def test_filters_chains_banks_and_concat_keep_their_inputs_alive():
    inputs = [nuvek.MemoryImage(np.full((4, 4), float(i))) for i in range(3)]
    trackers = [weakref.ref(i) for i in inputs]
    concat = nuvek.ConcatFilter(inputs)
    blur = nuvek.GaussianBlurFilter(nuvek.ClampingFilter(inputs[0]), 3)
    output = nuvek.Chain("clamp | box 3", inputs[1]).output
    channel = nuvek.ChannelBank(inputs[2]).get_channel("Channel 0")
    inputs.clear()
    gc.collect()
    assert all(t() is not None for t in trackers)
    assert concat.open_region(0, ((0, 0, 0), (0, 0, 0)))[:, 0, 0, 0].tolist() == [0.0, 1.0, 2.0]
    assert blur.open_region(0, ((0, 0, 0), (3, 3, 0))).shape == (1, 1, 4, 4)
    assert output.open_region(0, ((0, 0, 0), (0, 0, 0))).tolist() == [[[[1.0]]]]
    assert channel.open_region(0, ((0, 0, 0), (0, 0, 0))).tolist() == [[[[2.0]]]]
    del concat, blur, output, channel
    gc.collect()
    assert all(t() is None for t in trackers), "an input outlived every filter that used it"


def test_a_python_source_feeds_cpp_filters_on_several_threads(rng):
    values = grey(rng, channels=2, special=False)
    python_source = PlaneImage(values)
    memory_source = nuvek.MemoryImage(values)
    box = ((-4, -3, 0), (40, 20, 0))
    for build in (lambda s: nuvek.GaussianBlurFilter(nuvek.ClampingFilter(s), 5), lambda s: nuvek.RankFilter(s, 3, 2)):
        assert same_bits(build(python_source).open_region(0, box), build(memory_source).open_region(0, box))
    # The Gaussian asked for the box grown by its half kernel.
    assert (0, ((-6, -5, 0), (42, 22, 0))) in python_source.requests
    assert repr(python_source).startswith("<nuvek.PlaneImage extent=(37, 29, 1)")
    chain, reference = nuvek.BoxFilter(python_source, 3), nuvek.BoxFilter(memory_source, 3)
    tiles = [((x, y, 0), (x + 9, y + 6, 0)) for x in range(0, 37, 10) for y in range(0, 29, 7)] * 3
    with ThreadPoolExecutor(4) as pool:
        for box, tile in zip(tiles, pool.map(lambda box: chain.open_region(0, box), tiles)):
            assert same_bits(tile, reference.open_region(0, box))


def test_a_python_pixel_processing_filter_sees_every_voxel(rng):
    class Mean(nuvek.PixelProcessingFilter):
        def process_pixel(self, values):
            return sum(values) / len(values)

        def get_channel_name(self, index):
            return "mean"

    values = integers(rng, channels=3, y=5, x=6, high=10)
    mean = Mean(nuvek.ChannelBank(nuvek.MemoryImage(values)), ["Channel 0", "Channel 2"])
    out = mean.open_region(0, ((-1, 0, 0), (5, 4, 0)))
    assert out.shape == (1, 1, 5, 7)
    assert np.array_equal(out[0, 0, :, 1:], (values[0, 0] + values[2, 0]) / 2)
    assert np.all(out[0, 0, :, 0] == 0)
