"""NumPy arrays as the planes of a frame, without a copy wherever the library can take the array as it lies."""

from __future__ import annotations

import ctypes
from typing import Sequence, Union

import numpy as np
import numpy.typing as npt

from . import _library as c

Array = npt.NDArray[np.uint8]
#: A frame: one (height * 3/2, width) array, a sequence of planes, or an RGB or BGR array of (height, width, 3).
Picture = Union[Array, Sequence[Array]]

FORMATS = {**c.PLANES, **c.PACKED}


def plane_shapes(format: str, width: int, height: int) -> tuple[tuple[int, int], ...]:
    """Rows and bytes a row of each plane of a YUV format."""
    rows, columns = (height + 1) // 2, (width + 1) // 2
    if format in ("nv12", "nv21"):
        return (height, width), (rows, 2 * columns)
    return (height, width), (rows, columns), (rows, columns)


def split(frame: Array, format: str = "i420") -> tuple[Array, ...]:
    """The planes of a (height * 3/2, width) array, as views of it: Y and U, V in the format's order, or Y and pairs."""
    if format not in c.PLANES:
        raise ValueError(f"planes are {', '.join(c.PLANES)}, not {format!r}")
    if frame.ndim != 2 or frame.shape[0] % 3 or frame.shape[1] % 2 or 0 in frame.shape:
        raise ValueError(f"a frame in one array has height * 3/2 rows and an even width, not the shape {frame.shape}")
    height, width = frame.shape[0] // 3 * 2, frame.shape[1]
    if format in ("nv12", "nv21"):
        return frame[:height], frame[height:]
    if not frame.flags.c_contiguous:
        raise ValueError(f"{format} in one array is contiguous: two rows of chroma share one of its rows")
    chroma = frame[height:].reshape(-1)
    size = chroma.size // 2
    shape = (height // 2, width // 2)
    return frame[:height], chroma[:size].reshape(shape), chroma[size:].reshape(shape)


def empty(format: str, width: int, height: int) -> Array | tuple[Array, ...]:
    """Room for a frame: one array, or planes where a side is odd."""
    if format not in c.PLANES:
        return np.empty((height, width, 3), np.uint8)
    if width % 2 or height % 2:
        return tuple(np.empty(shape, np.uint8) for shape in plane_shapes(format, width, height))
    return np.empty((height * 3 // 2, width), np.uint8)


def _lies_in_rows(array: Array) -> bool:
    """Whether its rows are whole and apart, in either direction: what a pointer and a stride can say."""
    samples = array.shape[2] if array.ndim == 3 else 1  # of a pair or a pixel
    if samples > 1 and array.strides[2] != 1:
        return False
    if array.shape[1] > 1 and array.strides[1] != samples:
        return False
    return array.shape[0] == 1 or abs(array.strides[0]) >= array[0].size


class Planes:
    """A noxel_frame over the caller's arrays, which it keeps alive. What does not lie in rows is copied."""

    def __init__(self, picture: Picture, format: str, width: int, height: int, writable: bool = False) -> None:
        self._copies: list[tuple[Array, Array]] = []  # the caller's array, and what the library sees instead
        self._writable = writable
        self.frame = c.Frame(size=ctypes.sizeof(c.Frame), format=FORMATS[format])
        if format in c.PACKED:
            given = self._packed(picture, width, height)
        else:
            given = self._apart(picture, format, width, height)
        self._planes = tuple(self._lying(plane, _lies_in_rows(plane)) for plane in given)  # kept alive
        for i, plane in enumerate(self._planes):
            self.frame.planes[i] = plane.ctypes.data
            self.frame.strides[i] = plane.strides[0] if len(plane) > 1 else plane[0].size

    def store(self) -> None:
        """Brings what the library wrote into copies back to the caller's arrays."""
        for given, copy in self._copies:
            given[...] = copy

    def _packed(self, picture: Picture, width: int, height: int) -> tuple[Array, ...]:
        shape = (height, width, 3)
        if not isinstance(picture, np.ndarray) or picture.shape != shape or picture.dtype != np.uint8:
            raise ValueError(f"an RGB or BGR frame is an array of uint8 {shape}")
        return (picture,)

    def _apart(self, picture: Picture, format: str, width: int, height: int) -> tuple[Array, ...]:
        shapes = plane_shapes(format, width, height)
        if isinstance(picture, np.ndarray):
            given = self._split(picture, format, width, height)
        else:
            given = tuple(picture)
        if len(given) != len(shapes):
            raise ValueError(f"{format} has {len(shapes)} planes, not {len(given)}")
        for i, (plane, (rows, row)) in enumerate(zip(given, shapes)):
            if not isinstance(plane, np.ndarray) or plane.dtype != np.uint8:
                raise ValueError("a plane is an array of uint8")
            pairs = len(shapes) == 2 and i == 1 and plane.shape == (rows, row // 2, 2)
            if plane.shape != (rows, row) and not pairs:
                raise ValueError(f"plane {i} of {format} at {width} x {height} is {(rows, row)}, not {plane.shape}")
        return given

    def _split(self, picture: Array, format: str, width: int, height: int) -> tuple[Array, ...]:
        if width % 2 or height % 2:
            raise ValueError(f"{width} x {height} is odd: its frames are separate planes")
        if picture.shape != (height * 3 // 2, width) or picture.dtype != np.uint8:
            wanted = f"{format} of {width} x {height} is uint8 {(height * 3 // 2, width)}"
            raise ValueError(f"{wanted}, not {picture.dtype} {picture.shape}")
        return split(self._lying(picture, format in ("nv12", "nv21") or picture.flags.c_contiguous), format)

    def _lying(self, array: Array, usable: bool) -> Array:
        if self._writable and not array.flags.writeable:
            raise ValueError("the array that is to receive the frame is read-only")
        if usable:
            return array
        copy = np.array(array, order="C")
        self._copies.append((array, copy))
        return copy
