"""Enhancers for tests. Without a GL driver tests are skipped, or fail where NOXEL_REQUIRE_GL is 1."""

import functools
import os

import noxel
import numpy as np
import pytest

SIZE = (96, 64)  # small: the GPU is software


@pytest.fixture(scope="session")
def make(tmp_path_factory):
    """Makes enhancers that share a cache of programs; they are closed by whoever makes them."""
    make = functools.partial(noxel.Enhancer, cache_directory=tmp_path_factory.mktemp("programs"))
    try:
        make(16, 16).close()
    except noxel.Error as error:
        if error.code != -3 or os.environ.get("NOXEL_REQUIRE_GL") == "1":
            raise
        pytest.skip("no OpenGL ES 3.0 here")
    return make


def scene(width, height):
    """Luma of a still, bright scene: waves of 12 and 19 pixels, 60 to 190 levels."""
    x, y = np.meshgrid(np.arange(width), np.arange(height))
    return 125 + 35 * np.sin(x * 2 * np.pi / 12) + 30 * np.sin((x + 2 * y) * 2 * np.pi / 19)


def noisy(count, width, height, sigma=6.0, seed=1):
    """Frames of the scene with independent Gaussian noise: (Y, U, V) each, U and V of 120 and 140 levels."""
    random = np.random.default_rng(seed)
    clean = (scene(width, height), np.full(((height + 1) // 2, (width + 1) // 2), 120.0))
    planes = (clean[0], clean[1], clean[1] + 20)

    def taken(plane):
        return np.clip(np.rint(plane + random.normal(0, sigma, plane.shape)), 0, 255).astype(np.uint8)

    return [tuple(taken(plane) for plane in planes) for _ in range(count)]


def packed(planes):
    """Planes in one (height * 3/2, width) array."""
    width = planes[0].shape[1]
    return np.concatenate([plane.reshape(-1) for plane in planes]).reshape(-1, width)


def same(one, other):
    """Whether two frames, both in one array or both as planes, have the same bytes."""
    if isinstance(one, np.ndarray):
        return np.array_equal(one, other)
    return len(one) == len(other) and all(np.array_equal(a, b) for a, b in zip(one, other))
