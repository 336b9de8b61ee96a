"""Many structures and many legs: what is done in batches, and what is moved when it has grown."""

import pickle

import numpy as np
import pytest

from support.fakes import structure, through_super

N = 7
SLOTS = 200
STEPS = ["_validate_state_components", "_normalize_structure"]


def rotation_of(module, overridden=(), **attributes):
    body = {name: through_super(name) for name in overridden} | attributes
    body["_refresh_active_structures"] = lambda self, *day: self.items
    rotation = type("Rotation", (module.VirtualizationBase,), body)(
        max_structures=SLOTS, transformation_expression="none", N_alloc=N
    )
    rotation.items = []
    return rotation


def day(rotation, items):
    rotation.items = items
    return rotation(np.arange(1.0, N + 1)).tobytes()


def contents(rotation):
    return [
        list(rotation.slot_by_key.items()),
        list(rotation._legs_by_slot.items()),
        [list(entry.items()) for entry in rotation._metadata_by_slot],
        rotation._txi_input.tobytes(),
    ]


def legs(count, shift):
    return tuple(((place + shift) % N, 0.5 + place) for place in range(count))


def compare(modules, scenario):
    native, twin = modules
    expected = scenario(rotation_of(twin))
    assert scenario(rotation_of(native)) == expected
    assert scenario(rotation_of(native, STEPS)) == expected


@pytest.mark.parametrize("others", [0, 5])
def test_legs_that_grow_every_day(modules, others):
    steady = [structure(("steady", each), legs(3, each), 1.0 + each) for each in range(others)]

    def scenario(rotation):
        seen = []
        for count in range(1, 120):
            growing = structure(("growing",), legs(count, 0), 2.0)
            waning = structure(("waning",), legs(120 - count, 1), -1.0)
            seen.append(day(rotation, [growing, *steady, waning]))
        return [*seen, contents(rotation)]

    compare(modules, scenario)


def many(first, last, factor=1.0):
    return [
        structure(("many", each), legs(each % 4, each), factor * each)
        for each in range(first, last)
    ]


@pytest.mark.parametrize("count", [1, 8, 16, 17, 25, 33, 64, SLOTS])
def test_states_of_many_structures_over_others(modules, count):
    def scenario(rotation):
        day(rotation, many(0, count))
        first = rotation.get_state()
        first["structure_metadata_by_slot"] = [dict(e) for e in first["structure_metadata_by_slot"]]
        day(rotation, many(0, SLOTS, 2.0))
        seen = [contents(rotation)]
        rotation.set_state(first)
        seen.append(contents(rotation))
        seen.append(day(rotation, many(0, min(count, 9), 3.0)))
        return [*seen, contents(rotation)]

    compare(modules, scenario)


def test_state_without_limit_attribute_of_the_rotation_is_refused_alike(modules):
    def scenario(rotation):
        day(rotation, many(0, 3))
        state = rotation.get_state()
        del rotation._structure_N_limit
        rotation.set_state(state)
        return rotation._structure_N_limit, contents(rotation)

    compare(modules, scenario)


@pytest.mark.parametrize("as_report", [list, tuple])
@pytest.mark.parametrize("count", [31, 32, 33, SLOTS])
def test_reports_of_many_items_in_a_list_or_a_tuple(modules, as_report, count):
    def scenario(rotation):
        seen = [day(rotation, as_report(many(0, count, factor))) for factor in (1.0, 1.0, 2.0)]
        return [*seen, day(rotation, as_report(many(3, count))), contents(rotation)]

    compare(modules, scenario)


class Other(dict):
    """Dict of another class."""


@pytest.mark.parametrize("kind", [Other, list])
@pytest.mark.parametrize("place", [0, 20, 150, SLOTS - 1])
@pytest.mark.parametrize("side", ["state", "rotation"])
def test_one_metadata_entry_of_another_kind_among_many(modules, kind, place, side):
    def scenario(rotation):
        day(rotation, many(0, SLOTS))
        state = pickle.loads(pickle.dumps(rotation.get_state()))
        table = (
            state["structure_metadata_by_slot"] if side == "state" else rotation._metadata_by_slot
        )
        table[place] = kind()
        try:
            rotation.set_state(state)
            seen = []
        except ValueError as error:
            seen = [str(error)]
        return [*seen, *map(repr, rotation._metadata_by_slot)]

    compare(modules, scenario)
