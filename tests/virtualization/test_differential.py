"""Random days and random states through the native module and its plain twin, bit for bit."""

import copy
import functools
import os
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import HealthCheck, assume, example, given, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule

from support import frozen
from support.days import (
    CHANGES_BY_NAME,
    CHILD_KINDS,
    ODD_CHILD_KINDS,
    STEPS,
    SubDict,
    Thing,
    build_child,
    build_item,
    day_rotation_class,
    run_days,
)
from support.siblings import Siblings, installed_real_base, load_base

NAN = float("nan")
INF = float("inf")
HUGE = 10**400

# One run always tries the same examples; QUORVANE_TEST_EFFORT=20 tries 20 times as many new ones.
EFFORT = int(os.environ.get("QUORVANE_TEST_EFFORT", "1"))


def effort(examples, **further):
    """Make the settings of one property: the number of examples, the same in every plain run."""
    return settings(
        max_examples=examples * EFFORT,
        deadline=None,
        derandomize=EFFORT == 1,
        database=None,
        suppress_health_check=list(HealthCheck),
        **further,
    )


FAST = effort(80)


class Int(int):
    """Int subclass as an id."""


class Float(float):
    """Float subclass as a weight or value."""


class Key(tuple):
    """Tuple subclass as a key."""


@functools.cache
def both():
    """Load both modules once, on the same siblings."""
    siblings = Siblings()
    return load_base("native", siblings), load_base("twin", siblings)


# Strategies: mostly well-formed days, with every kind of oddity mixed in

plain_ids = st.integers(0, 5)
odd_ids = st.sampled_from(
    [
        -1,
        -2,
        6,
        9,
        2.9,
        -0.5,
        "3",
        " 4 ",
        "x",
        b"2",
        True,
        None,
        NAN,
        INF,
        2**70,
        -(2**70),
        Int(2),
        np.int64(1),
        np.uint8(5),
        np.int32(-1),
        np.float64(3.7),
        np.bool_(True),
        Decimal("2.5"),
        Fraction(7, 2),
        1j,
        np.datetime64("2020-01-01"),
        [1],
    ]
)
ids = st.one_of(plain_ids, plain_ids, plain_ids, plain_ids, odd_ids)
plain_weights = st.one_of(
    st.sampled_from([1.0, -1.0, 0.5, 0.0, -0.0, 1e300, 1e-320]), st.floats(-3.0, 3.0)
)
odd_weights = st.sampled_from(
    [
        NAN,
        INF,
        -INF,
        1,
        -2,
        True,
        "0.5",
        " -1e3 ",
        "nan",
        "x",
        b"1.5",
        None,
        HUGE,
        Float(0.3),
        np.float32(0.1),
        np.float64(-0.7),
        np.int64(3),
        np.bool_(False),
        Decimal("0.1"),
        Fraction(1, 3),
        1j,
        np.array(2.0),
        [1.0],
    ]
)
weights = st.one_of(plain_weights, plain_weights, plain_weights, odd_weights)
plain_legs = st.lists(st.tuples(plain_ids, plain_weights), max_size=3)
odd_legs = st.one_of(
    st.lists(st.tuples(ids, weights), max_size=3).map(tuple),
    st.lists(st.tuples(ids, weights).map(list), max_size=3),
    st.lists(st.tuples(ids, weights), max_size=2).map(lambda legs: ("iter", legs)),
    st.lists(st.tuples(ids, weights), max_size=2).map(lambda legs: ("generator", legs)),
    st.sampled_from(
        [
            None,
            5,
            "ab",
            "12",
            ["12", "34"],
            [(1,)],
            [(1, 2.0, 3)],
            [5],
            [None],
            {(1, 0.5): 0},
            [b"\x01\x02"],
            [{1: 0, 2: 0}],
            range(3),
            [range(2)],
            [()],
            ("array", [[1.0, 0.5], [2.0, -0.5]]),
            [("iter", [1, 2.0])],
        ]
    ),
)
legs = st.one_of(plain_legs, plain_legs.map(tuple), odd_legs)
# The same tuple objects day after day, as a rotation that keeps its legs reports them.
KEPT_LEGS = [(), ((0, 1.0),), ((0, 1.0), (1, -1.0)), ((5, 0.5), (5, 0.25)), ((2, 0.0), (3, -2.0))]
kept_legs = st.one_of(st.sampled_from(KEPT_LEGS), plain_legs.map(tuple))
plain_keys = st.sampled_from([("a",), ("b",), ("a", "b"), (), (1,), ("c", 2)])
odd_keys = st.sampled_from(
    [
        ["a"],
        ["a", "b"],
        "a",
        "ab",
        "",
        (1.0,),
        (True,),
        (NAN,),
        ("a", None),
        Key("a"),
        range(2),
        b"a",
        {"a": 1},
        5,
        None,
        ([],),
        [[]],
        ("array", [1, 2]),
        ((("deep",),),),
        (np.int64(1),),
    ]
)
keys = st.one_of(plain_keys, plain_keys, plain_keys, odd_keys)
plain_values = st.one_of(
    st.floats(-5.0, 5.0), st.sampled_from([0.0, -0.0, NAN, INF, -INF, 1e308, 0.7, 0.9, 5.0])
)
odd_values = st.sampled_from(
    [
        1,
        True,
        "1.5",
        "inf",
        "x",
        None,
        b"2",
        HUGE,
        1j,
        Float(1.5),
        Decimal("1.5"),
        Fraction(1, 3),
        np.float32(0.1),
        np.float64(2.5),
        np.int64(7),
        np.array(1.5),
        [1.0],
    ]
)
values = st.one_of(plain_values, plain_values, plain_values, odd_values)
metadata = st.sampled_from(
    [
        None,
        {},
        {"note": 1},
        {"key": "mine"},
        {"legs": "mine", "x": 2},
        {"slot": "?", "active": "?"},
        {"deep": {"list": [1]}},
        {1: 2, None: 3},
        [("x", 1)],
        (),
        "",
        0,
        False,
        5,
        "xy",
        [1],
        [("a", 1, 2)],
        SubDict(x=1),
        ("pairing", {"p": 1}),
        ("generator", [("g", 1)]),
        ("iter", []),
        [[]],
        [([], 1)],
    ]
)


