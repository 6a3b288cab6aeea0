import os

import numpy as np
import pytest

import nuvek


def same_bits(a, b):
    """Equal shapes and identical float64 bits (NaN and -0.0 included)."""
    a = np.ascontiguousarray(a, dtype=np.float64)
    b = np.ascontiguousarray(b, dtype=np.float64)
    return a.shape == b.shape and np.array_equal(a.view(np.uint64), b.view(np.uint64))


def first_difference(a, b):
    """A readable (c, z, y, x) position and both values of the first differing voxel."""
    differing = np.argwhere(a.view(np.uint64) != b.view(np.uint64))
    if len(differing) == 0:
        return "no difference"
    position = tuple(int(i) for i in differing[0])
    return f"at (c, z, y, x) = {position}: {a[position].hex()} vs {b[position].hex()}"


@pytest.fixture
def chain_reference():
    """Runs the C++-only reference program on values (channels, z, y, x) and returns its region."""
    program = os.environ.get("NUVEK_CHAIN_REFERENCE")
    if not program:
        pytest.fail("NUVEK_CHAIN_REFERENCE is not set: run the tests through ctest.")

    def run(tmp_path, expression, values, level, box):
        import subprocess

        values = np.ascontiguousarray(values, dtype=np.float64)
        channels, z, y, x = values.shape
        source = tmp_path / "input.raw"
        target = tmp_path / "output.raw"
        values.tofile(source)
        (x0, y0, z0), (x1, y1, z1) = box
        arguments = [program, expression, str(source), str(x), str(y), str(z), str(channels), str(level)]
        arguments += [str(v) for v in (x0, y0, z0, x1, y1, z1)] + [str(target)]
        subprocess.run(arguments, check=True, capture_output=True)
        result = np.fromfile(target, dtype=np.float64)
        return result.reshape((-1, z1 - z0 + 1, y1 - y0 + 1, x1 - x0 + 1))

    return run


@pytest.fixture
def rng():
    return np.random.default_rng(20261121)


def grey(rng, channels=1, z=1, y=29, x=37, special=True):
    values = rng.uniform(0.0, 255.0, size=(channels, z, y, x)).round(3)
    if special:
        flat = values.reshape(-1)
        picks = rng.choice(flat.size, size=6, replace=False)
        flat[picks[:2]] = np.nan
        flat[picks[2:4]] = np.inf
        flat[picks[4:]] = -np.inf
    return values


def integers(rng, channels=3, z=1, y=29, x=37, high=4):
    return rng.integers(0, high, size=(channels, z, y, x)).astype(np.float64)


def whole(image, level=0):
    return nuvek.whole_box(image, level)
