"""Many days: what is kept from one must not be taken for another's."""

import copy
import gc

import numpy as np
import pytest

from adversary.day import make
from adversary.values.odd_numbers import NAN
from support import frozen
from support.days import day_rotation_class
from virtualization.hostile.scenarios import Scenarios, assert_same_on_both, day_log, plain_items

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


# Many days: what is kept from one must not be taken for another's


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
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


@SCENARIOS.add
def keys_that_are_equal_but_not_the_same(base):
    rotation = make(base)
    log = []
    for key in [(1,), (1.0,), (True,), (1,), ("x", 1), ("x", 1.0), ()]:
        for value in [1.0, 2.0]:
            rotation.items = [{"key": key, "legs": ((0, 1.0),), "value": value}]
            log.append(day_log(rotation))
    return log


@SCENARIOS.add
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


@SCENARIOS.add
def names_of_the_entries_spelled_by_other_objects(base):
    rotation = make(base)
    log = []
    for make_name in [str, lambda name: "".join(list(name)), type("Name", (str,), {})]:
        items = [{make_name(name): value for name, value in item.items()} for item in plain_items()]
        rotation.items = items
        log.append(day_log(rotation)[:2])
        log.append(day_log(rotation)[:2])
    return log


@SCENARIOS.add
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
