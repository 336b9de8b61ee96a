"""What a rotation remembers of its last day never shows, whatever is done between the days."""

import gc
import sys
import weakref

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from support.siblings import Siblings, installed_base

N = 6
SLOTS = 4


class Side:
    """One module's rotation with a pool of items that are reported again and again."""

    def __init__(self, module, override, policy):
        class Rotation(module.VirtualizationBase):
            _name = "remembering"
            report = ()

            def _refresh_active_structures(self, *args):
                return self.report

        if override:

            def through_super(self, item):
                return super(Rotation, self)._normalize_structure(item)

            Rotation._normalize_structure = through_super
        self.rotation = Rotation(
            max_structures=SLOTS, transformation_expression="none", N_alloc=N, unmap_policy=policy
        )
        self.pool = [
            {
                "key": ("pair", index % 5),
                "legs": ((index % N, 1.0 + index), ((index + 2) % N, -0.5)),
                "value": float(index),
            }
            for index in range(7)
        ]
        self.combined = np.zeros(N, dtype=np.uint8)
        self.mask = np.zeros(N, dtype=np.uint8)
        self.held = []
        self.log = []

    def day(self, picks, as_tuple, values):
        report = []
        for pick, value in zip(picks, values, strict=False):
            item = self.pool[pick]
            if value is not None:
                item["value"] = value
            report.append(item)
        self.rotation.report = tuple(report) if as_tuple else report
        output = np.full(N, 9.0)
        try:
            result = self.rotation.compute((np.zeros(N),), (self.mask,), self.combined, output, N)
        except (ValueError, IndexError, TypeError) as error:
            result = str(error)
        self.log.append((result, output.tobytes(), self.state()))

    def state(self):
        rotation = self.rotation
        return (
            list(rotation.slot_by_key.items()),
            list(rotation.key_by_slot.items()),
            list(rotation._legs_by_slot.items()),
            [list(entry.items()) for entry in rotation._metadata_by_slot],
            rotation._txi_input.tobytes(),
            rotation._txi_output.tobytes(),
            [list(entry.items()) for entry in self.held],
        )

    def tamper(self, way, index):
        rotation = self.rotation
        slot = index % SLOTS
        metadata = rotation._metadata_by_slot
        if way == "hold":
            self.held.append(metadata[slot])
        elif way == "edit metadata":
            metadata[slot]["active"] = "edited"
        elif way == "edit metadata and back":
            metadata[slot]["x"] = metadata[slot].pop("active", None)
            metadata[slot]["active"] = metadata[slot].pop("x")
        elif way == "reorder metadata":
            metadata[slot] = dict(reversed(metadata[slot].items()))
        elif way == "swap metadata":
            metadata[slot], metadata[0] = metadata[0], metadata[slot]
        elif way == "share metadata":
            metadata[slot] = metadata[0]
        elif way == "replace metadata list":
            rotation._metadata_by_slot = [dict(entry) for entry in metadata]
        elif way == "edit legs":
            rotation._legs_by_slot[slot] = ((slot, 7.0),)
        elif way == "drop legs":
            rotation._legs_by_slot.pop(slot, None)
        elif way == "replace legs":
            rotation._legs_by_slot = dict(reversed(rotation._legs_by_slot.items()))
        elif way == "negative legs":
            rotation._legs_by_slot[slot] = ((-1, 2.0),)
        elif way == "list legs":
            rotation._legs_by_slot[slot] = [[slot, 2]]
        elif way == "swap slots":
            keys = list(rotation.slot_by_key)
            if len(keys) > 1:
                first, second = keys[0], keys[-1]
                slots = rotation.slot_by_key
                slots[first], slots[second] = slots[second], slots[first]
        elif way == "forget slots":
            rotation.slot_by_key = {}
            rotation.key_by_slot = {}
        elif way == "restore":
            try:
                rotation.set_state(rotation.get_state())
            except ValueError as error:
                self.log.append(str(error))
        elif way == "flag":
            self.combined[index % N] ^= 1
        elif way == "flag one":
            self.mask[index % N] ^= 1
        elif way == "new legs":
            item = self.pool[index % len(self.pool)]
            item["legs"] = tuple((leg, weight * 2.0) for leg, weight in item["legs"])
        elif way == "fewer legs":
            item = self.pool[index % len(self.pool)]
            item["legs"] = item["legs"][:1]
        elif way == "more legs":
            item = self.pool[index % len(self.pool)]
            item["legs"] = (*item["legs"], (index % N, 0.25))
        elif way == "no legs":
            self.pool[index % len(self.pool)]["legs"] = ()
        elif way == "loose legs":
            self.pool[index % len(self.pool)]["legs"] = [[np.int64(index % N), 3]]
        elif way == "leg outside":
            self.pool[index % len(self.pool)]["legs"] = ((N + index, 1.0),)
        elif way == "equal key":
            item = self.pool[index % len(self.pool)]
            item["key"] = tuple(float(part) if part == 1 else part for part in item["key"])
        elif way == "own metadata":
            self.pool[index % len(self.pool)]["metadata"] = {"note": index, "key": "mine"}
        elif way == "no metadata":
            self.pool[index % len(self.pool)]["metadata"] = None
        elif way == "policy":
            rotation.unmap_policy = ["proportional", "equal_split"][index % 2]
        elif way == "row":
            rotation._txi_input = np.zeros(2 * SLOTS)[::2]
        elif way == "collect":
            gc.collect()


WAYS = [
    "hold", "edit metadata", "edit metadata and back", "reorder metadata", "swap metadata",
    "share metadata", "replace metadata list", "edit legs", "drop legs", "replace legs",
    "negative legs", "list legs", "swap slots", "forget slots", "restore", "flag", "flag one",
    "new legs", "fewer legs", "more legs", "no legs", "loose legs", "leg outside", "equal key",
    "own metadata", "no metadata", "policy", "row", "collect",
]  # fmt: skip

VALUES = st.sampled_from([None, 1.5, -2.0, float("nan"), float("inf"), 1e308, 3])
DAY = st.tuples(
    st.just("day"),
    st.lists(st.integers(0, 6), max_size=6),
    st.booleans(),
    st.lists(VALUES, min_size=6, max_size=6),
)
TAMPER = st.tuples(st.just("tamper"), st.sampled_from(WAYS), st.integers(0, 11))


@pytest.fixture(scope="module")
def modules():
    with (
        installed_base("native", Siblings()) as native,
        installed_base("twin", Siblings()) as twin,
    ):
        yield native, twin


def run(module, override, policy, steps):
    side = Side(module, override, policy)
    with np.errstate(all="ignore"):
        for kind, *arguments in steps:
            getattr(side, kind)(*arguments)
    return side.log


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


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("index", range(4))
def test_each_way_of_tampering_between_like_days_is_noticed(modules, way, index):
    native, twin = modules
    day = ("day", [0, 1, 2, 3], False, [None] * 6)
    fewer = ("day", [3, 1], True, [None] * 6)
    steps = [day, day, ("tamper", way, index), day, fewer, ("tamper", way, index + 1), day, fewer]
    expected = run(twin, False, "proportional", steps)
    assert run(native, False, "proportional", steps) == expected
    assert run(native, True, "proportional", steps) == expected


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
