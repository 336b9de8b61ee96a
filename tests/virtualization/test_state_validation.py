"""Every check of a state dictionary, in order, and the components that come out."""

import collections

import numpy as np
import pytest

from adversary.values.odd_numbers import Int
from support.fakes import make_rotation

NAN = float("nan")
KEY_A, KEY_B = ("a",), ("b", 2)


class Tuple(tuple):
    pass


class Dict(dict):
    pass


def good_state(**changes):
    """Make a valid state for four slots and six instruments, with entries replaced or added."""
    state = {
        "slot_by_key": {KEY_A: 0, KEY_B: 1},
        "key_by_slot": {0: KEY_A, 1: KEY_B},
        "legs_by_slot": {0: ((0, 1.0), (5, -0.5)), 1: ()},
        "structure_metadata_by_slot": [{"active": True, "slot": 0}, {}, {}, {}],
        "structure_N_limit": 6,
    }
    return {**state, **changes}


def validated(base, state, **constructor):
    return make_rotation(base, **constructor)._validate_state_components(state)


def message_for(base, state):
    """Validate the state, and return the message of the one ValueError it must raise."""
    rotation = make_rotation(base, attributes={"_name": "R"})
    before = dict(vars(rotation))
    with pytest.raises(ValueError, match="R: ") as caught:
        rotation._validate_state_components(state)
    assert vars(rotation) == before
    (message,) = caught.value.args
    return message


# What comes out


def test_valid_state_comes_back_as_a_tuple_of_five(base):
    result = validated(base, good_state())
    assert type(result) is tuple
    assert result == (
        {KEY_A: 0, KEY_B: 1},
        {0: KEY_A, 1: KEY_B},
        {0: ((0, 1.0), (5, -0.5)), 1: ()},
        [{"active": True, "slot": 0}, {}, {}, {}],
        6,
    )


def test_maps_that_come_out_are_new_plain_dicts(base):
    state = good_state(
        slot_by_key=Dict({KEY_A: 0}), key_by_slot=Dict({0: KEY_A}), legs_by_slot=Dict({0: ()})
    )
    result = validated(base, state)
    assert [type(part) for part in result[:3]] == [dict, dict, dict]


def test_empty_state_gives_empty_maps_and_the_full_width(base):
    slot_by_key, key_by_slot, legs_by_slot, _, limit = validated(base, {})
    assert slot_by_key == key_by_slot == legs_by_slot == {}
    assert limit == 6


def test_missing_metadata_gives_the_instances_own_list(base):
    rotation = make_rotation(base)
    assert rotation._validate_state_components({})[3] is rotation._metadata_by_slot


def test_metadata_of_none_gives_the_instances_own_list_untested(base):
    rotation = make_rotation(base)
    rotation._metadata_by_slot = own = object()
    state = good_state(structure_metadata_by_slot=None)
    assert rotation._validate_state_components(state)[3] is own


def test_slots_come_out_as_exact_ints(base):
    state = good_state(
        slot_by_key={KEY_A: Int(0)}, key_by_slot={Int(0): KEY_A}, legs_by_slot={Int(0): ()}
    )
    slot_by_key, key_by_slot, legs_by_slot, _, _ = validated(base, state)
    for slot in [*slot_by_key.values(), *key_by_slot, *legs_by_slot]:
        assert type(slot) is int


def test_keys_come_out_as_exact_tuples(base):
    state = {"slot_by_key": {Tuple("a"): 0}, "key_by_slot": {0: Tuple("a")}}
    slot_by_key, key_by_slot, _, _, _ = validated(base, state)
    assert type(next(iter(slot_by_key))) is tuple
    assert type(key_by_slot[0]) is tuple


def test_exact_tuple_keys_stay_the_same_objects(base):
    slot_by_key, key_by_slot, _, _, _ = validated(base, good_state())
    assert next(iter(slot_by_key)) is KEY_A
    assert key_by_slot[0] is KEY_A


def test_inverse_map_is_derived_from_the_slot_map(base):
    class Same(tuple):
        pass

    key = Same(KEY_A)
    state = {"slot_by_key": {KEY_A: 0}, "key_by_slot": {0: key}}
    assert validated(base, state)[1][0] is KEY_A


