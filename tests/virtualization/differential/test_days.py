"""Random days through the native module and its plain twin, bit for bit."""

import numpy as np
import pytest
from hypothesis import assume, given
from hypothesis import strategies as st

from adversary.actions.between_days import CHANGES_BY_NAME
from adversary.values.children import CHILD_KINDS, ODD_CHILD_KINDS, build_child
from adversary.values.items import Thing, build_item
from adversary.values.odd_numbers import NAN
from support import frozen
from support.days import STEPS, day_rotation_class, run_days
from support.siblings import both_modules, installed_real_base
from virtualization.differential.strategies import (
    FAST,
    effort,
    item_specs,
    kept_legs,
    one_mask,
    plain_item_specs,
    plain_keys,
    plain_values,
)

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
    native, twin = (run_days(base, scenario, **overrides) for base in both_modules())
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
    native, _ = both_modules()
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
    native, _ = both_modules()
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
    logs = [reused_items_log(base, specs, edits) for base in both_modules()]
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
    logs = [steady_log(base, specs, plan) for base in both_modules()]
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
