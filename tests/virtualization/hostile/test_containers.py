"""Keys, legs, metadata and items in containers with ways of their own."""

import collections
import types
from unittest import mock

import numpy as np
import pytest

from adversary.day import make
from adversary.values.answers import ByIteration
from adversary.values.items import Thing
from adversary.values.odd_containers import (
    BackwardsList,
    BackwardsTuple,
    FailingIterator,
    LongList,
    MissingKeys,
    OldSequence,
    OwnKeys,
)
from support import frozen
from virtualization.hostile.scenarios import (
    Scenarios,
    assert_same_on_both,
    day_log,
    plain_items,
    value_logs,
)

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


@SCENARIOS.add
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
        ByIteration(5),
        FailingIterator(),
        [ByIteration(5)],
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


@SCENARIOS.add
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
        ByIteration(5),
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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
        ByIteration(5),
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