def test_maps_keep_the_slot_maps_order(base):
    state = {"slot_by_key": {KEY_B: 1, KEY_A: 0}, "key_by_slot": {0: KEY_A, 1: KEY_B}}
    slot_by_key, key_by_slot, _, _, _ = validated(base, state)
    assert list(slot_by_key) == [KEY_B, KEY_A]
    assert list(key_by_slot) == [1, 0]


def test_slots_need_not_be_dense(base):
    state = {"slot_by_key": {KEY_A: 3}, "key_by_slot": {3: KEY_A}}
    assert validated(base, state)[0] == {KEY_A: 3}


def test_legs_come_out_as_tuples_of_exact_pairs(base):
    state = good_state(legs_by_slot={0: [[Int(1), 2], Tuple((2, "0.5")), (3, np.float32(0.1))]})
    legs = validated(base, state)[2][0]
    assert legs == ((1, 2.0), (2, 0.5), (3, float(np.float32(0.1))))
    assert type(legs) is tuple
    assert {(type(leg), type(leg[0]), type(leg[1])) for leg in legs} == {(tuple, int, float)}


@pytest.mark.parametrize("legs", [[], ()])
def test_empty_legs_come_out_as_an_empty_tuple(base, legs):
    assert validated(base, good_state(legs_by_slot={1: legs}))[2] == {1: ()}


def test_legs_keep_their_order_and_duplicates(base):
    legs = ((3, 1.0), (0, 2.0), (3, -1.0))
    assert validated(base, good_state(legs_by_slot={0: legs}))[2] == {0: legs}


def test_slot_without_legs_has_none(base):
    assert validated(base, good_state(legs_by_slot={}))[2] == {}


def test_metadata_comes_out_as_a_list_of_plain_shallow_copies(base):
    note = [1]
    given = (Dict(note=note), {}, collections.OrderedDict(x=1), {})
    metadata = validated(base, good_state(structure_metadata_by_slot=given))[3]
    assert type(metadata) is list
    assert [type(entry) for entry in metadata] == [dict] * 4
    assert metadata[0] is not given[0]
    assert metadata[0]["note"] is note


def test_limit_comes_out_as_an_exact_int(base):
    assert type(validated(base, {"structure_N_limit": Int(3)})[4]) is int


@pytest.mark.parametrize("limit", [0, 1, 6])
def test_limit_from_zero_to_the_width_is_valid(base, limit):
    assert validated(base, {"structure_N_limit": limit})[4] == limit


def test_limit_of_none_means_the_full_width(base):
    assert validated(base, {"structure_N_limit": None})[4] == 6


def test_maps_of_exactly_the_capacity_are_valid(base):
    slot_by_key = {(slot,): slot for slot in range(4)}
    key_by_slot = {slot: (slot,) for slot in range(4)}
    state = good_state(
        slot_by_key=slot_by_key, key_by_slot=key_by_slot, legs_by_slot=dict.fromkeys(range(4), ())
    )
    assert validated(base, state)[0] == slot_by_key


def test_instance_is_left_unchanged(base):
    rotation = make_rotation(base)
    before = dict(vars(rotation))
    rotation._validate_state_components(good_state())
    assert list(vars(rotation)) == list(before)
    assert all(vars(rotation)[name] is value for name, value in before.items())


def test_state_is_left_unchanged(base):
    state, same = good_state(), good_state()
    validated(base, state)
    assert state == same


def test_entries_that_are_no_part_of_the_bookkeeping_are_ignored(base):
    state = good_state(constructor="?", child_states="?", further="?")
    assert validated(base, state)[4] == 6


def test_state_is_read_with_its_own_get_in_order(base):
    asked = []

    class State(dict):
        def get(self, key, default=None):
            asked.append((key, default))
            return super().get(key, default)

    validated(base, State(good_state()))
    assert asked == [
        ("slot_by_key", {}),
        ("key_by_slot", {}),
        ("legs_by_slot", {}),
        ("structure_metadata_by_slot", None),
        ("structure_N_limit", 6),
    ]


def test_state_needs_nothing_but_get(base):
    class State:
        def get(self, key, default=None):
            return good_state().get(key, default)

    assert validated(base, State())[0] == {KEY_A: 0, KEY_B: 1}


def test_maps_are_read_with_their_own_items(base):
    class Map(dict):
        def items(self):
            return [(KEY_A, 0)]

    state = {"slot_by_key": Map(), "key_by_slot": {0: KEY_A}}
    assert validated(base, state)[0] == {KEY_A: 0}


