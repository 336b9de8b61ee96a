"""What a rotation remembers of its last day never shows, whatever is done between the days."""

import gc
import sys
import weakref

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from adversary.actions.tampering import WAYS, N, way
from adversary.tampered import TamperedRotation
from support import frozen
from support.fakes import make_rotation, structure


class Side(TamperedRotation):
    """With a pool of items that are reported again and again."""

    @property
    def ways(self):
        return {**WAYS, **ITEM_WAYS}

    def __init__(self, module, override, policy):
        super().__init__(module, override, policy)
        self.pool = [
            {
                "key": ("pair", index % 5),
                "legs": ((index % N, 1.0 + index), ((index + 2) % N, -0.5)),
                "value": float(index),
            }
            for index in range(7)
        ]

    def day(self, picks, as_tuple, values):
        report = []
        for pick, value in zip(picks, values, strict=False):
            item = self.pool[pick]
            if value is not None:
                item["value"] = value
            report.append(item)
        self.rotation.report = tuple(report) if as_tuple else report
        self.record_day()

    def item(self, index):
        return self.pool[index % len(self.pool)]


ITEM_WAYS = {}


@way(ITEM_WAYS)
def new_legs(side, index):
    item = side.item(index)
    item["legs"] = tuple((leg, weight * 2.0) for leg, weight in item["legs"])


@way(ITEM_WAYS)
def fewer_legs(side, index):
    item = side.item(index)
    item["legs"] = item["legs"][:1]


@way(ITEM_WAYS)
def more_legs(side, index):
    item = side.item(index)
    item["legs"] = (*item["legs"], (index % N, 0.25))


@way(ITEM_WAYS)
def no_legs(side, index):
    side.item(index)["legs"] = ()


@way(ITEM_WAYS)
def loose_legs(side, index):
    side.item(index)["legs"] = [[np.int64(index % N), 3]]


@way(ITEM_WAYS)
def leg_outside(side, index):
    side.item(index)["legs"] = ((N + index, 1.0),)


@way(ITEM_WAYS)
def equal_key(side, index):
    item = side.item(index)
    item["key"] = tuple(float(part) if part == 1 else part for part in item["key"])


@way(ITEM_WAYS)
def own_metadata(side, index):
    side.item(index)["metadata"] = {"note": index, "key": "mine"}


@way(ITEM_WAYS)
def no_metadata(side, index):
    side.item(index)["metadata"] = None


VALUES = st.sampled_from([None, 1.5, -2.0, float("nan"), float("inf"), 1e308, 3])
DAY = st.tuples(
    st.just("day"),
    st.lists(st.integers(0, 6), max_size=6),
    st.booleans(),
    st.lists(VALUES, min_size=6, max_size=6),
)
TAMPER = st.tuples(st.just("tamper"), st.sampled_from([*WAYS, *ITEM_WAYS]), st.integers(0, 11))


def run(module, override, policy, steps):
    return Side(module, override, policy).play(steps)


@settings(max_examples=150, deadline=None)
@given(
    steps=st.lists(st.one_of(DAY, DAY, TAMPER), max_size=14),
    policy=st.sampled_from(["proportional", "equal_split"]),
)
def test_days_with_tampering_between_them_are_those_of_the_twin(modules, steps, policy):
    native, twin = modules
    expected = run(twin, False, policy, steps)
    assert run(native, False, policy, steps) == expected
    assert run(native, True, policy, steps) == expected


@pytest.mark.parametrize("name", [*WAYS, *ITEM_WAYS])
@pytest.mark.parametrize("index", range(6))
def test_each_way_of_tampering_between_like_days_is_noticed(modules, name, index):
    native, twin = modules
    day = ("day", [0, 1, 2, 3], False, [None] * 6)
    fewer = ("day", [3, 1], True, [None] * 6)
    steps = [day, day, ("tamper", name, index), day, fewer, ("tamper", name, index + 1), day, fewer]
    expected = run(twin, False, "proportional", steps)
    assert run(native, False, "proportional", steps) == expected
    assert run(native, True, "proportional", steps) == expected


@pytest.mark.parametrize("index", range(12))
def test_an_empty_map_may_be_a_slot_s_metadata_on_the_first_day(modules, index):
    native, twin = modules
    day = ("day", [0, 1, 2], False, [None] * 6)
    steps = [("tamper", "map_as_metadata", index), day, day, ("day", [2, 1], True, [None] * 6), day]
    expected = run(twin, False, "proportional", steps)
    assert run(native, False, "proportional", steps) == expected


def test_memory_goes_with_its_rotation(modules):
    native, _ = modules
    legs = ((0, 1.0), (1, -1.0))
    before = sys.getrefcount(legs)
    side = Side(native, False, "proportional")
    side.pool[0]["legs"] = legs
    for _ in range(3):
        side.day([0, 1, 2], False, [None] * 3)
    gone = weakref.ref(side.rotation)
    side.log.clear()
    del side
    gc.collect()
    assert gone() is None
    assert sys.getrefcount(legs) == before


@pytest.mark.parametrize("days_between", [0, 1])
def test_metadata_has_the_very_slot_that_the_map_has(modules, days_between):
    def scenario(module):
        keys = [(f"key {index}",) for index in range(300)]
        items = [structure(key, ((0, 1.0),)) for key in keys]
        rotation = make_rotation(module, [items] * 4, max_structures=300)
        rotation(np.ones(6))
        rotation(np.ones(6))
        # As a map that was stored and read again: equal numbers that are other objects.
        rotation.slot_by_key = {key: int(str(slot)) for key, slot in rotation.slot_by_key.items()}
        for _ in range(days_between + 1):
            rotation(np.ones(6))
        return [
            metadata["slot"] is rotation.slot_by_key[metadata["key"]]
            for metadata in rotation._metadata_by_slot
        ]

    for module in modules:
        assert all(scenario(module))


class Namespace:
    pass


@pytest.mark.parametrize("slot", [0, 3])
@pytest.mark.parametrize("when", [0, 1, 2])
def test_metadata_may_be_the_dictionary_of_an_instance(modules, slot, when):
    def scenario(module):
        item = structure(("a",), ((0, 1.0),))
        other = structure(("b",), ((1, 1.0),))
        rotation = make_rotation(module, [[item, other], [item], [item, other], [other]] * 2)
        entry, log = Namespace(), []
        for day in range(8):
            if day == when:
                entry.active = "before"
                rotation._metadata_by_slot[slot] = vars(entry)
            rotation(np.ones(6))
            log.append(frozen.freeze([rotation._metadata_by_slot, vars(entry)]))
            entry.active = day
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)


@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot", "_legs_by_slot"])
def test_maps_may_be_the_dictionaries_of_instances(modules, name):
    def scenario(module):
        item = structure(("a",), ((0, 1.0),))
        rotation = make_rotation(module, [[item]] * 6)
        owner, log = Namespace(), []
        setattr(rotation, name, vars(owner))
        for day in range(6):
            log.append(frozen.outcome(rotation, np.ones(6)))
            log.append(frozen.freeze([rotation._metadata_by_slot, vars(owner)]))
            if day == 2:
                vars(owner).clear()
            owner.more = day
        return log

    native, twin = modules
    assert scenario(native) == scenario(twin)
