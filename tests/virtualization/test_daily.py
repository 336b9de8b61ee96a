"""The road of one day, and the replay of many: compute, the call and batch_reference."""

import collections
import traceback

import numpy as np
import pytest

from support.fakes import (
    ConstantChild,
    Context,
    RaisingChild,
    RecordingChild,
    make_rotation,
    structure,
)

NAN = float("nan")
PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)
SINGLE = structure(("c",), [(2, 1.0)], 3.0)
WIDTH = 6


def one_day(rotation, *, masks=None, combined=None, N=WIDTH):
    """Run compute directly on clear masks and return the output buffer."""
    buffer = np.full(WIDTH, 77.0)
    combined = np.zeros(WIDTH, dtype=np.uint8) if combined is None else combined
    masks = (np.zeros(WIDTH, dtype=np.uint8),) if masks is None else masks
    assert rotation.compute((np.arange(float(WIDTH)),), masks, combined, buffer, N) == 0
    return buffer


def flagged(*instruments):
    mask = np.zeros(WIDTH, dtype=np.uint8)
    mask[list(instruments)] = 1
    return mask


class Log(list):
    """Steps in the order in which they were called."""

    def step(self, name):
        def method(rotation, *args, **kwargs):
            self.append(name)
            return getattr(super(type(rotation), rotation), name)(*args, **kwargs)

        return method


# compute: the hook and what is reset


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


# compute: each item


def test_valid_structure_value_enters_its_slot(base):
    rotation = make_rotation(base, [[PAIR, SINGLE]])
    one_day(rotation)
    np.testing.assert_array_equal(rotation._txi_input, [2.0, 3.0, NAN, NAN])


def test_structure_legs_are_stored_under_the_slot(base):
    rotation = make_rotation(base, [[PAIR, SINGLE]])
    one_day(rotation)
    assert rotation._legs_by_slot == {0: ((0, 1.0), (1, -1.0)), 1: ((2, 1.0),)}


def test_reported_slot_metadata_adds_slot_and_active_to_a_copy(base):
    item = structure(["c"], [[2, 1]], 3.0, metadata={"note": "x"})
    rotation = make_rotation(base, [[item]])
    one_day(rotation)
    metadata = rotation._metadata_by_slot[0]
    assert list(metadata.items()) == [
        ("note", "x"),
        ("key", ("c",)),
        ("legs", ((2, 1.0),)),
        ("slot", 0),
        ("active", True),
    ]
    assert type(metadata["slot"]) is int
    assert metadata["active"] is True


def test_callers_metadata_is_left_alone(base):
    given = {"note": "x"}
    rotation = make_rotation(base, [[structure(("c",), [(2, 1.0)], 3.0, metadata=given)]])
    one_day(rotation)
    assert given == {"note": "x"}


def test_metadata_entries_under_slot_and_active_are_overwritten_in_place(base):
    given = {"active": "?", "slot": "?", "note": 1}
    rotation = make_rotation(base, [[structure(("c",), [(2, 1.0)], 3.0, metadata=given)]])
    one_day(rotation)
    metadata = rotation._metadata_by_slot[0]
    assert list(metadata) == ["active", "slot", "note", "key", "legs"]
    assert (metadata["active"], metadata["slot"]) == (True, 0)


def test_stored_metadata_is_never_the_structures_own_dict(base):
    made = []

    def _normalize_structure(self, item):
        made.append(base.VirtualStructure(("c",), ((2, 1.0),), 3.0, {"own": 1}))
        return made[-1]

    rotation = make_rotation(
        base, [[SINGLE]], attributes={"_normalize_structure": _normalize_structure}
    )
    one_day(rotation)
    assert rotation._metadata_by_slot[0] is not made[0].metadata
    assert made[0].metadata == {"own": 1}


@pytest.mark.parametrize("metadata", [None, {}])
def test_structure_without_metadata_gets_slot_and_active_alone(base, metadata):
    def _normalize_structure(self, item):
        return base.VirtualStructure(("c",), ((2, 1.0),), 3.0, metadata)

    rotation = make_rotation(
        base, [[SINGLE]], attributes={"_normalize_structure": _normalize_structure}
    )
    one_day(rotation)
    assert rotation._metadata_by_slot[0] == {"slot": 0, "active": True}


def test_reported_slots_dict_is_replaced_not_reused(base):
    rotation = make_rotation(base, [[PAIR], [PAIR]])
    held = rotation._metadata_by_slot[0]
    one_day(rotation)
    assert held == {"active": False}
    assert rotation._metadata_by_slot[0] is not held


def test_yesterdays_metadata_dict_that_someone_holds_is_reset_but_not_refilled(base):
    rotation = make_rotation(base, [[PAIR], [PAIR]])
    one_day(rotation)
    held = rotation._metadata_by_slot[0]
    one_day(rotation)
    assert held == {"active": False}
    assert rotation._metadata_by_slot[0]["active"] is True


