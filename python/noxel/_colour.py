"""RGB to 8-bit YUV 4:2:0 and back, by NumPy, for planes from elsewhere: an Enhancer takes RGB itself.

    Y' = kr R' + kg G' + kb B'    Cb = (B' - Y') / (2 (1 - kb))    Cr = (R' - Y') / (2 (1 - kr))

with R'G'B' and Y' in 0..1 and chroma in -1/2..1/2. Codes are 255 Y' and 128 + 255 C in full range, 16 + 219 Y' and
128 + 224 C in limited, rounded and clipped to 0..255. Chroma samples lie in the middle of their 2 x 2 pixels: each is
the mean of them, and pixels are interpolated between samples.
"""

from __future__ import annotations

from typing import Sequence

import numpy as np
import numpy.typing as npt

Plane = npt.NDArray[np.uint8]
_Floats = npt.NDArray[np.float32]

_WEIGHTS = {"bt601": (0.299, 0.587, 0.114), "bt709": (0.2126, 0.7152, 0.0722)}
_LUMA = {"limited": (16.0, 219.0), "full": (0.0, 255.0)}  # code of black, codes from black to white
_CHROMA = {"limited": 224.0, "full": 255.0}  # codes from -1/2 to 1/2


def _weights(matrix: str, range: str) -> tuple[float, float, float]:
    if matrix not in _WEIGHTS:
        raise ValueError(f"matrix is one of {', '.join(_WEIGHTS)}, not {matrix!r}")
    if range not in _LUMA:
        raise ValueError(f"range is one of {', '.join(_LUMA)}, not {range!r}")
    return _WEIGHTS[matrix]


def _codes(values: _Floats, out: Plane | None = None) -> Plane:
    np.rint(values, out=values)
    np.clip(values, 0, 255, out=values)
    if out is None:
        return values.astype(np.uint8)
    np.copyto(out, values, casting="unsafe")
    return out


def _halved(values: _Floats) -> _Floats:
    """Means of 2 x 2; an odd last row or column counts twice."""
    rows, columns = values.shape
    if rows % 2 or columns % 2:
        values = np.pad(values, ((0, rows % 2), (0, columns % 2)), mode="edge")
    rows_added = values[0::2] + values[1::2]
    means: _Floats = (rows_added[:, 0::2] + rows_added[:, 1::2]) * np.float32(0.25)
    return means


def _doubled(values: _Floats, length: int) -> _Floats:
    """Rows interpolated to `length` rows: each lies 1/4 of a sample from the nearest one, 3/4 from the next."""
    before = np.concatenate((values[:1], values[:-1]))
    after = np.concatenate((values[1:], values[-1:]))
    near = values * np.float32(0.75)
    result = np.empty((2 * values.shape[0], *values.shape[1:]), np.float32)
    result[0::2] = near + before * np.float32(0.25)
    result[1::2] = near + after * np.float32(0.25)
    return result[:length]


def rgb_to_planes(
    rgb: Plane, matrix: str = "bt601", range: str = "limited", order: str = "rgb"
) -> tuple[Plane, Plane, Plane]:
    """Y, U and V of a (height, width, 3) array; order "bgr" for OpenCV's pictures."""
    kr, kg, kb = _weights(matrix, range)
    if rgb.ndim != 3 or rgb.shape[2] != 3 or rgb.dtype != np.uint8:
        raise ValueError(f"an RGB picture is a uint8 array of (height, width, 3), not {rgb.dtype} {rgb.shape}")
    black, luma = _LUMA[range]
    red, blue = (0, 2) if order == "rgb" else (2, 0)
    floats = rgb.astype(np.float32)
    r, g, b = floats[..., red], floats[..., 1], floats[..., blue]
    y = r * np.float32(kr) + g * np.float32(kg) + b * np.float32(kb)  # 0..255
    chroma = _CHROMA[range] / 255
    mean = _halved(y)  # the means of B - Y and R - Y are differences of means
    u = (_halved(b) - mean) * np.float32(chroma / (2 * (1 - kb))) + np.float32(128)
    v = (_halved(r) - mean) * np.float32(chroma / (2 * (1 - kr))) + np.float32(128)
    return _codes(y * np.float32(luma / 255) + np.float32(black)), _codes(u), _codes(v)


def planes_to_rgb(
    planes: Sequence[Plane],
    matrix: str = "bt601",
    range: str = "limited",
    order: str = "rgb",
    out: Plane | None = None,
) -> Plane:
    """The (height, width, 3) picture of Y, U and V."""
    kr, kg, kb = _weights(matrix, range)
    black, luma = _LUMA[range]
    height, width = planes[0].shape
    y = (planes[0].astype(np.float32) - np.float32(black)) * np.float32(255 / luma)
    chroma = [
        _doubled(np.ascontiguousarray(_doubled(plane.astype(np.float32) - np.float32(128), height).T), width).T
        for plane in planes[1:]
    ]
    scale = 255 / _CHROMA[range]
    blue = chroma[0] * np.float32(2 * (1 - kb) * scale)  # B - Y
    red = chroma[1] * np.float32(2 * (1 - kr) * scale)  # R - Y
    if out is None:
        out = np.empty((height, width, 3), np.uint8)
    first, last = (0, 2) if order == "rgb" else (2, 0)
    _codes(y + red, out[..., first])
    _codes(y - red * np.float32(kr / kg) - blue * np.float32(kb / kg), out[..., 1])
    _codes(y + blue, out[..., last])
    return out
