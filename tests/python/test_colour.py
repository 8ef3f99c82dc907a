"""RGB to YUV and back against the standards' formulas in double precision."""

import noxel
import numpy as np
import pytest

WEIGHTS = {"bt601": (0.299, 0.587, 0.114), "bt709": (0.2126, 0.7152, 0.0722)}
EVERY = [(matrix, range) for matrix in WEIGHTS for range in ("limited", "full")]
HALF = 0.5 + 1e-3  # a rounding, and that of single precision


def exact(rgb, matrix, range):
    """Y, U and V of each pixel, not rounded."""
    kr, kg, kb = WEIGHTS[matrix]
    r, g, b = np.moveaxis(rgb / 255.0, -1, 0)
    y = kr * r + kg * g + kb * b
    u, v = (b - y) / (2 * (1 - kb)), (r - y) / (2 * (1 - kr))
    if range == "full":
        return 255 * y, 128 + 255 * u, 128 + 255 * v
    return 16 + 219 * y, 128 + 224 * u, 128 + 224 * v


@pytest.mark.parametrize("matrix, range", EVERY)
def test_codes_are_within_half_a_code_of_the_formula(matrix, range):
    colours = np.random.default_rng(3).integers(0, 256, (64, 64, 3), np.uint8)
    y, u, v = noxel.rgb_to_planes(colours.repeat(2, 0).repeat(2, 1), matrix, range)  # flat blocks of 2 x 2
    for plane, value in zip((y[::2, ::2], u, v), exact(colours, matrix, range)):
        # 255.5 of a full range's saturated blue is cut to 255.
        assert np.abs(plane - np.clip(value, 0, 255)).max() <= HALF


def test_known_colours_have_their_published_codes():
    red = np.full((2, 2, 3), (255, 0, 0), np.uint8)
    white = np.full((2, 2, 3), 255, np.uint8)
    codes = lambda *arguments: tuple(int(plane[0, 0]) for plane in noxel.rgb_to_planes(*arguments))
    assert codes(red, "bt601", "limited") == (81, 90, 240)
    assert codes(red, "bt709", "limited") == (63, 102, 240)
    assert codes(white, "bt709", "limited") == (235, 128, 128)
    assert codes(white, "bt601", "full") == (255, 128, 128)
    assert codes(red[..., ::-1], "bt601", "limited", "bgr") == (81, 90, 240)


@pytest.mark.parametrize("matrix, range", EVERY)
@pytest.mark.parametrize("order", ["rgb", "bgr"])
def test_a_picture_comes_back_from_its_planes(matrix, range, order):
    # Colours change evenly, so that interpolated chroma is exact away from the edges.
    x, y = np.meshgrid(np.arange(47), np.arange(31))
    picture = np.stack((40 + 2 * x, 60 + 3 * y, 200 - x - 2 * y), -1).astype(np.uint8)
    planes = noxel.rgb_to_planes(picture, matrix, range, order)
    assert [plane.shape for plane in planes] == [(31, 47), (16, 24), (16, 24)]
    back = noxel.planes_to_rgb(planes, matrix, range, order)
    # Half a code of luma and half a code of chroma by a weight of at most 1.86 and 255/219: 0.6 + 1.1, and a rounding.
    inner = np.abs(back.astype(int) - picture)[2:-2, 2:-2]
    assert inner.max() <= 2
    assert inner.mean() < 0.8


def test_what_is_no_picture_or_no_colour_is_refused():
    picture = np.zeros((4, 4, 3), np.uint8)
    for arguments in ((picture, "bt2020"), (picture, "bt601", "tv"), (picture.astype(float),), (picture[..., 0],)):
        with pytest.raises(ValueError):
            noxel.rgb_to_planes(*arguments)
