import gc
import threading
import time
import weakref
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
import tifffile
from conftest import first_difference, grey, integers, same_bits, whole

import nuvek


def hematoxylin_eosin_unmixing(source):
    bank = nuvek.ChannelBank(source)
    unmixing = nuvek.ColorUnmixingFilter(bank, ["Channel 0", "Channel 1", "Channel 2"])
    colors = [[57.4, 50.6, 132.5], [216.4, 26.2, 201.0]]
    unmixing.reinit(nuvek.ColorUnmixingFilter.compute_matrix_from_colors(colors)[1])
    return unmixing


def registry_examples():
    """(expression, entry) for every example of every filter of the registry, input stages included."""
    cases = []
    for entry in nuvek.filters():
        for example in entry["examples"]:
            stage = f"{entry['name']} {example}".strip()
            cases.append(((entry["example_input"] + " | " if entry["example_input"] else "") + stage, entry))
    return cases


EXAMPLES = registry_examples()


def filter_named_for(class_name):
    """The first filter of the registry that builds class_name."""
    return next(entry["name"] for entry in nuvek.filters() if class_name in entry["classes"])


# Python constructors checked class by class against the registry's chain of the same arguments:
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
    "ValueReplacementFilter": ("1,2,3 9,8,7", lambda s: nuvek.ValueReplacementFilter(s, [1.0, 2.0, 3.0], [9.0, 8.0, 7.0]), "small3"),
    "BoxFilter": ("5 sum round", lambda s: nuvek.BoxFilter(s, 5, normalize=False, rounding=True), "grey"),
    "SeparableConvolutionFilter": ("1,2,1 -1,0,1", lambda s: nuvek.SeparableConvolutionFilter(s, [1.0, 2.0, 1.0], [-1.0, 0.0, 1.0]), "grey"),
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


def make_input(kind, rng):
    if kind == "grey":
        return grey(rng)
    if kind == "grey3":
        return grey(rng, channels=3)
    if kind == "clean":
        return grey(rng, special=False)
    if kind == "unit3":
        return grey(rng, channels=3, special=False) / 255.0
    if kind == "stack":
        return grey(rng, channels=2, z=3)
    if kind == "small3":
        return integers(rng, high=4) + np.array([1.0, 1.0, 1.0]).reshape(3, 1, 1, 1)
    if kind == "binary":
        return integers(rng, channels=1, high=2)
    if kind == "rgb":
        return integers(rng, high=256)
    raise AssertionError(kind)


