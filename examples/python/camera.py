"""Enhances what OpenCV captures: a camera by its number, or a file.

    python3 camera.py 0                          shows the first camera, until q is pressed
    python3 camera.py night.mp4 bright.mp4       writes a file instead
"""

import argparse

import cv2
import noxel


def pictures(capture):
    """Pictures of the capture (BGR) until there are no more."""
    while True:
        taken, picture = capture.read()
        if not taken:
            return
        yield picture


def main():
    parser = argparse.ArgumentParser(description="Enhances what OpenCV captures.")
    parser.add_argument("source", help="number of a camera, or a file")
    parser.add_argument("output", nargs="?", help="file to write; without it a window shows the pictures")
    parser.add_argument("--strength", type=int, default=50, help="how much noise is taken out, 0 to 100")
    options = parser.parse_args()

    camera = options.source.isdigit()
    capture = cv2.VideoCapture(int(options.source) if camera else options.source)
    if not capture.isOpened():
        parser.error(f"{options.source} cannot be opened")
    width, height = (int(capture.get(side)) for side in (cv2.CAP_PROP_FRAME_WIDTH, cv2.CAP_PROP_FRAME_HEIGHT))
    rate = capture.get(cv2.CAP_PROP_FPS) or 25
    writer = None
    if options.output is not None:
        writer = cv2.VideoWriter(options.output, cv2.VideoWriter_fourcc(*"mp4v"), rate, (width, height))

    # A camera must not wait, a file must lose no frame.
    delivery = "live" if camera else "complete"
    with noxel.Enhancer(width, height, format="bgr", delivery=delivery, strength=options.strength) as enhancer:
        for picture, info in enhancer.enhance(pictures(capture)):
            if writer is not None:
                writer.write(picture)
                continue
            cv2.imshow("Noxel", picture)
            if cv2.waitKey(1) == ord("q"):
                break
    if writer is not None:
        writer.release()


if __name__ == "__main__":
    main()