@st.composite
def plain_item_specs(draw):
    """Draw one well-formed item's plain description."""
    fields = {"key": draw(plain_keys), "legs": draw(kept_legs), "value": draw(plain_values)}
    if draw(st.booleans()):
        fields["metadata"] = draw(st.sampled_from([None, {}, {"note": 1}, {"key": "mine"}]))
    return draw(st.sampled_from(["dict", "record", "object"])), fields


@st.composite
def item_specs(draw):
    """Draw one item's plain description; now and then a field is missing or the form is odd."""
    if draw(st.integers(0, 4)):
        fields = {"key": draw(plain_keys), "legs": draw(plain_legs), "value": draw(plain_values)}
    else:
        fields = {"key": draw(keys), "legs": draw(legs), "value": draw(values)}
    if draw(st.booleans()):
        fields["metadata"] = draw(metadata)
    form = draw(st.sampled_from(["dict", "record", "object", "namespace"] * 3 + ODD_FORMS))
    if not draw(st.integers(0, 19)):
        del fields[draw(st.sampled_from(sorted(fields)))]
        fields.setdefault("key", ())
    return form, fields


ODD_FORMS = ["ordered", "subclass", "own get", "raw"]

inputs = st.lists(st.floats(-2, 2) | st.just(NAN) | st.just(1.0), min_size=0, max_size=6)
contexts = st.sampled_from(
    [
        None,
        {},
        {"current_day_index": 3},
        {"current_day_index": "2"},
        {"current_day_index": -4},
        {"current_day_index": 2.9},
        {"current_day_index": "x"},
        {"current_day_index": None},
        {"current_day_index": np.int64(1), "universe_mask": None},
    ]
)
bits = st.lists(st.sampled_from([0, 0, 0, 1]), min_size=5, max_size=6)
one_mask = st.one_of(
    bits.map(lambda parts: np.array(parts, dtype=np.uint8)),
    bits.map(lambda parts: np.array(parts, dtype=bool)),
    bits.map(lambda parts: np.array(parts, dtype=np.float64)),
    bits.map(lambda parts: np.repeat(np.array(parts, dtype=np.uint8), 2)[::2]),
    bits.map(lambda parts: np.array(parts, dtype=np.uint8)[::-1]),
    bits.map(lambda parts: np.array(parts, dtype=object)),
    bits,
    st.just(np.zeros(3, dtype=np.uint8)),
    st.just(np.zeros((6, 2), dtype=np.uint8)),
)