def assert_same_as_reference(image, expression, values, tmp_path, chain_reference):
    x, y, z = image.get_extent(0)
    # One box straddling the border at level 0 and one at level 1, each over all slices.
    boxes = [(0, ((-3, -2, 0), (x + 1, y // 2, z - 1))), (1, ((2, -1, 0), (x // 2 + 2, y // 2, z - 1)))]
    for level, box in boxes:
        ours = image.open_region(level, box)
        theirs = chain_reference(tmp_path, expression, values, level, box)
        assert ours.dtype == np.float64 and ours.flags.c_contiguous
        assert ours.shape == theirs.shape
        assert same_bits(ours, theirs), f"{expression} level {level}: {first_difference(ours, theirs)}"


@pytest.mark.parametrize("expression, entry", EXAMPLES, ids=[c[0] for c in EXAMPLES])
def test_every_registry_example_gives_the_cpp_result_through_python(expression, entry, rng, tmp_path, chain_reference):
    values = grey(rng, channels=entry["input_channels"])
    chain = nuvek.Chain(expression, nuvek.MemoryImage(values))
    assert chain.shareable == entry["shareable"]
    assert type(chain.output).__name__ in entry["classes"]
    assert_same_as_reference(chain.output, expression, values, tmp_path, chain_reference)


def test_every_class_the_registry_builds_is_bound_and_checked():
    for entry in nuvek.filters():
        for name in entry["classes"]:
            assert issubclass(getattr(nuvek, name), nuvek.Filter), name
            assert name in BY_CLASS, f"{name} ({entry['name']}) has no Python constructor check"


@pytest.mark.parametrize("class_name", sorted(BY_CLASS))
def test_every_filter_class_built_in_python_gives_the_registry_result(class_name, rng, tmp_path, chain_reference):
    arguments, build, kind = BY_CLASS[class_name]
    expression = f"{filter_named_for(class_name)} {arguments}".strip()
    values = make_input(kind, rng)
    image = build(nuvek.MemoryImage(values))
    assert type(image).__name__ == class_name
    assert_same_as_reference(image, expression, values, tmp_path, chain_reference)


def test_constructor_variants_and_metadata_reach_the_library(rng):
    values = integers(rng, high=3)
    source = nuvek.MemoryImage(values)
    box = whole(source)
    by_dict = nuvek.ValueReplacementFilter(source, {(1.0, 2.0, 0.0): (5.0, 5.0, 5.0), (0.0, 0.0, 0.0): (7.0, 7.0, 7.0)})
    by_pair = nuvek.ValueReplacementFilter(nuvek.ValueReplacementFilter(source, [1, 2, 0], [5, 5, 5]), [0, 0, 0], [7, 7, 7])
    assert same_bits(by_dict.open_region(0, box), by_pair.open_region(0, box)) and by_dict.is_valid()
    with pytest.raises(RuntimeError):
        nuvek.ValueReplacementFilter(source, [1.0], [2.0])

    resized = nuvek.VoxelSizeModificationFilter(source, (3, 4, 5))
    assert resized.get_voxel_size(0) == (3, 4, 5) and resized.get_voxel_size(2) == (12, 16, 5)
    assert nuvek.VoxelSizeModificationFilter(source).get_voxel_size(1) == (2, 2, 1)

    other = nuvek.MemoryImage(integers(rng, high=3))
    assert same_bits(nuvek.BinaryOperatorFilter(source, other).open_region(0, box), values)
    assert nuvek.ChannelFilter(source, 0, 2).get_channel_names() == ["Channel 0", "Channel 1"]
    assert nuvek.LBPFilter(nuvek.ChannelFilter(source, 0)).get_channel_names() == ["LBP"]
    kernel = nuvek.GaussianBlurFilter.get_gaussian_kernel(5)
    assert same_bits(nuvek.GaussianBlurFilter(source, 5).open_region(0, box),
                     nuvek.SeparableConvolutionFilter(source, kernel).open_region(0, box))


class TestMemoryImage:
    def test_array_axes_are_channels_z_y_x(self, rng):
        values = rng.uniform(size=(2, 3, 4, 5))
        image = nuvek.MemoryImage(values)
        assert image.get_extent(0) == (5, 4, 3)
        assert image.get_num_channels() == 2
        assert same_bits(image.open_region(0, whole(image)), values)
        # A single voxel: channel 1, z 2, y 3, x 4.
        assert image.open_region(0, ((4, 3, 2), (4, 3, 2)))[1, 0, 0, 0] == values[1, 2, 3, 4]

    def test_a_plane_is_one_channel_one_slice_and_any_layout_or_dtype_converts(self, rng):
        plane = rng.integers(0, 100, size=(6, 9)).astype(np.int32)
        for values in (plane, np.asfortranarray(plane), plane.T.copy().T, plane[:, ::-1][:, ::-1]):
            image = nuvek.MemoryImage(values)
            assert image.get_extent(0) == (9, 6, 1) and image.get_num_channels() == 1
            assert same_bits(image.open_region(0, whole(image))[0, 0], plane.astype(np.float64))

    def test_bad_arrays_are_value_errors(self):
        with pytest.raises(ValueError, match=r"shape \(channels, z, y, x\) or \(y, x\), got \(2, 3, 4\)"):
            nuvek.MemoryImage(np.zeros((2, 3, 4)))
        with pytest.raises(ValueError, match="array of numbers"):
            nuvek.MemoryImage(np.array([["a", "b"]]))
        image = nuvek.MemoryImage(np.zeros((3, 4)))
        with pytest.raises(ValueError, match=r"shape \(4, 3\) differs"):
            image.set_values(np.zeros((4, 3)))

    def test_open_region_fills_a_given_array(self, rng):
        values = rng.uniform(size=(2, 1, 6, 7))
        chain = nuvek.GaussianBlurFilter(nuvek.MemoryImage(values), 3)
        box = ((-1, 2, 0), (4, 5, 0))
        out = np.full((2, 1, 4, 6), np.nan)
        assert chain.open_region(0, box, out=out) is out
        assert same_bits(out, chain.open_region(0, box))
        for wrong in (np.zeros((2, 1, 4, 5)), np.zeros((2, 1, 4, 6), dtype=np.float32), np.zeros((2, 1, 6, 4)).T.T[..., :4, :6]):
            with pytest.raises(ValueError, match="^open_region: out"):
                chain.open_region(0, box, out=wrong)
        with pytest.raises(ValueError, match="C-contiguous"):
            chain.open_region(0, box, out=np.zeros((2, 1, 4, 12))[..., ::2])

    def test_empty_box_gives_an_empty_array(self):
        image = nuvek.MemoryImage(np.ones((2, 1, 3, 3)))
        empty = image.open_region(0, ((2, 2, 0), (1, 2, 0)))
        assert empty.size == 0 and empty.shape[0] == 2


class TestErrors:
    def test_library_messages_arrive_as_runtime_errors(self):
        source = nuvek.MemoryImage(np.zeros((5, 5)))
        cases = [
            (lambda: nuvek.BoxFilter(source, 4), "Kernel size must be odd."),
            (lambda: nuvek.ChannelFilter(source, "Blue"), 'No channel named "Blue" found.'),
            (lambda: source.open_region(-1, whole(source)), "MemoryImage: the level must not be negative."),
            (lambda: nuvek.LBPFilter(nuvek.MemoryImage(np.zeros((2, 1, 3, 3)))), "^Error: "),
            (lambda: nuvek.TiffImage("/nonexistent/a.tif"), "^TiffImage: /nonexistent/a.tif: "),
            (lambda: nuvek.MemoryImage((4, 3, 1), 2).set_channel_names(["One"]),
             "MemoryImage: expected 2 channel names, got 1."),
        ]
        for make, message in cases:
            with pytest.raises(RuntimeError) as caught:
                make()
            if message.startswith("^"):
                assert str(caught.value).startswith(message[1:])
            else:
                assert str(caught.value) == message

    def test_an_error_inside_open_region_reaches_the_caller(self):
        # A channel index beyond the input is found only when a region is opened.
        chain = nuvek.GaussianBlurFilter(nuvek.ChannelFilter(nuvek.MemoryImage(np.zeros((5, 5))), 3), 3)
        with pytest.raises(RuntimeError):
            chain.open_region(0, ((0, 0, 0), (4, 4, 0)))

    def test_chain_expressions_report_their_mistakes(self):
        source = nuvek.MemoryImage(np.zeros((5, 5)))
        with pytest.raises(RuntimeError, match="Unknown filter 'blurr'"):
            nuvek.Chain("clamp | blurr 3", source)
        with pytest.raises(RuntimeError, match="gaussian"):
            nuvek.Chain("gaussian x", source)
        assert nuvek.canonical_chain_expression("clamp|gaussian  5") == "clamp | gaussian 5"
        assert all(nuvek.is_shareable(f"{entry['name']} {entry['examples'][0]}") for entry in nuvek.filters())
        with pytest.raises(RuntimeError, match="Unknown filter 'blurr'"):
            nuvek.is_shareable("blurr")

    def test_wrong_argument_types_are_type_errors(self):
        with pytest.raises(TypeError):
            nuvek.BoxFilter("not an image", 3)
        with pytest.raises(TypeError):
            nuvek.MemoryImage(np.zeros((3, 3))).open_region(0, ((0, 0), (1, 1)))


class TestLifetime:
    def test_filters_keep_their_inputs_alive(self):
        def build():
            source = nuvek.MemoryImage(np.arange(25.0).reshape(5, 5))
            tracker = weakref.ref(source)
            return nuvek.GaussianBlurFilter(nuvek.ClampingFilter(source), 3), tracker

        blur, tracker = build()
        gc.collect()
        assert tracker() is not None
        assert blur.open_region(0, ((0, 0, 0), (4, 4, 0))).shape == (1, 1, 5, 5)
        del blur
        gc.collect()
        assert tracker() is None, "the source outlived the only filter that used it"

    def test_concat_holds_its_inputs_even_when_the_list_changes(self):
        inputs = [nuvek.MemoryImage(np.full((3, 3), float(i))) for i in range(3)]
        trackers = [weakref.ref(i) for i in inputs]
        concat = nuvek.ConcatFilter(inputs)
        inputs.clear()
        gc.collect()
        assert all(t() is not None for t in trackers)
        assert concat.open_region(0, ((0, 0, 0), (0, 0, 0)))[:, 0, 0, 0].tolist() == [0.0, 1.0, 2.0]
        del concat
        gc.collect()
        assert all(t() is None for t in trackers)

    def test_chains_banks_and_channels_keep_what_they_read(self):
        def build():
            source = nuvek.MemoryImage(np.ones((3, 1, 4, 4)))
            return nuvek.Chain("clamp | box 3", source), nuvek.ChannelBank(nuvek.MemoryImage(np.ones((2, 1, 4, 4))))

        chain, bank = build()
        gc.collect()
        output = chain.output
        del chain
        gc.collect()
        assert output.open_region(0, ((0, 0, 0), (3, 3, 0))).shape == (3, 1, 4, 4)
        channel = bank.get_channel("Channel 1")
        del bank
        gc.collect()
        assert channel.open_region(0, ((0, 0, 0), (1, 1, 0))).tolist() == [[[[1.0, 1.0], [1.0, 1.0]]]]


class PlaneImage(nuvek.Image):
    """A Python source over a NumPy array (channels, z, y, x), zero outside."""

    def __init__(self, values):
        super().__init__()
        self.values = values
        self.requests = []

    def get_extent(self, level):
        c, z, y, x = self.values.shape
        return (x >> level, y >> level, z)

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
        c, depth, height, width = self.values.shape
        padded = np.zeros((c, depth, height + 40, width + 40))
        padded[:, :, 20:-20, 20:-20] = self.values
        return padded[:, z0 : z1 + 1, y0 + 20 : y1 + 21, x0 + 20 : x1 + 21]


class TestPythonSources:
    def test_a_python_image_feeds_cpp_filters_like_a_memory_image(self, rng):
        values = grey(rng, channels=2, special=False)
        python_source = PlaneImage(values)
        memory_source = nuvek.MemoryImage(values)
        box = ((-4, -3, 0), (40, 20, 0))
        for build in (lambda s: nuvek.GaussianBlurFilter(nuvek.ClampingFilter(s), 5), lambda s: nuvek.RankFilter(s, 3, 2)):
            assert same_bits(build(python_source).open_region(0, box), build(memory_source).open_region(0, box))
        # The Gaussian asked for the box grown by its half kernel.
        assert ((0, ((-6, -5, 0), (42, 22, 0))) in python_source.requests)
        assert repr(python_source).startswith("<nuvek.PlaneImage extent=(37, 29, 1)")

    def test_python_sources_serve_several_threads(self, rng):
        values = grey(rng, special=False)
        chain = nuvek.BoxFilter(PlaneImage(values), 3)
        reference = nuvek.BoxFilter(nuvek.MemoryImage(values), 3)
        tiles = [((x, y, 0), (min(x + 9, 36), min(y + 6, 28), 0)) for x in range(0, 37, 10) for y in range(0, 29, 7)]
        with ThreadPoolExecutor(4) as pool:
            results = list(pool.map(lambda box: chain.open_region(0, box), tiles * 3))
        for box, tile in zip(tiles * 3, results):
            assert same_bits(tile, reference.open_region(0, box))

    def test_python_exceptions_and_bad_results_reach_the_caller(self):
        class Failing(PlaneImage):
            def open_region(self, level, box):
                raise KeyError("no such tile")

        class WrongShape(PlaneImage):
            def open_region(self, level, box):
                return np.zeros((1, 1, 2, 2))

        class Incomplete(nuvek.Image):
            pass

        with pytest.raises(KeyError, match="no such tile"):
            nuvek.GaussianBlurFilter(Failing(np.zeros((1, 1, 8, 8))), 3).open_region(0, ((0, 0, 0), (3, 3, 0)))
        with pytest.raises(ValueError, match=r"shape \(1, 1, 2, 2\) for a box that needs \(1, 1, 6, 6\)"):
            nuvek.GaussianBlurFilter(WrongShape(np.zeros((1, 1, 8, 8))), 3).open_region(0, ((0, 0, 0), (3, 3, 0)))
        with pytest.raises(RuntimeError, match="get_num_channels"):
            nuvek.ClampingFilter(Incomplete()).get_num_channels()

    def test_a_python_pixel_processing_filter_sees_every_voxel(self, rng):
        class Mean(nuvek.PixelProcessingFilter):
            def process_pixel(self, values):
                return sum(values) / len(values)

            def get_channel_name(self, index):
                return "mean"

        values = integers(rng, channels=3, y=5, x=6, high=10)
        bank = nuvek.ChannelBank(nuvek.MemoryImage(values))
        mean = Mean(bank, ["Channel 0", "Channel 2"])
        out = mean.open_region(0, ((-1, 0, 0), (5, 4, 0)))
        assert out.shape == (1, 1, 5, 7)
        assert np.array_equal(out[0, 0, :, 1:], (values[0, 0] + values[2, 0]) / 2)
        assert np.all(out[0, 0, :, 0] == 0)


class TestThreads:
    def test_open_region_releases_the_interpreter_lock(self, rng):
        chain = nuvek.RankFilter(nuvek.MemoryImage(rng.uniform(size=(1, 1, 500, 500))), 31, 480)

        def spin(stop):
            turns = 0
            while not stop():
                turns += 1
            return turns

        start = time.perf_counter()
        rate = spin(lambda: time.perf_counter() - start > 0.2) / 0.2
        seconds = []

        def work():
            begin = time.perf_counter()
            chain.open_region(0, ((0, 0, 0), (499, 499, 0)))
            seconds.append(time.perf_counter() - begin)

        worker = threading.Thread(target=work)
        worker.start()
        turns = spin(lambda: not worker.is_alive())
        worker.join()
        # Holding the lock through the computation would leave this thread only the few switch
        # intervals (5 ms each) around it: well under a tenth of its pace over the whole call.
        assert turns > 0.1 * rate * seconds[0], (turns, rate, seconds)

class TestFiles:
    def test_tiff_and_slide_sources_read_what_was_written(self, rng, tmp_path):
        rgb = rng.integers(0, 256, size=(300, 260, 3), dtype=np.uint8)
        path = tmp_path / "plain.tif"
        tifffile.imwrite(path, rgb, photometric="rgb", tile=(64, 64))
        image = nuvek.open_image(str(path))
        assert isinstance(image, nuvek.TiffImage)
        assert image.get_channel_names() == ["Red", "Green", "Blue"]
        assert same_bits(image.open_region(0, whole(image)), np.moveaxis(rgb, 2, 0)[:, np.newaxis].astype(np.float64))
        pyramid = tmp_path / "pyramid.tif"
        assert nuvek.write_pyramidal_tiff(image, str(pyramid), tile_size=64, sample_type="uint8")
        slide = nuvek.SlideImage(str(pyramid))
        assert slide.has_level(1) and same_bits(slide.open_region(0, whole(slide)), image.open_region(0, whole(image)))

    def test_writing_floats_keeps_values_and_cancelling_leaves_nothing(self, rng, tmp_path):
        values = rng.normal(size=(2, 1, 70, 90))
        source = nuvek.MemoryImage(values)
        path = tmp_path / "floats.tif"
        calls = []
        assert nuvek.write_pyramidal_tiff(source, str(path), tile_size=32, sample_type="float32",
                                          progress=lambda done, total: calls.append((done, total)) or True)
        assert calls[-1][0] == calls[-1][1] > 1
        assert same_bits(nuvek.TiffImage(str(path)).open_region(0, whole(source)), values.astype(np.float32))

        cancelled = tmp_path / "cancelled.tif"
        assert not nuvek.write_pyramidal_tiff(source, str(cancelled), tile_size=32, progress=lambda done, total: False)
        assert not cancelled.exists()
        with pytest.raises(ValueError, match="compression must be"):
            nuvek.write_pyramidal_tiff(source, str(cancelled), compression="zip")
        with pytest.raises(RuntimeError, match="^writePyramidalTiff: "):
            nuvek.write_pyramidal_tiff(source, str(cancelled), tile_size=30)
