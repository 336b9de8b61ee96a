"""Containers with ways of their own, and texts and bytes at the limits."""

import collections
import types

import numpy as np


class Key(tuple):
    """Tuple of another class."""

    __slots__ = ()


class BackwardsTuple(tuple):
    def __iter__(self):
        return iter(tuple(self[::-1]))


class BackwardsList(list):
    def __iter__(self):
        return iter(list(self[::-1]))


class LongList(list):
    def __len__(self):
        return 9


class OwnKeys(dict):
    def keys(self):
        return ["mine"]

    def __iter__(self):
        return iter(["mine"])

    def __getitem__(self, name):
        return "own " + str(name)


class MissingKeys(dict):
    def __missing__(self, name):
        return {"key": ("missing",), "legs": ((3, 1.0),)}[name]


class OldSequence:
    """Iterates through the old protocol alone."""

    def __init__(self, parts):
        self.parts = parts

    def __getitem__(self, index):
        return self.parts[index]


class FailingIterator:
    def __iter__(self):
        return self

    def __next__(self):
        raise LookupError("next")


TEXTS = ["", "0", "3", " 4\n", "1_0", "٣", "0x3", "2.9", "1e3", "nan", "-inf", "x", "ab", "a\0b"]
TEXTS += ["\ud800", "é", "key", "legs", "value", "metadata", "active", "9" * 400, "9" * 5000]
BYTES = [b"", b"2", b"ab", b"\x00\xff"]
CONTAINERS = [
    tuple,
    list,
    collections.deque,
    iter,
    Key,
    lambda parts: (part for part in parts),
    lambda parts: dict.fromkeys(range(len(parts)), 0),
    lambda parts: dict(enumerate(parts)).values(),
    lambda parts: types.MappingProxyType(dict(enumerate(parts))),
    lambda parts: np.array(parts, dtype=object),
]
