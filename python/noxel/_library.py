"""libnoxel.so.1 as ctypes sees it: structures and calls of noxel/enhancer.h, and where the library is found."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, byref, c_char_p, c_double, c_float, c_int, c_int64, c_size_t, c_ssize_t, c_ubyte, c_uint
from ctypes import c_uint64, c_void_p
from pathlib import Path

OK, AGAIN, END, DROPPED = 0, 1, 2, 3
ERROR_ARGUMENT, ERROR_MEMORY, ERROR_NO_GL, ERROR_UNSUPPORTED = -1, -2, -3, -4

PLANES = {"nv12": 0, "nv21": 1, "i420": 2, "yv12": 3}
PACKED = {"rgb": 5, "bgr": 6}
RANGES = {"limited": 0, "full": 1}
MATRICES = {"bt601": 0, "bt709": 1}
MODES = {"three-frames": 0, "enhance": 1, "stabilize": 2, "neutral-exposure": 3, "clear": 5}
QUALITIES = {"fast": 0, "balanced": 1, "best": 2}
DELIVERIES = {"complete": 0, "live": 1}

SETTING_INT, SETTING_FLOAT, SETTING_BOOL, SETTING_CHOICE = range(4)

MAJOR, MINOR = 1, 2  # the header's version that the structures below are of

LogFunction = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_char_p)


class Config(ctypes.Structure):
    _fields_ = [
        ("size", c_size_t),
        ("width", c_int),
        ("height", c_int),
        ("mode", c_int),
        ("quality", c_int),
        ("delivery", c_int),
        ("frame_interval_us", c_int64),
        ("lead_in", c_int),
        ("log", LogFunction),
        ("log_context", c_void_p),
        ("cache_directory", c_char_p),
        ("window", c_void_p),
        ("share_display", c_void_p),
        ("share_context", c_void_p),
        ("diagnostics", c_uint),
    ]


class Frame(ctypes.Structure):
    _fields_ = [
        ("size", c_size_t),
        ("format", c_int),
        ("range", c_int),
        ("matrix", c_int),
        ("planes", c_void_p * 3),
        ("strides", c_ssize_t * 3),
        ("tag", c_uint64),
        ("time_us", c_int64),
    ]


class FrameInfo(ctypes.Structure):
    _fields_ = [
        ("size", c_size_t),
        ("tag", c_uint64),
        ("time_us", c_int64),
        ("enhanced", c_int),
        ("motion_known", c_int),
        ("starts_sequence", c_int),
        ("points_tracked", c_int),
        ("points_kept", c_int),
        ("previous_from_current", c_float * 9),
        ("stabilized_from_current", c_float * 9),
        ("zoom", c_float),
        ("gamma", c_float),
        ("gain", c_float),
        ("noise_known", c_int),
        ("noise_luma", c_float * 32),
        ("noise_blue", c_float * 32),
        ("noise_red", c_float * 32),
        ("tone", c_float * 256),
        ("upload_ms", c_double),
        ("motion_ms", c_double),
        ("gpu_ms", c_double),
        ("total_ms", c_double),
    ]


class SettingInfo(ctypes.Structure):
    _fields_ = [
        ("id", c_int),
        ("name", c_char_p),
        ("description", c_char_p),
        ("type", c_int),
        ("minimum", c_double),
        ("maximum", c_double),
        ("initial", c_double),
        ("choices", POINTER(c_char_p)),
        ("modes", c_uint),
    ]


_CALLS = {
    "noxel_version": (c_char_p, []),
    "noxel_version_number": (c_int, []),
    "noxel_error_text": (c_char_p, [c_int]),
    "noxel_settings": (POINTER(SettingInfo), [POINTER(c_size_t)]),
    "noxel_config_init": (c_int, [POINTER(Config), c_size_t, c_int, c_int]),
    "noxel_create": (c_int, [POINTER(Config), POINTER(c_void_p)]),
    "noxel_free": (None, [POINTER(c_void_p)]),
    "noxel_set": (c_int, [c_void_p, c_int, c_double]),
    "noxel_get": (c_int, [c_void_p, c_int, POINTER(c_double)]),
    "noxel_send": (c_int, [c_void_p, POINTER(Frame)]),
    "noxel_receive": (c_int, [c_void_p, POINTER(Frame), POINTER(FrameInfo)]),
    "noxel_flush": (c_int, [c_void_p]),
    "noxel_reset": (c_int, [c_void_p]),
    "noxel_latency_frames": (c_int, [c_void_p]),
}


def _load() -> ctypes.CDLL:
    """The library that NOXEL_LIBRARY names, else one beside this module, else the system's."""
    named = os.environ.get("NOXEL_LIBRARY")
    beside = Path(__file__).with_name("libnoxel.so.1")
    path = named or (str(beside) if beside.exists() else "libnoxel.so.1")
    try:
        loaded = ctypes.CDLL(path)
        for name, (result, arguments) in _CALLS.items():
            call = getattr(loaded, name)
            call.restype = result
            call.argtypes = arguments
    except OSError as error:
        raise ImportError(f"Noxel's library cannot be loaded: {error}. NOXEL_LIBRARY may name its file.") from error
    except AttributeError as error:
        raise ImportError(f"{path} is not Noxel's library, or too old: {error}") from error
    number = loaded.noxel_version_number()
    if number // 10000 != MAJOR or number // 100 % 100 < MINOR:
        version = loaded.noxel_version().decode()
        raise ImportError(f"{path} is version {version}; this module needs {MAJOR}.{MINOR} or a later {MAJOR}.x")
    return loaded


library = _load()
