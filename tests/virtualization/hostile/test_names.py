"""The module's own names, rebound while a day runs, and names that format oddly."""

import functools
import types

import numpy as np
import pytest

from adversary.day import make
from adversary.places.in_items import item_with
from adversary.values.odd_numbers import NAN
from adversary.values.triggers import Trigger
from support import frozen
from virtualization.hostile.scenarios import Scenarios, assert_same_on_both, day_log, plain_items

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


# The module's own names, rebound while a day runs


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


# Names that format oddly


@SCENARIOS.add
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
