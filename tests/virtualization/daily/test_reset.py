"""compute: the hook, and what is reset before its items are drawn."""

import collections

import numpy as np
import pytest

from support.fakes import make_rotation
from virtualization.daily.helpers import PAIR, SINGLE, one_day


def test_hook_receives_the_first_input_the_rest_and_the_days_masks(base):
    rotation = make_rotation(base)
    args = ("first", "second", "third")
    masks, combined = object(), object()
    rotation.compute(args, masks, combined, np.zeros(6), 5)
    space, rest, nan_masks, combined_nan_mask, N = rotation.hook_calls[0]
    assert (space, rest, N) == ("first", ("second", "third"), 5)
    assert nan_masks is masks
    assert combined_nan_mask is combined


def test_hook_is_called_once_per_day(base):
    rotation = make_rotation(base, [[PAIR, SINGLE]])
    one_day(rotation)
    assert len(rotation.hook_calls) == 1


def test_structure_inputs_are_empty_when_there_is_one_input(base):
    rotation = make_rotation(base)
    one_day(rotation)
    assert rotation.hook_calls[0][1] == ()


def test_structure_inputs_are_a_slice_of_whatever_sequence_is_given(base):
    rotation = make_rotation(base)
    rotation.compute([1, 2, 3], (), np.zeros(6), np.zeros(6), 6)
    assert rotation.hook_calls[0][1] == [2, 3]


def test_inputs_are_read_by_subscription(base):
    class Inputs:
        def __getitem__(self, item):
            return item

    rotation = make_rotation(base)
    rotation.compute(Inputs(), (), np.zeros(6), np.zeros(6), 6)
    assert rotation.hook_calls[0][:2] == (0, slice(1, None, None))


def test_compute_without_inputs_fails_before_the_hook(base):
    rotation = make_rotation(base)
    with pytest.raises(IndexError):
        rotation.compute((), (), np.zeros(6), np.zeros(6), 6)
    assert rotation.hook_calls == []


def test_hook_error_leaves_yesterday_as_it_was(base):
    def fail(*arguments):
        raise LookupError("hook")

    rotation = make_rotation(base, [[PAIR], fail])
    one_day(rotation)
    with pytest.raises(LookupError):
        one_day(rotation)
    assert rotation._txi_input[0] == 2.0
    assert rotation._metadata_by_slot[0]["active"] is True


def test_input_row_is_refilled_in_place(base):
    rotation = make_rotation(base, [[PAIR], []])
    row = rotation._txi_input
    one_day(rotation)
    one_day(rotation)
    assert rotation._txi_input is row
    assert np.isnan(row).all()


def test_input_row_is_refilled_through_its_own_fill(base):
    filled = []

    class Row(np.ndarray):
        def fill(self, value):
            filled.append(value)
            super().fill(value)

    rotation = make_rotation(base)
    rotation._txi_input = np.zeros(4).view(Row)
    one_day(rotation)
    assert len(filled) == 1
    assert np.isnan(filled[0])


def test_metadata_of_a_slot_not_reported_is_reset_in_place(base):
    rotation = make_rotation(base, [[PAIR], []])
    one_day(rotation)
    entry = rotation._metadata_by_slot[0]
    one_day(rotation)
    assert rotation._metadata_by_slot[0] is entry
    assert entry == {"active": False}
    assert entry["active"] is False


def test_every_entry_of_the_metadata_is_reset(base):
    rotation = make_rotation(base)
    rotation._metadata_by_slot = [{"x": 1}, collections.OrderedDict(y=2), {"active": True, "z": 3}]
    one_day(rotation)
    assert [dict(entry) for entry in rotation._metadata_by_slot] == [{"active": False}] * 3


def test_metadata_entries_are_reset_with_their_own_methods(base):
    class Entry:
        def __init__(self):
            self.calls = []

        def clear(self):
            self.calls.append("clear")

        def __setitem__(self, key, value):
            self.calls.append((key, value))

    rotation = make_rotation(base)
    entry = Entry()
    rotation._metadata_by_slot = [entry]
    one_day(rotation)
    assert entry.calls == ["clear", ("active", False)]


def test_reset_happens_before_the_first_item_is_drawn(base):
    seen = []

    def draw(*arguments):
        seen.append(dict(rotation._metadata_by_slot[0]))
        seen.append(rotation._txi_input[0])
        yield PAIR

    rotation = make_rotation(base, [[PAIR], draw])
    one_day(rotation)
    one_day(rotation)
    assert seen[0] == {"active": False}
    assert np.isnan(seen[1])
