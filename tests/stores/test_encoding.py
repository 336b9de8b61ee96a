"""What is kept, and that it is kept exactly."""

import struct
import sys

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

from quorvane.stores import StateDecodeError, StoreDependencyError, decode, encode
from quorvane.stores.encoding import MAX_DEPTH, seal
from quorvane.stores.encoding._writer import _pack_once
from stores.support.samples import exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python


def restored(state):
    return decode(encode(state))


def float_of(bits):
    return struct.unpack("<d", struct.pack("<Q", bits))[0]


SINGLE_VALUES = [
    None,
    True,
    False,
    0,
    -1,
    127,
    128,
    -129,
    2**31,
    -(2**31) - 1,
    2**63 - 1,
    -(2**63),
    2**63,
    -(2**63) - 1,
    10**400,
    -(10**400),
    0.0,
    -0.0,
    0.1,
    5e-324,
    float("inf"),
    float("-inf"),
    float("nan"),
    float_of(0xFFF8000000000000),
    float_of(0x7FF8000000ABCDEF),
    "",
    "ewma(20);rank",
    "\0",
    "a\0b",
    "Zürich 東京 🏦",
    "\ud800",
    "\udfff\ud800",
    b"",
    b"\0\xff",
    (),
    [],
    {},
    ((),),
    [[]],
    {(): ()},
    {"": {}},
    (1,),
    [1],
    (1, "a", None, 2.5, b"x", True, (3, [4])),
    {1: "int", "1": "text", (1,): "tuple", None: "none", 2.5: "float", b"1": "bytes"},
    {("a", ("b", 1)): {("c",): {2: [(), {}]}}},
    [None, 1, "a", None, 2.0, "b", (1,), [1], {"a": 1}, b"", True, 2**70],
    [{"a": 1}, {"b": 2}, {"a": 1, "b": 2}, {"b": 2, "a": 1}, {}],
    [{1: "a"}, {True: "b"}, {1.0: "c"}],
    [("a", 1), ("b",), (), ("c", 2, 3.0)],
    [2**63, 1, -5, 2**200],
    ["a\0", "b", ""],
    ["same"] * 10 + ["other"],
    [(1, 2)] * 3,
    {f"field {i}": i for i in range(200)},
    tuple(range(100)),
]


@pytest.mark.parametrize("value", SINGLE_VALUES, ids=lambda value: ascii(value)[:40])
def test_a_value_comes_back_as_it_was(value):
    assert exactly_equal(restored(value), value)


@pytest.mark.parametrize("bits", [0x7FF0000000000001, 0x7FF4000000000000, 0xFFF0000000000001])
def test_a_signalling_nan_keeps_its_bits(bits):
    value = float_of(bits)
    assert struct.pack("<d", restored([value])[0]) == struct.pack("<d", value)


def test_tuples_and_lists_stay_apart():
    state = {"tuple": (1, 2), "list": [1, 2], "both": [(1,), [1]]}
    back = restored(state)
    assert type(back["tuple"]) is tuple
    assert type(back["list"]) is list
    assert list(map(type, back["both"])) == [tuple, list]


def test_a_dict_keeps_its_order():
    assert list(restored({"b": 1, "a": 2, "c": 3})) == ["b", "a", "c"]
    assert list(restored({9: 1, -3: 2, 4: 3})) == [9, -3, 4]


@pytest.mark.parametrize("active", [0, 1, 20, 50])
def test_the_state_of_a_rotation_comes_back(active):
    state = rotation_state(50, active=active)
    assert exactly_equal(restored(state), state)


def test_the_input_is_not_changed():
    state = rotation_state(20)
    encode(state)
    assert exactly_equal(state, rotation_state(20))


def test_equal_states_have_equal_bytes():
    assert encode(rotation_state(20)) == encode(rotation_state(20))


def test_a_key_that_two_maps_share_comes_back_shared():
    # Not-a-number equals itself only as the same object, so the maps of a rotation that uses it
    # in a key are each other's inverse only as long as they share that object.
    key = ("basket", float("nan"))
    back = restored({"slot_by_key": {key: 0}, "key_by_slot": {0: key}})
    assert {slot: key for key, slot in back["slot_by_key"].items()} == back["key_by_slot"]


def test_mutable_values_come_back_apart():
    row = [1]
    pair = ((row,), (row,))
    back = restored({"a": [row, row], "b": pair, "c": pair, "d": ((row,), (row,))})
    lists = [*back["a"], *(item for name in "bcd" for (item,) in back[name])]
    assert len(set(map(id, lists))) == len(lists) == 8


