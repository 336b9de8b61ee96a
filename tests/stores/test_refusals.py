"""What is refused, and how the error says where it is."""

import datetime
import pickle
import tracemalloc
from collections import Counter, OrderedDict, defaultdict, namedtuple
from enum import IntEnum

import numpy as np
import pytest

from quorvane.stores import StateEncodeError, decode, encode
from quorvane.stores.encoding import MAX_DEPTH
from stores.support.samples import exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python

Point = namedtuple("Point", "x y")


class Colour(IntEnum):
    RED = 1


class Name(str):
    __slots__ = ()


class Weight(np.float64):
    pass


def refusal(state):
    with pytest.raises(StateEncodeError) as caught:
        encode(state)
    return caught.value


REFUSED = {
    "set": {1, 2},
    "frozenset": frozenset(),
    "complex": 1j,
    "bytearray": bytearray(b"x"),
    "range": range(3),
    "object": object(),
    "function": len,
    "type": int,
    "date": datetime.date(2020, 1, 1),
    "slice": slice(1),
    "OrderedDict": OrderedDict(a=1),
    "defaultdict": defaultdict(list),
    "Counter": Counter("aab"),
    "namedtuple": Point(1, 2),
    "IntEnum": Colour.RED,
    "str subclass": Name("x"),
    "float subclass": Weight(1.0),
    "masked array": np.ma.array([1.0, 2.0], mask=[0, 1]),
    "record array": np.rec.array([(1, 2.0)], dtype=[("a", "i4"), ("b", "f8")]),
    "object array": np.array([1, None], dtype=object),
    "structured array": np.zeros(2, dtype=[("a", "i4"), ("b", "f8")]),
    "void array": np.zeros(2, dtype="V4"),
    "void scalar": np.zeros(1, dtype="V4")[0],
    "date of a unit too long": np.datetime64(5, ("s", 1234567890)),
    "time difference of a unit too long": np.timedelta64(5, ("s", 1234567890)),
    "dates of a unit too long": np.zeros(2, "M8[1234567890s]"),
    "dtype with metadata": np.zeros(2, dtype=np.dtype("f8", metadata={"unit": "m"})),
}


@pytest.mark.parametrize("value", REFUSED.values(), ids=REFUSED)
def test_a_value_that_would_come_back_different_is_refused_with_its_path(value):
    state = rotation_state(10)
    state["structure_metadata_by_slot"][3]["x"] = value
    error = refusal(state)
    assert error.path == 'state["structure_metadata_by_slot"][3]["x"]'
    assert str(error).startswith(error.path + " is a")
    assert isinstance(error, ValueError)


@pytest.mark.parametrize("value", REFUSED.values(), ids=REFUSED)
def test_a_refused_value_is_refused_alone_and_in_every_container(value):
    assert refusal(value).path == "state"
    assert refusal([1, value]).path == "state[1]"
    assert refusal((value,)).path == "state[0]"
    assert refusal({"a": {7: value}}).path == 'state["a"][7]'
    assert refusal({("a", 1): [(), [value]]}).path == "state[('a', 1)][1][0]"


def test_the_path_leads_to_the_value():
    wanted = {9}
    states = [
        {"it's": {'"': [wanted]}},
        {None: {True: {2.5: {b"x": wanted}}}},
        {"\n": {"": wanted}},
        {"x" * 1000: [0, wanted]},
    ]
    for state in states:
        path = refusal(state).path
        assert eval(path, {"state": state}) is wanted


def test_a_refused_key_is_named_by_its_place():
    state = {"slot_by_key": {("a", 1): 0, ("b", Colour.RED): 1}}
    path = refusal(state).path
    assert path == 'list(state["slot_by_key"])[1][1]'
    assert eval(path, {"state": state}) is Colour.RED


@pytest.mark.parametrize(
    ("value", "kind"),
    [(OrderedDict(), "dict"), (Point(1, 2), "tuple"), (Colour.RED, "int"), (Name("x"), "str")],
)
def test_a_subclass_is_refused_with_what_it_would_come_back_as(value, kind):
    assert f"would come back as a plain {kind}" in str(refusal({"a": value}))


def test_a_key_too_long_to_be_written_is_named_by_its_place():
    assert refusal({10**5000: {1}}).path == "list(state.values())[0]"


