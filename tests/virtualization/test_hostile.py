"""Code of the user's that runs in the middle of a day, and does its worst there.

The native module must then be where its twin is: same outcome, same attributes, same traces.
"""

import collections
import contextlib
import copy
import functools
import gc
import sys
import types
import weakref
from unittest import mock

import numpy as np
import pytest

from support import frozen
from support.days import STEPS, Thing, day_rotation_class
from support.hostile import Trigger
from support.hostile_days import hostile_days, make
from support.hostile_places import DELETIONS, ITEM_PLACES, PLACES, item_with
from support.isolated import run_isolated
from support.siblings import Siblings, load_base

NAN = float("nan")


@functools.cache
def shared():
    """Load both modules once, on the same siblings, for scenarios that leave them as they are."""
    return fresh()


def fresh():
    """Load a fresh module of each kind, on the same siblings."""
    siblings = Siblings()
    return load_base("native", siblings), load_base("twin", siblings)


# Single scenarios: each returns what it saw on one module

SCENARIOS = []


def scenario(function):
    SCENARIOS.append(function)
    return function


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    modules = fresh()
    try:
        native, twin = (scene(base) for base in modules)
    finally:
        gc.collect()
    different = [entry for entry in zip(native, twin, strict=True) if entry[0] != entry[1]]
    assert different == []


def day_log(rotation, *, N=6, masks=None, combined=None, buffer=None):
    """Compute one day directly and return its outcome with the buffer and the attributes."""
    combined = np.zeros(6, dtype=np.uint8) if combined is None else combined
    masks = (np.zeros(6, dtype=np.uint8),) if masks is None else masks
    buffer = np.full(6, 77.0) if buffer is None else buffer
    result = frozen.outcome(rotation.compute, (np.zeros(6),), masks, combined, buffer, N)
    return result, frozen.freeze(buffer), frozen.freeze(vars(rotation))


def plain_items(count=3):
    return [
        {"key": (name,), "legs": ((leg, 1.0), (leg + 1, -0.5)), "value": leg + 1.0}
        for leg, name in enumerate("abcd"[:count])
    ]


def value_logs(base, values, use):
    """Use each of the values on a fresh rotation and collect what happens."""
    return [frozen.freeze(use(make(base), value)) for value in values]


# Numbers of every make


class IntLike:
    """Converts by int() and indexes differently."""

    def __int__(self):
        return 1

    def __index__(self):
        return 2


class IndexOnly:
    def __index__(self):
        return 3


class TruncOnly:
    def __trunc__(self):
        return 2


class FloatLike:
    def __float__(self):
        return 0.75


class OddInt(int):
    """Int whose conversions and comparisons disagree with its own value."""

    def __int__(self):
        return 2

    def __float__(self):
        return 0.5

    def __index__(self):
        return 1

    def __lt__(self, other):
        return False

    def __ge__(self, other):
        return False

    def __hash__(self):
        return 0

    def __eq__(self, other):
        return True


class OddFloat(float):
    def __float__(self):
        return 0.125

    def __int__(self):
        return 1


class LyingInt:
    def __int__(self):
        return "not an int"


class SubclassInt:
    def __int__(self):
        return OddInt(4)


class LyingFloat:
    def __float__(self):
        return 1


class BadNumber:
    def __int__(self):
        raise LookupError("int")

    __float__ = __index__ = __int__


ODD_NUMBERS = [
    IntLike(),
    IndexOnly(),
    FloatLike(),
    OddInt(3),
    OddFloat(2.5),
    LyingInt(),
    LyingFloat(),
    BadNumber(),
    "3",
    " 3\n",
    "0x3",
    "1_0",
    "٣",
    "3.0",
    b"3",
    bytearray(b"3"),
    True,
    2**63 - 1,
    2**63,
    -(2**63) - 1,
    2**1023,
    2**1024,
    1e308,
    5e-324,
    NAN,
    float("inf"),
    np.float32(1.5),
    np.float16(2.5),
    np.longdouble(2.5),
    np.int8(-1),
    np.uint64(2**64 - 1),
    np.bool_(True),
    np.array(2),
    np.array("3"),
    np.str_("3"),
    np.bytes_(b"3"),
    1j,
    np.complex128(1.0),
    memoryview(b"3"),
    None,
    object,
    [],
]


@scenario
def odd_leg_ids(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": [(0, 1.0), (number, 1.0)], "value": 2.0}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_weights(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0), (1, number)), "value": 2.0}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_values(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0),), "value": number}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_values_in_a_record_that_was_not_normalised(base):
    def use(rotation, number):
        record = base.VirtualStructure(("a",), ((0, 1.0),), number)
        rotation._normalize_structure = lambda raw: record
        rotation.items = [None]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_ids_in_a_record_that_was_not_normalised(base):
    def use(rotation, number):
        record = base.VirtualStructure(("a",), ((number, 1.0),), 1.0)
        rotation._normalize_structure = lambda raw: record
        rotation.items = [None]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_days(base):
    def use(rotation, number):
        context = Thing(current_day_index=number)
        child_context = frozen.outcome(rotation._make_child_context, None, number)
        return frozen.outcome(rotation, np.ones(6), context=context), child_context

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_live_counts(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0), (2, 1.0)), "value": 2.0}]
        return day_log(rotation, N=number)

    counts = [6, 5, 3, 2, 1, 0, -1, -6, 7, 2**62, 2**80, -(2**80), 6.0, 2.5, np.int64(6)]
    counts += [np.uint8(3), OddInt(6), IndexOnly(), True, None, "6", NAN]
    # Lengths that only memory limits are left out: they would be allocated.
    return value_logs(base, [count for count in counts if count != 2**62], use)


@scenario
def leg_ids_and_live_counts_beyond_the_machine(base):
    def use(rotation, pair):
        leg_id, N = pair
        rotation.items = [{"key": ("a",), "legs": ((leg_id, 1.0),), "value": 2.0}]
        return day_log(rotation, N=N)

    ids = [2**63 - 1, 2**63, 2**70, -(2**70)]
    return value_logs(base, [(leg_id, N) for leg_id in ids for N in [6, 2**64, 2**80]], use)


@scenario
def odd_slots_in_the_map(base):
    def use(rotation, number):
        rotation.slot_by_key = {("b",): number}
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_capacities(base):
    def use(rotation, number):
        rotation.items = plain_items()
        rotation.max_structures = number
        return day_log(rotation), frozen.outcome(rotation.set_state, {"child_states": [{}]})

    return value_logs(base, [*ODD_NUMBERS, 0, -1, 2, 3.5], use)


