"""Noxel: makes dark video watchable. Frames are NumPy arrays.

    import noxel

    with noxel.Enhancer(640, 360, quality="balanced") as enhancer:
        for frame, info in enhancer.enhance(frames):
            show(frame)

The library is the file that the environment's NOXEL_LIBRARY names, else libnoxel.so.1 beside this module, else the
system's.
"""

from ._colour import planes_to_rgb, rgb_to_planes
from ._enhancer import ArgumentError, Enhanced, Enhancer, Error, Info, Noise, Settings
from ._library import library as _loaded
from ._planes import Picture, split
from ._settings import SETTINGS, Setting

#: The library's version.
__version__: str = _loaded.noxel_version().decode()

__all__ = [
    "SETTINGS",
    "ArgumentError",
    "Enhanced",
    "Enhancer",
    "Error",
    "Info",
    "Noise",
    "Picture",
    "Setting",
    "Settings",
    "planes_to_rgb",
    "rgb_to_planes",
    "split",
]
