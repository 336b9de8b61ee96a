"""compute: what each item does to the tables, and where a failing one stops."""

import collections

import numpy as np
import pytest

from support.fakes import ConstantChild, RecordingChild, make_rotation, structure
from virtualization.daily.helpers import NAN, PAIR, SINGLE, flagged, one_day


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
