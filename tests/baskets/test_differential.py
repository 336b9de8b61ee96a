"""The same numbers as plain Python that was written from the promises alone."""

import os

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import quorvane as qv
from support.plain_baskets import PlainBaskets
from support.tables_of_baskets import EXPRESSIONS, START, long_columns, same_bits

pandas = pytest.importorskip("pandas")

# One run always tries the same examples; QUORVANE_TEST_EFFORT=20 tries 20 times as many new ones.
EFFORT = int(os.environ.get("QUORVANE_TEST_EFFORT", "1"))
RANDOM = settings(
    max_examples=120 * EFFORT,
    deadline=None,
    derandomize=EFFORT == 1,
    database=None,
    suppress_health_check=list(HealthCheck),
)


@st.composite
def worlds(draw):
    """Random lists of baskets by day, numbers with holes, and arguments."""
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    rows, columns = draw(st.integers(1, 40)), draw(st.integers(1, 6))
    values = rng.normal(size=(rows, columns)).round(3)
    values[rng.random(values.shape) < draw(st.sampled_from([0, 0.1, 0.4]))] = np.nan
    values[: rows // 3, 0] = np.nan
    every = max(1, draw(st.integers(1, 8)))
    pool = [f"b{i}" for i in range(draw(st.integers(1, 7)))]
    listings = {
        day: {
            name: legs(rng, columns)
            for name in rng.permutation(pool)[: rng.integers(1, len(pool) + 1)].tolist()
        }
        for day in range(rng.integers(0, min(rows, 3)), rows, every)
    }
    options = {
        "expression": draw(st.sampled_from(EXPRESSIONS)),
        "hold": draw(st.sampled_from([0, 0, 1, 3, None])),
        "policy": draw(st.sampled_from(["proportional", "equal_split"])),
    }
    return values, listings, options, rng


def legs(rng, columns):
    chosen = rng.permutation(columns)[: rng.integers(1, min(columns, 3) + 1)]
    weights = rng.normal(size=len(chosen)).round(2) + 0.001
    return dict(zip(chosen.tolist(), weights.tolist(), strict=True))


def long_table(listings):
    rows = [
        (day, basket, instrument, weight)
        for day, baskets in listings.items()
        for basket, of in baskets.items()
        for instrument, weight in of.items()
    ]
    return pandas.DataFrame(long_columns(rows))


def plain(values, listings, options, **more):
    """What plain Python makes of the world, and its end."""
    expression, others = options["expression"], {k: options[k] for k in ("hold", "policy")}

    def listing_of(day):
        return next((listings[d] for d in sorted(listings, reverse=True) if d <= day), {})

    reference = PlainBaskets(listing_of, expression, **others, **more)
    signal = np.full(values.shape, np.nan)
    for row, numbers in zip(signal, values.tolist(), strict=True):
        for instrument, number in reference.step(dict(enumerate(numbers))).items():
            row[instrument] = number
    return signal, reference


def dated(listings, options, columns, **more):
    return qv.Baskets.from_long(long_table(listings), **options, instruments=range(columns), **more)


def in_parts(baskets, values, rng):
    """Updates of random sizes, steps among them."""
    found, row = [], 0
    while row < len(values):
        size = int(rng.integers(0, 7))
        days = START + np.arange(row, row + size)[: len(values) - row]
        if size == 1:
            found.append(baskets.step(values[row].copy(), date=days[0])[None])
        else:
            found.append(baskets.update(values[row : row + size], date=days))
        row += len(days)
    return np.concatenate(found)


@RANDOM
@given(worlds())
def test_dated_baskets_are_those_of_plain_python(world):
    values, listings, options, rng = world
    days = START + np.arange(len(values))
    whole = dated(listings, options, values.shape[1])
    found = whole.run(values, date=days)
    expected, reference = plain(values, listings, options)
    np.testing.assert_allclose(found, expected, rtol=1e-9, atol=1e-11)
    assert whole.slots.speaking == len(reference.by_basket)
    parts = in_parts(dated(listings, options, values.shape[1]), values, rng)
    same_bits(parts, found)


@RANDOM
@given(worlds(), st.integers(1, 7))
def test_reclaimed_slots_are_those_of_plain_python(world, capacity):
    values, listings, options, rng = world
    options = {**options, "hold": options["hold"] or 0}
    days = START + np.arange(len(values))

    def make():
        return dated(listings, options, values.shape[1], capacity=capacity, reclaim=True)

    try:
        expected, reference = plain(values, listings, options, capacity=capacity)
    except OverflowError:
        with pytest.raises(ValueError, match="the capacity is"):
            make().run(values, date=days)
        return
    whole = make()
    found = whole.run(values, date=days)
    np.testing.assert_allclose(found, expected, rtol=1e-9, atol=1e-11)
    by_basket = make().run(values, level="basket", date=days)[-1]
    last = dict(zip(whole.baskets, by_basket, strict=True))
    for basket, value in last.items():
        np.testing.assert_allclose(
            value, reference.by_basket.get(basket, np.nan), rtol=1e-9, atol=1e-11
        )
    same_bits(in_parts(make(), values, rng), found)


@RANDOM
@given(worlds())
def test_fixed_baskets_are_those_of_plain_python(world):
    values, listings, options, rng = world
    fixed = {0: next(iter(listings.values()))}

    def make(names):
        return qv.Baskets(fixed[0], **options, instruments=names)

    found = make(range(values.shape[1])).run(values)
    expected, _ = plain(values, fixed, options)
    np.testing.assert_allclose(found, expected, rtol=1e-9, atol=1e-11)
    order = rng.permutation(values.shape[1])
    permuted = make(order.tolist()).run(np.ascontiguousarray(values[:, order]))
    same_bits(permuted, found[:, order])
