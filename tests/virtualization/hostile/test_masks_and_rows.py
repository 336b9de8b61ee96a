"""Masks, rows and buffers of every make."""

import numpy as np
import pytest

from adversary.day import make
from adversary.values.answers import ByIteration
from adversary.values.arrays import ODD_MASKS, odd_rows
from adversary.values.odd_containers import FailingIterator, OldSequence
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
def odd_combined_masks(base):
    def use(rotation, mask):
        rotation.items = plain_items()
        return day_log(rotation, combined=mask)

    return value_logs(base, ODD_MASKS, use)


@SCENARIOS.add
def odd_single_masks(base):
    def use(rotation, mask):
        rotation.items = plain_items()
        clear = np.zeros(6, dtype=np.uint8)
        return day_log(rotation, masks=(clear, mask, clear))

    return value_logs(base, ODD_MASKS, use)


@SCENARIOS.add
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
        ByIteration(5),
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


@SCENARIOS.add
def odd_input_rows(base):
    def use(rotation, row):
        rotation.items = plain_items()
        rotation._txi_input = row
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@SCENARIOS.add
def odd_output_rows_on_an_empty_day(base):
    def use(rotation, row):
        rotation._call_child_on_empty = False
        rotation._legs_by_slot = {0: ((0, 1.0),)}
        rotation._txi_output = row
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@SCENARIOS.add
def odd_output_buffers(base):
    def use(rotation, buffer):
        rotation.items = plain_items()
        return day_log(rotation, buffer=buffer)

    return value_logs(base, odd_rows(6), use)


@SCENARIOS.add
def odd_chain_results(base):
    def use(rotation, row):
        rotation._run_child_chain = lambda values, context: row
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@SCENARIOS.add
def odd_child_results(base):
    def use(rotation, row):
        rotation.child_rotations = [lambda values, context: row]
        rotation.items = plain_items()
        return day_log(rotation)

    return value_logs(base, odd_rows(4), use)


@SCENARIOS.add
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