@scenario
def odd_widths_of_resize(base):
    def use(rotation, number):
        result = frozen.outcome(rotation.resize, number)
        attributes = dict(vars(rotation))
        attributes["_output_buf"] = attributes["_output_buf"].shape
        return result, attributes

    numbers = [number for number in ODD_NUMBERS if not isinstance(number, OddInt)]
    return value_logs(base, [*numbers, OddInt(3)], use)


@scenario
def odd_limits_of_resize(base):
    def use(rotation, number):
        rotation._structure_N_limit = number
        result = frozen.outcome(rotation.resize, 3)
        return result, rotation._n_alloc, rotation._structure_N_limit

    return value_logs(base, ODD_NUMBERS, use)


@scenario
def odd_numbers_in_a_state(base):
    def use(rotation, number):
        log = []
        good = {"slot_by_key": {("a",): 2}, "key_by_slot": {2: ("a",)}}
        for state in [
            {"structure_N_limit": number},
            {"slot_by_key": {("a",): number}, "key_by_slot": {2: ("a",)}},
            {**good, "legs_by_slot": {2: [(number, 1.0)]}},
            {**good, "legs_by_slot": {2: [(1, number)]}},
        ]:
            log.append(frozen.outcome(rotation._validate_state_components, state))
        with contextlib.suppress(TypeError):
            state = {"slot_by_key": {("a",): 2}, "key_by_slot": {number: ("a",)}}
            log.append(frozen.outcome(rotation._validate_state_components, state))
        return log

    return value_logs(base, [*ODD_NUMBERS, OddInt(2), OddInt(9), OddInt(-1)], use)


@scenario
def odd_items_of_the_universe_mask(base):
    mask = base._AllOnesVirtualMask(5, np.arange(4, dtype=np.uint8))
    numbers = [*ODD_NUMBERS, SubclassInt]
    return [frozen.outcome(mask.__getitem__, number) for number in numbers]


# Containers with ways of their own


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


class NoIterator:
    def __iter__(self):
        return 5


class FailingIterator:
    def __iter__(self):
        return self

    def __next__(self):
        raise LookupError("next")


@scenario
def legs_and_keys_in_containers_of_their_own(base):
    leg = (1, 0.5)
    containers = [
        BackwardsTuple([(0, 1.0), leg]),
        BackwardsList([(0, 1.0), leg]),
        LongList([(0, 1.0), leg]),
        OldSequence([(0, 1.0), leg]),
        OldSequence([BackwardsTuple(leg), LongList(leg), OldSequence(leg)]),
        [BackwardsTuple((2.0, 1))],
        [BackwardsList([2.0, 1])],
        NoIterator(),
        FailingIterator(),
        [NoIterator()],
        [FailingIterator()],
        {(0, 1.0): None, leg: None},
        collections.deque([leg]),
        np.array([[0.0, 1.0], [1.0, -1.0]]),
        iter([leg]),
        types.MappingProxyType({leg: 1}),
    ]

    def use(rotation, legs):
        rotation.items = [{"key": ("a",), "legs": legs, "value": 2.0}]
        return day_log(rotation)

    def use_key(rotation, key):
        rotation.items = [{"key": key, "legs": (), "value": 2.0}]
        return day_log(rotation)

    return value_logs(base, containers, use) + value_logs(base, containers, use_key)


@scenario
def metadata_in_containers_of_its_own(base):
    containers = [
        OwnKeys(a=1),
        MissingKeys(a=1),
        collections.ChainMap({"a": 1}, {"b": 2}),
        collections.Counter("aab"),
        collections.UserDict(a=1),
        types.MappingProxyType({"a": 1}),
        OldSequence([("a", 1)]),
        FailingIterator(),
        NoIterator(),
        mock.MagicMock(),
        {Thing(): 1, ("key",): 2, b"key": 3},
        np.array([("a", "b")]),
    ]

    def use(rotation, metadata):
        rotation.items = [{"key": ("a",), "legs": (), "value": 2.0, "metadata": metadata}]
        result, _, _ = day_log(rotation)
        return result, [sorted(map(str, entry)) for entry in rotation._metadata_by_slot]

    def use_state(rotation, metadata):
        state = {"structure_metadata_by_slot": [metadata] * 4, "child_states": [1]}
        return frozen.outcome(rotation.set_state, state), len(rotation._metadata_by_slot)

    return value_logs(base, containers[:9], use) + value_logs(base, containers, use_state)


@scenario
def items_in_dicts_of_their_own(base):
    item = {"key": ("a",), "legs": ((0, 1.0),), "value": 2.0, "metadata": {"x": 1}}
    containers = [
        OwnKeys(item),
        MissingKeys(value=3.0),
        collections.defaultdict(lambda: ("made",), value=1.0),
        collections.OrderedDict(item),
        collections.UserDict(item),
        types.MappingProxyType(item),
        types.SimpleNamespace(**item),
        collections.namedtuple("Item", "key legs value")(("n",), ((1, 1.0),), 1.0),
        base.VirtualStructure(**item),
        type("Sub", (base.VirtualStructure,), {"value": property(lambda self: 7.0)}),
        {**item, 5: "key that is no string"},
        {Thing(): 1, **item},
        (("a",), ((0, 1.0),), 2.0),
        "abc",
        None,
    ]

    def use(rotation, item):
        rotation.items = [item]
        return day_log(rotation)[:2]

    return value_logs(base, containers, use)


@scenario
def things_that_say_they_are_of_a_builtin_class(base):
    def spoof(kind, parent=object, **body):
        return type("Spoof", (parent,), {"__class__": kind, **body})()

    item = {"key": ("spoof",), "legs": ((0, 1.0),), "value": 2.0}
    spoofed = spoof(
        dict,
        __getitem__=lambda self, name: item[name],
        get=lambda self, name, default=None: item.get(name, default),
    )
    rotation = make(base)
    rotation.items = [spoofed]
    log = [day_log(rotation)[0]]
    log.append(frozen.outcome(rotation.set_state, spoofed))
    log.append(frozen.outcome(rotation.resize, spoof(int, __int__=lambda self: 4)))
    mask = base._AllOnesVirtualMask(5, np.arange(4))
    pair = spoof(tuple, __iter__=lambda self: iter((0, 1)))
    log.append(frozen.outcome(mask.__getitem__, pair))
    for entry in ["slot_by_key", "key_by_slot", "legs_by_slot"]:
        mapping = spoof(dict, __len__=lambda self: 0, items=lambda self: [])
        log.append(frozen.outcome(rotation._validate_state_components, {entry: mapping}))
    parts = spoof(list, __len__=lambda self: 1, __iter__=lambda self: iter(["state"]))
    log.append(frozen.outcome(rotation._validate_child_states, {"child_states": parts}))
    return log