# What fails: one damaged entry each


@pytest.mark.parametrize("value", [None, [], (), "x", 5, {1, 2}])
@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot", "legs_by_slot"])
def test_map_that_is_no_dict_fails(base, name, value):
    assert message_for(base, good_state(**{name: value})) == f"R: {name} must be a dict"


@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot", "legs_by_slot"])
def test_map_of_more_entries_than_the_capacity_fails(base, name):
    state = good_state(**{name: dict.fromkeys(range(5))})
    assert message_for(base, state) == f"R: {name} exceeds max_structures"


@pytest.mark.parametrize("limit", [True, False, 2.0, "6", np.int64(3), [], NAN])
def test_limit_that_is_no_int_fails(base, limit):
    message = message_for(base, good_state(structure_N_limit=limit))
    assert message == "R: structure_N_limit must be an integer"


@pytest.mark.parametrize("limit", [-1, 7, 10**30, -(10**30)])
def test_limit_outside_the_width_fails(base, limit):
    message = message_for(base, good_state(structure_N_limit=limit))
    assert message == "R: structure_N_limit must be between 0 and N_alloc"


def test_missing_limit_without_an_allocation_fails(base):
    rotation = make_rotation(base)
    rotation._n_alloc = None
    with pytest.raises(ValueError, match="structure_N_limit must be an integer"):
        rotation._validate_state_components({})


@pytest.mark.parametrize("key", ["a", 1, None, frozenset("a"), 1.5])
def test_slot_map_key_that_is_no_tuple_fails(base, key):
    state = good_state(slot_by_key={key: 0}, key_by_slot={0: key})
    assert message_for(base, state) == "R: slot_by_key keys must be tuples"


def test_slot_map_whose_items_give_a_list_key_fails(base):
    class Map(dict):
        def items(self):
            return [([1], 0)]

    assert message_for(base, {"slot_by_key": Map()}) == "R: slot_by_key keys must be tuples"


@pytest.mark.parametrize("slot", [True, False, 0.0, "0", None, np.int64(0)])
def test_slot_that_is_no_int_fails(base, slot):
    state = good_state(slot_by_key={KEY_A: slot}, key_by_slot={0: KEY_A})
    assert message_for(base, state) == "R: slot values must be integers"


@pytest.mark.parametrize("slot", [-1, 4, 10**30, -(10**30)])
def test_slot_outside_the_capacity_fails(base, slot):
    state = good_state(slot_by_key={KEY_A: slot}, key_by_slot={slot: KEY_A})
    assert message_for(base, state) == "R: slot out of range"


def test_slot_given_to_two_keys_fails(base):
    state = good_state(slot_by_key={(1,): 0, (2,): 0})
    assert message_for(base, state) == "R: duplicate slot in slot_by_key"


@pytest.mark.parametrize("slot", [True, "0", 0.0, None, np.int64(0), (0,)])
def test_key_map_key_that_is_no_int_fails(base, slot):
    state = good_state(slot_by_key={KEY_A: 0}, key_by_slot={slot: KEY_A})
    assert message_for(base, state) == "R: key_by_slot keys must be integers"


@pytest.mark.parametrize("slot", [-1, 4, 10**30])
def test_key_map_slot_outside_the_capacity_fails(base, slot):
    state = good_state(key_by_slot={slot: KEY_A})
    assert message_for(base, state) == "R: key_by_slot slot out of range"


@pytest.mark.parametrize("key", [[1], "a", None, 5])
def test_key_map_value_that_is_no_tuple_fails(base, key):
    state = good_state(key_by_slot={0: key})
    assert message_for(base, state) == "R: key_by_slot values must be tuples"


@pytest.mark.parametrize(
    "key_by_slot",
    [
        {},
        {0: KEY_A},
        {0: KEY_A, 1: KEY_B, 2: ("c",)},
        {0: KEY_B, 1: KEY_A},
        {0: KEY_A, 2: KEY_B},
        {0: KEY_A, 1: ("b", 3)},
    ],
    ids=["empty", "missing", "extra", "swapped", "elsewhere", "other key"],
)
def test_key_map_that_is_not_the_inverse_fails(base, key_by_slot):
    state = good_state(key_by_slot=key_by_slot, legs_by_slot={})
    assert message_for(base, state) == "R: slot/key maps must be a bijection"


