"""Bytes that are not what was written: every change is noticed, and none costs much."""

import random
import struct
import tracemalloc

import msgpack
import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.stores import StateDecodeError, StateVersionError, decode, encode
from quorvane.stores.encoding import HEADER_BYTES, Payload, pack, seal
from quorvane.stores.encoding._layout import Code
from stores.support.samples import exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python

SMALL = {
    "slot_by_key": {("a", "b"): 0, ("c", "d"): 1},
    "legs": {0: ((1, 0.5), (2, -0.5)), 1: ()},
    "metadata": [{"active": False}, {"slot": 1, "active": True, "note": None}],
    "text": "Zürich",
    "big": 2**70,
    "array": np.arange(3.0),
    "scalar": np.float32(2),
}


def sealed(node, values=1000):
    """Return a record with an intact checksum around contents of the test's choice."""
    return seal(Payload(msgpack.packb(node, use_bin_type=True), values), "")


def test_every_truncation_is_noticed():
    data = encode(SMALL)
    for length in range(len(data)):
        with pytest.raises(StateDecodeError):
            decode(data[:length])
    with pytest.raises(StateDecodeError):
        decode(data + b"\0")


def test_every_flipped_bit_is_noticed():
    data = encode(SMALL)
    for place in range(len(data)):
        for bit in range(8):
            damaged = bytearray(data)
            damaged[place] ^= 1 << bit
            with pytest.raises(StateDecodeError):
                decode(damaged)


@pytest.mark.parametrize("data", [b"", b"x", b"\x80\x04N.", b"{}" * 100, bytes(1000)])
def test_foreign_bytes_are_noticed(data):
    with pytest.raises(StateDecodeError):
        decode(data)


def with_header(data, *, version=None, length=None, values=None):
    """Return `data` with other header fields and a checksum that fits them."""
    from quorvane.stores.encoding import _envelope

    fields = list(_envelope._FIELDS.unpack(data[:32]))
    for index, value in ((1, version), (3, length), (4, values)):
        if value is not None:
            fields[index] = value
    head = _envelope._FIELDS.pack(*fields)
    return head + _envelope._digest(head, data[HEADER_BYTES:], "") + data[HEADER_BYTES:]


def test_an_intact_record_of_a_newer_version_is_told_from_a_damaged_one():
    data = encode(SMALL)
    with pytest.raises(StateVersionError, match=r"format version 2, this version reads up to 1"):
        decode(with_header(data, version=2))
    altered = bytearray(data)
    struct.pack_into("<I", altered, 8, 2)
    with pytest.raises(StateDecodeError) as caught:
        decode(altered)
    assert not isinstance(caught.value, StateVersionError)
    with pytest.raises(StateDecodeError, match="format version 0"):
        decode(with_header(data, version=0))


def test_a_length_beyond_what_is_allowed_is_refused():
    data = encode({"a": b"x" * 1000})
    assert decode(data, max_bytes=2000) == {"a": b"x" * 1000}
    with pytest.raises(StateDecodeError, match=r"claims \d+ bytes, allowed are 100"):
        decode(data, max_bytes=100)


@pytest.mark.parametrize("values", [2**62, 2**28 + 1, 10**6])
def test_a_number_of_values_out_of_proportion_is_refused_at_the_header(values):
    with pytest.raises(StateDecodeError, match=rf"claims {values} values in \d+ bytes"):
        decode(with_header(encode(SMALL), values=values))


@pytest.mark.parametrize(
    ("values", "message"), [(0, "more values than"), (1, "more values than"), (500, "fewer than")]
)
def test_a_wrong_number_of_values_is_refused(values, message):
    with pytest.raises(StateDecodeError, match=message):
        decode(with_header(encode(SMALL), values=values))


INT, LIST, TUPLE, FIELDS, SAME = (
    int(code) for code in (Code.INT, Code.LIST, Code.TUPLE, Code.TUPLE_FIELDS, Code.SAME)
)
ONE = (INT, 1, b"\x01")


