import numpy as np
import pytest

import nuvek


def same_bits(a, b):
    """Equal shapes and identical float64 bits (NaN and -0.0 included)."""
    a = np.ascontiguousarray(a, dtype=np.float64)
    b = np.ascontiguousarray(b, dtype=np.float64)
    return a.shape == b.shape and np.array_equal(a.view(np.uint64), b.view(np.uint64))


def first_difference(a, b):
    """The (c, z, y, x) position and both values of the first differing voxel."""
    differing = np.argwhere(a.view(np.uint64) != b.view(np.uint64))
    position = tuple(int(i) for i in differing[0]) if len(differing) else None
    return position and f"at (c, z, y, x) = {position}: {a[position].hex()} vs {b[position].hex()}"


@pytest.fixture
def rng():
    return np.random.default_rng(20261121)


def grey(rng, channels=1, z=1, y=29, x=37, special=True):
    """Values of 0 to 255 (channels, z, y, x); with two each of NaN, +inf and -inf when special."""
    values = rng.uniform(0.0, 255.0, size=(channels, z, y, x)).round(3)
    if special:
        flat = values.reshape(-1)
        picks = rng.choice(flat.size, size=6, replace=False)
        flat[picks[:2]], flat[picks[2:4]], flat[picks[4:]] = np.nan, np.inf, -np.inf
    return values


def integers(rng, channels=3, z=1, y=29, x=37, high=4):
    return rng.integers(0, high, size=(channels, z, y, x)).astype(np.float64)


def whole(image, level=0):
    return nuvek.whole_box(image, level)
