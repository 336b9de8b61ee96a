"""set_state: what it puts in place, and what it refuses before any child is changed."""

import copy
import types

import numpy as np
import pytest

from support.fakes import (
    ConstantChild,
    ReadOnlyChild,
    RecordingChild,
    StatefulChild,
    WriteOnlyChild,
    make_rotation,
    structure,
)
from virtualization.state_restore import (
    OWN,
    after_one_day,
    assert_own_attributes_untouched,
    own_attributes,
    state_for,
)

# Success


def test_set_state_returns_none(base):
    assert make_rotation(base).set_state({}) is None


def test_state_of_an_unchanged_rotation_restores_to_the_same(base):
    rotation = after_one_day(base, StatefulChild())
    before = copy.deepcopy(own_attributes(rotation))
    rotation.set_state(rotation.get_state())
    assert own_attributes(rotation) == before


def test_state_replaces_the_five_attributes(base):
    rotation = after_one_day(base)
    rotation.set_state(state_for())
    assert own_attributes(rotation) == {
        "slot_by_key": {("z",): 1},
        "key_by_slot": {1: ("z",)},
        "_legs_by_slot": {1: ((2, 1.0),)},
        "_metadata_by_slot": [{}, {"active": True}, {}, {}],
        "_structure_N_limit": 5,
    }


def test_restored_rotation_shares_no_container_with_the_state(base):
    rotation = make_rotation(base)
    state = state_for()
    rotation.set_state(state)
    state["slot_by_key"].clear()
    state["key_by_slot"].clear()
    state["legs_by_slot"].clear()
    state["structure_metadata_by_slot"][1].clear()
    assert rotation.slot_by_key == {("z",): 1}
    assert rotation.key_by_slot == {1: ("z",)}
    assert rotation._legs_by_slot == {1: ((2, 1.0),)}
    assert rotation._metadata_by_slot[1] == {"active": True}


def test_maps_that_others_hold_are_replaced_not_changed(base):
    rotation = after_one_day(base)
    held = rotation.slot_by_key
    rotation.set_state(state_for())
    assert held == {("a", "b"): 0}


def test_attributes_are_assigned_in_the_documented_order(base):
    written = []

    def __setattr__(self, name, value):
        written.append(name)
        object.__setattr__(self, name, value)

    rotation = make_rotation(base, attributes={"__setattr__": __setattr__})
    written.clear()
    rotation.set_state(state_for())
    assert written == OWN


def test_attributes_are_the_validated_components_themselves(base):
    components = tuple(object() for _ in range(5))
    attributes = {"_validate_state_components": lambda self, state: components}
    rotation = make_rotation(base, attributes=attributes)
    rotation.set_state({})
    assert tuple(getattr(rotation, name) for name in OWN) == components


def test_empty_state_clears_the_maps_and_keeps_the_metadata_list(base):
    rotation = after_one_day(base)
    rotation._structure_N_limit = 3
    metadata = rotation._metadata_by_slot
    rotation.set_state({})
    assert rotation.slot_by_key == rotation.key_by_slot == rotation._legs_by_slot == {}
    assert rotation._metadata_by_slot is metadata
    assert metadata[0]["active"] is True
    assert rotation._structure_N_limit == 6


def test_metadata_list_is_reassigned_even_when_it_is_the_same(base):
    written = []

    def __setattr__(self, name, value):
        written.append(name)
        object.__setattr__(self, name, value)

    rotation = make_rotation(base, attributes={"__setattr__": __setattr__})
    written.clear()
    rotation.set_state({})
    assert written == OWN


def test_empty_state_fails_with_children(base):
    rotation = after_one_day(base, RecordingChild())
    before = own_attributes(rotation)
    with pytest.raises(ValueError, match="child_states length must equal child_rotations"):
        rotation.set_state({})
    assert_own_attributes_untouched(rotation, before)


def test_dict_subclass_is_a_state(base):
    class State(dict):
        pass

    rotation = make_rotation(base)
    rotation.set_state(State(state_for()))
    assert rotation.slot_by_key == {("z",): 1}


def test_constructor_entry_is_ignored(base):
    rotation = make_rotation(base)
    constructor = {"max_structures": 99, "unmap_policy": "equal_split", "N_alloc": 1}
    rotation.set_state({**state_for(), "constructor": constructor})
    assert (rotation.max_structures, rotation.unmap_policy) == (4, "proportional")
    assert rotation._n_alloc == 6
    rotation.set_state({"constructor": "nonsense"})


def test_nothing_else_is_reset(base):
    rotation = after_one_day(base, trace_sink=[])
    others = {name: value for name, value in vars(rotation).items() if name not in OWN}
    contents = copy.deepcopy(others)
    rotation.set_state(state_for())
    now = {name: value for name, value in vars(rotation).items() if name not in OWN}
    assert list(now) == list(others)
    assert all(now[name] is value for name, value in others.items())
    np.testing.assert_equal(now, contents)


def test_no_refresh_runs(base):
    rotation = after_one_day(base)
    calls = len(rotation.hook_calls)
    rotation.set_state(state_for())
    assert len(rotation.hook_calls) == calls


def test_next_day_goes_on_from_the_restored_maps(base):
    items = [structure(("new",), [(3, 1.0)], 4.0)]
    rotation = make_rotation(base, [items], child_rotations=[ConstantChild([5.0, 6.0, 7.0, 8.0])])
    rotation.set_state(state_for({}))
    result = rotation(np.zeros(6))
    assert rotation.slot_by_key == {("z",): 1, ("new",): 1}
    np.testing.assert_array_equal(result, [np.nan, np.nan, np.nan, 6.0, np.nan, np.nan])