def test_tuples_that_hold_the_same_are_written_once():
    def names(first):
        return [((f"long name {i}", i), (i, f"longer name {i}")) for i in range(first, first + 99)]

    once = {"a": names(0), "c": names(500), "e": 1}
    thrice = {"a": names(0), "b": names(0), "c": names(500), "d": names(500), "e": names(0)}
    assert exactly_equal(restored(thrice), thrice)
    assert len(encode(thrice)) < 1.1 * len(encode(once))


def test_columns_that_share_some_tuples_are_not_taken_for_each_other():
    one, two, three = (1,), (2,), (3,)
    state = {"a": [one, two, three], "b": [two, two, three], "c": [one, three, three]}
    assert exactly_equal(restored(state), state)


def test_equal_tuples_of_different_types_are_not_taken_for_each_other():
    state = {"a": [(1, 0.0)], "b": [(True, 0.0)], "c": [(1.0, 0.0)], "d": [(1, -0.0)]}
    assert exactly_equal(restored(state), state)
    columns = {"a": [("x", 1)] * 3, "b": [("x", True)] * 3, "c": [("x", np.int64(1))] * 3}
    assert exactly_equal(restored(columns), columns)


def shared_on_many_levels(levels):
    value = (1, "a")
    for _ in range(levels):
        value = (value, value)
    return value


def very_many_values_in_few_bytes():
    tuples = [(i,) for i in range(1000)]
    value = 1
    for level in range(30):
        value = (value,) if level % 2 else {"field": value}
    return {
        "the same tuples in many lists": {str(i): list(tuples) for i in range(60)},
        "many tuples in tuples": {"deep": [value for _ in range(500)]},
        "tuples shared on many levels": {shared_on_many_levels(14): shared_on_many_levels(12)},
    }


@pytest.mark.parametrize("state", very_many_values_in_few_bytes().values())
def test_very_many_values_in_few_bytes_still_come_back(state):
    data = encode(state)
    assert exactly_equal(decode(data), state)
    compact = _pack_once(state, compact=True)
    with pytest.raises(StateDecodeError, match=r"claims \d+ values in \d+ bytes"):
        decode(seal(compact, ""))


def test_containers_nest_as_deep_as_promised():
    for wrap in (lambda v: (v,), lambda v: [v], lambda v: {"k": v}, lambda v: {3: v, "x": 1}):
        value = 1
        for _ in range(MAX_DEPTH):
            value = wrap(value)
        assert exactly_equal(restored(value), value)


ARRAYS = [
    np.arange(6.0),
    np.arange(6.0).reshape(2, 3),
    np.asfortranarray(np.arange(6.0).reshape(2, 3)),
    np.array(3.5),
    np.zeros((0, 4)),
    np.zeros((3, 0, 2), dtype=np.uint8),
    np.array([np.nan, -0.0, np.inf, float_of(0x7FF8000000ABCDEF)]),
    np.array([True, False]),
    np.array([1, 2], dtype=">i4"),
    np.array([1, 2], dtype=np.uint64),
    np.array([1.5], dtype=np.float16),
    np.array([1, 3], dtype=np.longdouble) / 3,
    np.array([1 + 2j], dtype=np.complex64),
    np.array(["ab", "c"]),
    np.array([b"ab", b"c"]),
    np.array(["2020-01-01", "NaT"], dtype="M8[D]"),
    np.array([1, 2], dtype="m8[25us]"),
]


@pytest.mark.parametrize("array", ARRAYS, ids=lambda a: f"{a.dtype.str}{a.shape}")
def test_an_array_comes_back_with_dtype_shape_and_bits(array):
    back = restored({"array": array})["array"]
    assert exactly_equal(back, array)
    assert back.flags.writeable
    assert back.flags.owndata
    assert back.flags.aligned
    assert back.flags.c_contiguous == array.flags.c_contiguous
    assert back.flags.f_contiguous == array.flags.f_contiguous


@pytest.mark.parametrize(
    "view",
    [
        np.arange(20.0)[::3],
        np.arange(20.0)[::-1],
        np.arange(24).reshape(2, 3, 4)[:, :, 1],
        np.arange(24).reshape(2, 3, 4).transpose(1, 0, 2),
        np.broadcast_to(np.arange(3), (4, 3)),
    ],
)
def test_an_array_in_no_order_comes_back_in_c_order(view):
    back = restored(view)
    assert exactly_equal(back, view)
    assert back.flags.c_contiguous


def test_many_arrays_side_by_side_come_back():
    assert all(map(exactly_equal, restored(ARRAYS), ARRAYS))