@scenario
def ways_to_report_the_items(base):
    def failing_generator():
        yield plain_items()[0]
        raise LookupError("generator")

    class FalseAfterwards(list):
        def __bool__(self):
            return False

    class FailingTruth(list):
        def __bool__(self):
            raise LookupError("truth")

    class FailingLength(list):
        def __len__(self):
            raise LookupError("length")

    reports = [
        OldSequence(plain_items()),
        NoIterator(),
        FailingIterator(),
        failing_generator(),
        FalseAfterwards(plain_items()),
        FailingTruth(),
        FailingLength(),
        BackwardsList(plain_items()),
        np.array([]),
        np.array(plain_items(1), dtype=object),
        np.array(plain_items(2), dtype=object),
        {"key": 1},
        "",
        0,
        None,
    ]

    def use(rotation, report):
        rotation.items = report
        rotation._call_child_on_empty = False
        return day_log(rotation)

    return value_logs(base, reports, use)


# Masks and buffers of every make


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


@scenario
def odd_combined_masks(base):
    def use(rotation, mask):
        rotation.items = plain_items()
        return day_log(rotation, combined=mask)

    return value_logs(base, ODD_MASKS, use)


@scenario
def odd_single_masks(base):
    def use(rotation, mask):
        rotation.items = plain_items()
        clear = np.zeros(6, dtype=np.uint8)
        return day_log(rotation, masks=(clear, mask, clear))

    return value_logs(base, ODD_MASKS, use)


@scenario
def odd_collections_of_masks(base):
    clear = np.zeros(6, dtype=np.uint8)
    collections_of_masks = [
        (),
        [],
        [clear],
        np.zeros((2, 6), dtype=np.uint8),
        np.eye(6, dtype=np.uint8)[1:3],
        {"x": clear}.values(),
        OldSequence([clear]),
        NoIterator(),
        FailingIterator(),
        None,
        5,
    ]

    def use(rotation, masks):
        rotation.items = plain_items()
        return day_log(rotation, masks=masks)

    log = value_logs(base, collections_of_masks, use)
    rotation = make(base)
    rotation.items = plain_items()
    # An iterator is used up by the first leg, which is what reading it literally means.
    return [*log, day_log(rotation, masks=iter([np.array([0, 0, 1, 0, 0, 0])]))]


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


@scenario
def odd_input_rows(base):
    def use(rotation, row):
        rotation.items = plain_items()
        rotation._txi_input = row
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@scenario
def odd_output_rows_on_an_empty_day(base):
    def use(rotation, row):
        rotation._call_child_on_empty = False
        rotation._legs_by_slot = {0: ((0, 1.0),)}
        rotation._txi_output = row
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@scenario
def odd_output_buffers(base):
    def use(rotation, buffer):
        rotation.items = plain_items()
        return day_log(rotation, buffer=buffer)

    return value_logs(base, odd_rows(6), use)


@scenario
def odd_chain_results(base):
    def use(rotation, row):
        rotation._run_child_chain = lambda values, context: row
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@scenario
def odd_child_results(base):
    def use(rotation, row):
        rotation.child_rotations = [lambda values, context: row]
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@scenario
def one_buffer_for_everything(base):
    rotation = make(base)
    rotation.items = plain_items()
    rotation.child_rotations = []
    rotation._txi_input = row = np.zeros(4)
    rotation._run_child_chain = lambda values, context: row
    log = [day_log(rotation, N=4, buffer=row)]
    rotation._legs_by_slot = {slot: ((3 - slot, 1.0),) for slot in range(4)}
    overlapping = np.arange(8.0)
    log.append(frozen.outcome(rotation._unmap, overlapping[2:], overlapping[:4], 4))
    return [*log, frozen.freeze(overlapping)]


# Tables of every make


@scenario
def odd_tables(base):
    tables = [
        collections.OrderedDict(),
        collections.defaultdict(lambda: 1),
        collections.UserDict(),
        MissingKeys(),
        OwnKeys(),
        types.MappingProxyType({}),
        [{"active": 1}] * 4,
        [None] * 4,
        ({}, {}, {}, {}),
        collections.deque([{}, {}, {}, {}]),
        np.array([{}, {}, {}, {}], dtype=object),
        {0: {}, 1: {}},
        iter([{}]),
        weakref.WeakValueDictionary(),
        "abcd",
        None,
    ]
    log = []
    for name in ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot"]:
        for table in tables:
            rotation = make(base)
            rotation.items = plain_items()
            with contextlib.suppress(TypeError):
                table = copy.deepcopy(table)
            setattr(rotation, name, table)
            result, buffer, _ = day_log(rotation)
            log.append((name, result, buffer, str(vars(rotation)["_legs_by_slot"])))
            log.append(str(rotation.key_by_slot) if name != "key_by_slot" else None)
    # The addresses in these texts differ from run to run.
    return [str(entry).split(" at 0x")[0] for entry in log]


@scenario
def attributes_that_are_properties_of_the_class(base):
    def stored_elsewhere(name):
        def read(self):
            self.__dict__.setdefault("reads", set()).add(name)
            return self.__dict__["own " + name]

        def write(self, value):
            self.__dict__["own " + name] = value

        return property(read, write)

    names = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_txi_input"]
    names += ["_txi_output", "max_structures", "unmap_policy", "trace_sink", "child_rotations"]
    names += ["_txi_universe_row", "_current_parent_context", "_n_alloc"]
    log = []
    for name in names:
        rotation = make(base, **{name: stored_elsewhere(name)})
        rotation.items = plain_items()
        log.append(day_log(rotation))
        log.append(frozen.outcome(rotation, np.ones(6)))
        log.append(sorted(vars(rotation)["reads"]))
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    return log