def test_child_receives_the_entry_itself(base):
    child = StatefulChild()
    entry = {"total": 5.0, "history": []}
    make_rotation(base, child_rotations=[child]).set_state(state_for(entry))
    assert child.log[-1][1] is entry


def test_children_are_set_in_order_after_all_were_read(base):
    log = []

    class Child(StatefulChild):
        def __init__(self, name):
            super().__init__()
            self.name = name

        def get_state(self):
            log.append(("get", self.name))

        def set_state(self, state):
            log.append(("set", self.name, state))

    children = [Child("first"), Child("second")]
    make_rotation(base, child_rotations=children).set_state(state_for("a", "b"))
    assert log == [
        ("get", "first"),
        ("get", "second"),
        ("set", "first", "a"),
        ("set", "second", "b"),
    ]


def test_child_without_set_state_is_passed_over(base):
    children = [RecordingChild(), StatefulChild(), ReadOnlyChild("x")]
    make_rotation(base, child_rotations=children).set_state(state_for("a", "b", "c"))
    assert children[1].state == "b"


def test_child_receives_even_none(base):
    child = StatefulChild()
    make_rotation(base, child_rotations=[child]).set_state(state_for(None))
    assert child.log[-1] == ("set", None)


def test_own_attributes_are_still_the_old_ones_while_children_are_set(base):
    seen = []

    class Child(StatefulChild):
        def set_state(self, state):
            seen.append(dict(rotation.slot_by_key))

    rotation = after_one_day(base, Child())
    rotation.set_state(state_for({}))
    assert seen == [{("a", "b"): 0}]


def test_steps_are_found_on_the_instance(base):
    called = []

    def watch(name):
        def method(self, *args):
            called.append(name)
            return getattr(super(type(self), self), name)(*args)

        return method

    names = ["_validate_state_components", "_validate_child_states", "_snapshot_child_states"]
    rotation = make_rotation(base, attributes={name: watch(name) for name in names})
    rotation.set_state(state_for())
    assert called == names


# Failure before any child is changed


@pytest.mark.parametrize("state", [None, [], (), "x", 5, [("slot_by_key", {})]])
def test_state_that_is_no_dict_fails(base, state):
    rotation = make_rotation(base, attributes={"_name": "R"})
    with pytest.raises(ValueError, match="dict") as caught:
        rotation.set_state(state)
    assert caught.value.args == ("R: state must be a dict",)


def test_mapping_that_is_no_dict_fails(base):
    with pytest.raises(ValueError, match="state must be a dict"):
        make_rotation(base).set_state(types.MappingProxyType({}))


@pytest.mark.parametrize(
    "damage",
    [{"slot_by_key": []}, {"structure_metadata_by_slot": 5}, {"child_states": None}],
)
def test_invalid_state_changes_nothing_and_touches_no_child(base, damage):
    child = StatefulChild()
    rotation = after_one_day(base, child)
    before = own_attributes(rotation)
    with pytest.raises(ValueError, match="virtualization_base: "):
        rotation.set_state({**state_for({}), **damage})
    assert_own_attributes_untouched(rotation, before)
    assert child.log == []


def test_components_are_checked_before_the_child_states(base):
    with pytest.raises(ValueError, match="slot_by_key must be a dict"):
        make_rotation(base).set_state({"slot_by_key": 5, "child_states": 5})


def test_child_states_are_checked_before_the_snapshots(base):
    rotation = make_rotation(base, child_rotations=[WriteOnlyChild()])
    with pytest.raises(ValueError, match="child_states length"):
        rotation.set_state(state_for())


def test_child_that_can_be_set_but_not_read_fails_before_any_child_is_set(base):
    child = StatefulChild()
    rotation = after_one_day(base, child, WriteOnlyChild())
    before = own_attributes(rotation)
    with pytest.raises(ValueError, match="must also expose get_state"):
        rotation.set_state(state_for({}, {}))
    assert_own_attributes_untouched(rotation, before)
    assert child.log == [("get",)]


def test_error_of_a_childs_get_state_propagates_before_any_child_is_set(base):
    error = LookupError("get")

    class Child(StatefulChild):
        def get_state(self):
            raise error

    first = StatefulChild()
    rotation = after_one_day(base, first, Child())
    before = own_attributes(rotation)
    with pytest.raises(LookupError) as caught:
        rotation.set_state(state_for({}, {}))
    assert caught.value is error
    assert_own_attributes_untouched(rotation, before)
    assert first.log == [("get",)]


# On the package's own children


@pytest.mark.parametrize(
    "expression", ["none", "ewma(4)", "ewma(3);rank", "zscore;ewma(2);sigmoid"]
)
def test_restored_rotation_goes_on_bit_for_bit(real_base, expression):
    def hook(space, rest, masks, combined, N):
        return [structure((leg,), [(leg, 1.0)], value) for leg, value in enumerate(space[:4])]

    matrix = np.random.default_rng(8).normal(size=(12, 6))
    matrix[np.random.default_rng(9).random(matrix.shape) < 0.1] = np.nan

    def fresh():
        return make_rotation(real_base, [hook] * 12, transformation_expression=expression)

    uninterrupted = fresh()
    expected = [uninterrupted(row) for row in matrix]
    first, second = fresh(), fresh()
    for row in matrix[:7]:
        first(row)
    second.set_state(copy.deepcopy(first.get_state()))
    for row, output in zip(matrix[7:], expected[7:], strict=True):
        assert second(row).tobytes() == output.tobytes()
