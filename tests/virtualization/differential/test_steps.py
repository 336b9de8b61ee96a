"""Random items, masks and legs through single steps of the native module and its plain twin."""

import numpy as np
from hypothesis import example, given
from hypothesis import strategies as st

from adversary.values.items import build_item
from adversary.values.odd_numbers import INF, NAN
from support import frozen
from support.days import day_rotation_class
from support.siblings import both_modules
from virtualization.differential.strategies import (
    FAST,
    item_specs,
    one_mask,
    plain_ids,
    plain_legs,
    plain_values,
    plain_weights,
)


@FAST
@given(item_specs())
@example(("dict", {"key": ("iter", ["a"]), "legs": (), "value": 1.0}))
def test_normalized_structures_are_the_same(spec):
    results = []
    for base in both_modules():
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
    for base in both_modules():
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
    masks = [base._AllOnesVirtualMask(rows, row) for base in both_modules()]
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
    for base in both_modules():
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