@scenario
def attribute_access_of_the_class_itself(base):
    log = []

    class Watch:
        def __getattribute__(self, name):
            value = super().__getattribute__(name)
            return value + 100.0 if name == "_txi_input" and type(value) is float else value

        def __getattr__(self, name):
            if name == "_legs_by_slot":
                return {0: ((5, 1.0),)}
            raise AttributeError(name)

    cls = day_rotation_class(base)
    watched = type("Watched", (Watch, cls), {})
    rotation = watched(max_structures=4, N_alloc=6, transformation_expression="none")
    rotation.items = plain_items()
    log.append(day_log(rotation))
    del rotation._legs_by_slot
    log.append(day_log(rotation))
    cls.__getattr__ = lambda self, name: {"unmap_policy": "equal_split"}[name]
    rotation = cls(max_structures=4, N_alloc=6, transformation_expression="none")
    rotation.items = plain_items()
    del rotation.unmap_policy
    return [*log, day_log(rotation)]


@scenario
def class_attributes_in_place_of_instance_attributes(base):
    rotation = make(base)
    rotation.items = plain_items()
    for name in ["_legs_by_slot", "unmap_policy", "max_structures", "slot_by_key", "_txi_input"]:
        setattr(type(rotation), name, vars(rotation)[name])
        delattr(rotation, name)
    return [day_log(rotation), frozen.outcome(rotation.get_state)]


@scenario
def steps_that_are_no_functions(base):
    log = []
    for name in STEPS:
        for step in [None, 5, staticmethod(lambda *args: 0), classmethod(lambda *args: 0)]:
            rotation = make(base, **{name: step})
            rotation.items = plain_items()
            log.append(frozen.outcome(rotation, np.ones(6)))
    return log


# The module's own names, rebound while a day runs


@scenario
def record_class_changed_during_a_day(base):
    """The second of three items changes the class of the records in one way after the other."""
    seen = []

    def note(text):
        seen.append(text)

    def own_init(self, *args):
        note(("init", len(args)))
        self.key, self.legs, self.value, self.metadata = args

    changes = [
        ("__init__", own_init),
        ("__setattr__", lambda self, *args: note("set") or object.__setattr__(self, *args)),
        ("__getattribute__", lambda self, name: object.__getattribute__(self, name)),
        ("__getattr__", lambda self, name: None),
        ("value", property(lambda self: 9.0, lambda self, value: note("value"))),
        ("legs", property(lambda self: ((5, 1.0),), lambda self, value: note("legs"))),
        ("key", property(lambda self: ("other",), lambda self, value: note("key"))),
        ("metadata", {"from": "class"}),
        ("metadata", property(lambda self: None, lambda self, value: note("metadata"))),
        ("__slots__", ()),
        ("__post_init__", lambda self: note("post")),
        ("__call__", lambda self: note("call")),
    ]
    log = []
    original = dict(vars(base.VirtualStructure))
    for name, value in changes:
        for form in ["dict", "record"]:
            rotation = make(base)
            trigger = Trigger()
            second = item_with(trigger, legs=[(1, days_number(trigger))])
            trigger.action = functools.partial(setattr, base.VirtualStructure, name, value)
            items = [plain_items()[0], second, plain_items()[2]]
            if form == "record":
                items[2] = base.VirtualStructure(("r",), ((4, 1.0),), 3.0, {"x": 1})
            rotation.items = items
            log.append((name, form, day_log(rotation), list(seen)))
            seen.clear()
            rotation.items = plain_items()
            log.append((day_log(rotation), list(seen)))
            if name in original:
                setattr(base.VirtualStructure, name, original[name])
            else:
                delattr(base.VirtualStructure, name)
            del rotation, items, second
            seen.clear()
    return log


def days_number(trigger):
    """Make a weight that fires when it is converted."""

    class Weight:
        def __float__(self):
            trigger.fire()
            return 0.5

    return Weight()


@scenario
def record_class_rebound_during_a_day(base):
    made = []

    class Other:
        def __init__(self, *args, **kwargs):
            made.append((frozen.freeze(args), kwargs))
            self.key, self.legs, self.value, self.metadata = args

    rotation = make(base)
    trigger = Trigger()
    trigger.action = functools.partial(setattr, base, "VirtualStructure", Other)
    rotation.items = [plain_items()[0], item_with(trigger, legs=[(1, days_number(trigger))])]
    rotation.items.append(plain_items()[2])
    log = [day_log(rotation), list(made)]
    del base.VirtualStructure
    return [*log, frozen.outcome(rotation, np.ones(6))]


@scenario
def numpy_rebound_during_a_day(base):
    log = []
    for name, value in [
        ("isfinite", lambda value: True),
        ("isfinite", lambda value: np.bool_(False)),
        ("nan", -1.0),
        ("float64", np.float32),
        ("zeros", lambda count, dtype: np.ones(count, dtype=dtype)),
        ("array", lambda *args, **kwargs: "array"),
        ("asarray", lambda value, dtype: np.array(value, dtype=dtype) + 1.0),
    ]:
        rotation = make(base)
        trigger = Trigger()
        own = types.SimpleNamespace(**{**vars(np), name: value})
        trigger.action = functools.partial(setattr, base, "np", own)
        rotation.items = [plain_items()[0], item_with(trigger, legs=[(1, days_number(trigger))])]
        rotation.items.append({"key": ("n",), "legs": ((2, 1.0),), "value": NAN})
        log.append((name, day_log(rotation)))
        log.append(day_log(rotation))
        base.np = np
    return log


@scenario
def context_classes_rebound_during_a_day(base):
    rotation = make(base)
    trigger = Trigger()

    def rebind():
        base._VirtualContext = lambda *args, **kwargs: ("context", len(args) + len(kwargs))
        base._AllOnesVirtualMask = lambda rows, row: ("mask", rows)

    trigger.action = rebind
    rotation.items = [item_with(trigger, legs=[(1, days_number(trigger))])]
    contexts = []
    rotation.child_rotations = [lambda values, context: contexts.append(context) or values]
    return [day_log(rotation), frozen.freeze(contexts)]


@scenario
def value_of_the_record_is_the_items_own_float(base):
    """A step overridden while the key of the same item is compared sees the record."""
    seen = []
    value = float("2.5")

    class Loud:
        def __hash__(self):
            return hash(("k",))

        def __eq__(self, other):
            rotation._structure_is_valid = check
            return False

    def check(record, *args):
        seen.append(record.value is value)
        return True

    rotation = make(base)
    rotation.slot_by_key = {Loud(): 0}
    rotation.items = [{"key": ("k",), "legs": (), "value": value}]
    return [day_log(rotation)[0], seen]


