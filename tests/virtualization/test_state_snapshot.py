"""What get_state hands out, and what it shares."""

import collections

import numpy as np
import pytest

from support.fakes import ReadOnlyChild, RecordingChild, StatefulChild, make_rotation, structure

PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)


def after_one_day(base, **constructor):
    rotation = make_rotation(base, [[PAIR]], **constructor)
    rotation(np.zeros(6))
    return rotation


def test_state_has_exactly_the_documented_keys_in_order(base):
    assert list(make_rotation(base).get_state()) == [
        "constructor",
        "slot_by_key",
        "key_by_slot",
        "legs_by_slot",
        "structure_metadata_by_slot",
        "structure_N_limit",
        "child_states",
    ]


def test_state_is_a_plain_dict(base):
    assert type(make_rotation(base).get_state()) is dict


def test_constructor_entry_tells_the_configuration_in_order(base):
    rotation = make_rotation(base, transformation_expression=" none ", unmap_policy="equal_split")
    assert list(rotation.get_state()["constructor"].items()) == [
        ("max_structures", 4),
        ("transformation_expression", " none "),
        ("unmap_policy", "equal_split"),
        ("N_alloc", 6),
    ]


def test_constructor_entry_is_read_from_the_attributes_of_the_moment(base):
    rotation = make_rotation(base)
    values = [object() for _ in range(4)]
    rotation.max_structures, rotation.transformation_expression = values[:2]
    rotation.unmap_policy, rotation._n_alloc = values[2:]
    assert list(rotation.get_state()["constructor"].values()) == values


def test_fresh_rotation_has_empty_maps_and_inactive_metadata(base):
    state = make_rotation(base).get_state()
    assert state["slot_by_key"] == state["key_by_slot"] == state["legs_by_slot"] == {}
    assert state["structure_metadata_by_slot"] == [{"active": False}] * 4
    assert state["structure_N_limit"] == 6
    assert state["child_states"] == []


def test_state_after_a_day_holds_its_bookkeeping(base):
    state = after_one_day(base).get_state()
    legs = ((0, 1.0), (1, -1.0))
    assert state["slot_by_key"] == {("a", "b"): 0}
    assert state["key_by_slot"] == {0: ("a", "b")}
    assert state["legs_by_slot"] == {0: legs}
    assert state["structure_metadata_by_slot"][0] == {
        "key": ("a", "b"),
        "legs": legs,
        "slot": 0,
        "active": True,
    }


@pytest.mark.parametrize(
    ("entry", "attribute"),
    [
        ("slot_by_key", "slot_by_key"),
        ("key_by_slot", "key_by_slot"),
        ("legs_by_slot", "_legs_by_slot"),
    ],
)
def test_map_is_a_new_plain_dict_that_shares_keys_and_values(base, entry, attribute):
    rotation = make_rotation(base)
    key, value = ("k",), ["v"]
    live = collections.OrderedDict({key: value})
    setattr(rotation, attribute, live)
    copied = rotation.get_state()[entry]
    assert type(copied) is dict
    assert copied is not live
    assert next(iter(copied)) is key
    assert copied[key] is value


def test_map_in_the_state_does_not_follow_later_days(base):
    rotation = make_rotation(base, [[], [PAIR]])
    rotation(np.zeros(6))
    state = rotation.get_state()
    rotation(np.zeros(6))
    assert state["slot_by_key"] == state["key_by_slot"] == state["legs_by_slot"] == {}


def test_metadata_list_is_new(base):
    rotation = make_rotation(base)
    copied = rotation.get_state()["structure_metadata_by_slot"]
    copied.clear()
    assert len(rotation._metadata_by_slot) == 4


def test_metadata_dicts_are_the_live_ones(base):
    rotation = after_one_day(base)
    copied = rotation.get_state()["structure_metadata_by_slot"]
    assert all(one is other for one, other in zip(copied, rotation._metadata_by_slot, strict=True))


def test_metadata_in_the_state_shows_the_next_days_reset(base):
    rotation = after_one_day(base)
    state = rotation.get_state()
    rotation(np.zeros(6))
    assert state["structure_metadata_by_slot"][0] == {"active": False}


def test_metadata_of_any_sequence_becomes_a_list(base):
    rotation = make_rotation(base)
    rotation._metadata_by_slot = ({"active": False},)
    assert rotation.get_state()["structure_metadata_by_slot"] == [{"active": False}]


def test_limit_is_the_attribute_itself(base):
    rotation = make_rotation(base)
    rotation._structure_N_limit = limit = object()
    assert rotation.get_state()["structure_N_limit"] is limit


def test_child_states_come_in_the_childrens_order(base):
    children = [ReadOnlyChild("first"), StatefulChild(2.0), ReadOnlyChild("third")]
    states = make_rotation(base, child_rotations=children).get_state()["child_states"]
    assert states == ["first", {"total": 2.0, "history": []}, "third"]


def test_child_state_is_what_the_child_returned(base):
    child = StatefulChild()
    state = make_rotation(base, child_rotations=[child]).get_state()
    assert state["child_states"][0] is child.state


def test_child_without_get_state_gets_its_own_empty_dict(base):
    children = [RecordingChild(), RecordingChild()]
    first, second = make_rotation(base, child_rotations=children).get_state()["child_states"]
    assert first == second == {}
    assert first is not second


def test_child_whose_get_state_property_raises_attribute_error_counts_as_without(base):
    class Hidden:
        @property
        def get_state(self):
            raise AttributeError("hidden")

    state = make_rotation(base, child_rotations=[Hidden()]).get_state()
    assert state["child_states"] == [{}]


def test_child_whose_get_state_property_raises_another_error_passes_it_on(base):
    class Failing:
        @property
        def get_state(self):
            raise LookupError("property")

    with pytest.raises(LookupError, match="property"):
        make_rotation(base, child_rotations=[Failing()]).get_state()


@pytest.mark.parametrize("error", [LookupError("state"), KeyboardInterrupt()])
def test_child_error_propagates_as_the_same_object(base, error):
    class Failing:
        def get_state(self):
            raise error

    with pytest.raises(type(error)) as caught:
        make_rotation(base, child_rotations=[Failing()]).get_state()
    assert caught.value is error


def test_missing_attribute_passes_its_error_on(base):
    rotation = make_rotation(base)
    del rotation._legs_by_slot
    with pytest.raises(AttributeError, match="_legs_by_slot"):
        rotation.get_state()


def test_snapshot_changes_nothing(base):
    rotation = after_one_day(base)
    before = dict(vars(rotation))
    rotation.get_state()
    assert list(vars(rotation)) == list(before)
    assert all(vars(rotation)[name] is value for name, value in before.items())


def test_buffers_are_no_part_of_the_state(base):
    values = make_rotation(base).get_state().values()
    assert not any(isinstance(value, np.ndarray) for value in values)


def test_real_children_report_their_states(real_base):
    rotation = make_rotation(real_base, transformation_expression="ewma(3);rank")
    states = rotation.get_state()["child_states"]
    assert len(states) == 2
    assert states[0] is not None
