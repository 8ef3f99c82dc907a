"""Enhancers over NumPy arrays: what goes in comes back, settings, layouts, threads and errors."""

import logging
import os
import subprocess
import sys
import threading
from pathlib import Path

import noxel
import numpy as np
import pytest
from conftest import SIZE, noisy, packed, same, scene
from noxel._planes import Planes

WIDTH, HEIGHT = SIZE


def results(enhancer, frames):
    with enhancer:
        return [result.frame for result in enhancer.enhance(frames)]


@pytest.mark.parametrize(
    "options", [{}, {"quality": "best"}, {"lead_in": False}, {"quality": "fast", "mode": "enhance"}]
)
def test_every_frame_comes_back_in_order_with_its_tag_and_time(make, options):
    frames = noisy(20, WIDTH, HEIGHT)
    times = [1000 + 40000 * i for i in range(20)]
    with make(WIDTH, HEIGHT, **options) as enhancer:
        for _ in range(2):  # drained, an enhancer takes another sequence
            back = list(enhancer.enhance(frames, times))
            assert [result.info.tag for result in back] == list(range(20))
            assert [result.info.time_us for result in back] == times
            assert all(result.frame.shape == (HEIGHT * 3 // 2, WIDTH) for result in back)
            assert back[0].info.starts_sequence
            assert enhancer.drained


def test_sending_and_receiving_by_hand_loses_nothing(make):
    frames = noisy(45, WIDTH, HEIGHT)
    with make(WIDTH, HEIGHT) as enhancer:
        tags, waiting = [], 0
        for i, frame in enumerate(frames):
            while not enhancer.send(packed(frame), tag=2**64 - 1 - i):  # only when it is full
                assert waiting > enhancer.latency_frames
                tags.append(enhancer.receive().info.tag)
                waiting -= 1
            waiting += 1
        enhancer.flush()
        while (result := enhancer.receive()) is not None:
            tags.append(result.info.tag)
        assert enhancer.drained
        assert tags == [2**64 - 1 - i for i in range(45)]


def test_a_live_enhancer_gives_back_what_it_took(make):
    with make(WIDTH, HEIGHT, delivery="live") as enhancer:
        taken = [result.info.tag for result in enhancer.enhance(noisy(12, WIDTH, HEIGHT))]
        assert taken and taken == sorted(set(taken))


def test_an_iteration_that_is_left_and_a_reset_forget_what_was_sent(make):
    with make(WIDTH, HEIGHT) as enhancer:
        iteration = enhancer.enhance(noisy(30, WIDTH, HEIGHT))
        next(iteration)
        for forget, tag in ((iteration.close, 77), (enhancer.reset, 99)):
            forget()
            for waiting in (False, True):  # the second one is what reset forgets
                enhancer.send(noisy(1, WIDTH, HEIGHT)[0], tag=tag)
                if not waiting:
                    enhancer.flush()
                    assert enhancer.receive().info.tag == tag
                    assert enhancer.receive() is None and enhancer.drained


def test_noise_goes_down_and_the_picture_stays(make):
    frames = noisy(24, WIDTH, HEIGHT)
    clean = np.clip(np.rint(scene(WIDTH, HEIGHT)), 0, 255).astype(np.uint8)

    def psnr(luma, reference):
        return 10 * np.log10(255**2 / np.mean((luma.astype(float) - reference) ** 2))

    with make(WIDTH, HEIGHT, range="full") as enhancer:
        *_, last = enhancer.enhance(frames)
    # Both are compared behind the tone curve that the library reports. A mean of four frames would gain 6 dB; the
    # history of a still scene is longer than that.
    tone = last.info.tone
    gain = psnr(last.frame[:HEIGHT], tone[clean]) - psnr(tone[frames[-1][0]], tone[clean])
    assert gain > 6
    assert last.info.enhanced


def test_info_tells_motion_noise_and_tone(make):
    wide = noisy(1, WIDTH + 40, HEIGHT, sigma=0)[0][0]
    random = np.random.default_rng(5)
    chroma = np.full((HEIGHT // 2, WIDTH // 2), 128, np.uint8)

    def view(i):  # the scene moves left by two pixels a frame
        luma = wide[:, 2 * i : 2 * i + WIDTH] + random.normal(0, 4, (HEIGHT, WIDTH))
        return np.clip(np.rint(luma), 0, 255).astype(np.uint8), chroma, chroma

    with make(WIDTH, HEIGHT, range="full") as enhancer:
        infos = [result.info for result in enhancer.enhance([view(i) for i in range(20)])]
    assert infos[0].starts_sequence and infos[0].motion is None
    for info in infos[2:]:
        # A pixel of this frame lies two pixels further right in the one before; a tenth of a pixel for the noise.
        assert info.motion @ (48, 32, 1) == pytest.approx((50, 32, 1), abs=0.1)
        assert info.points_kept <= info.points_tracked
        assert info.total_ms >= info.gpu_ms > 0
    assert infos[-1].stabilization.shape == (3, 3)
    assert infos[-1].tone.shape == (256,) and np.all(np.diff(infos[-1].tone) >= 0)
    # Of noise of 4 levels RMS between 60 and 190 the curve says 16 squared levels; it may be a third off.
    assert np.median(infos[-1].noise.luma[8:23]) == pytest.approx(16, rel=0.35)


def test_strength_0_returns_frames_as_they_came(make):
    frames = noisy(20, WIDTH, HEIGHT)
    for frame, back in zip(frames, results(make(WIDTH, HEIGHT, strength=0), frames)):
        assert same(packed(frame), back)


def test_frames_of_any_layout_come_back_alike(make):
    frames = noisy(18, WIDTH, HEIGHT)
    reference = results(make(WIDTH, HEIGHT), frames)

    def laid(y, u, v, format):
        pairs = {"nv12": (u, v), "nv21": (v, u)}.get(format)
        return (y, np.stack(pairs, -1)) if pairs else (y, u, v) if format == "i420" else (y, v, u)

    for format in ("nv12", "nv21", "yv12"):
        back = results(make(WIDTH, HEIGHT, format=format), [laid(*frame, format) for frame in frames])
        for one, other in zip(back, reference):
            assert same(one, packed(laid(*noxel.split(other), format)))


def test_views_of_larger_arrays_are_read_and_written_in_place(make):
    frames = noisy(18, WIDTH, HEIGHT)
    reference = results(make(WIDTH, HEIGHT), frames)

    def room(plane, rows, columns):  # a plane as a view of larger arrays
        return {
            "padded": np.full((rows + 4, columns + 10), 7, np.uint8)[2:-2, 3:-7],
            "upside down": np.full((rows, columns), 7, np.uint8)[::-1],
            "every other sample": np.full((rows, 2 * columns), 7, np.uint8)[:, ::2],
        }[plane]

    for kinds in (("padded", "upside down", "padded"), ("upside down", "every other sample", "padded")):
        with make(WIDTH, HEIGHT) as enhancer:
            waiting, got = [], []
            for frame in frames + [None] * 1:
                if frame is None:
                    enhancer.flush()
                else:
                    views = tuple(room(kind, *plane.shape) for kind, plane in zip(kinds, frame))
                    for view, plane in zip(views, frame):
                        view[...] = plane
                    waiting.append(views)
                    assert enhancer.send(views)
                while waiting and (result := enhancer.receive(out=waiting[0])) is not None:
                    assert result.frame is waiting[0]
                    got.append(waiting.pop(0))
        assert len(got) == len(frames)
        for views, whole in zip(got, reference):
            assert same(views, noxel.split(whole))
            margins = [view.base for view, kind in zip(views, kinds) if kind == "padded"]
            assert all(np.all(base[:2] == 7) and np.all(base[:, -7:] == 7) for base in margins)


@pytest.mark.parametrize("size", [(1, 1), (3, 5), (63, 47), (2, 1)])
def test_odd_sizes_are_planes(make, size):
    frames = noisy(18, *size)
    with make(*size) as enhancer:
        back = [result.frame for result in enhancer.enhance(frames)]
        assert len(back) == 18
        assert [plane.shape for plane in back[-1]] == [plane.shape for plane in frames[-1]]
        with pytest.raises(ValueError, match="odd"):
            enhancer.send(np.zeros((6, 4), np.uint8))


def test_rgb_goes_in_and_comes_back(make):
    # Flat colours, which 4:2:0 keeps, with strength 0: half a code of luma, and half a code of chroma by 1.77.
    colours = np.random.default_rng(8).integers(20, 236, (HEIGHT // 16, WIDTH // 16, 3)).astype(np.uint8)
    picture = colours.repeat(16, 0).repeat(16, 1)
    for order, given in (("rgb", picture), ("bgr", picture[..., ::-1])):
        with make(WIDTH, HEIGHT, format=order, strength=0) as enhancer:
            for frame, info in enhancer.enhance([given] * 18):
                middles = (slice(8, None, 16), slice(8, None, 16))
                assert np.abs(frame[middles].astype(int) - given[middles]).max() <= 2
                assert frame.shape == picture.shape
    for matrix, range in (("bt601", "limited"), ("bt709", "limited"), ("bt709", "full")):
        with make(WIDTH, HEIGHT, lead_in=False, strength=0, matrix=matrix, range=range) as enhancer:
            enhancer.send(noxel.rgb_to_planes(picture, matrix, range), format="i420")
            enhancer.flush()
            out = np.zeros((HEIGHT, 2 * WIDTH, 3), np.uint8)[:, :WIDTH]
            assert enhancer.receive(out=out, format="rgb").frame is out
            # Limited range is coarser: half a code of luma is 0.6 levels, one of chroma 1.0; the way to full-range
            # BT.601 rounds both again. Another matrix is off by 20 levels.
            assert np.abs(out[8::16, 8::16].astype(int) - picture[8::16, 8::16]).max() <= 5


@pytest.mark.parametrize("size", [SIZE, (33, 17), (1, 1)])
def test_rgb_is_what_the_planes_are_and_lies_anywhere(make, size):
    width, height = size
    x, y = np.meshgrid(np.arange(width), np.arange(height))
    picture = np.stack((40 + (5 * x + 3 * y) % 90, 90 + (x * y) % 70, 200 - (4 * x + 7 * y) % 110), -1).astype(np.uint8)
    apart = np.full((height + 2, width + 3, 3), 7, np.uint8)
    layouts = {
        "as it is": (picture.copy(), "rgb"),
        "padded": (apart[1:-1, 1:-2], "rgb"),
        "upside down": (np.zeros_like(picture)[::-1], "rgb"),
        "blue first": (np.zeros_like(picture), "bgr"),
        "red first, seen backwards": (np.zeros_like(picture)[..., ::-1], "bgr"),  # the only one that is copied
    }
    expected = noxel.rgb_to_planes(picture, range="full")
    back = None
    for name, (array, format) in layouts.items():
        array[...] = picture if format == "rgb" else picture[..., ::-1]
        frame = Planes(array, format, width, height).frame
        assert (frame.planes[0] == array.ctypes.data) == ("backwards" not in name), name
        with make(*size, lead_in=False, strength=0, exposure=0, format=format, range="full") as enhancer:
            assert enhancer.send(array) and enhancer.send(array)
            planes = enhancer.receive(format="i420", out=tuple(np.empty_like(plane) for plane in expected)).frame
            for one, other in zip(planes, expected):  # half codes may be rounded either way
                assert np.abs(one.astype(int) - other).max() <= 1
            array[...] = 0
            assert enhancer.receive(out=array).frame is array
            whole = array if format == "rgb" else array[..., ::-1]
            assert np.abs(whole.astype(int) - noxel.planes_to_rgb(planes, range="full")).max() <= 1, name
            assert back is None or np.array_equal(whole, back), name
            back = whole.copy()
    margins = np.ones(apart.shape, bool)
    margins[1:-1, 1:-2] = False
    assert np.all(apart[margins] == 7)


def test_settings_are_the_librarys_with_their_ranges(make):
    assert {"strength", "quality", "exposure", "stabilize", "zoom", "per-frame"} <= set(noxel.SETTINGS)
    with make(WIDTH, HEIGHT, quality="fast", exposure=20) as enhancer:
        assert enhancer.quality == "fast" and enhancer.exposure == 20
        assert set(enhancer.settings) == set(noxel.SETTINGS)
        for name, setting in noxel.SETTINGS.items():
            assert setting.description and setting.modes
            for value in setting.choices or (setting.minimum, setting.maximum, setting.initial):
                enhancer.settings[name] = value
                assert enhancer.settings[name] == value and type(enhancer.settings[name]) is setting.type
                assert getattr(enhancer, name.replace("-", "_")) == value
            before = enhancer.settings[name]
            wrong = [setting.maximum + 1, setting.minimum - 1, float("nan"), "much"]
            wrong += [] if setting.type is float else [0.5]
            for value in wrong:
                with pytest.raises(ValueError):
                    enhancer.settings[name] = value
            assert enhancer.settings[name] == before
        with pytest.raises(KeyError):
            enhancer.settings["strenght"] = 1
        with pytest.raises(AttributeError):
            enhancer.strenght = 1
    with pytest.raises(ValueError, match="0 to 100"):
        make(WIDTH, HEIGHT, strength=101)
    with pytest.raises(TypeError, match="strenght"):
        make(WIDTH, HEIGHT, strenght=1)


def test_wrong_arguments_are_refused_with_a_text_and_nothing_is_lost(make):
    for size in ((0, 4), (4, -1), (1 << 32, 4)):
        with pytest.raises(noxel.ArgumentError, match="invalid argument.*x") as refused:
            make(*size)
        assert refused.value.code == -1 and isinstance(refused.value, ValueError)
    for name, value in {"quality": "good", "mode": "dark", "delivery": "slow", "format": "p010", "range": "tv"}.items():
        with pytest.raises(ValueError, match=f"{name} is one of"):
            make(WIDTH, HEIGHT, **{name: value})
    y, u, v = frame = noisy(1, WIDTH, HEIGHT)[0]
    read_only = packed(frame)
    read_only.flags.writeable = False
    with make(WIDTH, HEIGHT, lead_in=False, strength=0) as enhancer:
        wrong = [packed(frame)[:-1], packed(frame).astype(float), y, (y, u), (y, u, v[:-1]), (y, u, None), (y, v, u, v)]
        for given in wrong:
            with pytest.raises(ValueError):
                enhancer.send(given)
        for given in (y, (y, u, v), np.zeros((HEIGHT, WIDTH, 4), np.uint8), np.zeros((HEIGHT, WIDTH, 3))):
            with pytest.raises(ValueError, match="RGB"):
                enhancer.send(given, format="rgb")
        assert enhancer.send(read_only, tag=5)
        enhancer.flush()
        read_only_rgb = np.broadcast_to(np.uint8(0), (HEIGHT, WIDTH, 3))
        for out, format in ((read_only, "i420"), (read_only_rgb, "rgb")):
            with pytest.raises(ValueError, match="read-only"):
                enhancer.receive(out=out, format=format)
        assert enhancer.receive().info.tag == 5  # still there
    assert enhancer.closed
    enhancer.close()
    for call in (enhancer.receive, enhancer.flush, enhancer.reset, lambda: enhancer.send(y), lambda: enhancer.strength):
        with pytest.raises(ValueError, match="closed"):
            call()


def test_two_enhancers_at_once_and_two_threads_of_one_do_not_disturb_each_other(make):
    frames = noisy(24, WIDTH, HEIGHT), noisy(24, WIDTH, HEIGHT, seed=2)
    alone = [results(make(WIDTH, HEIGHT), sequence) for sequence in frames]
    together = [None, None]

    def first():
        together[0] = results(make(WIDTH, HEIGHT), frames[0])

    def second():  # sends in a thread of its own
        with make(WIDTH, HEIGHT) as enhancer:
            sent = threading.Event()

            def send():
                for frame in frames[1]:
                    while not enhancer.send(frame):
                        sent.wait(0.001)
                enhancer.flush()

            sender = threading.Thread(target=send)
            sender.start()
            back = []
            while not enhancer.drained:
                result = enhancer.receive()
                back += [result.frame] if result is not None else []
            sender.join()
            together[1] = back

    threads = [threading.Thread(target=target) for target in (first, second)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for one, other in zip(alone, together):
        assert len(one) == len(other) and all(same(a, b) for a, b in zip(one, other))


def test_closing_waits_for_calls_of_other_threads(make):
    for _ in range(5):
        enhancer = make(WIDTH, HEIGHT, lead_in=False)
        begun, ended = threading.Event(), []

        def use():
            try:
                for result in enhancer.enhance(noisy(8, WIDTH, HEIGHT) * 1000):
                    begun.set()
            except ValueError as error:
                ended.append(str(error))

        user = threading.Thread(target=use)
        user.start()
        assert begun.wait(60)
        enhancer.close()
        user.join(60)
        assert ended == ["the enhancer is closed"]


def test_the_log_arrives_in_pythons_logging(make, caplog, tmp_path):
    blocked = tmp_path / "file"
    blocked.write_text("")
    with caplog.at_level(logging.DEBUG, "noxel"):
        # A cache directory that cannot be made is worth a line.
        make(16, 16, cache_directory=blocked / "programs").close()
    assert any("programs" in record.getMessage() for record in caplog.records)
    assert {record.levelno for record in caplog.records} <= {logging.INFO, logging.WARNING, logging.ERROR}
    caplog.clear()
    make(16, 16, log=None).close()
    assert not caplog.records


def test_enhancers_leave_neither_threads_nor_memory(make, tmp_path):
    # One heap: how many heaps glibc makes depends on how threads happen to meet.
    environment = {**os.environ, "MALLOC_ARENA_MAX": "1"}
    program = Path(__file__).with_name("lives.py")
    ran = subprocess.run([sys.executable, "-B", program, tmp_path], env=environment, capture_output=True, text=True)
    assert ran.returncode == 0, ran.stderr
    (threads, resident), (threads_after, resident_after) = (map(int, line.split()) for line in ran.stdout.splitlines())
    # A frame's thread may still be ending; one that every enhancer leaves would be 200.
    assert threads_after <= threads + 2
    # On Mesa's software driver an enhancer of this size holds 40 MB, so one of 200 that leaks is seen. Fragments of the
    # heap and the driver's caches take 2 MB.
    assert resident_after - resident < 20e6