@scenario
def exact_parts_are_kept_as_they_are(base):
    key, leg_id, weight, value = ("kept",), 10**3, float("0.25"), float("1.25")
    record = make(base)._normalize_structure(
        {"key": key, "legs": [[leg_id, weight]], "value": value}
    )
    rotation = make(base)
    rotation.items = [{"key": key, "legs": [[leg_id, weight]], "value": value}]
    day_log(rotation)
    ((stored_id, stored_weight),) = rotation._legs_by_slot[0]
    return [
        record.key is key,
        record.legs[0][0] is leg_id,
        record.legs[0][1] is weight,
        record.value is value,
        record.metadata["legs"] is record.legs,
        record.metadata["key"] is key,
        next(iter(rotation.slot_by_key)) is key,
        rotation.key_by_slot[0] is key,
        stored_id is leg_id,
        stored_weight is weight,
        rotation._metadata_by_slot[0]["legs"] is rotation._legs_by_slot[0],
    ]


# Warnings and errors of the arithmetic


@scenario
def arithmetic_that_overflows_warns_or_raises_as_numpy_is_told(base):
    log = []
    cases = [(1e300, 1e300), (1e-300, 1e-300), (0.0, float("inf")), (1.0, NAN), (3.0, 5e-324)]
    for policy in ["proportional", "equal_split"]:
        for setting in ["ignore", "warn", "raise"]:
            for value, weight in cases:
                rotation = make(base)
                rotation.unmap_policy = policy
                legs = ((0, weight), (0, weight), (1, -weight), (0, 1.0))
                rotation._legs_by_slot = {0: legs, 1: ((0, -weight), (0, float("-inf")))}
                buffer = np.full(6, 77.0)
                row = np.array([value, value, NAN, NAN])
                with np.errstate(all=setting):
                    log.append((frozen.outcome(rotation._unmap, row, buffer, 6), buffer.tobytes()))
    return log


@scenario
def arithmetic_calls_the_function_that_numpy_was_told_to_call(base):
    told = []
    rotation = make(base)
    rotation._legs_by_slot = {0: ((0, 1e300),)}
    with np.errstate(all="call", call=lambda kind, flag: told.append((kind, flag))):
        rotation._unmap(np.full(4, 1e300), np.zeros(6), 6)
    return told


# Errors that are raised while another is handled


@scenario
def errors_raised_while_another_is_handled_have_it_as_context(base):
    rotation = make(base)
    rotation._name = "R"
    rotation.slot_by_key = {(number,): number for number in range(4)}
    calls = [
        lambda: rotation.batch_reference(),
        lambda: rotation._slot_for_key("new"),
        lambda: rotation.set_state([]),
        lambda: rotation.set_state({"slot_by_key": 5}),
        lambda: rotation.set_state({}),
        lambda: rotation.resize(True),
        lambda: rotation.resize(0),
        lambda: rotation._run_child_chain(np.zeros(2), None),
        lambda: base._AllOnesVirtualMask(1, np.ones(2))[5],
        lambda: base._AllOnesVirtualMask(1, np.ones(2))[1, 2, 3],
        lambda: rotation._normalize_structure({}),
        lambda: rotation._normalize_structure({"key": (), "legs": [(1,)], "value": 1.0}),
        lambda: rotation._parse_transformation_expression("?"),
        lambda: rotation._refresh_active_structures(1, 2, 3, 4, 5) and rotation.nothing,
    ]
    log = []
    for call in calls:
        try:
            raise OSError("outer")
        except OSError:
            log.append(frozen.outcome(call))
            log.append(repr(sys.exc_info()[1]))
    return log


@scenario
def error_raised_again_and_again_stays_one_object(base):
    error = LookupError("again")

    def fail(values, context):
        raise error

    rotation = make(base, fail)
    log = []
    for _ in range(3):
        try:
            rotation(np.ones(6))
        except LookupError as caught:
            log.append((caught is error, frozen.callers_frames(caught), caught.__context__))
        error.__traceback__ = None
    return log


@scenario
def error_handled_outside_is_seen_inside_a_step(base):
    seen = []

    def look(*args):
        seen.append(repr(sys.exc_info()[1]))
        return plain_items()

    rotation = make(base)
    rotation.items = look
    try:
        raise OSError("outer")
    except OSError:
        rotation(np.ones(6))
    rotation(np.ones(6))
    return seen


@scenario
def error_being_handled_during_a_rollback(base):
    seen = []

    class Child:
        calls = 0

        def get_state(self):
            return {}

        def set_state(self, state):
            self.calls += 1
            seen.append((self.calls, repr(sys.exc_info()[1])))
            if self.calls == 1:
                raise LookupError("set")

    rotation = make(base, Child())
    result = frozen.outcome(rotation.set_state, {"child_states": [{}, {}]})
    return [result, seen, repr(sys.exc_info()[1])]


@scenario
def error_being_handled_while_the_context_is_released(base):
    seen = []

    def __setattr__(self, name, value):
        if name == "_current_parent_context":
            seen.append((value, repr(sys.exc_info()[1])))
        object.__setattr__(self, name, value)

    def fail(values, context):
        raise LookupError("child")

    rotation = make(base, fail, __setattr__=__setattr__)
    return [frozen.outcome(rotation, np.ones(6)), seen]


@scenario
def error_with_a_cause_keeps_it(base):
    def fail(values, context):
        try:
            raise OSError("first")
        except OSError as error:
            raise LookupError("second") from error

    return frozen.outcome(make(base, fail), np.ones(6))


# States


class Acting:
    """Number that acts when converted."""

    def __init__(self, action, result=0.5):
        self.action = action
        self.result = result

    def __float__(self):
        self.action()
        return self.result


