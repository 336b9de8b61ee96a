"""Numbers of every make, wherever a day or a state takes one."""

import contextlib

import numpy as np
import pytest

from adversary.values.answers import ByIndex, ByInt
from adversary.values.items import Thing
from adversary.values.odd_numbers import NAN, ODD_NUMBERS, OddInt
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
def odd_leg_ids(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": [(0, 1.0), (number, 1.0)], "value": 2.0}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_weights(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0), (1, number)), "value": 2.0}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_values(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0),), "value": number}]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_values_in_a_record_that_was_not_normalised(base):
    def use(rotation, number):
        record = base.VirtualStructure(("a",), ((0, 1.0),), number)
        rotation._normalize_structure = lambda raw: record
        rotation.items = [None]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_ids_in_a_record_that_was_not_normalised(base):
    def use(rotation, number):
        record = base.VirtualStructure(("a",), ((number, 1.0),), 1.0)
        rotation._normalize_structure = lambda raw: record
        rotation.items = [None]
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_days(base):
    def use(rotation, number):
        context = Thing(current_day_index=number)
        child_context = frozen.outcome(rotation._make_child_context, None, number)
        return frozen.outcome(rotation, np.ones(6), context=context), child_context

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_live_counts(base):
    def use(rotation, number):
        rotation.items = [{"key": ("a",), "legs": ((0, 1.0), (2, 1.0)), "value": 2.0}]
        return day_log(rotation, N=number)

    counts = [6, 5, 3, 2, 1, 0, -1, -6, 7, 2**62, 2**80, -(2**80), 6.0, 2.5, np.int64(6)]
    counts += [np.uint8(3), OddInt(6), ByIndex(3), True, None, "6", NAN]
    # Lengths that only memory limits are left out: they would be allocated.
    return value_logs(base, [count for count in counts if count != 2**62], use)


@SCENARIOS.add
def leg_ids_and_live_counts_beyond_the_machine(base):
    def use(rotation, pair):
        leg_id, N = pair
        rotation.items = [{"key": ("a",), "legs": ((leg_id, 1.0),), "value": 2.0}]
        return day_log(rotation, N=N)

    ids = [2**63 - 1, 2**63, 2**70, -(2**70)]
    return value_logs(base, [(leg_id, N) for leg_id in ids for N in [6, 2**64, 2**80]], use)


@SCENARIOS.add
def odd_slots_in_the_map(base):
    def use(rotation, number):
        rotation.slot_by_key = {("b",): number}
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
def odd_capacities(base):
    def use(rotation, number):
        rotation.items = plain_items()
        rotation.max_structures = number
        return day_log(rotation), frozen.outcome(rotation.set_state, {"child_states": [{}]})

    return value_logs(base, [*ODD_NUMBERS, 0, -1, 2, 3.5], use)


@SCENARIOS.add
def odd_widths_of_resize(base):
    def use(rotation, number):
        result = frozen.outcome(rotation.resize, number)
        attributes = dict(vars(rotation))
        attributes["_output_buf"] = attributes["_output_buf"].shape
        return result, attributes

    numbers = [number for number in ODD_NUMBERS if not isinstance(number, OddInt)]
    return value_logs(base, [*numbers, OddInt(3)], use)


@SCENARIOS.add
def odd_limits_of_resize(base):
    def use(rotation, number):
        rotation._structure_N_limit = number
        result = frozen.outcome(rotation.resize, 3)
        return result, rotation._n_alloc, rotation._structure_N_limit

    return value_logs(base, ODD_NUMBERS, use)


@SCENARIOS.add
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


@SCENARIOS.add
def odd_items_of_the_universe_mask(base):
    mask = base._AllOnesVirtualMask(5, np.arange(4, dtype=np.uint8))
    numbers = [*ODD_NUMBERS, ByInt(OddInt(4))]
    return [frozen.outcome(mask.__getitem__, number) for number in numbers]
