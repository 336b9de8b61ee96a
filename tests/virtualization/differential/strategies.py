"""Random items, legs, masks and numbers: mostly well-formed, with every kind of oddity mixed in."""

import os
from decimal import Decimal
from fractions import Fraction

import numpy as np
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st

from adversary.values.items import SubDict
from adversary.values.odd_containers import Key
from adversary.values.odd_numbers import INF, NAN, Float, Int

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