@scenario
def states_that_change_while_they_are_checked(base):
    def state_of(weight):
        return {
            "slot_by_key": {(number,): number for number in range(3)},
            "key_by_slot": {number: (number,) for number in range(3)},
            "legs_by_slot": {0: [(0, 1.0), (1, weight), (2, 1.0)], 1: ((3, 1.0),), 2: []},
            "structure_metadata_by_slot": [{}, {"x": 1}, {}, {}],
            "child_states": [1],
        }

    actions = {
        "clear legs": lambda state, rotation: state["legs_by_slot"][0].clear(),
        "grow legs": lambda state, rotation: state["legs_by_slot"][0].append((4, 2.0)),
        "drop a slot's legs": lambda state, rotation: state["legs_by_slot"].pop(2),
        "add a slot's legs": lambda state, rotation: state["legs_by_slot"].update({3: []}),
        "replace legs": lambda state, rotation: state["legs_by_slot"].update({1: "bad"}),
        "clear maps": lambda state, rotation: state["slot_by_key"].clear(),
        "shrink metadata": lambda state, rotation: state["structure_metadata_by_slot"].pop(),
        "replace metadata": lambda state, rotation: state.update(structure_metadata_by_slot=5),
        "drop child states": lambda state, rotation: state.clear(),
        "shrink capacity": lambda state, rotation: setattr(rotation, "max_structures", 1),
        "shrink width": lambda state, rotation: setattr(rotation, "_n_alloc", 1),
        "other metadata": lambda state, rotation: setattr(rotation, "_metadata_by_slot", [1]),
        "rename": lambda state, rotation: setattr(rotation, "_name", "renamed"),
        "raise": lambda state, rotation: {}["raised"],
        "restore again": lambda state, rotation: rotation.set_state({"child_states": [1]}),
    }
    log = []
    for action in actions.values():
        rotation = make(base)
        state = {}
        state.update(state_of(Acting(functools.partial(action, state, rotation))))
        log.append(frozen.outcome(rotation.set_state, state))
        log.append(frozen.freeze({**vars(rotation), "child_rotations": None}))
    return log


@scenario
def keys_of_a_state_that_act_when_compared(base):
    log = []

    class Loud:
        def __init__(self, result, action=None):
            self.result = result
            self.action = action

        def __hash__(self):
            return 7

        def __eq__(self, other):
            if self.action is not None:
                self.action()
            if isinstance(self.result, Exception):
                raise self.result
            return self.result

    for result in [True, False, LookupError("compared"), 0, "", np.bool_(True), np.zeros(2)]:
        first, second = Loud(result), Loud(result)
        for slot_by_key, key_by_slot in [
            ({(first,): 0}, {0: (second,)}),
            ({(first,): 0, (1,): 1}, {0: (second,), 1: (1,)}),
            ({(first,): 0, (1,): 1}, {1: (1,), 0: (first,)}),
        ]:
            state = {"slot_by_key": slot_by_key, "key_by_slot": key_by_slot}
            log.append(frozen.outcome(make(base)._validate_state_components, state))
    return log


@scenario
def children_that_change_the_list_of_children_while_they_are_set(base):
    log = []

    class Child:
        def __init__(self, name, action=None):
            self.name = name
            self.action = action
            self.states = []

        def __call__(self, values, context):
            return values

        def get_state(self):
            return self.name

        def set_state(self, state):
            self.states.append(state)
            if self.action is not None:
                action, self.action = self.action, None
                action()

    def fail():
        raise LookupError("set")

    for change in ["clear", "append", "pop", "replace", "assign", "fail"]:
        last = Child("last")
        first = Child("first")
        rotation = make(base)
        rotation.child_rotations = [first, Child("middle"), last]
        children = rotation.child_rotations
        state = {"child_states": ["one", "two", "three"]}
        first.action = {
            "clear": children.clear,
            "append": functools.partial(children.append, Child("new")),
            "pop": children.pop,
            "replace": functools.partial(setattr, rotation, "child_rotations", []),
            "assign": functools.partial(setattr, rotation, "slot_by_key", {"lost": 1}),
            "fail": fail,
        }[change]
        log.append(frozen.outcome(rotation.set_state, state))
        log.append([child.states for child in [first, last]])
        log.append(frozen.freeze({**vars(rotation), "child_rotations": None}))
    return log


@scenario
def children_whose_methods_are_odd(base):
    class Raising:
        def __init__(self, error, name):
            self.error = error
            self.name = name

        def __getattr__(self, name):
            if name == self.name:
                raise self.error
            return lambda *args: "state"

    log = []
    for name in ["get_state", "set_state"]:
        for error in [AttributeError("x"), LookupError("x"), KeyboardInterrupt("x")]:
            rotation = make(base)
            rotation.child_rotations = [Raising(error, name)]
            log.append(frozen.outcome(rotation.get_state))
            log.append(frozen.outcome(rotation._snapshot_child_states))
            log.append(frozen.outcome(rotation._restore_child_snapshots, ["a"]))
            log.append(frozen.outcome(rotation.set_state, {"child_states": ["a"]}))
    rotation = make(base)
    rotation.child_rotations = [types.SimpleNamespace(get_state=5, set_state=None)]
    log.append(frozen.outcome(rotation.get_state))
    log.append(frozen.outcome(rotation.set_state, {"child_states": ["a"]}))
    return log


@scenario
def overridden_parts_of_a_restore(base):
    log = []
    results = [None, 5, (), (1, 2, 3, 4), (1, 2, 3, 4, 5), (1, 2, 3, 4, 5, 6), "abcde", {1, 2}]
    for result in [
        *results,
        [1] * 5,
        iter([1] * 5),
        iter([1] * 7),
        NoIterator(),
        FailingIterator(),
    ]:
        rotation = make(base, _validate_state_components=lambda self, state, result=result: result)
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
        log.append(str(rotation.slot_by_key))
    for result in [None, [], [1, 2], "ab", iter([1]), FailingIterator()]:
        for name in ["_validate_child_states", "_snapshot_child_states"]:
            rotation = make(base, **{name: lambda self, *args, result=result: result})
            log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    for result in [None, [], 0, "notes", {0: 1}, {1: 1}, [KeyError("x")], np.zeros(2)]:
        child = Thing()
        child.get_state = dict
        child.set_state = functools.partial(raise_error, LookupError("set"))
        rotation = make(base, _restore_child_snapshots=lambda self, *args, result=result: result)
        rotation.child_rotations = [child]
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    for snapshots in [None, 5, "ab", iter(["a"]), FailingIterator(), NoIterator()]:
        log.append(frozen.outcome(make(base)._restore_child_snapshots, snapshots))
    return log


def raise_error(error, *args):
    raise error


