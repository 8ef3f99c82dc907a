"""What Python adds to libnoxel: the same frames through the bare calls and through noxel.Enhancer, in turns.

    PYTHONPATH=python NOXEL_LIBRARY=build/release/src/libnoxel.so.1 python3 bench/python_bench.py [frames]

100 frames unless given, ten at a time, in one enhancer each. Prints milliseconds per frame and the ratio, which is to be 1.10
or less. "rgb" also has the library convert the frames, in and out.
"""

import ctypes
import sys
import time

import noxel
import numpy as np
from noxel import _library as c

BLOCK = 10


def views(width, height):
    """Dark soft blotches that pan, with noise of 4 levels: I420 in one array."""
    random = np.random.default_rng(7)
    x, y = np.meshgrid(np.arange(width), np.arange(height))
    made = []
    for i in range(8):
        pan = 2 * min(i, 8 - i)
        luma = 24 + ((x + pan) // 24 * 7 + (y + pan) // 20 * 11) % 23
        planes = np.concatenate((luma, np.full((height // 2, width), 128)))
        made.append(np.clip(planes + random.normal(0, 4, planes.shape), 0, 255).astype(np.uint8))
    return made


class Bare:
    """The calls themselves, with structures that are filled once."""

    def __init__(self, width, height):
        config = c.Config()
        c.library.noxel_config_init(ctypes.byref(config), ctypes.sizeof(config), width, height)
        config.lead_in = 0
        self.handle = ctypes.c_void_p()
        result = c.library.noxel_create(ctypes.byref(config), ctypes.byref(self.handle))
        if result != c.OK:
            sys.exit("no usable OpenGL ES 3.0")
        self.size = width, height
        self.frame = c.Frame(size=ctypes.sizeof(c.Frame), format=c.PLANES["i420"])
        self.info = c.FrameInfo(size=ctypes.sizeof(c.FrameInfo))
        self.output = np.empty((height * 3 // 2, width), np.uint8)
        self.strides = (ctypes.c_ssize_t * 3)(width, width // 2, width // 2)

    def point_at(self, array):
        width, height = self.size
        first = array.ctypes.data
        self.frame.planes = (ctypes.c_void_p * 3)(first, first + width * height, first + width * height * 5 // 4)
        self.frame.strides = self.strides

    def run(self, frames):
        for frame in frames:
            self.point_at(frame)
            c.library.noxel_send(self.handle, ctypes.byref(self.frame))
            self.point_at(self.output)
            result = c.library.noxel_receive(self.handle, ctypes.byref(self.frame), ctypes.byref(self.info))
            assert result == c.OK


def run_python(enhancer, frames):
    for frame in frames:
        assert enhancer.send(frame)
        assert enhancer.receive() is not None


def compare(width, height, count):
    planes = views(width, height)
    chroma = (height // 2, width // 2)
    rgb = []
    for frame in planes:
        luma, rest = frame[:height], frame[height:].reshape(-1)
        u, v = rest[: rest.size // 2].reshape(chroma), rest[rest.size // 2 :].reshape(chroma)
        rgb.append(noxel.planes_to_rgb((luma, u, v)))
    ways = {
        "libnoxel": (Bare(width, height).run, planes),
        "planes": (lambda f, e=noxel.Enhancer(width, height, lead_in=False): run_python(e, f), planes),
        "rgb": (lambda f, e=noxel.Enhancer(width, height, format="rgb", lead_in=False): run_python(e, f), rgb),
    }
    times = {name: [] for name in ways}
    for block in range(count // BLOCK + 1):
        for name, (run, frames) in ways.items():
            start = time.perf_counter()
            run([frames[(block * BLOCK + i) % len(frames)] for i in range(BLOCK)])
            if block > 0:  # the first one warms up
                times[name].append((time.perf_counter() - start) * 1e3 / BLOCK)
    medians = {name: float(np.median(values)) for name, values in times.items()}
    for name, median in medians.items():
        print(f"{width:4} x {height:<4}  {name:9} {median:8.2f} ms  {median / medians['libnoxel']:6.3f}", flush=True)


if __name__ == "__main__":
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 100
    compare(640, 360, frames)
    compare(1280, 720, frames)