def doubled(levels):
    """Return tuples of tuples of ..., each level holding the one below twice."""
    node = (FIELDS, (INT, 1, b"\1" * 100))
    for number in range(levels):
        node = (FIELDS, node, *[(SAME, number)] * 15)
    return node


def nested(levels):
    node = ONE
    for _ in range(levels):
        node = (LIST, ONE, node)
    return node


BOMBS = {
    "array that claims four billion items": b"\xdd\xff\xff\xff\xff",
    "nested arrays that claim an item for each byte": b"\xdc\x0b\xb8" * 1000,
    "buffer that claims four billion bytes": b"\x92\x00\xc6\xff\xff\xff\xff",
    "text that claims four billion bytes": b"\xdb\xff\xff\xff\xff",
    "map that claims four billion pairs": b"\xdf\xff\xff\xff\xff",
    "extension that claims four billion bytes": b"\xc9\xff\xff\xff\xff\x01",
    "arrays nested without end": b"\x91" * 100_000,
}
FORGED = {
    "tuples shared again and again": doubled(60),
    "lists nested too deep": nested(210),
    "lists nested far too deep": nested(300),
    "a length without items": (LIST, (INT, 8, struct.pack("<q", 2**40)), (0, b"")),
    "a negative length": (LIST, (INT, 1, b"\xff\x02"), ONE),
    "an array of a huge shape": (
        int(Code.ARRAY),
        (int(Code.TEXT), b"<f8"),
        b"\0",
        (FIELDS, (INT, 8, struct.pack("<q", 2**60))),
        b"",
    ),
    "an empty array of a huge shape": (
        int(Code.ARRAY),
        (int(Code.TEXT), b"<f8"),
        b"\0",
        (FIELDS, (INT, 8, struct.pack("<q", 2**62)), (INT, 8, struct.pack("<q", 0))),
        b"",
    ),
    "an object array": (int(Code.ARRAY), (int(Code.TEXT), b"|O"), b"\0", (FIELDS, ONE), bytes(8)),
    "text of a huge width": (
        int(Code.ARRAY),
        (int(Code.TEXT), b"<U999999999"),
        b"\0",
        (FIELDS, ONE),
        b"",
    ),
    "a key twice": (int(Code.DICT), (INT, 1, b"\2"), (INT, 1, b"\1\1"), (INT, 1, b"\1\1")),
    "a field twice": (int(Code.DICT_FIELDS), (int(Code.TEXT), b"a\0a"), ONE, ONE),
    "a key that is a list": (int(Code.DICT), ONE, (LIST, ONE, ONE), ONE),
    "fewer keys than values": (int(Code.DICT), ONE, ONE, (INT, 1, b"\1\2")),
    "fields of different lengths": (FIELDS, ONE, (INT, 1, b"\1\2")),
    "tuples that are not there": (SAME, 0),
    "a kind that is not there": (99, b""),
    "no kind": (),
    "a part too few": (INT, 1),
    "a part too many": (INT, 1, b"\1", b""),
    "a number in place of a column": (LIST, 1, 2),
    "a number in place of a buffer": (int(Code.TEXT), 5),
    "integers of three bytes": (INT, 3, b"abc"),
    "half a float": (int(Code.FLOAT), b"1234"),
    "text that is not UTF-8": (int(Code.TEXT), b"\xff"),
    "an index too large": (int(Code.TEXT_INDEXED), (int(Code.TEXT), b"a"), (INT, 1, b"\5")),
    "a truth value of 2": (int(Code.BOOL), b"\2"),
    "a union with a part missing": (int(Code.UNION), b"\0\1", ONE),
    "a union whose parts do not fit": (int(Code.UNION), b"\0\0", ONE, ONE),
    "two values": (INT, 1, b"\1\2"),
    "no value": (INT, 1, b""),
    "numpy text that is a number": (int(Code.NUMPY_TEXT), ONE),
    "a scalar that is text": (int(Code.SCALAR), (int(Code.TEXT), b"<U1"), b"abcd"),
}


@pytest.mark.parametrize("payload", BOMBS.values(), ids=BOMBS)
def test_sizes_that_the_container_only_claims_cost_nothing(payload):
    assert_refused_cheaply(seal(Payload(payload, 100), ""))