@scenario
def storage_objects_that_are_odd(base):
    log = []
    rotation = make(base)
    for stored in [OwnKeys(), collections.OrderedDict(), collections.UserDict(), MissingKeys(x=1)]:
        storage = types.SimpleNamespace(read=lambda name, stored=stored: stored)
        log.append(frozen.outcome(rotation.recover, storage))
    for error in [AttributeError("x"), StopIteration(), KeyboardInterrupt(), GeneratorExit()]:
        storage = types.SimpleNamespace(
            read=functools.partial(raise_error, error), write=functools.partial(raise_error, error)
        )
        log.append(frozen.outcome(rotation.recover, storage))
        log.append(frozen.outcome(rotation.checkpoint, storage))
    log.append(frozen.outcome(rotation.recover, None))
    log.append(frozen.outcome(rotation.checkpoint, None))
    return log


# Names that format oddly


@scenario
def names_that_format_oddly(base):
    class Failing:
        def __format__(self, format_spec):
            raise LookupError("format")

    class Lying:
        def __format__(self, format_spec):
            return 5

    log = []
    for name in [None, 5, "", "ünïcode \U0001f600", b"bytes", Failing(), Lying(), ("a",), 1.5]:
        rotation = make(base)
        rotation._name = name
        rotation.slot_by_key = {(number,): number for number in range(4)}
        log.append(frozen.outcome(rotation._slot_for_key, "new"))
        log.append(frozen.outcome(rotation.set_state, None))
        log.append(frozen.outcome(rotation.batch_reference))
        rotation._n_alloc = None
        base.MAX_VIRTUAL_STRUCTURES = 1
        log.append(frozen.outcome(rotation, [1, 2]))
        rotation.child_rotations = [lambda values, context: 1.0]
        log.append(frozen.outcome(rotation._run_child_chain, np.zeros(4), None))
        base.MAX_VIRTUAL_STRUCTURES = 1000000
    return log


# Recursion


@scenario
def call_that_calls_itself_without_end_is_a_recursion_error(base):
    rotation = make(base)
    rotation.items = lambda *args: rotation(np.ones(6))
    kind, *details = frozen.outcome(rotation, np.ones(6))
    return [kind, details[0][0], rotation._current_parent_context]


# Many days: what is kept from one must not be taken for another's


@scenario
def fresh_objects_at_old_addresses(base):
    rotation = make(base)
    log = []
    for day in range(60):
        legs = ((day % 6, float(day)), ((day + 1) % 6, -1.0))
        key = ("k" + str(day % 3),)
        rotation.items = [{"key": key, "legs": legs, "value": float(day), "metadata": {"d": day}}]
        del legs, key
        log.append(frozen.outcome(rotation, np.ones(6)))
        rotation.items = None
        if day % 7 == 0:
            rotation._legs_by_slot.clear()
        log.append(frozen.freeze(vars(rotation)))
    return log


@scenario
def classes_that_come_and_go(base):
    log = []
    for day in range(12):
        cls = day_rotation_class(base)
        if day % 3 == 0:
            cls._structure_is_valid = lambda self, *args: True
        elif day % 3 == 1:
            cls._unmap = lambda self, row, buffer, N: buffer.fill(5.0)
        rotation = cls(max_structures=3, N_alloc=6, transformation_expression="none")
        rotation.items = [{"key": ("x",), "legs": ((0, 1.0),), "value": NAN}]
        log.append(day_log(rotation))
        del rotation, cls
        if day % 4 == 0:
            gc.collect()
    return log


@scenario
def rotations_made_and_dropped_during_the_day_of_another(base):
    log = []
    kept = []

    def other_days(*args):
        for number in range(20):
            other = make(base)
            other.items = plain_items()
            log.append(frozen.outcome(other, np.ones(6)))
            if number % 5 == 0:
                kept.append(other)
        for other in kept:
            log.append(frozen.outcome(other, np.ones(6)))
        return plain_items()

    rotation = make(base)
    rotation.items = other_days
    log.append(day_log(rotation))
    log.append(day_log(rotation))
    kept.clear()
    rotation.items = plain_items()
    return [*log, day_log(rotation)]


@scenario
def rotation_that_comes_back_from_its_end(base):
    kept = []

    def __del__(self):
        if not kept:
            kept.append(self)

    rotation = make(base, __del__=__del__)
    rotation.items = plain_items()
    log = [day_log(rotation), day_log(rotation)]
    del rotation
    gc.collect()
    log.append(day_log(kept[0]))
    kept[0].items = plain_items(2)
    log.append(day_log(kept[0]))
    kept.append(None)
    del kept[0]
    gc.collect()
    return log


@scenario
def rotation_whose_end_runs_a_day(base):
    log = []

    def __del__(self):
        log.append(day_log(self))

    for cycle in [False, True]:
        rotation = make(base, __del__=__del__)
        rotation.items = plain_items()
        if cycle:
            rotation.itself = [rotation]
        log.append(day_log(rotation))
        rotation.items = plain_items(2)
        del rotation
        gc.collect()
    return log


@scenario
def rotations_that_share_their_tables(base):
    first, second = make(base), make(base)
    for name in ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_txi_input"]:
        setattr(second, name, getattr(first, name))
    first.items, second.items = plain_items(), plain_items()[::-1]
    log = []
    for day in range(8):
        log.append(day_log(first if day % 3 else second))
        if day == 4:
            first.items = plain_items(1)
    return log


@scenario
def rotation_copied_and_pickled_goes_on_like_the_original(base):
    rotation = make(base)
    rotation.child_rotations = []
    rotation.items = plain_items()
    log = [day_log(rotation), day_log(rotation)]
    for copied in [copy.copy(rotation), copy.deepcopy(rotation)]:
        copied.items = plain_items(2)
        log.append(day_log(copied))
        log.append(day_log(rotation))
    restored = type(rotation).__new__(type(rotation))
    restored.__dict__.update(copy.deepcopy(vars(rotation)))
    return [*log, day_log(restored)]


@scenario
def keys_that_are_equal_but_not_the_same(base):
    rotation = make(base)
    log = []
    for key in [(1,), (1.0,), (True,), (1,), ("x", 1), ("x", 1.0), ()]:
        for value in [1.0, 2.0]:
            rotation.items = [{"key": key, "legs": ((0, 1.0),), "value": value}]
            log.append(day_log(rotation))
    return log