def test_key_map_without_a_slot_map_fails(base):
    assert message_for(base, {"key_by_slot": {0: KEY_A}}) == "R: slot/key maps must be a bijection"


def test_inverse_is_compared_by_equality(base):
    state = {"slot_by_key": {(1, True): 0}, "key_by_slot": {0: (1.0, 1)}}
    assert validated(base, state)[1] == {0: (1, True)}


def test_nan_in_a_key_equals_itself_when_it_is_the_same_object(base):
    state = {"slot_by_key": {(NAN,): 0}, "key_by_slot": {0: (NAN,)}}
    assert len(validated(base, state)[0]) == 1
    other = {"slot_by_key": {(NAN,): 0}, "key_by_slot": {0: (float("nan"),)}}
    assert message_for(base, other) == "R: slot/key maps must be a bijection"


@pytest.mark.parametrize("slot", [True, "0", 0.0, None, np.int64(0)])
def test_legs_map_key_that_is_no_int_fails(base, slot):
    message = message_for(base, good_state(legs_by_slot={slot: ()}))
    assert message == "R: legs_by_slot keys must be integers"


@pytest.mark.parametrize("slot", [2, -1, 4, 10**30])
def test_legs_of_a_slot_without_a_key_fail(base, slot):
    message = message_for(base, good_state(legs_by_slot={slot: ()}))
    assert message == "R: legs_by_slot references unknown slot"


@pytest.mark.parametrize("legs", [None, "ab", {0: 1.0}, 5, {(0, 1.0)}, iter([]), np.zeros((1, 2))])
def test_legs_that_are_no_list_or_tuple_fail(base, legs):
    message = message_for(base, good_state(legs_by_slot={0: legs}))
    assert message == "R: legs must be a list or tuple"


@pytest.mark.parametrize(
    "leg", [None, 5, "01", (), (1,), (1, 1.0, 2), [1], {0: 1, 1: 2}, np.array([1.0, 2.0])]
)
def test_leg_that_is_no_pair_fails(base, leg):
    message = message_for(base, good_state(legs_by_slot={0: [(0, 1.0), leg]}))
    assert message == "R: each leg must be a pair"


@pytest.mark.parametrize("leg_id", [True, 1.0, "1", None, np.int64(1)])
def test_leg_id_that_is_no_int_fails(base, leg_id):
    message = message_for(base, good_state(legs_by_slot={0: [(leg_id, 1.0)]}))
    assert message == "R: leg ids must be integers"


@pytest.mark.parametrize("leg_id", [-1, 6, 10**30, -(10**30)])
def test_leg_id_outside_the_width_fails(base, leg_id):
    message = message_for(base, good_state(legs_by_slot={0: [(leg_id, 1.0)]}))
    assert message == "R: leg id out of range"


def test_leg_id_is_bounded_by_the_limit_not_by_the_width(base):
    legs = {0: [(3, 1.0)]}
    assert validated(base, good_state(legs_by_slot=legs, structure_N_limit=4))[2] == {
        0: ((3, 1.0),)
    }
    message = message_for(base, good_state(legs_by_slot=legs, structure_N_limit=3))
    assert message == "R: leg id out of range"


@pytest.mark.parametrize("weight", [NAN, float("inf"), float("-inf"), "nan", np.float32("inf")])
def test_weight_that_is_not_finite_fails(base, weight):
    message = message_for(base, good_state(legs_by_slot={0: [(3, weight)]}))
    assert message == "R: leg weights must be finite"


@pytest.mark.parametrize(
    ("weight", "error"), [("x", ValueError), (None, TypeError), (10**400, OverflowError)]
)
def test_weight_that_float_cannot_convert_passes_the_error_on(base, weight, error):
    with pytest.raises(error) as caught:
        validated(base, good_state(legs_by_slot={0: [(3, weight)]}))
    assert "virtualization_base" not in str(caught.value)


@pytest.mark.parametrize("metadata", [{}, "abcd", 5, iter([]), {1, 2, 3, 4}, False, 0])
def test_metadata_that_is_no_list_or_tuple_fails(base, metadata):
    message = message_for(base, good_state(structure_metadata_by_slot=metadata))
    assert message == "R: structure_metadata_by_slot must be a list"


