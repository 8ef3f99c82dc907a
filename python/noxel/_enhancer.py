"""An enhancer: one stream of frames of one size."""

from __future__ import annotations

import ctypes
import logging
import os
import threading
import time
import weakref
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Iterable, Iterator, Mapping, MutableMapping, NamedTuple, cast

import numpy as np
import numpy.typing as npt

from . import _library as c
from ._planes import FORMATS, Picture, Planes, empty
from ._settings import SETTINGS, Setting, Value

Floats = npt.NDArray[np.float32]

_logger = logging.getLogger("noxel")
_logger.addHandler(logging.NullHandler())
_LEVELS = {4: logging.INFO, 5: logging.WARNING, 6: logging.ERROR}


class Error(Exception):
    """A call failed. The text is the library's, `code` the number of its noxel_result."""

    def __init__(self, code: int, detail: str = "") -> None:
        text = cast(bytes, c.library.noxel_error_text(code)).decode()
        super().__init__(f"{text} ({detail})" if detail else text)
        self.code = code


class ArgumentError(Error, ValueError):
    """The library refuses a size, a value or planes."""


def _check(result: int, detail: str = "") -> int:
    """Passes success and states, 0 and more, on."""
    if result < 0:
        raise (ArgumentError if result == c.ERROR_ARGUMENT else Error)(result, detail)
    return result


def _number(what: str, name: str, numbers: Mapping[str, int]) -> int:
    if name not in numbers:
        raise ValueError(f"{what} is one of {', '.join(numbers)}, not {name!r}")
    return numbers[name]


@dataclass(frozen=True, eq=False)
class Noise:
    """Variance of a frame's noise by luma, in squared levels of full range: 32 values, of 8 levels of luma each."""

    luma: Floats
    blue: Floats  # of U
    red: Floats  # of V


@dataclass(frozen=True, eq=False)
class Info:
    """What is known of a frame. Matrices are for column vectors of pixels, the first pixel's centre at (0.5, 0.5)."""

    tag: int
    time_us: int
    enhanced: bool  # False: the frame came back as it went in
    starts_sequence: bool  # measured against no frame before it
    motion: Floats | None  # 3 x 3: pixel of this frame -> pixel of the one before. None: not known
    stabilization: Floats  # 3 x 3: pixel of this frame -> steadied pixel, before the zoom
    zoom: float
    gamma: float  # of the tone step of the mode "enhance", else 1
    gain: float
    noise: Noise | None
    tone: Floats  # mode "clear": level of full-range luma in -> out, 256 values
    points_tracked: int  # 0 where no motion is measured
    points_kept: int
    upload_ms: float  # of the GPU thread: planes to textures
    motion_ms: float  # motion, noise and exposure
    gpu_ms: float  # of the GPU thread, from taking the frame to its delivery
    total_ms: float  # from send to the moment when it was ready