@scenario
def same_key_and_legs_objects_in_other_places(base):
    key, legs = ("k",), ((0, 1.0), (1, -1.0))
    other_key, other_legs = ("o",), ((2, 1.0),)
    reports = [
        [(key, legs), (other_key, other_legs)],
        [(other_key, legs), (key, other_legs)],
        [(key, legs), (key, other_legs)],
        [(key, other_legs), (key, legs), (other_key, legs)],
        [(other_key, other_legs)],
        [],
        [(key, legs), (other_key, other_legs)],
    ]
    rotation = make(base)
    log = []
    for report in reports * 2:
        rotation.items = [
            {"key": key, "legs": legs, "value": float(position)}
            for position, (key, legs) in enumerate(report)
        ]
        log.append(day_log(rotation))
    return log


@scenario
def names_of_the_entries_spelled_by_other_objects(base):
    rotation = make(base)
    log = []
    for make_name in [str, lambda name: "".join(list(name)), type("Name", (str,), {})]:
        items = [{make_name(name): value for name, value in item.items()} for item in plain_items()]
        rotation.items = items
        log.append(day_log(rotation)[:2])
        log.append(day_log(rotation)[:2])
    return log


@scenario
def metadata_seen_by_a_child_and_by_the_hook(base):
    """Who looks during the day sees it reset or refilled, as the steps have it."""
    seen = []

    def look(values, context):
        seen.append(frozen.freeze(rotation._metadata_by_slot))
        return values

    def hook(*args):
        seen.append(frozen.freeze(rotation._metadata_by_slot))
        return items

    rotation = make(base, look)
    items = plain_items()
    rotation.items = hook
    for count in [3, 3, 1, 0, 2, 3]:
        items = plain_items()[:count]
        rotation(np.ones(6))
    return seen


# What a day must not keep, on each module alone


@pytest.mark.parametrize("fails", [False, True])
def test_day_keeps_nothing_of_what_it_was_given(base, fails):
    def child(values, context):
        if fails:
            raise LookupError("child")
        return values

    rotation = make(base, child)
    rotation.trace_sink = None
    item = Thing(key=("a",), legs=[(0, 1.0)], value=1.0, metadata={"m": 1})
    context, mask = Thing(current_day_index=1), np.zeros(6, dtype=np.uint8)
    watched = [weakref.ref(thing) for thing in [item, context, mask]]
    rotation.items = [item]
    with contextlib.suppress(LookupError):
        rotation(np.ones(6), context=context)
    with contextlib.suppress(LookupError):
        rotation.compute((np.ones(6),), (mask,), mask, np.zeros(6), 6)
    rotation.items = None
    del item, context, mask
    gc.collect()
    assert [reference() for reference in watched] == [None, None, None]


def test_rotation_that_is_dropped_goes_away_with_all_it_holds(base):
    rotation = make(base)
    rotation.items = plain_items()
    rotation(np.ones(6))
    rotation.itself = rotation
    references = [
        weakref.ref(rotation),
        weakref.ref(type(rotation)),
        weakref.ref(rotation._txi_input),
    ]
    del rotation
    gc.collect()
    assert [reference() for reference in references] == [None] * 3


def test_failing_days_leak_no_references(base):
    """Failing days at every place leave the singletons' counts and the heap as they were."""
    places = [place for place in [*ITEM_PLACES, *PLACES] if place not in DELETIONS]

    def failing_days():
        for place in places:
            hostile_days(base, place, "raise_an_error")
        base.RotationBase.init_calls.clear()
        gc.collect()

    for _ in range(2):
        failing_days()
    counted = [None, True, False, (), 0, 1]
    before = [sys.getrefcount(thing) for thing in counted]
    objects = len(gc.get_objects())
    for _ in range(5):
        failing_days()
    after = [sys.getrefcount(thing) for thing in counted]
    assert len(gc.get_objects()) - objects < 50
    assert all(abs(now - then) < 100 for now, then in zip(after, before, strict=True))


# Isolated: what would take the interpreter down with it


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_row_key_nested_without_end_is_a_recursion_error(kind):
    printed = run_isolated(
        kind,
        """
        base = load_base(kind, Siblings())
        mask = base._AllOnesVirtualMask(3, np.ones(4))
        key = 0
        for _ in range(100000):
            key = (key, 0)
        try:
            mask[key]
        except RecursionError:
            print("recursion")
        """,
        allocator="default",
    )
    assert printed == "recursion\n"


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_finalizers_at_any_moment_do_no_harm(kind):
    """The collector runs at nearly every allocation, and what it finds changes what is in use."""
    printed = run_isolated(
        kind,
        """
        base = load_base(kind, Siblings())
        import random

        from support.days import day_rotation_class

        random.seed(4)

        class Cycle:
            def __init__(self, action):
                self.action = action
                self.itself = self

            def __del__(self):
                self.action()

        rotation = day_rotation_class(base)(
            max_structures=4, N_alloc=6, transformation_expression="none", trace_sink=[]
        )
        items = []

        def refill():
            items[:] = [
                {"key": (name,), "legs": [(leg, 1.0), [leg + 1, -0.5]], "value": leg + 1.0,
                 "metadata": {"note": [leg]}}
                for leg, name in enumerate("abcd")
            ]

        actions = [
            refill,
            items.clear,
            lambda: items and items[-1]["legs"].clear(),
            lambda: items and items.pop(),
            lambda: rotation._metadata_by_slot.clear(),
            lambda: setattr(rotation, "_metadata_by_slot", [{} for _ in range(4)]),
            lambda: rotation._legs_by_slot.clear(),
            lambda: setattr(rotation, "_legs_by_slot", {}),
            lambda: setattr(rotation, "_txi_input", np.zeros(4)),
            lambda: setattr(rotation, "_txi_input", np.zeros(2)),
            lambda: rotation.slot_by_key.clear(),
            lambda: setattr(rotation, "trace_sink", []),
        ]
        gc.set_threshold(2, 1, 1)
        expected = (IndexError, ValueError, KeyError, RuntimeError, TypeError)
        finished = 0
        for day in range(3000):
            refill()
            rotation.items = items
            for _ in range(3):
                Cycle(random.choice(actions))
            try:
                rotation(np.ones(6))
                state = rotation.get_state()
                rotation.set_state(state)
                finished += 1
            except expected:
                rotation._txi_input = np.zeros(4)
                rotation._metadata_by_slot = [{} for _ in range(4)]
                rotation.key_by_slot = {}
                rotation.slot_by_key = {}
                rotation._legs_by_slot = {}
        print("finished", finished > 100)
        """,
        allocator="default",
    )
    assert printed == "finished True\n"