@pytest.mark.parametrize("metadata", [[], [{}] * 3, [{}] * 5, ()])
def test_metadata_of_another_length_fails(base, metadata):
    message = message_for(base, good_state(structure_metadata_by_slot=metadata))
    assert message == "R: structure_metadata_by_slot length must equal max_structures"


@pytest.mark.parametrize("entry", [None, [], "x", [("active", True)]])
def test_metadata_entry_that_is_no_dict_fails(base, entry):
    message = message_for(base, good_state(structure_metadata_by_slot=[{}, {}, {}, entry]))
    assert message == "R: metadata entries must be dicts"


def test_message_formats_a_name_that_is_no_string(base):
    class Name:
        def __format__(self, format_spec):
            return f"<{format_spec!r}>"

    rotation = make_rotation(base, attributes={"_name": Name()})
    with pytest.raises(ValueError, match="dict") as caught:
        rotation._validate_state_components({"slot_by_key": 1})
    assert caught.value.args == ("<''>: slot_by_key must be a dict",)


# The order of the checks: each state breaks one rule and every later one that it can

DAMAGE_IN_ORDER = [
    ({"slot_by_key": []}, "slot_by_key must be a dict"),
    ({"key_by_slot": []}, "key_by_slot must be a dict"),
    ({"legs_by_slot": []}, "legs_by_slot must be a dict"),
    ({"slot_by_key": dict.fromkeys("abcde", -1)}, "slot_by_key exceeds max_structures"),
    ({"key_by_slot": dict.fromkeys("abcde", -1)}, "key_by_slot exceeds max_structures"),
    ({"legs_by_slot": dict.fromkeys("abcde", -1)}, "legs_by_slot exceeds max_structures"),
    ({"structure_N_limit": 2.5}, "structure_N_limit must be an integer"),
    ({"structure_N_limit": -1}, "structure_N_limit must be between 0 and N_alloc"),
    ({"slot_by_key": {"a": "?"}}, "slot_by_key keys must be tuples"),
    ({"slot_by_key": {KEY_A: "?", "b": 9}}, "slot values must be integers"),
    ({"slot_by_key": {KEY_A: 9, KEY_B: "?"}}, "slot out of range"),
    ({"slot_by_key": {KEY_A: 0, KEY_B: 0, "c": 9}}, "duplicate slot in slot_by_key"),
    ({"key_by_slot": {"0": [], 9: KEY_A}}, "key_by_slot keys must be integers"),
    ({"key_by_slot": {9: [], "0": KEY_A}}, "key_by_slot slot out of range"),
    ({"key_by_slot": {0: [], 9: KEY_A}}, "key_by_slot values must be tuples"),
    ({"key_by_slot": {0: KEY_B}}, "slot/key maps must be a bijection"),
    ({"legs_by_slot": {"0": 5, 9: ()}}, "legs_by_slot keys must be integers"),
    ({"legs_by_slot": {9: 5, "0": ()}}, "legs_by_slot references unknown slot"),
    ({"legs_by_slot": {0: 5, 1: [5]}}, "legs must be a list or tuple"),
    ({"legs_by_slot": {0: [("x", NAN, 0), ("x", NAN)]}}, "each leg must be a pair"),
    ({"legs_by_slot": {0: [("x", NAN), 5]}}, "leg ids must be integers"),
    ({"legs_by_slot": {0: [(9, NAN), 5]}}, "leg id out of range"),
    ({"legs_by_slot": {0: [(0, NAN), 5], 9: ()}}, "leg weights must be finite"),
    ({"structure_metadata_by_slot": "abc"}, "structure_metadata_by_slot must be a list"),
    (
        {"structure_metadata_by_slot": [5] * 5},
        "structure_metadata_by_slot length must equal max_structures",
    ),
    ({"structure_metadata_by_slot": [{}, 5, {}, {}]}, "metadata entries must be dicts"),
]


@pytest.mark.parametrize("position", range(len(DAMAGE_IN_ORDER)))
def test_first_failing_check_is_reported_whatever_fails_later(base, position):
    state = {}
    for damage, _ in reversed(DAMAGE_IN_ORDER[position:]):
        state.update(damage)
    assert message_for(base, good_state(**state)) == f"R: {DAMAGE_IN_ORDER[position][1]}"
