"""A disk with a cache that is lost with the power: a plugin of nbdkit, which is killed together with the machine.

What is written stays in memory until a flush. Now and then a few sectors of it, any of them, get to the file by
themselves, as a disk does. Parameters: file=PATH, seed=NUMBER.
"""
import os
import random

import nbdkit

API_VERSION = 2
SECTOR = 512
OFTEN, MOST = 4, 16  # one write in so many is followed by so many sectors at most

place, chance, pending = None, random.Random(0), {}


def config(key, value):
    global place
    if key == "file":
        place = os.open(value, os.O_RDWR)
    elif key == "seed":
        chance.seed(int(value))
    else:
        raise RuntimeError(f"unknown parameter {key}")


def open(_readonly):
    return 1


def get_size(_handle):
    return os.fstat(place).st_size


def block_size(_handle):
    return SECTOR, 4096, 1 << 20


def store(sectors):
    for sector in sectors:
        os.pwrite(place, pending.pop(sector), sector * SECTOR)


def pread(_handle, buffer, offset, _flags):
    buffer[:] = os.pread(place, len(buffer), offset)
    for at in range(0, len(buffer), SECTOR):
        if (kept := pending.get((offset + at) // SECTOR)) is not None:
            buffer[at:at + SECTOR] = kept


def pwrite(_handle, buffer, offset, _flags):
    for at in range(0, len(buffer), SECTOR):
        pending[(offset + at) // SECTOR] = bytes(buffer[at:at + SECTOR])
    if chance.randrange(OFTEN) == 0:
        store(chance.sample(sorted(pending), min(len(pending), chance.randint(1, MOST))))


def flush(_handle, _flags):
    store(sorted(pending))
