"""lives.py CACHE: prints threads and resident bytes after 40 enhancers and 200 more; half of them are not closed."""

import gc
import os
import sys

import noxel
import numpy as np


def live(closed):
    enhancer = noxel.Enhancer(16, 16, "fast", lead_in=False, cache_directory=sys.argv[1])
    enhancer.send(np.zeros((24, 16), np.uint8))
    assert enhancer.receive() is not None
    if closed:
        enhancer.close()  # otherwise it is freed with the object


def used():
    gc.collect()
    with open("/proc/self/statm") as file:
        resident = int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    return len(os.listdir("/proc/self/task")), resident


for count in (40, 200):
    for i in range(count):
        live(closed=i % 2 == 0)
    print(*used())
