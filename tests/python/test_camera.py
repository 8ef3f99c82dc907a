"""The example that enhances what OpenCV captures."""

import subprocess
import sys
from pathlib import Path

import noxel
import numpy as np
import pytest

cv2 = pytest.importorskip("cv2")
ROOT = Path(__file__).resolve().parents[2]


def lumas(path):
    """Mean luma of each frame."""
    capture = cv2.VideoCapture(str(path))
    while capture.isOpened():
        taken, picture = capture.read()
        if not taken:
            return
        yield noxel.rgb_to_planes(picture, range="full", order="bgr")[0].mean()


def test_the_camera_example_brightens_each_frame_of_a_file(make, tmp_path):
    dark, bright = ROOT / "samples/passer-by-dark.mp4", tmp_path / "bright.mp4"
    camera = ROOT / "examples/python/camera.py"
    ran = subprocess.run([sys.executable, "-B", camera, dark, bright], capture_output=True, text=True)
    assert ran.returncode == 0, ran.stderr
    before, after = list(lumas(dark)), list(lumas(bright))
    assert len(after) == len(before) == 50
    # The clip is under-exposed by a factor of 7 of light; the tone at least doubles its mean luma.
    assert np.mean(after) > 2 * np.mean(before)
    failed = subprocess.run([sys.executable, "-B", camera, tmp_path / "none.mp4"], capture_output=True, text=True)
    assert failed.returncode == 2 and "cannot be opened" in failed.stderr