@st.composite
def own_masks(draw):
    """Draw masks, combined mask, live count and buffer size for a direct call of compute."""
    masks = draw(st.lists(one_mask, max_size=2))
    masks = draw(st.sampled_from([tuple, list]))(masks)
    size = draw(st.sampled_from([6, 6, 6, 4, 8]))
    return masks, draw(one_mask), draw(st.sampled_from([6, 6, 5, 3, 0])), size


@st.composite
def day_specs(draw, items):
    return {
        "items": draw(st.lists(items, max_size=4)),
        "delivery": draw(
            st.sampled_from(["list"] * 4 + ["tuple", "iterator", "deque", "values", "generator"])
        ),
        "inputs": [draw(inputs)] + [draw(inputs)] * draw(st.integers(0, 1)),
        "masks": draw(st.one_of(st.none(), own_masks())),
        "context": draw(contexts) if draw(st.booleans()) else None,
        "change": draw(st.sampled_from([None] * 20 + sorted(CHANGES_BY_NAME))),
    }


@st.composite
def scenarios(draw, items=None, capacity=None):
    """Draw a scenario of odd items, or of the items and the capacity given."""
    items = item_specs() if items is None else items
    children = st.lists(st.sampled_from(CHILD_KINDS), max_size=3)
    odd = st.lists(st.sampled_from(CHILD_KINDS + ODD_CHILD_KINDS), max_size=3)
    return {
        "max_structures": capacity or draw(st.integers(1, 5)),
        "policy": draw(st.sampled_from(["proportional", "equal_split"])),
        "children": draw(st.one_of(children, children, children, odd)),
        "trace": draw(st.booleans()),
        "skip_on_empty": draw(st.booleans()),
        "days": draw(st.lists(day_specs(items), min_size=1, max_size=5)),
    }


def assert_same(scenario, **overrides):
    """Play the scenario on both modules, compare the whole logs, and return the native one."""
    native, twin = (run_days(base, scenario, **overrides) for base in both())
    for position, (one, other) in enumerate(zip(native, twin, strict=False)):
        assert one == other, f"entry {position} of the log"
    assert len(native) == len(twin)
    return native


# Edits of the item list that the hook reports again


@st.composite
def bare_item_specs(draw):
    """Draw one well-formed item without metadata, as a rotation reports it day after day."""
    fields = {"key": draw(plain_keys), "legs": draw(kept_legs), "value": draw(plain_values)}
    return draw(st.sampled_from(["dict", "dict", "record"])), fields


steady_changes = st.sampled_from(
    [None] * 12
    + ["hold_metadata", "edit_held_metadata", "release_metadata", "swap_metadata"] * 2
    + ["repeat_metadata", "equal_metadata", "inactive_metadata", "swap_slots", "swap_legs"] * 2
    + sorted(CHANGES_BY_NAME)
)

ITEM_EDITS = {
    "nothing": lambda items: None,
    "legs list edited": lambda items: legs_of(items).append((3, 0.25)),
    "legs replaced": lambda items: set_field(items, "legs", ((4, 2.0), (5, -2.0))),
    "value replaced": lambda items: set_field(items, "value", 9.0),
    "metadata replaced": lambda items: set_field(items, "metadata", {"new": [1]}),
    "key replaced": lambda items: set_field(items, "key", ("later",)),
    "order reversed": lambda items: items.reverse(),
    "item repeated": lambda items: items.append(items[0]),
    "item dropped": lambda items: items.pop(),
}


def legs_of(items):
    return items[0]["legs"] if isinstance(items[0], dict) else items[0].legs


def set_field(items, name, value):
    if isinstance(items[0], dict):
        items[0][name] = value
    else:
        setattr(items[0], name, value)


# Days


@FAST
@given(scenarios())
def test_random_days_are_the_same_on_both(scenario):
    assert_same(scenario)


@FAST
@given(scenarios(plain_item_specs(), capacity=7))
def test_random_well_formed_days_are_the_same_on_both(scenario):
    assert_same(scenario)


@FAST
@given(scenarios(), st.sets(st.sampled_from(STEPS), min_size=1))
def test_random_days_with_steps_overridden_on_the_class_are_the_same(scenario, steps):
    assert_same(scenario, on_class=sorted(steps))