def _info(raw: c.FrameInfo) -> Info:
    memory = memoryview(raw)

    def floats(name: str) -> Floats:  # a view: the arrays keep `raw` alive
        field = getattr(c.FrameInfo, name)
        return np.frombuffer(memory, np.float32, field.size // 4, field.offset)

    noise = Noise(floats("noise_luma"), floats("noise_blue"), floats("noise_red")) if raw.noise_known else None
    return Info(
        tag=raw.tag,
        time_us=raw.time_us,
        enhanced=bool(raw.enhanced),
        starts_sequence=bool(raw.starts_sequence),
        motion=floats("previous_from_current").reshape(3, 3) if raw.motion_known else None,
        stabilization=floats("stabilized_from_current").reshape(3, 3),
        zoom=raw.zoom,
        gamma=raw.gamma,
        gain=raw.gain,
        noise=noise,
        tone=floats("tone"),
        points_tracked=raw.points_tracked,
        points_kept=raw.points_kept,
        upload_ms=raw.upload_ms,
        motion_ms=raw.motion_ms,
        gpu_ms=raw.gpu_ms,
        total_ms=raw.total_ms,
    )


class Enhanced(NamedTuple):
    """A frame that came back."""

    frame: Picture
    info: Info


class Settings(MutableMapping[str, Value]):
    """An enhancer's settings by name, as in SETTINGS. A change is for frames sent from then on."""

    def __init__(self, enhancer: Enhancer) -> None:
        self._enhancer = enhancer

    def __getitem__(self, name: str) -> Value:
        setting = SETTINGS[name]
        number = ctypes.c_double()
        with self._enhancer._setting:
            _check(c.library.noxel_get(self._enhancer._open(), setting.id, ctypes.byref(number)))
        return setting.value(number.value)

    def __setitem__(self, name: str, value: Value) -> None:
        setting = SETTINGS[name]
        number = setting.number(value)
        with self._enhancer._setting:
            result = c.library.noxel_set(self._enhancer._open(), setting.id, number)
        expected = "" if setting.choices else f" from {setting.minimum:g} to {setting.maximum:g}"
        _check(result, f"{name} is {setting.type.__name__}{expected}, not {value!r}")

    def __delitem__(self, name: str) -> None:
        raise TypeError("settings cannot be deleted")

    def __iter__(self) -> Iterator[str]:
        return iter(SETTINGS)

    def __len__(self) -> int:
        return len(SETTINGS)


def _free(handle: ctypes.c_void_p) -> None:
    c.library.noxel_free(ctypes.byref(handle))


class Enhancer:
    """Denoises, brightens and steadies a stream of frames of one size.

        with noxel.Enhancer(640, 360) as enhancer:
            for frame, info in enhancer.enhance(frames):
                show(frame)

    format             of the frames: "i420", "yv12", "nv12" or "nv21", which are (height * 3/2, width) arrays or
                       sequences of planes, or "rgb" or "bgr", which are (height, width, 3); all of uint8. They are
                       not copied where rows are whole, as in a part of a picture or one that is upside down
    range, matrix      of YUV frames: "limited" or "full", "bt601" or "bt709"
    quality            "fast", "balanced" or "best", which looks ahead, so that frames come back later
    mode               "clear", "enhance", "neutral-exposure", "three-frames" or "stabilize"
    delivery           "complete": each frame comes back, in order. "live": nothing waits, frames may be dropped
    frame_interval_us  usual time between frames, by which cuts are told from slow clips; 0: taken from their times
    lead_in            complete: the first 16 frames are seen before the first comes back, as clean as the others
    cache_directory    for compiled shader programs; None: none
    log                receives the library's log; None: it is dropped. Handlers must not call the enhancer
    settings           initial values of others in SETTINGS, with '_' for '-'

    Settings are attributes too: enhancer.strength = 80. Errors are Error, or ArgumentError, which is also a ValueError.

    Any thread may call any method. One may send while another receives; other calls wait for each other. While the
    library works Python's other threads run.
    """

    # A misspelt setting is an error, not a new attribute.
    __slots__ = (
        "__weakref__",
        "_delivery",
        "_drained",
        "_finalizer",
        "_format",
        "_handle",
        "_height",
        "_log",
        "_matrix",
        "_range",
        "_receiving",
        "_sending",
        "_sent",
        "_setting",
        "_width",
    )

    if TYPE_CHECKING:  # made below from the library's table
        strength: int
        quality: str
        exposure: int
        stabilize: bool
        zoom: float
        per_frame: bool
        sharpening: int
        contrast: int
        deghosting: int
        flip_chroma: bool

    def __init__(
        self,
        width: int,
        height: int,
        quality: str = "balanced",
        *,
        format: str = "i420",
        range: str = "limited",
        matrix: str = "bt601",
        mode: str = "clear",
        delivery: str = "complete",
        frame_interval_us: int = 0,
        lead_in: bool = True,
        cache_directory: str | os.PathLike[str] | None = None,
        log: logging.Logger | None = _logger,
        **settings: Value,
    ) -> None:
        self._width, self._height = width, height
        self._format = self._known(format)
        self._range = _number("range", range, c.RANGES)
        self._matrix = _number("matrix", matrix, c.MATRICES)
        self._delivery = delivery
        self._sent = 0
        self._drained = False
        self._sending, self._receiving, self._setting = threading.Lock(), threading.Lock(), threading.Lock()
        names = {name.replace("-", "_"): name for name in SETTINGS}
        for keyword in settings:
            if keyword not in names:
                raise TypeError(f"there is no setting {keyword!r}; there are {', '.join(names)}")

        if not (0 < width < 1 << 31 and 0 < height < 1 << 31):  # ctypes would cut the number
            raise ArgumentError(c.ERROR_ARGUMENT, f"{width} x {height}")
        config = c.Config()
        _check(c.library.noxel_config_init(ctypes.byref(config), ctypes.sizeof(config), width, height))
        config.quality = _number("quality", quality, c.QUALITIES)
        config.mode = _number("mode", mode, c.MODES)
        config.delivery = _number("delivery", delivery, c.DELIVERIES)
        config.frame_interval_us = frame_interval_us
        config.lead_in = lead_in
        failures: list[str] = []
        self._log = _log_function(log, failures)
        config.log = self._log
        if cache_directory is not None:
            config.cache_directory = os.fsencode(cache_directory)
        self._handle = ctypes.c_void_p()
        result = c.library.noxel_create(ctypes.byref(config), ctypes.byref(self._handle))
        detail = f"{width} x {height}" if result == c.ERROR_ARGUMENT else "; ".join(failures)
        _check(result, detail)
        # The log's function lives as long as the enhancer; the enhancer as long as this object, or the program.
        self._finalizer = weakref.finalize(self, lambda handle, _: _free(handle), self._handle, self._log)
        try:
            for keyword, value in settings.items():
                self.settings[names[keyword]] = value
        except Exception:
            self.close()
            raise

    @property
    def width(self) -> int:
        return self._width

    @property
    def height(self) -> int:
        return self._height

    @property
    def settings(self) -> Settings:
        return Settings(self)

    @property
    def latency_frames(self) -> int:
        """How many frames are sent before the first one comes back."""
        with self._setting:
            return _check(c.library.noxel_latency_frames(self._open()))

    @property
    def drained(self) -> bool:
        """Whether receive has found the end: every frame sent before flush has come back, the next send begins anew."""
        return self._drained

    def send(self, frame: Picture, tag: int | None = None, time_us: int = 0, format: str | None = None) -> bool:
        """Hands a frame in; it is copied and never written.

        tag      comes back in the frame's Info; default: how many frames were sent before
        time_us  presentation time. A step back, or a gap of over five usual intervals or over 1 s and two of them,
                 starts a new sequence. Without times frames follow each other without a gap

        False: not taken. Complete delivery: receive first, then send it again. Live: dropped, the GPU is busy.
        """
        with self._sending:
            handle = self._open()
            planes = self._planes_of(frame, self._known(format or self._format))
            planes.frame.tag = self._sent if tag is None else tag
            planes.frame.time_us = time_us
            result = _check(c.library.noxel_send(handle, ctypes.byref(planes.frame)))
            if result != c.OK:
                return False
            self._sent += 1
            return True

    def receive(self, out: Picture | None = None, format: str | None = None) -> Enhanced | None:
        """The next enhanced frame. Complete delivery: waits for the GPU if enough frames were sent.

        out  where it is written, of any strides, such as the array that was sent; default: a new array, planes if odd

        None: there is none now; send more, or, after flush, there are no more if `drained`.
        """
        with self._receiving:
            handle = self._open()
            name = self._known(format or self._format)
            picture = empty(name, self._width, self._height) if out is None else out
            target = self._planes_of(picture, name, writable=True)
            raw = c.FrameInfo(size=ctypes.sizeof(c.FrameInfo))
            result = _check(c.library.noxel_receive(handle, ctypes.byref(target.frame), ctypes.byref(raw)))
            self._drained = result == c.END
            if result != c.OK:
                return None
            target.store()
            return Enhanced(picture, _info(raw))

    def flush(self) -> None:
        """No more frames come: receive until `drained`."""
        with self._sending:
            _check(c.library.noxel_flush(self._open()))

    def reset(self) -> None:
        """Forgets frames that have not come back and what is known from earlier ones: after a seek. Settings stay."""
        with self._sending, self._receiving:
            _check(c.library.noxel_reset(self._open()))
            self._drained = False

    def enhance(self, frames: Iterable[Picture], times_us: Iterable[int] | None = None) -> Iterator[Enhanced]:
        """Sends each frame and yields those that come back, all of them with complete delivery, in order.

        Tags count from 0. times_us: the frames' times, one each. The enhancer is busy with these frames until the
        iterator is exhausted or closed, which forgets those that have not come back.
        """
        times = iter(times_us) if times_us is not None else None
        finished = False
        try:
            for tag, frame in enumerate(frames):
                time_us = next(times) if times is not None else 0
                while not self.send(frame, tag, time_us) and self._delivery == "complete":
                    result = self.receive()
                    if result is not None:
                        yield result
                while (result := self.receive()) is not None:
                    yield result
            self.flush()
            while (result := self.receive()) is not None or not self._drained:
                if result is not None:
                    yield result
                else:
                    time.sleep(0.001)  # live: the GPU is still at work
            finished = True
        finally:
            if not finished and not self.closed:
                self.reset()

    @property
    def closed(self) -> bool:
        return not self._finalizer.alive

    def close(self) -> None:
        """Frees the enhancer, after the calls that are running; more than once is fine."""
        with self._sending, self._receiving, self._setting:
            self._finalizer()

    def __enter__(self) -> Enhancer:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<noxel.Enhancer {self._width} x {self._height} {self._format}{' closed' if self.closed else ''}>"

    def _open(self) -> ctypes.c_void_p:
        if self.closed:
            raise ValueError("the enhancer is closed")
        return self._handle

    @staticmethod
    def _known(format: str) -> str:
        if format not in FORMATS:
            raise ValueError(f"format is one of {', '.join(FORMATS)}, not {format!r}")
        return format

    def _planes_of(self, frame: Picture, format: str, writable: bool = False) -> Planes:
        planes = Planes(frame, format, self._width, self._height, writable)
        planes.frame.range = self._range
        planes.frame.matrix = self._matrix
        return planes


def _log_function(log: logging.Logger | None, failures: list[str]) -> Any:
    """What the library calls with its log lines. `failures` keeps the first ones for a failed creation's text."""
    def write(context: int | None, level: int, message: bytes) -> None:
        text = message.decode(errors="replace")
        if level >= 6 and len(failures) < 4:
            failures.append(text)
        if log is not None:
            log.log(_LEVELS.get(level, logging.DEBUG if level < 4 else logging.ERROR), "%s", text)

    return c.LogFunction(write)


def _attribute(setting: Setting) -> property:
    def get(self: Enhancer) -> Value:
        return self.settings[setting.name]

    def set(self: Enhancer, value: Value) -> None:
        self.settings[setting.name] = value

    return property(get, set, doc=setting.description)


for _setting in SETTINGS.values():
    setattr(Enhancer, _setting.name.replace("-", "_"), _attribute(_setting))