def test_the_first_of_several_refused_values_is_named():
    assert refusal({"a": [1, {2}], "b": {3}}).path == 'state["a"][1]'


def self_containing():
    in_list = []
    in_list.append(in_list)
    in_dict = {"a": {}}
    in_dict["a"]["b"] = in_dict
    through_tuple = {"x": [1]}
    through_tuple["x"].append((through_tuple["x"], 2))
    tenfold = []
    tenfold += [tenfold] * 10
    long_way = [[] for _ in range(20)]
    for before, after in zip(long_way, long_way[1:] + long_way[:1], strict=True):
        before.append(after)
    return {
        "list": (in_list, "state[0]"),
        "dict": (in_dict, 'state["a"]["b"]'),
        "through a tuple": (through_tuple, 'state["x"][1][0]'),
        "ten times": (tenfold, "state[0]"),
        "over twenty others": ({"way": [1, long_way[0]]}, 'state["way"][1]' + 20 * "[0]"),
    }


@pytest.mark.parametrize(
    ("state", "path"), self_containing().values(), ids=self_containing().keys()
)
def test_a_container_that_contains_itself_is_refused_at_little_cost(state, path):
    tracemalloc.start()
    try:
        error = refusal(state)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert (error.path, error.reason) == (
        path,
        "is a container that contains itself, which cannot be stored",
    )
    assert peak < 2_000_000


def test_a_list_that_stands_in_two_places_is_no_circle():
    shared = [1]
    encode({"a": shared, "b": [shared, [shared, [shared]]], "c": {"d": shared}})


def test_containers_nested_too_deep_are_refused():
    state = value = {}
    for _ in range(MAX_DEPTH):
        value["a"] = value = {}
    error = refusal(state)
    assert error.path == "state" + '["a"]' * MAX_DEPTH
    assert f"is nested in {MAX_DEPTH} containers" in str(error)


def test_too_many_values_are_refused_before_they_are_collected(monkeypatch):
    monkeypatch.setattr("quorvane.stores.encoding._writer.MAX_VALUES", 1000)
    encode({"a": list(range(400))})
    assert "holds more than 1000 values" in str(refusal({"a": list(range(1001))}))
    block = [1] * 20
    assert "holds more than 1000 values" in str(refusal([[[block] * 20] * 20] * 20))


def test_tuples_shared_deeper_than_any_reader_would_follow_are_refused():
    value = (1,)
    for _ in range(50):
        value = (value, value)
    assert "holds more than" in str(refusal([value]))
    assert "holds more than" in str(refusal({"a": value, "b": [value]}))


def shared_on_every_level(pair, levels=60):
    value = pair(1, 2)
    for _ in range(levels):
        value = pair(value, value)
    return value


@pytest.mark.parametrize(
    "pair",
    [
        lambda a, b: [a, b],
        lambda a, b: {"a": a, "b": b},
        lambda a, b: {1: a, 2: b},
        lambda a, b: (a, b) * 10,
        lambda a, b: {"a": a, 2: b},
    ],
    ids=["lists", "dicts of fields", "dicts", "long tuples", "mixed dicts"],
)
def test_containers_shared_on_every_level_are_refused_before_they_are_collected(pair):
    tracemalloc.start()
    try:
        error = refusal({"a": shared_on_every_level(pair)})
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert "holds more than" in str(error)
    assert peak < 100_000_000


def test_containers_shared_on_some_levels_are_kept():
    state = shared_on_every_level(lambda a, b: [a, b], 16)
    assert exactly_equal(decode(encode(state)), state)
    state = shared_on_every_level(lambda a, b: {"a": a, "b": b}, 14)
    assert exactly_equal(decode(encode(state)), state)


def test_a_payload_that_no_reader_would_take_is_refused(monkeypatch):
    monkeypatch.setattr("quorvane.stores.encoding._writer.MAX_PAYLOAD_BYTES", 1000)
    assert "allowed are 1000" in str(refusal({"a": b"x" * 1001}))


def test_the_error_survives_a_process_pool():
    error = refusal({"a": {1}})
    copy = pickle.loads(pickle.dumps(error))
    assert (str(copy), copy.path, copy.reason) == (str(error), error.path, error.reason)