SCALARS = [
    np.float64(0.1),
    np.float64(float_of(0x7FF8000000ABCDEF)),
    np.float32(0.1),
    np.float16(0.1),
    np.longdouble(1) / 3,
    np.int64(-3),
    np.uint8(255),
    np.bool_(True),
    np.complex128(1 - 2j),
    np.datetime64("2020-01-01T00:00", "ns"),
    np.datetime64("NaT", "D"),
    np.timedelta64(5, "D"),
    np.str_("name"),
    np.str_("zeros at the end\0\0"),
    np.bytes_(b"raw\0"),
]


@pytest.mark.parametrize("scalar", SCALARS, ids=lambda s: f"{type(s).__name__} {s!r}")
def test_a_numpy_scalar_comes_back_with_its_type(scalar):
    back = restored([scalar, scalar])
    assert exactly_equal(back, [scalar, scalar])
    if isinstance(scalar, (str, bytes)):
        assert len(back[0]) == len(scalar)


def test_numpy_scalars_side_by_side_and_as_keys_come_back():
    assert exactly_equal(restored(SCALARS), SCALARS)
    state = {(np.int64(3), np.str_("a")): np.float64(2), np.bool_(False): 1}
    assert exactly_equal(restored(state), state)


def test_the_c_alias_of_a_dtype_comes_back_under_its_standard_name():
    array, scalar = restored((np.array([1, 2], dtype=np.longlong), np.longlong(3)))
    assert array.dtype == np.dtype(np.longlong) == scalar.dtype
    assert (array.tolist(), int(scalar)) == ([1, 2], 3)


any_text = st.lists(st.integers(0, 0x10FFFF)).map(lambda points: "".join(map(chr, points)))
any_float = st.integers(0, 2**64 - 1).map(float_of)
hashable_leaves = (
    st.none()
    | st.booleans()
    | st.integers()
    | st.integers(-(2**70), 2**70)
    | any_float
    | any_text
    | st.sampled_from(["a", "b", "key", "legs"])
    | st.binary()
)
dtypes = (
    hnp.integer_dtypes()
    | hnp.unsigned_integer_dtypes()
    | hnp.floating_dtypes()
    | hnp.complex_number_dtypes()
    | hnp.boolean_dtypes()
    | hnp.datetime64_dtypes()
    | hnp.byte_string_dtypes()
    | hnp.unicode_string_dtypes()
)
arrays = hnp.arrays(dtypes, hnp.array_shapes(min_dims=0, max_dims=3, min_side=0, max_side=3))
orders = st.sampled_from([lambda a: a, np.asfortranarray, lambda a: a[..., ::-1] if a.ndim else a])
leaves = hashable_leaves | st.builds(lambda order, array: order(array), orders, arrays)
keys = st.recursive(
    hashable_leaves, lambda inner: st.lists(inner, max_size=3).map(tuple), max_leaves=4
)


def containers(inner):
    rows = st.fixed_dictionaries({"key": inner, "legs": inner, "slot": st.integers()})
    repeated = st.lists(inner.map(lambda value: [value] * 3), max_size=3)
    return (
        st.lists(inner, max_size=5)
        | st.lists(inner, max_size=5).map(tuple)
        | st.dictionaries(keys, inner, max_size=5)
        | st.dictionaries(any_text, inner, max_size=5)
        | st.lists(rows, max_size=4)
        | st.lists(st.tuples(inner, inner), max_size=4)
        | repeated
    )


@settings(max_examples=400, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.recursive(leaves, containers, max_leaves=25))
def test_any_nested_value_comes_back(value):
    assert exactly_equal(restored(value), value)


def test_a_label_opens_only_its_own_record():
    data = encode({"a": 1}, label="one")
    assert decode(data, label="one") == {"a": 1}
    for other in ("", "two", "one\0"):
        with pytest.raises(ValueError, match="belongs to another name"):
            decode(data, label=other)


def test_bytes_like_data_is_accepted():
    data = encode({"a": [1, 2]})
    for given_as in (bytearray(data), memoryview(data), np.frombuffer(data, np.uint8).data):
        assert decode(given_as) == {"a": [1, 2]}


@pytest.mark.parametrize("act", [encode, decode])
def test_missing_msgpack_is_said_with_the_extra_that_brings_it(monkeypatch, act):
    given_to = {encode: {"a": 1}, decode: encode({"a": 1})}
    monkeypatch.setitem(sys.modules, "msgpack", None)
    with pytest.raises(StoreDependencyError, match=r"pip install 'quorvane\[stores\]'"):
        act(given_to[act])
