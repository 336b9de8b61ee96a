"""Stored records: damaged at every level, from the file's bytes to the tree that they hold."""

import functools
import struct

import msgpack
import numpy as np

from adversary.values.chosen import chance, pick
from quorvane.stores import StateDecodeError, StateEncodeError, StateVersionError, decode, encode
from quorvane.stores.encoding import HEADER_BYTES, Payload, _envelope, _reader, pack, seal
from quorvane.stores.encoding._layout import Code
from stores.support.samples import exactly_equal, rotation_state

__all__ = ["play", "subjects"]


def subjects():
    return [None]


@functools.cache
def samples():
    """Return valid states, small enough to be read many thousand times a second."""
    return [
        {},
        None,
        rotation_state(2),
        rotation_state(5),
        {"text": "Zürich\ud800", "big": 2**70, "negative": [-1, 300, 2**40], "none": [None] * 3},
        {"array": np.arange(3.0), "F": np.ones((2, 3), order="F"), "texts": np.array(["a", "bc"])},
        {"scalar": np.float32(2), "time": np.datetime64("2020-01-01"), "b": np.bytes_(b"x")},
        {("a", ("b", None)): (1, (2.5, True)), 1: [b"", b"bytes"], None: [[], [[]], {}]},
        [(1, 2), (3, 4), (1, 2), "same", "same", "same", "other", 1.5, False],
        [{"a": 1}, {"a": 2, "b": [1]}, {}, {"b": 3}] * 3,
    ]


@functools.cache
def packed():
    return [pack(state) for state in samples()]


@functools.cache
def encoded():
    return [encode(state) for state in samples()]


@functools.cache
def trees():
    return [
        msgpack.unpackb(bytes(payload.data), use_list=False, strict_map_key=False)
        for payload in packed()
    ]


def play(random, _):
    """Read damaged bytes: they give the error, or a value that can be written and read again."""
    draw = random.random()
    if draw < 0.3:
        return damaged_outside(random)
    if draw < 0.5:
        payload = pick(random, packed())
        return read(seal(Payload(damaged_bytes(random, bytes(payload.data)), payload.values), ""))
    if draw < 0.6:
        return other_header(random)
    return forged(random)


def read(data, **options):
    try:
        value = decode(data, **options)
    except StateDecodeError:
        return ["refused"]
    assert_can_be_kept(value)
    return ["read"]


def assert_can_be_kept(value):
    try:
        again = encode(value)
    except StateEncodeError as error:
        # Forged bytes can nest containers deeper than a writer would.
        if "nested in" in error.reason:
            return
        raise
    assert exactly_equal(decode(again), value), "a value that is another one when it is read again"


# Bytes


def damaged_outside(random):
    """Damage a sealed record; unless nothing has changed, it must not open."""
    original = pick(random, encoded())
    damaged = damaged_bytes(random, original)
    label = pick(random, ["", "", "", "x", "\ud800"])
    given = pick(random, [bytes, bytearray, memoryview])(damaged)
    limit = pick(random, [2**32 - 1, 2**32 - 1, 100, 0, -1])
    outcome = read(given, label=label, max_bytes=limit)
    allowed = damaged == original and not label and len(damaged) - HEADER_BYTES <= limit
    assert outcome == ["read" if allowed else "refused"], "damage that went unnoticed"
    return outcome


def damaged_bytes(random, data):
    data = bytearray(data)
    for _ in range(pick(random, [0, 1, 1, 1, 2, 5, 30])):
        place = int(random.random() * (len(data) + 1))
        draw = random.random()
        if draw < 0.35 and place < len(data):
            data[place] ^= 1 << int(random.random() * 8)
        elif draw < 0.6 and place < len(data):
            data[place] = pick(random, [0, 1, 0x7F, 0x80, 0xC0, 0xC6, 0xDD, 0xDC, 0x93, 0xFF])
        elif draw < 0.7:
            del data[place : place + pick(random, [1, 1, 4, 8, 1000])]
        elif draw < 0.8:
            data[place:place] = random.randbytes(pick(random, [1, 1, 4, 8, 70]))
        elif draw < 0.9:
            start = int(random.random() * (len(data) + 1))
            data[place:place] = data[start : start + 12]
        else:
            size = pick(random, [1, 2, 4, 8])
            value = pick(random, [0, 1, 2**31, 2**63, 2**64 - 1, len(data)]) % 256**size
            data[place : place + size] = value.to_bytes(size, pick(random, ["little", "big"]))
    return bytes(data)


def flipped(random, data):
    """Change a byte of what keeps its length."""
    place = int(random.random() * len(data))
    return data[:place] + bytes([pick(random, [data[place] ^ 1, 0, 1, 255])]) + data[place + 1 :]


def other_header(random):
    """Give a record another header that its checksum fits."""
    payload = bytes(pick(random, packed()).data)
    sizes = [0, 1, 2, 2**31, 2**32, 2**62, 2**64 - 1, 8 * len(payload), len(payload)]
    fields = [
        pick(random, [_envelope.MAGIC, _envelope.MAGIC, b"\x80\x04N.\0\0\0\0", bytes(8)]),
        pick(random, [1, 1, 1, 0, 2, 2**32 - 1]),
        pick(random, [0, 0, 1, 2**32 - 1]),
        pick(random, [len(payload), len(payload), *sizes]),
        pick(random, sizes),
    ]
    head = struct.pack("<8sIIQQ", *fields)
    data = head + _envelope._digest(head, payload, "") + payload
    outcome = read(data)
    if fields[:2] == [_envelope.MAGIC, 2] and fields[3] == len(payload):
        assert_is_newer(data)
    return outcome