@pytest.mark.parametrize(
    ("masks", "combined"),
    [((flagged(),), flagged(0)), ((flagged(0),), flagged()), ((flagged(), flagged(1)), flagged())],
)
def test_invalid_structure_takes_a_slot_and_stores_legs_but_no_value(base, masks, combined):
    rotation = make_rotation(base, [[PAIR]])
    one_day(rotation, masks=masks, combined=combined)
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert rotation._legs_by_slot == {0: ((0, 1.0), (1, -1.0))}
    assert rotation._metadata_by_slot[0]["active"] is False
    assert np.isnan(rotation._txi_input).all()


@pytest.mark.parametrize("value", [NAN, float("inf"), float("-inf")])
def test_structure_without_a_finite_value_is_invalid(base, value):
    rotation = make_rotation(base, [[structure(("c",), [(2, 1.0)], value)]])
    one_day(rotation)
    assert rotation._metadata_by_slot[0]["active"] is False
    assert np.isnan(rotation._txi_input[0])


def test_key_reported_twice_leaves_the_later_items_tables(base):
    again = structure(("c",), [(4, 2.0)], 5.0, metadata={"note": 2})
    rotation = make_rotation(base, [[SINGLE, again]])
    one_day(rotation)
    assert rotation.slot_by_key == {("c",): 0}
    assert rotation._legs_by_slot == {0: ((4, 2.0),)}
    assert rotation._metadata_by_slot[0]["note"] == 2
    assert rotation._txi_input[0] == 5.0


def test_key_reported_valid_then_invalid_keeps_the_first_value(base):
    invalid = structure(("c",), [(2, 1.0)], NAN)
    rotation = make_rotation(base, [[SINGLE, invalid]])
    one_day(rotation)
    assert rotation._txi_input[0] == 3.0
    assert rotation._metadata_by_slot[0]["active"] is False


def test_slots_stay_with_their_keys_over_the_days(base):
    rotation = make_rotation(base, [[PAIR], [SINGLE], [SINGLE, PAIR]])
    for _ in range(3):
        one_day(rotation)
    assert rotation.slot_by_key == {("a", "b"): 0, ("c",): 1}
    np.testing.assert_array_equal(rotation._txi_input, [2.0, 3.0, NAN, NAN])


def test_legs_of_a_slot_not_reported_are_kept(base):
    rotation = make_rotation(base, [[PAIR], []])
    one_day(rotation)
    one_day(rotation)
    assert rotation._legs_by_slot == {0: ((0, 1.0), (1, -1.0))}


def test_slot_not_reported_still_writes_through_its_earlier_legs(base):
    rotation = make_rotation(base, [[PAIR], []], child_rotations=[ConstantChild([5.0] * 4)])
    one_day(rotation)
    np.testing.assert_array_equal(one_day(rotation), [5.0, -5.0, NAN, NAN, NAN, NAN])


@pytest.mark.parametrize("valid", [1, "yes", np.True_, [0]])
def test_truth_of_whatever_the_validity_step_returns_decides(base, valid):
    attributes = {"_structure_is_valid": lambda *args: valid}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    one_day(rotation)
    assert rotation._metadata_by_slot[0]["active"] is True
    assert rotation._txi_input[0] == 2.0


@pytest.mark.parametrize("valid", [0, "", None, np.False_, []])
def test_false_validity_leaves_the_input_nan(base, valid):
    attributes = {"_structure_is_valid": lambda *args: valid}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    one_day(rotation)
    assert rotation._metadata_by_slot[0]["active"] is False
    assert np.isnan(rotation._txi_input[0])


def test_items_may_come_from_any_iterable(base):
    for items in [(PAIR,), iter([PAIR]), {"x": PAIR}.values(), collections.deque([PAIR])]:
        rotation = make_rotation(base, [items])
        one_day(rotation)
        assert rotation._txi_input[0] == 2.0


def test_items_that_cannot_be_iterated_fail_after_the_reset(base):
    rotation = make_rotation(base, [[PAIR], lambda *arguments: None])
    one_day(rotation)
    with pytest.raises(TypeError, match="not iterable"):
        one_day(rotation)
    assert np.isnan(rotation._txi_input).all()
    assert rotation._metadata_by_slot[0] == {"active": False}


def test_generator_is_drawn_one_item_at_a_time(base):
    seen = []

    def draw(*arguments):
        yield PAIR
        seen.append((dict(rotation.slot_by_key), rotation._txi_input[0]))
        yield SINGLE

    rotation = make_rotation(base, [draw])
    one_day(rotation)
    assert seen == [({("a", "b"): 0}, 2.0)]


def test_items_appended_while_they_are_read_are_read_too(base):
    items = [PAIR]

    def _slot_for_key(self, key):
        if len(items) == 1:
            items.append(SINGLE)
        return base.VirtualizationBase._slot_for_key(self, key)

    rotation = make_rotation(base, [items], attributes={"_slot_for_key": _slot_for_key})
    one_day(rotation)
    assert list(rotation.slot_by_key) == [("a", "b"), ("c",)]


