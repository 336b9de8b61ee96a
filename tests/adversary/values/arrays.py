"""Arrays that fire when they are made, filled, written or cut, and masks and rows of every make."""

import collections

import numpy as np

from adversary.values.odd_numbers import NAN


class WatchedArray(np.ndarray):
    """Array that fires when it is filled, written or read at an integer index."""

    trigger = None

    def fill(self, value):
        super().fill(value)
        self.trigger.fire()

    def __setitem__(self, item, value):
        super().__setitem__(item, value)
        self.trigger.fire()


class WatchedView(np.ndarray):
    """Array that fires when it is sliced."""

    trigger = None

    def __getitem__(self, item):
        if self.trigger is not None:
            self.trigger.fire()
        return super().__getitem__(item)


class Array:
    """What NumPy makes an array of by asking it, and then fires."""

    def __init__(self, trigger, values):
        self.trigger = trigger
        self.values = values

    def __array__(self, dtype=None, copy=None):
        self.trigger.fire()
        return np.array(self.values)


class Shaped(Array):
    """The same, with a shape that is asked for first."""

    def __init__(self, trigger, values, shape):
        super().__init__(trigger, values)
        self._shape = shape

    @property
    def shape(self):
        self.trigger.fire()
        return self._shape


ODD_MASKS = [
    np.zeros(6, dtype=bool),
    np.array([0, 1, 0, 0, 0, 0], dtype=bool),
    np.array([0, 1, 0, 0, 0, 0], dtype=np.int64),
    np.array([0, NAN, 0, 0, 0, 0]),
    np.zeros(12, dtype=np.uint8)[::2],
    np.array([0, 9, 1, 9, 0, 9] * 2, dtype=np.uint8)[::2],
    np.array([0, 0, 0, 0, 1, 0], dtype=np.uint8)[::-1],
    np.zeros(2, dtype=np.uint8),
    np.zeros(0, dtype=np.uint8),
    np.zeros((6, 1), dtype=np.uint8),
    np.zeros((6, 2), dtype=np.uint8),
    np.array(0, dtype=np.uint8),
    np.zeros(6, dtype=object),
    np.zeros(6, dtype=">i4"),
    np.zeros(13, dtype=np.uint8)[1:].view(">u2"),
    np.broadcast_to(np.uint8(0), 6),
    np.zeros(6, dtype="S1"),
    np.zeros(6, dtype="M8[D]"),
    np.ma.masked_array(np.zeros(6, dtype=np.uint8), mask=[1, 0, 0, 0, 0, 0]),
    [0] * 6,
    (False,) * 6,
    bytes(6),
    bytearray(2),
    memoryview(bytes(6)),
    memoryview(bytes([0, 1, 0, 0, 0, 0])),
    {0: 0, 1: 1},
    collections.defaultdict(int),
    range(6),
    None,
    5,
    "000000",
]


def odd_rows(length):
    """Rows of every make and a length, fresh each time because a day writes into them."""
    read_only = np.zeros(length)
    read_only.flags.writeable = False
    return [
        np.zeros(length),
        np.zeros(length + 3),
        np.zeros(2),
        np.zeros(0),
        np.zeros(2 * length)[::2],
        np.zeros(length)[::-1],
        np.zeros(length, dtype=np.float32),
        np.zeros(length, dtype=np.int64),
        np.zeros(length, dtype=bool),
        np.zeros(length, dtype=complex),
        np.zeros(length, dtype=object),
        np.zeros(length, dtype=">f8"),
        np.zeros(8 * length + 1, dtype=np.uint8)[1:].view(np.float64),
        np.zeros((length, 1)),
        np.zeros((length, 2)),
        np.zeros((1, length)),
        np.array(0.0),
        np.broadcast_to(np.float64(0.0), length),
        np.ma.zeros(length),
        read_only,
        memoryview(bytearray(8 * length)).cast("d"),
        [0.0] * length,
        bytearray(length),
        None,
    ]