def assert_is_newer(data):
    try:
        decode(data)
    except StateVersionError:
        return
    raise AssertionError("a newer record was not told from a damaged one")


# Trees of columns


def forged(random):
    """Seal a changed tree, with about as many values as it says it has."""
    index = int(random.random() * len(trees()))
    tree = trees()[index] if chance(random, 0.8) else node(random, 0)
    for _ in range(pick(random, [1, 1, 2, 4])):
        tree = changed(random, tree, 0)
    try:
        data = msgpack.packb(tree, use_bin_type=True)
    except (OverflowError, ValueError, TypeError):
        # No number of this size or text of these characters can be packed at all.
        return ["not packed"]
    if chance(random, 0.1):
        data = damaged_bytes(random, data)
    values = values_of(tree, packed()[index].values)
    claimed = pick(random, [values] * 9 + [values + 1, values - 1, values + 7, 8 * len(data), 0])
    return read(seal(Payload(data, max(claimed, 0)), ""))


def values_of(tree, otherwise):
    """Count the values in a tree, as far as it makes sense."""
    columns = _reader._Columns(LIMIT)
    try:
        columns.column(tree, 0)
    except Exception:
        return otherwise
    return LIMIT - columns.room


def changed(random, part, depth):
    """Return the part of a tree with something in it changed."""
    if type(part) is tuple and part and chance(random, 0.85):
        parts = list(part)
        place = int(random.random() * len(parts))
        draw = random.random()
        if draw < 0.06:
            del parts[place]
        elif draw < 0.12:
            parts.insert(place, node(random, depth + 1))
        elif draw < 0.18:
            parts[place] = pick(random, parts)
        else:
            parts[place] = changed(random, parts[place], depth + 1)
        return tuple(parts)
    if type(part) is bytes and part and chance(random, 0.9):
        return flipped(random, part) if chance(random, 0.6) else damaged_bytes(random, part)
    if type(part) is int and chance(random, 0.85):
        return pick(random, [part + 1, part - 1, *SMALL_NUMBERS])
    return node(random, depth + 1)


LIMIT = 10_000
SMALL_NUMBERS = [0, 1, 2, 3, 4, 8, 15, 19, 20, 255, 2**31, 2**63, -1]
ONE = (int(Code.INT), 1, b"\x01")
DTYPES = ["<f8", "<i4", "|b1", "<U2", "|S3", "<M8[D]", "|O", "<f8,<i4", "<f16", ">f8", "<U", "|V3"]
DTYPES += ["<U999999999", "(2,)<f8", "x", "", "<M8", "<m8[2s]", "<c16", "<f2", "|u1", "float64"]


def node(random, depth):
    """Make a node, or what stands where one belongs."""
    draw = random.random()
    if draw < 0.15 or depth > 6:
        return pick(random, [ONE, (0, b"\0"), (4, struct.pack("<d", 1.5)), (5, b"a"), (1, b"\1")])
    if draw < 0.2:
        return pick(random, [None, 1.5, "x", True, b"", (), {}, {1: 2}, msgpack.Timestamp(1)])
    if draw < 0.3:
        # Deep, by one of the ways to nest.
        inner = ONE
        for _ in range(pick(random, [5, 60, 64, 70, 190, 200, 400])):
            inner = pick(random, [(11, ONE, inner), (9, inner), (10, ONE, inner)])
        return inner
    if draw < 0.4:
        return (5, "\0".join(pick(random, DTYPES) for _ in range(pick(random, [1, 1, 2]))).encode())
    if draw < 0.5:
        return array_node(random)
    if draw < 0.6:
        item_size = pick(random, [1, 2, 4, 8, 3, 0, -1])
        return (2, item_size, random.randbytes(pick(random, [0, 1, 2, 4, 8, 16])))
    parts = [node(random, depth + 1) for _ in range(pick(random, [0, 1, 2, 2, 3, 3, 17]))]
    if chance(random, 0.3):
        parts.insert(0, random.randbytes(pick(random, [0, 1, 2, 5])))
    return (pick(random, range(21)), *parts)


def array_node(random):
    dtype = pick(random, DTYPES)
    shape = [
        pick(random, [0, 1, 2, 3, 255, 2**31, 2**62, -1])
        for _ in range(pick(random, [0, 1, 2, 33, 65]))
    ]
    lengths = (2, 8, struct.pack("<q", len(shape)))
    sizes = (2, 8, b"".join(struct.pack("<q", size) for size in shape))
    buffer = random.randbytes(pick(random, [0, 8, 16, 24, 12]))
    if chance(random, 0.3):
        return (16, (5, dtype.encode()), buffer)
    return (
        15,
        (5, dtype.encode()),
        pick(random, [b"\0", b"\1", b"\2", b""]),
        (10, lengths, sizes),
        buffer,
    )