def test_failing_item_leaves_what_the_items_before_wrote(base):
    bad = structure(("d",), [(0, "no number")], 1.0)
    rotation = make_rotation(base, [[PAIR, bad, SINGLE]], child_rotations=[RecordingChild()])
    buffer = rotation._output_buf.copy()
    with pytest.raises(ValueError, match="could not convert"):
        rotation(np.zeros(6))
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert rotation._txi_input[0] == 2.0
    assert rotation._metadata_by_slot[0]["active"] is True
    assert rotation.child_rotations[0].calls == []
    np.testing.assert_array_equal(rotation._output_buf, buffer)


def test_structure_beyond_the_capacity_fails_after_the_items_before(base):
    rotation = make_rotation(base, [[PAIR, SINGLE]], max_structures=1)
    with pytest.raises(ValueError, match="exceeds") as caught:
        one_day(rotation)
    assert caught.value.args == (
        "virtualization_base: active structure count exceeds max_structures=1",
    )
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert rotation._txi_input[0] == 2.0


def test_failing_validity_leaves_the_slot_taken_and_nothing_stored(base):
    rotation = make_rotation(base, [[PAIR]])
    with pytest.raises(IndexError):
        one_day(rotation, combined=np.zeros(0))
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert rotation._legs_by_slot == {}
    assert rotation._metadata_by_slot[0] == {"active": False}


def test_validity_whose_truth_fails_leaves_the_legs_stored_and_no_metadata(base):
    class Undecided:
        def __bool__(self):
            raise LookupError("truth")

    attributes = {"_structure_is_valid": lambda *args: Undecided()}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    with pytest.raises(LookupError):
        one_day(rotation)
    assert 0 in rotation._legs_by_slot
    assert rotation._metadata_by_slot[0] == {"active": False}