@pytest.mark.parametrize("node", FORGED.values(), ids=FORGED)
def test_contents_that_make_no_sense_are_refused(node):
    data = msgpack.packb(node, use_bin_type=True)
    for values in (8 * len(data), 1):
        assert_refused_cheaply(seal(Payload(data, values), ""))
    # Whatever number of values the contents come to, one of these claims it rightly.
    for values in range(min(800, 8 * len(data))):
        with pytest.raises(StateDecodeError):
            decode(seal(Payload(data, values), ""))


def assert_refused_cheaply(data):
    tracemalloc.start()
    try:
        with pytest.raises(StateDecodeError):
            decode(data)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < 4_000_000 + 100 * len(data)


def test_the_same_tuples_in_very_many_lists_cost_no_more_than_is_claimed():
    tuples = (FIELDS, (INT, 1, b"\1" * 20_000))
    length = (INT, 4, struct.pack("<i", 20_000))
    data = msgpack.packb((FIELDS, (LIST, length, tuples), *[(LIST, length, (SAME, 0))] * 60))
    for values in (61 * 20_000, 8 * len(data), 20_000, 1):
        assert_refused_cheaply(seal(Payload(data, values), ""))


def test_numpy_text_that_is_repeated_costs_no_more_than_is_promised():
    text, count = b"x" * 10_000, 5_000
    repeated = (int(Code.TEXT_INDEXED), (int(Code.TEXT), text), (INT, 1, bytes(count)))
    node = (LIST, (INT, 2, struct.pack("<h", count)), (int(Code.NUMPY_TEXT), repeated))
    # The list and its length, one text, and for each of its items an index, a text and its copy.
    data = sealed(node, 3 + 3 * count)
    tracemalloc.start()
    try:
        items = decode(data)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert (len(items), set(map(type, items)), set(items)) == (count, {np.str_}, {text.decode()})
    assert peak < 700 * len(data)


def test_a_key_of_tuples_shared_again_and_again_is_refused_before_it_is_hashed():
    # Sixty levels, each the one below twice: hashing the key would take 2 ** 60 steps.
    key, values = (FIELDS, ONE), 2
    for number in range(60):
        key, values = (FIELDS, key, (SAME, number)), values + 2
    data = msgpack.packb((int(Code.DICT), ONE, key, (0, b"\0")))
    for claimed in (values + 3, 8 * len(data)):
        assert_refused_cheaply(seal(Payload(data, claimed), ""))


def test_a_flipped_bit_under_a_fitting_checksum_gives_a_value_or_the_error():
    payload = pack(SMALL)
    intact = bytes(payload.data)
    noticed = 0
    for place in range(len(intact)):
        for bit in range(8):
            damaged = bytearray(intact)
            damaged[place] ^= 1 << bit
            try:
                decode(seal(Payload(bytes(damaged), payload.values), ""))
            except StateDecodeError:
                noticed += 1
    assert noticed > len(intact)


nodes = st.recursive(
    st.integers(-5, 2**40)
    | st.binary(max_size=9)
    | st.none()
    | st.text(max_size=3)
    | st.just(ONE)
    | st.floats(),
    lambda inner: st.tuples(st.integers(0, 20), inner, inner) | st.lists(inner, max_size=5),
    max_leaves=20,
)


@settings(max_examples=500, deadline=None)
@given(nodes, st.integers(0, 50))
def test_any_contents_give_a_value_or_the_error(node, values):
    try:
        decode(sealed(node, values))
    except StateDecodeError:
        return


def test_random_damage_to_a_larger_record_is_noticed():
    data = encode(rotation_state(300))
    generator = random.Random(7)
    for _ in range(300):
        damaged = bytearray(data)
        start = generator.randrange(len(data))
        for place in range(start, min(len(data), start + generator.randrange(1, 600))):
            damaged[place] = generator.randrange(256)
        if damaged != data:
            with pytest.raises(StateDecodeError):
                decode(damaged)
    assert exactly_equal(decode(data), rotation_state(300))