@FAST
@given(scenarios(), st.sets(st.sampled_from(STEPS), min_size=1))
def test_random_days_with_steps_overridden_on_the_instance_are_the_same(scenario, steps):
    assert_same(scenario, on_instance=sorted(steps))


@FAST
@given(scenarios(), st.sampled_from(STEPS))
def test_override_that_only_calls_super_changes_nothing(scenario, step):
    native, _ = both()
    plain = run_days(native, scenario)
    on_class = run_days(native, scenario, on_class=[step], with_calls=False)
    unframed = [without_frames(entry) for entry in plain]
    assert [without_frames(entry) for entry in on_class] == unframed
    # A copy would share the override of the original, which then records into the original.
    assume(not any("copy" in (day["change"] or "") for day in scenario["days"]))
    on_instance = run_days(native, scenario, on_instance=[step], with_calls=False)
    assert [without_frames(entry) for entry in on_instance] == unframed


@FAST
@given(scenarios())
def test_same_days_again_are_the_same_days(scenario):
    native, _ = both()
    assert run_days(native, scenario) == run_days(native, scenario)


def without_frames(entry):
    """Leave a failing day's outcome without the names of the functions it passed through."""
    return (*entry[:2], entry[-1]) if entry and entry[0] == "raised" else entry


@pytest.mark.parametrize("change", sorted(CHANGES_BY_NAME))
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
def test_attributes_changed_between_days_are_used_by_the_next(change, policy):
    """Steady days, so that anything kept from the day before would show."""
    day = {
        "items": [
            ("dict", {"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 2.0}),
            ("record", {"key": ("b",), "legs": ((2, 0.5),), "value": 3.0, "metadata": {"x": 1}}),
        ],
        "delivery": "list",
        "inputs": [[1.0] * 6],
        "masks": None,
        "context": None,
        "change": None,
    }
    empty = {**day, "items": []}
    scenario = {
        "max_structures": 3,
        "policy": policy,
        "children": ["fill", "sum"],
        "trace": True,
        "skip_on_empty": False,
        "days": [day, day, {**day, "change": change}, day, empty, {**empty, "change": change}, day],
    }
    assert_same(scenario)
    assert_same(scenario, on_class=["_unmap"])
    assert_same(scenario, on_instance=["_structure_is_valid"])


@FAST
@given(
    st.lists(plain_item_specs() | item_specs(), min_size=1, max_size=4),
    st.lists(
        st.tuples(
            st.sampled_from(["nothing"] * 5 + sorted(ITEM_EDITS)),
            st.sampled_from([None] * 5 + sorted(CHANGES_BY_NAME)),
            st.sampled_from([None, None, 0, 1, 5]),
        ),
        min_size=2,
        max_size=7,
    ),
)
def test_days_that_reuse_their_items_are_the_same(specs, edits):
    """The same item objects day after day, edited between the days, with changing NaN inputs."""
    logs = [reused_items_log(base, specs, edits) for base in both()]
    assert logs[0] == logs[1]


def reused_items_log(base, specs, edits):
    rotation = day_rotation_class(base)(
        max_structures=4,
        N_alloc=6,
        transformation_expression="none",
        child_rotations=[build_child("fill", 4)],
        trace_sink=[],
    )
    items = [build_item(base, spec) for spec in specs]
    rotation.items = items
    log = []
    for edit, change, missing in edits:
        row = np.ones(rotation._n_alloc)
        if missing is not None:
            row[missing] = NAN
        log.append(frozen.outcome(rotation, row))
        log.append(frozen.freeze(vars(rotation)))
        log.append(frozen.outcome(ITEM_EDITS[edit], items))
        if change is not None:
            log.append(frozen.outcome(CHANGES_BY_NAME[change], rotation))
    return log


@effort(150)
@given(
    st.lists(bare_item_specs(), min_size=1, max_size=5),
    st.lists(
        st.tuples(
            st.lists(st.integers(0, 4), max_size=5),
            st.sampled_from([None, None, None, 0, 1, 5]),
            st.sampled_from(["nothing"] * 8 + sorted(ITEM_EDITS)),
            steady_changes,
        ),
        min_size=2,
        max_size=10,
    ),
)
def test_steady_days_are_the_same(specs, plan):
    """The same few items in changing selections, so that whatever is kept of yesterday is used."""
    logs = [steady_log(base, specs, plan) for base in both()]
    for position, (native, twin) in enumerate(zip(*logs, strict=True)):
        assert native == twin, f"entry {position} of the log"


def steady_log(base, specs, plan):
    rotation = day_rotation_class(base)(
        max_structures=5,
        N_alloc=6,
        transformation_expression="none",
        child_rotations=[build_child("fill", 5)],
    )
    pool = [build_item(base, spec) for spec in specs]
    log = []
    for chosen, missing, edit, change in plan:
        rotation.items = [pool[index % len(pool)] for index in chosen]
        row = np.ones(rotation._n_alloc)
        if missing is not None:
            row[missing] = NAN
        log.append(frozen.outcome(rotation, row))
        log.append(frozen.freeze(vars(rotation)))
        log.append(frozen.outcome(ITEM_EDITS[edit], rotation.items))
        if change is not None:
            log.append(frozen.outcome(CHANGES_BY_NAME[change], rotation))
    return log


# Single steps


@FAST
@given(item_specs())
@example(("dict", {"key": ("iter", ["a"]), "legs": (), "value": 1.0}))
def test_normalized_structures_are_the_same(spec):
    results = []
    for base in both():
        rotation = day_rotation_class(base)(
            max_structures=2, N_alloc=6, transformation_expression="none"
        )
        item = build_item(base, spec)
        results.append((frozen.outcome(rotation._normalize_structure, item), frozen.freeze(item)))
    assert results[0] == results[1]


@FAST
@given(plain_legs, one_mask, st.lists(one_mask, max_size=3), st.integers(-1, 7), plain_values)
def test_validity_is_the_same(legs, combined, masks, N, value):
    results = []
    for base in both():
        rotation = day_rotation_class(base)(
            max_structures=2, N_alloc=6, transformation_expression="none"
        )
        structure = base.VirtualStructure(("a",), tuple(legs), value)
        results.append(frozen.outcome(rotation._structure_is_valid, structure, masks, combined, N))
    assert results[0] == results[1]


mask_items = st.recursive(
    st.one_of(
        st.integers(-5, 5),
        st.sampled_from([2.9, "1", "x", None, True, b"2", 2**70, NAN, np.int64(1), [0], [0, 1]]),
        st.slices(5),
        st.just(Ellipsis),
    ),
    lambda part: st.lists(part, min_size=1, max_size=3).map(tuple),
    max_leaves=4,
)


@FAST
@given(st.integers(-1, 4), mask_items)
def test_universe_mask_indexing_is_the_same(rows, item):
    row = np.arange(1, 5, dtype=np.uint8)
    masks = [base._AllOnesVirtualMask(rows, row) for base in both()]
    results = [frozen.outcome(mask.__getitem__, item) for mask in masks]
    assert results[0] == results[1]


unmap_ids = st.one_of(
    plain_ids, st.sampled_from([-1, -6, -7, 6, True, np.int64(2), 1.0, None, "1"])
)
unmap_weights = st.one_of(
    plain_weights, st.sampled_from([NAN, INF, 1, True, np.float32(0.1), "1", None, 10**30])
)


@FAST
@given(
    st.dictionaries(
        st.integers(0, 4),
        st.one_of(
            st.lists(st.tuples(unmap_ids, unmap_weights), max_size=4).map(tuple),
            st.lists(st.tuples(plain_ids, plain_weights), max_size=4),
        ),
    ),
    st.lists(plain_values, min_size=3, max_size=6),
    st.sampled_from([np.float64, np.float32, object, list]),
    st.sampled_from(["proportional", "equal_split", None]),
    st.integers(0, 7),
)
def test_unmapping_is_the_same(legs_by_slot, outputs, kind_of_row, policy, N):
    results = []
    for base in both():
        rotation = day_rotation_class(base)(
            max_structures=4, N_alloc=6, transformation_expression="none"
        )
        rotation._legs_by_slot = legs_by_slot
        rotation.unmap_policy = policy
        buffer = np.full(6, 77.0)
        with np.errstate(all="ignore"):
            row = list(outputs) if kind_of_row is list else np.array(outputs).astype(kind_of_row)
        results.append((frozen.outcome(rotation._unmap, row, buffer, N), frozen.freeze(buffer)))
    assert results[0] == results[1]


# States

state_keys = st.sampled_from([("a",), ("b",), (1,), (1.0,), (), Key("a"), "a", None, (NAN,)])
state_slots = st.one_of(
    st.integers(0, 3), st.sampled_from([-1, 4, True, "0", 1.0, Int(1), np.int64(1), 2**70])
)
state_legs = st.one_of(
    plain_legs,
    plain_legs.map(tuple),
    st.lists(st.tuples(st.one_of(plain_ids, odd_ids), st.one_of(plain_weights, odd_weights))),
    st.sampled_from([None, "ab", [5], [(1,)], [[1, 2.0, 3]], ["12"], {}, [{1: 0, 2: 0}]]),
)


@st.composite
def states(draw):
    """Draw a state: a valid one, with some of its entries damaged, replaced or missing."""
    slots = draw(st.lists(st.integers(0, 3), unique=True, max_size=4))
    names = draw(st.permutations([("a",), ("b",), (1,), ()]))
    state = {
        "slot_by_key": {names[slot]: slot for slot in slots},
        "key_by_slot": {slot: names[slot] for slot in slots},
        "legs_by_slot": {slot: draw(plain_legs) for slot in slots},
        "structure_metadata_by_slot": [{"slot": slot} for slot in range(4)],
        "structure_N_limit": draw(st.sampled_from([6, 6, 6, 3, 0, None])),
        "child_states": [],
    }
    damage = {
        "slot_by_key": st.dictionaries(state_keys, state_slots, max_size=5) | st.just([]),
        "key_by_slot": st.dictionaries(state_slots, state_keys, max_size=5) | st.none(),
        "legs_by_slot": st.dictionaries(state_slots, state_legs, max_size=5) | st.just(5),
        "structure_metadata_by_slot": st.sampled_from(
            [None, (), [{}] * 4, ({},) * 4, [{}] * 3, [{}, {}, {}, None], "abcd", [[]] * 4]
        ),
        "structure_N_limit": st.sampled_from([7, -1, True, 2.0, "6", Int(4), np.int64(3)]),
        "child_states": st.sampled_from([None, (), [1], {}]),
    }
    for name in draw(st.lists(st.sampled_from(sorted(damage)), max_size=2)):
        state[name] = draw(damage[name])
    for name in draw(st.lists(st.sampled_from(sorted(state)), max_size=1)):
        del state[name]
    return state


@FAST
@given(states())
def test_validated_states_are_the_same(state):
    results = []
    for base in both():
        rotation = day_rotation_class(base)(
            max_structures=4, N_alloc=6, transformation_expression="none"
        )
        given_state = copy.deepcopy(state)
        results.append(
            (
                frozen.outcome(rotation._validate_state_components, given_state),
                frozen.outcome(rotation.set_state, given_state),
                frozen.freeze([given_state, vars(rotation)]),
            )
        )
    assert results[0] == results[1]


class Faults:
    """Which of the children's operations fail, and when: armed by the machine, used up once."""

    def __init__(self):
        self.armed = {}

    def arm(self, child, operation, skip, error):
        self.armed[child, operation] = [skip, error]

    def hit(self, child, operation):
        fault = self.armed.get((child, operation))
        if fault is None:
            return
        fault[0] -= 1
        if fault[0] < 0:
            del self.armed[child, operation]
            raise ERRORS[fault[1]](f"{operation} of {child}")


class Silent(Exception):
    """Exception that says it takes no notes."""

    def __getattribute__(self, name):
        if name == "add_note":
            raise AttributeError(name)
        return super().__getattribute__(name)


ERRORS = {error.__name__: error for error in [LookupError, KeyboardInterrupt, MemoryError, Silent]}


class Fragile:
    """Part of a child's state whose deep copy can fail."""

    def __init__(self, faults, child, days_seen=0):
        self.faults = faults
        self.child = child
        self.days_seen = days_seen

    def __deepcopy__(self, memo):
        self.faults.hit(self.child, "deepcopy")
        return Fragile(self.faults, self.child, self.days_seen)


class FaultyChild:
    """Stateful child each of whose operations fails when the faults say so.

    A failing set_state has changed half of the state by then, so that a missing rollback shows.
    """

    def __init__(self, faults, number):
        self.faults = faults
        self.number = number
        self.total = 0.0
        self.part = Fragile(faults, number)

    def __call__(self, values, *, context):
        self.faults.hit(self.number, "call")
        self.total = self.total + np.nan_to_num(values)
        self.part.days_seen += 1
        return self.total

    def get_state(self):
        self.faults.hit(self.number, "get_state")
        return {"total": self.total, "part": self.part}

    def set_state(self, state):
        self.total = state["total"]
        self.faults.hit(self.number, "set_state")
        self.part = state["part"]


class World:
    """One module's rotation with its faulty children, its store and its saved states."""

    def __init__(self, base, children):
        self.faults = Faults()
        self.rotation = day_rotation_class(base)(
            max_structures=4,
            N_alloc=6,
            transformation_expression="none",
            child_rotations=[
                FaultyChild(self.faults, number) if stateful else build_child("double", 4)
                for number, stateful in enumerate(children)
            ],
        )
        self.base = base
        self.stored = {}
        self.saved = []

    def write(self, name, state):
        self.stored[name] = copy.deepcopy(state)

    def read(self, name):
        return copy.deepcopy(self.stored.get(name))

    def day(self, specs, missing):
        self.rotation.items = [build_item(self.base, spec) for spec in specs]
        row = np.ones(self.rotation._n_alloc)
        if missing < len(row):
            row[missing] = NAN
        return self.rotation(row)

    def save(self, copied):
        state = self.rotation.get_state()
        self.saved.append(copy.deepcopy(state) if copied else state)

    def restore(self, which, damage):
        state = damaged(self.saved[which % len(self.saved)], damage)
        return self.rotation.set_state(state)

    def damage_store(self, damage):
        for name, state in self.stored.items():
            self.stored[name] = damaged(state, damage)

    def resize(self, width):
        self.rotation.resize(width)
        # The new buffer's contents are undefined, so two runs agree only once they are set.
        self.rotation._output_buf.fill(77.0)


def damaged(state, damage):
    """Return a state with one entry replaced; a damage of None leaves it as it is."""
    if damage is None:
        return state
    name, value = damage
    return value if name is None else {**state, name: copy.deepcopy(value)}


DAMAGES = [
    None,
    (None, []),
    (None, None),
    (None, {}),
    ("slot_by_key", {("z",): 0, ("y",): 0}),
    ("slot_by_key", {}),
    ("key_by_slot", {3: ("nobody",)}),
    ("legs_by_slot", {0: [(99, 1.0)]}),
    ("legs_by_slot", {}),
    ("structure_metadata_by_slot", None),
    ("structure_metadata_by_slot", [{}, {}, {}]),
    ("structure_N_limit", 0),
    ("structure_N_limit", True),
    ("structure_N_limit", None),
    ("child_states", None),
    ("child_states", []),
    ("child_states", [{}, {}, {}]),
    ("child_states", [{"total": 5.0, "part": 1}] * 3),
]


class StateMachine(RuleBasedStateMachine):
    """Both modules in lockstep through days, snapshots, restores, checkpoints and faults."""

    CHILDREN = (True, False, True)

    def __init__(self):
        super().__init__()
        self.worlds = [World(base, self.CHILDREN) for base in both()]

    def in_both(self, operation, *args):
        native, twin = (frozen.outcome(getattr(world, operation), *args) for world in self.worlds)
        assert native == twin
        return native

    @rule(specs=st.lists(plain_item_specs(), max_size=3), missing=st.integers(0, 8))
    def day(self, specs, missing):
        self.in_both("day", specs, missing)

    @rule(copied=st.booleans())
    def save(self, copied):
        self.in_both("save", copied)

    @precondition(lambda self: self.worlds[0].saved)
    @rule(which=st.integers(0, 9), damage=st.sampled_from([None] * 8 + DAMAGES))
    def restore(self, which, damage):
        before = [dict(vars(world.rotation)) for world in self.worlds]
        if self.in_both("restore", which, damage)[0] == "raised":
            for world, attributes in zip(self.worlds, before, strict=False):
                after = vars(world.rotation)
                assert all(after[name] is value for name, value in attributes.items())

    @rule()
    def checkpoint(self):
        self.through_store("checkpoint")

    @rule()
    def recover(self):
        self.through_store("recover")

    def through_store(self, operation):
        native, twin = (
            frozen.outcome(getattr(world.rotation, operation), world) for world in self.worlds
        )
        assert native == twin

    @rule(damage=st.sampled_from(DAMAGES))
    def damage_store(self, damage):
        self.in_both("damage_store", damage)

    @rule(width=st.one_of(st.integers(1, 9), st.sampled_from([0, -1, True, 2.0])))
    def resize(self, width):
        self.in_both("resize", width)

    @rule(
        child=st.sampled_from([0, 2]),
        operation=st.sampled_from(["call", "get_state", "deepcopy", "set_state"]),
        skip=st.integers(0, 2),
        error=st.sampled_from(sorted(ERRORS)),
    )
    def arm(self, child, operation, skip, error):
        for world in self.worlds:
            world.faults.arm(child, operation, skip, error)

    @rule()
    def disarm(self):
        for world in self.worlds:
            world.faults.armed.clear()

    @invariant()
    def attributes_are_the_same(self):
        native, twin = (frozen.freeze(vars(world.rotation)) for world in self.worlds)
        assert native == twin

    @invariant()
    def slot_maps_are_inverse(self):
        for world in self.worlds:
            rotation = world.rotation
            assert rotation.key_by_slot == {slot: key for key, slot in rotation.slot_by_key.items()}


class ChildlessStateMachine(StateMachine):
    """The same without children, where damaged states get further."""

    CHILDREN = ()


TestStates = StateMachine.TestCase
TestStates.settings = effort(60, stateful_step_count=25)
TestChildlessStates = ChildlessStateMachine.TestCase
TestChildlessStates.settings = effort(30, stateful_step_count=25)


# Every position at which one restore can fail


@pytest.mark.parametrize("error", sorted(ERRORS))
@pytest.mark.parametrize("second", [None, (0, 1), (2, 1), (0, 2), (2, 2)])
@pytest.mark.parametrize("operation", ["get_state", "deepcopy", "set_state"])
@pytest.mark.parametrize("child", [0, 2])
def test_restore_that_fails_at_one_position_and_again_in_the_rollback(
    child, operation, second, error
):
    """`second` names the child and the number of set_state calls it lets pass before it fails."""
    logs = []
    for base in both():
        world = World(base, StateMachine.CHILDREN)
        world.day([("dict", {"key": ("a",), "legs": KEPT_LEGS[1], "value": 1.0})], 9)
        world.save(True)
        world.day([("dict", {"key": ("b",), "legs": KEPT_LEGS[2], "value": 2.0})], 9)
        world.faults.arm(child, operation, 0, error)
        if second is not None:
            world.faults.arm(second[0], "set_state", second[1], "LookupError")
            if second[0] == child and operation == "set_state":
                world.faults.arm(child, "set_state", 0, error)
                world.faults.arm(child, "deepcopy", 1, "MemoryError")
        logs.append(
            (
                frozen.outcome(world.restore, 0, None),
                frozen.freeze(vars(world.rotation)),
                frozen.freeze(world.faults.armed),
            )
        )
    assert logs[0] == logs[1]


# On the package's own framework and children


@effort(40)
@given(
    st.sampled_from(
        ["none", "ewma(3)", "ewma(4);rank", "zscore", "rank;sigmoid", "ewma(2);zscore"]
    ),
    st.sampled_from(["proportional", "equal_split"]),
    st.lists(st.lists(inputs.filter(len), min_size=1, max_size=1), min_size=1, max_size=6),
    st.integers(0, 2**32 - 1),
)
def test_days_on_the_real_framework_are_the_same(expression, policy, rows, seed):
    logs = []
    for kind in ["native", "twin"]:
        with installed_real_base(kind) as base:
            logs.append(real_log(base, expression, policy, rows, np.random.default_rng(seed)))
    assert logs[0] == logs[1]


def real_log(base, expression, policy, rows, random):
    rotation = day_rotation_class(base)(
        max_structures=5,
        N_alloc=6,
        transformation_expression=expression,
        unmap_policy=policy,
        trace_sink=[],
    )

    def items(space, rest, masks, combined, N):
        return [
            {"key": (leg,), "legs": ((leg, 1.0), ((leg + 1) % N, -0.5)), "value": space[leg]}
            for leg in range(min(N, 5))
            if random.random() < 0.8
        ]

    rotation.items = items
    universe = (random.random((len(rows), 6)) < 0.9).astype(np.uint8)
    log = []
    for day, (row,) in enumerate(rows):
        context = Thing(universe_mask=universe[:, : len(row)], current_day_index=day)
        log.append(frozen.outcome(rotation, np.array(row), context=context))
        log.append(frozen.freeze({**vars(rotation), "child_rotations": None}))
        log.append(frozen.outcome(rotation.get_state))
    return log