def test_slot_beyond_the_metadata_list_fails_with_the_legs_stored(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation._metadata_by_slot = []
    with pytest.raises(IndexError):
        one_day(rotation)
    assert 0 in rotation._legs_by_slot
    assert np.isnan(rotation._txi_input).all()


def test_slot_beyond_the_input_row_fails_with_the_metadata_stored(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation._txi_input = np.zeros(0)
    with pytest.raises(IndexError):
        one_day(rotation)
    assert rotation._metadata_by_slot[0]["active"] is True


def test_attributes_a_record_needs_are_key_legs_metadata_and_value(base):
    class Record:
        key, legs, metadata, value = ("q",), ((1, 2.0),), {"m": 1}, 4.0

    attributes = {"_normalize_structure": lambda self, raw: Record}
    rotation = make_rotation(base, [[None]], attributes=attributes)
    np.testing.assert_array_equal(one_day(rotation), [NAN, 8.0, NAN, NAN, NAN, NAN])
    assert rotation._metadata_by_slot[0] == {"m": 1, "slot": 0, "active": True}


def test_value_is_stored_as_the_array_converts_it(base):
    class Record:
        key, legs, metadata, value = ("q",), (), None, "2.5"

    attributes = {
        "_normalize_structure": lambda self, raw: Record,
        "_structure_is_valid": lambda *args: True,
    }
    rotation = make_rotation(base, [[None]], attributes=attributes)
    one_day(rotation)
    assert rotation._txi_input[0] == 2.5


def test_slot_given_by_an_override_indexes_the_tables(base):
    attributes = {"_slot_for_key": lambda self, key: -1}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    one_day(rotation)
    assert rotation._legs_by_slot == {-1: ((0, 1.0), (1, -1.0))}
    assert rotation._metadata_by_slot[3]["slot"] == -1
    assert rotation._txi_input[3] == 2.0


# compute: the chain, or not


def test_compute_returns_the_integer_zero_with_the_chain(base):
    rotation = make_rotation(base, [[PAIR]])
    result = rotation.compute((np.zeros(6),), (), np.zeros(6), np.zeros(6), 6)
    assert result == 0
    assert type(result) is int


def test_compute_returns_the_integer_zero_without_the_chain(base):
    rotation = make_rotation(base, attributes={"_call_child_on_empty": False})
    result = rotation.compute((np.zeros(6),), (), np.zeros(6), np.zeros(6), 6)
    assert result == 0
    assert type(result) is int


def test_empty_day_runs_the_chain_on_an_all_nan_row(base):
    child = RecordingChild()
    one_day(make_rotation(base, child_rotations=[child]))
    assert len(child.calls) == 1
    assert np.isnan(child.calls[0][1]).all()


@pytest.mark.parametrize("flag", [False, 0, "", None, np.False_])
@pytest.mark.parametrize("items", [[], (), {}])
def test_empty_day_skips_the_chain_when_told_so(base, flag, items):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": flag}
    rotation = make_rotation(base, [items], child_rotations=[child], attributes=attributes)
    rotation._txi_output[:] = 5.0
    row = rotation._txi_output
    assert np.isnan(one_day(rotation)).all()
    assert child.calls == []
    assert rotation._txi_output is row
    assert np.isnan(row).all()


def test_instance_attribute_may_tell_to_skip_the_chain(base):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._call_child_on_empty = False
    one_day(rotation)
    assert child.calls == []


def test_true_flag_runs_the_chain_on_an_empty_day(base):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._call_child_on_empty = "yes"
    one_day(rotation)
    assert len(child.calls) == 1


def test_day_of_invalid_structures_alone_runs_the_chain(base):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": False}
    items = [structure(("c",), [(2, 1.0)], NAN)]
    one_day(make_rotation(base, [items], child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


@pytest.mark.parametrize("make", [lambda *arguments: iter([]), lambda *arguments: (_ for _ in [])])
def test_empty_iterator_counts_as_a_day_with_structures(base, make):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": False}
    one_day(make_rotation(base, [make], child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


def test_truth_of_the_items_is_asked_after_they_were_read(base):
    child = RecordingChild()

    def drain(*arguments):
        items = collections.deque([PAIR])

        class Draining:
            def __iter__(self):
                while items:
                    yield items.popleft()

            def __len__(self):
                return len(items)

        return Draining()

    attributes = {"_call_child_on_empty": False}
    rotation = make_rotation(base, [drain], child_rotations=[child], attributes=attributes)
    one_day(rotation)
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert child.calls == []


def test_flag_is_not_asked_on_a_day_with_structures(base):
    def flag(self):
        raise LookupError("asked")

    attributes = {"_call_child_on_empty": property(flag)}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    one_day(rotation)
    with pytest.raises(LookupError, match="asked"):
        one_day(rotation)


def test_flag_whose_property_raises_attribute_error_counts_as_absent(base):
    def flag(self):
        raise AttributeError("hidden")

    child = RecordingChild()
    attributes = {"_call_child_on_empty": property(flag)}
    one_day(make_rotation(base, child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


def test_items_whose_truth_fails_pass_the_error_on(base):
    class Items(list):
        def __bool__(self):
            raise LookupError("truth")

    rotation = make_rotation(base, [Items()])
    with pytest.raises(LookupError, match="truth"):
        one_day(rotation)


def test_skipped_chain_reads_no_parent_context(base):
    class Untouchable:
        def __getattribute__(self, name):
            raise AssertionError(name)

    rotation = make_rotation(base, attributes={"_call_child_on_empty": False})
    rotation._current_parent_context = Untouchable()
    one_day(rotation)


def test_skipped_chain_unmaps_the_nan_row_then_records(base):
    log = Log()
    steps = ["_make_child_context", "_run_child_chain", "_unmap", "_record_trace"]
    attributes = {"_call_child_on_empty": False} | {name: log.step(name) for name in steps}
    one_day(make_rotation(base, attributes=attributes))
    assert log == ["_unmap", "_record_trace"]


def test_output_row_is_rebound_to_the_chains_result(base):
    result = np.arange(4.0)
    attributes = {"_run_child_chain": lambda self, values, context: result}
    rotation = make_rotation(base, attributes=attributes)
    before = rotation._txi_output
    one_day(rotation)
    assert rotation._txi_output is result
    assert np.isnan(before).all()


def test_chain_receives_the_input_row_itself(base):
    child = RecordingChild()
    rotation = make_rotation(base, [[PAIR]], child_rotations=[child])
    one_day(rotation)
    assert child.calls[0][0] is rotation._txi_input


def test_failing_chain_keeps_yesterdays_output_row(base):
    rotation = make_rotation(base, [[PAIR], [SINGLE]])
    one_day(rotation)
    before = rotation._txi_output
    rotation.child_rotations = [RaisingChild(LookupError())]
    with pytest.raises(LookupError):
        one_day(rotation)
    assert rotation._txi_output is before
    assert rotation._txi_input[1] == 3.0


def test_steps_run_in_the_documented_order(base):
    log = Log()
    names = [
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ]
    attributes = {name: log.step(name) for name in names}
    one_day(make_rotation(base, [[PAIR, SINGLE]], attributes=attributes))
    assert log == names[:3] * 2 + names[3:]


def test_steps_receive_the_documented_arguments(base):
    calls = {}

    def watch(name):
        def method(self, *args, **kwargs):
            assert kwargs == {}
            calls[name] = args
            return getattr(super(type(self), self), name)(*args)

        return method

    names = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]
    names += ["_make_child_context", "_run_child_chain", "_unmap", "_record_trace"]
    rotation = make_rotation(base, [[PAIR]], attributes={name: watch(name) for name in names})
    masks, combined, buffer = (flagged(),), flagged(), np.zeros(6)
    rotation.compute((np.zeros(6),), masks, combined, buffer, 6)
    assert calls["_normalize_structure"][0] is PAIR
    assert calls["_slot_for_key"] == (("a", "b"),)
    record, *rest = calls["_structure_is_valid"]
    assert type(record) is base.VirtualStructure
    assert rest[0] is masks
    assert rest[1] is combined
    assert rest[2] == 6
    assert calls["_make_child_context"] == (None, 0)
    assert calls["_run_child_chain"][0] is rotation._txi_input
    assert type(calls["_run_child_chain"][1]) is base._VirtualContext
    assert calls["_unmap"][0] is rotation._txi_output
    assert calls["_unmap"][1] is calls["_record_trace"][0] is buffer
    assert calls["_unmap"][2] == calls["_record_trace"][1] == 6


@pytest.mark.parametrize(
    "name",
    [
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ],
)
def test_step_overridden_on_the_instance_is_used(base, name):
    calls = []
    rotation = make_rotation(base, [[PAIR]], trace_sink=[])
    step = getattr(rotation, name)

    def override(*args):
        calls.append(name)
        return step(*args)

    setattr(rotation, name, override)
    one_day(rotation)
    assert calls == [name]


def test_compute_may_be_overridden(base):
    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = 5.0
        return 0

    rotation = make_rotation(base, attributes={"compute": compute})
    assert rotation(np.zeros(6)).tolist() == [5.0] * 6


# compute: the day


def day_of_child_context(base, context):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._current_parent_context = context
    one_day(rotation)
    context = child.calls[0][2]
    return context.current_day_index, context.universe_mask.shape


def test_child_context_is_of_the_parents_day(base):
    assert day_of_child_context(base, Context(current_day_index=7)) == (7, (8, 4))


def test_child_context_is_of_day_zero_without_a_parent(base):
    assert day_of_child_context(base, None) == (0, (1, 4))


def test_child_context_is_of_day_zero_for_a_parent_without_a_day(base):
    assert day_of_child_context(base, Context()) == (0, (1, 4))


@pytest.mark.parametrize("day", ["7", 7.9, np.int32(7)])
def test_parents_day_is_converted_with_int(base, day):
    index, shape = day_of_child_context(base, Context(current_day_index=day))
    assert type(index) is int
    assert (index, shape) == (7, (8, 4))


def test_parents_day_that_is_no_number_fails_with_the_items_stored(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation._current_parent_context = Context(current_day_index="x")
    with pytest.raises(ValueError, match="invalid literal"):
        one_day(rotation)
    assert rotation._txi_input[0] == 2.0


def test_parents_day_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def current_day_index(self):
            raise LookupError("day")

    with pytest.raises(LookupError, match="day"):
        day_of_child_context(base, Failing())


def test_parent_context_is_handed_to_the_child_context_step(base):
    parents = []

    def _make_child_context(self, parent_context, day_index):
        parents.append((parent_context, day_index))

    rotation = make_rotation(base, attributes={"_make_child_context": _make_child_context})
    context = Context(current_day_index=2)
    rotation(np.zeros(6), context=context)
    assert parents == [(context, 2)]


# The call


def test_call_returns_the_days_output(base):
    result = make_rotation(base, [[PAIR]])(np.arange(6.0))
    np.testing.assert_array_equal(result, [2.0, -2.0, NAN, NAN, NAN, NAN])


def test_call_returns_whatever_the_framework_returns(base, siblings):
    rotation = make_rotation(base)
    siblings.RotationBase.__call__ = lambda self, *args, context=None: ("result", args, context)
    assert rotation(1, 2, context=3) == ("result", (1, 2), 3)


def test_call_passes_the_context_on_by_name_even_when_none(base, siblings):
    calls = []
    siblings.RotationBase.__call__ = lambda self, *args, **kwargs: calls.append((args, kwargs))
    make_rotation(base)(1)
    assert calls == [((1,), {"context": None})]


def test_call_takes_no_other_keyword(base):
    with pytest.raises(TypeError):
        make_rotation(base)(np.zeros(6), other=1)


def test_context_is_held_while_the_framework_runs(base):
    held = []
    context = Context(current_day_index=0)
    rotation = make_rotation(base, [lambda *args: held.append(rotation._current_parent_context)])
    with pytest.raises(TypeError):
        rotation(np.zeros(6), context=context)
    assert held == [context]


def test_context_is_released_after_a_call(base):
    rotation = make_rotation(base, [[PAIR]])
    rotation(np.zeros(6), context=Context())
    assert rotation._current_parent_context is None


@pytest.mark.parametrize("error", [LookupError("x"), KeyboardInterrupt(), GeneratorExit()])
def test_context_is_released_after_a_failing_call(base, error):
    rotation = make_rotation(base, child_rotations=[RaisingChild(error)])
    with pytest.raises(type(error)) as caught:
        rotation(np.zeros(6), context=Context())
    assert caught.value is error
    assert rotation._current_parent_context is None


def test_context_left_over_is_replaced_by_none_during_a_call_without_one(base):
    held = []

    def hook(*arguments):
        held.append(rotation._current_parent_context)
        return []

    rotation = make_rotation(base, [hook])
    rotation._current_parent_context = Context()
    rotation(np.zeros(6))
    assert held == [None]


def test_inner_call_on_the_same_instance_leaves_no_context(base):
    held = []

    def outer(*arguments):
        rotation(np.zeros(6), context=Context(current_day_index=9))
        held.append(rotation._current_parent_context)
        return []

    child = RecordingChild()
    rotation = make_rotation(base, [outer], child_rotations=[child])
    rotation(np.zeros(6), context=Context(current_day_index=3))
    assert held == [None]
    assert [context.current_day_index for _, _, context in child.calls] == [9, 0]


def test_context_is_set_once_and_reset_once_through_setattr(base):
    writes = []

    def __setattr__(self, name, value):
        if name == "_current_parent_context":
            writes.append(value)
        object.__setattr__(self, name, value)

    rotation = make_rotation(base, attributes={"__setattr__": __setattr__})
    writes.clear()
    context = Context()
    rotation(np.zeros(6), context=context)
    assert writes == [context, None]


def test_failing_reset_replaces_the_error_of_the_call_and_keeps_it_as_context(base):
    first, second = LookupError("first"), OSError("second")

    def __setattr__(self, name, value):
        if name == "_current_parent_context" and value is None and vars(self).get("armed"):
            raise second
        object.__setattr__(self, name, value)

    attributes = {"__setattr__": __setattr__}
    rotation = make_rotation(base, child_rotations=[RaisingChild(first)], attributes=attributes)
    rotation.armed = True
    with pytest.raises(OSError, match="second") as caught:
        rotation(np.zeros(6), context=Context())
    assert caught.value is second
    assert second.__context__ is first


def test_hook_failure_keeps_the_hooks_frame_in_the_traceback(base):
    def failing_hook(*arguments):
        raise LookupError("hook")

    with pytest.raises(LookupError) as caught:
        make_rotation(base, [failing_hook])(np.zeros(6))
    assert "failing_hook" in [frame.name for frame in traceback.extract_tb(caught.tb)]


def test_call_computes_exactly_once(base):
    log = Log()
    make_rotation(base, attributes={"compute": log.step("compute")})(np.zeros(6))
    assert log == ["compute"]


# The call: input width


def unallocated(base, limit=None, **attributes):
    """Make a rotation without an allocation; the limit also binds construction, so set it last."""
    rotation = make_rotation(base, attributes=attributes)
    rotation._n_alloc = None
    if limit is not None:
        base.MAX_VIRTUAL_STRUCTURES = limit
    return rotation


@pytest.fixture
def framework_calls(siblings):
    """Replace the framework's call by one that records its arguments."""
    calls = []
    siblings.RotationBase.__call__ = lambda self, *args, context=None: calls.append(args)
    return calls


@pytest.mark.parametrize(
    "value",
    [
        np.zeros(5),
        np.zeros((2, 5)),
        [0.0] * 5,
        "abcde",
        Context(shape=(9, 5)),
        Context(shape=[5.7]),
        Context(shape=("5",)),
        range(5),
    ],
)
def test_width_beyond_the_limit_fails_without_an_allocation(base, framework_calls, value):
    rotation = unallocated(base, 4)
    with pytest.raises(ValueError, match="input width") as caught:
        rotation(value)
    assert caught.value.args == ("virtualization_base: input width must be <= 4",)
    assert framework_calls == []


def test_width_message_begins_with_the_rotations_name(base):
    with pytest.raises(ValueError, match="input width") as caught:
        unallocated(base, 4, _name="R")([0] * 5)
    assert caught.value.args == ("R: input width must be <= 4",)


def test_default_limit_of_the_width_is_a_million(base, framework_calls):
    rotation = unallocated(base)
    rotation(range(1000000))
    with pytest.raises(ValueError, match="input width must be <= 1000000"):
        rotation(range(1000001))


@pytest.mark.parametrize("value", [np.zeros(4), [0.0] * 4, np.zeros((9, 4))])
def test_width_equal_to_the_limit_is_allowed(base, framework_calls, value):
    unallocated(base, 4)(value)
    assert len(framework_calls) == 1


def test_width_error_leaves_the_context_attribute_untouched(base):
    rotation = unallocated(base, 4)
    rotation._current_parent_context = left_over = object()
    with pytest.raises(ValueError, match="input width"):
        rotation([0] * 5, context=Context())
    assert rotation._current_parent_context is left_over


def test_only_the_first_input_is_measured(base, framework_calls):
    unallocated(base, 4)([0] * 4, [0] * 5)
    assert len(framework_calls) == 1


def test_width_is_not_measured_with_an_allocation(base, framework_calls):
    value = object()
    rotation = make_rotation(base, N_alloc=4)
    base.MAX_VIRTUAL_STRUCTURES = 4
    rotation([0] * 5)
    rotation(value)
    assert framework_calls == [([0] * 5,), (value,)]


def test_width_is_not_measured_without_inputs(base, framework_calls):
    unallocated(base)()
    assert framework_calls == [()]


def test_zero_dimensional_array_is_measured_with_len_and_fails(base, framework_calls):
    with pytest.raises(TypeError, match="unsized object"):
        unallocated(base)(np.array(1.0))
    assert framework_calls == []


@pytest.mark.parametrize("shape", [None, (), []])
def test_input_with_an_empty_shape_is_measured_with_len(base, framework_calls, shape):
    class Sized:
        def __init__(self):
            self.shape = shape

        def __len__(self):
            return 5

    with pytest.raises(ValueError, match="input width"):
        unallocated(base, 4)(Sized())


def test_input_without_shape_and_len_fails(base, framework_calls):
    with pytest.raises(TypeError, match="len"):
        unallocated(base)(5.0)
    assert framework_calls == []


def test_shape_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def shape(self):
            raise LookupError("shape")

    with pytest.raises(LookupError, match="shape"):
        unallocated(base)(Failing())


def test_call_without_an_allocation_computes_a_narrow_day(base):
    rotation = unallocated(base)
    assert rotation(np.zeros(6)).shape == (6,)


# batch_reference


def recording_call(base, outputs=None):
    """Make a rotation whose call records its arguments and returns rows of two."""
    calls = []

    def __call__(self, *args, context=None):
        calls.append((args, context))
        return np.array([len(calls), -1.0]) if outputs is None else outputs[len(calls) - 1]

    return make_rotation(base, attributes={"__call__": __call__}), calls


def test_batch_without_matrices_fails(base):
    with pytest.raises(ValueError, match="requires inputs") as caught:
        make_rotation(base, attributes={"_name": "R"}).batch_reference(context=Context())
    assert caught.value.args == ("R: batch_reference requires inputs",)


def test_batch_calls_once_per_row_with_that_row_of_each_matrix(base):
    rotation, calls = recording_call(base)
    first, second = np.arange(10.0).reshape(5, 2), np.arange(15.0).reshape(5, 3)
    result = rotation.batch_reference(first, second)
    assert len(calls) == 5
    for day, (args, context) in enumerate(calls):
        assert [row.tolist() for row in args] == [first[day].tolist(), second[day].tolist()]
        assert context.current_day_index == day
    assert result.tolist() == [[1, -1], [2, -1], [3, -1], [4, -1], [5, -1]]


def test_batch_rows_are_views_of_a_float64_matrix(base):
    rotation, calls = recording_call(base)
    matrix = np.zeros((2, 3))
    rotation.batch_reference(matrix)
    assert np.shares_memory(calls[1][0][0], matrix)


def test_batch_converts_matrices_to_float64(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference([[1, 2], [3, 4]])
    assert calls[1][0][0].dtype == np.float64
    assert calls[1][0][0].tolist() == [3.0, 4.0]


def test_batch_of_a_matrix_that_is_no_number_passes_numpys_error_on(base):
    rotation, calls = recording_call(base)
    with pytest.raises(ValueError, match="could not convert"):
        rotation.batch_reference([["a"]])
    assert calls == []


def test_batch_day_contexts_are_new_and_of_the_modules_class(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((3, 2)))
    contexts = [context for _, context in calls]
    assert [type(context) for context in contexts] == [base._VirtualContext] * 3
    assert len({id(context) for context in contexts}) == 3


def test_batch_day_is_a_plain_int(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)))
    assert [type(context.current_day_index) for _, context in calls] == [int, int]


def test_batch_looks_the_context_class_up_when_called(base):
    made = []

    def replacement(*args, **kwargs):
        made.append((args, kwargs))
        return "context"

    rotation, calls = recording_call(base)
    base._VirtualContext = replacement
    mask = np.ones((2, 2))
    rotation.batch_reference(np.zeros((2, 2)), context=Context(universe_mask=mask))
    assert [args[0] is mask for args, _ in made] == [True, True]
    assert [kwargs for _, kwargs in made] == [{"current_day_index": 0}, {"current_day_index": 1}]
    assert [context for _, context in calls] == ["context", "context"]


@pytest.mark.parametrize("context", [None, Context(), Context(universe_mask=None)])
def test_batch_without_a_mask_uses_ones_of_the_first_matrixs_shape(base, context):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((3, 2)), np.zeros((3, 5)), context=context)
    mask = calls[0][1].universe_mask
    assert mask.dtype == np.uint8
    assert mask.tolist() == [[1, 1]] * 3
    assert all(context.universe_mask is mask for _, context in calls)


def test_batch_passes_the_contexts_own_mask_to_every_day(base):
    rotation, calls = recording_call(base)
    mask = object()
    rotation.batch_reference(np.zeros((3, 2)), context=Context(universe_mask=mask))
    assert all(context.universe_mask is mask for _, context in calls)


def test_batch_replaces_the_contexts_day(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)), context=Context(current_day_index=40))
    assert [context.current_day_index for _, context in calls] == [0, 1]


def test_batch_mask_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def universe_mask(self):
            raise LookupError("mask")

    with pytest.raises(LookupError, match="mask"):
        make_rotation(base).batch_reference(np.zeros((2, 2)), context=Failing())


def test_batch_of_one_dimension_needs_a_mask(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(np.zeros(3))
    rotation.batch_reference(np.arange(3.0), context=Context(universe_mask=1))
    assert [args[0] for args, _ in calls] == [0.0, 1.0, 2.0]


def test_batch_of_no_dimension_fails(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(5.0)
    assert calls == []


def test_batch_of_no_days_passes_numpys_error_on(base):
    rotation, calls = recording_call(base)
    with pytest.raises(ValueError, match="at least one array"):
        rotation.batch_reference(np.zeros((0, 2)))
    assert calls == []


def test_batch_stops_at_the_end_of_a_shorter_later_matrix(base):
    rotation, calls = recording_call(base)
    with pytest.raises(IndexError):
        rotation.batch_reference(np.zeros((3, 2)), np.zeros((2, 2)))
    assert len(calls) == 2


def test_batch_ignores_the_rows_beyond_the_first_matrix(base):
    rotation, calls = recording_call(base)
    rotation.batch_reference(np.zeros((2, 2)), np.zeros((9, 2)))
    assert len(calls) == 2


def test_batch_of_outputs_of_different_widths_passes_numpys_error_on(base):
    rotation, _ = recording_call(base, outputs=[np.zeros(2), np.zeros(3)])
    with pytest.raises(ValueError, match="must match"):
        rotation.batch_reference(np.zeros((2, 2)))


def test_batch_stacks_whatever_the_calls_return(base):
    rotation, _ = recording_call(base, outputs=[[1, 2], [3, 4]])
    assert rotation.batch_reference(np.zeros((2, 2))).tolist() == [[1, 2], [3, 4]]


def test_batch_calls_the_class_not_an_instance_attribute(base):
    rotation, calls = recording_call(base)
    rotation.__call__ = None
    rotation.batch_reference(np.zeros((2, 2)))
    assert len(calls) == 2


def test_batch_is_measured_like_any_call(base):
    with pytest.raises(ValueError, match="input width must be <= 4"):
        unallocated(base, 4).batch_reference(np.zeros((2, 5)))


def test_batch_equals_a_call_per_row(base):
    def hook(space, rest, masks, combined, N):
        return [structure((leg,), [(leg, 0.5)], value) for leg, value in enumerate(space[:4])]

    matrix = np.random.default_rng(3).normal(size=(5, 6))
    matrix[1, 2] = NAN
    by_call = make_rotation(base, [hook] * 5)
    expected = np.array([by_call(row) for row in matrix])
    result = make_rotation(base, [hook] * 5).batch_reference(matrix)
    np.testing.assert_array_equal(result, expected)
    assert result.shape == (5, 6)


def test_batch_continues_from_the_state_and_leaves_the_last_day(base):
    rotation = make_rotation(base, [[SINGLE], [PAIR], [PAIR]])
    rotation(np.zeros(6))
    rotation.batch_reference(np.zeros((2, 6)))
    assert rotation.slot_by_key == {("c",): 0, ("a", "b"): 1}
    assert rotation._metadata_by_slot[0] == {"active": False}
    assert rotation._metadata_by_slot[1]["active"] is True


def test_batch_leaves_no_context(base):
    rotation = make_rotation(base)
    rotation.batch_reference(np.zeros((2, 6)))
    assert rotation._current_parent_context is None


def test_batch_stops_at_the_first_failing_day(base):
    error = LookupError("day")
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child, RaisingChild(error)])
    with pytest.raises(LookupError) as caught:
        rotation.batch_reference(np.zeros((3, 6)))
    assert caught.value is error
    assert len(child.calls) == 1


# On the package's own framework and children


def returns_hook(space, rest, masks, combined, N):
    """Every neighbouring pair, its value the difference of the two."""
    return [
        structure((leg, leg + 1), [(leg, 1.0), (leg + 1, -1.0)], space[leg] - space[leg + 1])
        for leg in range(N - 1)
    ]


def test_real_days_go_through_the_children_and_back(real_base):
    matrix = np.random.default_rng(11).normal(size=(30, 4))
    rotation = make_rotation(
        real_base,
        [returns_hook] * 30,
        N_alloc=4,
        max_structures=3,
        transformation_expression="ewma(5);rank",
    )
    by_hand = make_rotation(real_base, max_structures=3, transformation_expression="ewma(5);rank")
    result = rotation.batch_reference(matrix)
    for day, row in enumerate(matrix):
        context = by_hand._make_child_context(None, day)
        values = by_hand._run_child_chain(row[:-1] - row[1:], context)
        expected = np.zeros(4)
        expected[:-1] += values
        expected[1:] -= values
        np.testing.assert_allclose(result[day], expected, rtol=0, atol=1e-15)


def test_real_nan_input_makes_its_structures_invalid(real_base):
    rotation = make_rotation(real_base, [returns_hook], N_alloc=4, max_structures=3)
    result = rotation(np.array([1.0, 5.0, NAN, 2.0]))
    assert [entry["active"] for entry in rotation._metadata_by_slot] == [True, False, False]
    np.testing.assert_array_equal(result, [-4.0, 4.0, NAN, NAN])


def test_real_instrument_left_out_of_the_universe_makes_its_structures_invalid(real_base):
    rotation = make_rotation(real_base, [returns_hook] * 2, N_alloc=4, max_structures=3)
    mask = np.ones((2, 4), dtype=np.uint8)
    mask[1, 0] = 0
    matrix = np.array([[1.0, 2.0, 4.0, 8.0]] * 2)
    rotation.batch_reference(matrix, context=Context(universe_mask=mask))
    assert [entry["active"] for entry in rotation._metadata_by_slot] == [False, True, True]


def test_real_inputs_that_describe_structures_reach_the_hook(real_base):
    seen = []

    def hook(space, rest, masks, combined, N):
        seen.append([values.tolist() for values in rest])
        return []

    make_rotation(real_base, [hook])(np.zeros(6), np.arange(2.0), np.arange(6.0))
    assert seen == [[[0.0, 1.0], [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]]]
