"""Groups of baskets: who is compared with whom, whatever slots the baskets have over time."""

import math
import os
from functools import partial

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import quorvane as qv
from quorvane.stores import MemoryStore
from support.plain_baskets import NAN, PlainBaskets, make_function, ranks, scores
from support.tables_of_baskets import NAMES, START, WEIGHTS, long_columns, numbers, same_bits

pandas = pytest.importorskip("pandas")

BY = ["rank", "centered_rank", "zscore", "demean"]
POOL = "ABCDEFG"

# One run always tries the same examples; QUORVANE_TEST_EFFORT=20 tries 20 times as many new ones.
EFFORT = int(os.environ.get("QUORVANE_TEST_EFFORT", "1"))
RANDOM = settings(
    max_examples=60 * EFFORT,
    deadline=None,
    derandomize=EFFORT == 1,
    database=None,
    suppress_health_check=list(HealthCheck),
)


# ---- in plain Python ----------------------------------------------------------------------------


def centered(row):
    return {basket: 2 * rank - 1 - 1 / len(row) for basket, rank in ranks(row).items()}


def demeaned(row):
    mean = math.fsum(row.values()) / len(row)
    return {basket: value - mean for basket, value in row.items()}


OF_ALL = {"rank": ranks, "centered_rank": centered, "zscore": scores, "demean": demeaned}


class Within:
    """A function of one group's values at a time."""

    def __init__(self, function, labels):
        self.function, self.labels = function, labels

    def __call__(self, row):
        found = dict.fromkeys(row, NAN)
        for label in set(self.labels.values()):
            own = {b: v for b, v in row.items() if self.labels[b] == label and not math.isnan(v)}
            found.update(self.function(own) if own else {})
        return found

    def forget(self, basket):
        """Nothing is kept."""


def plain(listing_of, functions, labels, **options):
    """Plain baskets with ``functions`` as names with by, or texts without."""
    made = PlainBaskets(listing_of, "none", **options)
    made.functions = [
        Within(OF_ALL[text], labels) if text in OF_ALL else make_function(text)
        for text in functions
    ]
    return made


# ---- one day ------------------------------------------------------------------------------------


@pytest.mark.parametrize("function", BY)
def test_each_group_is_compared_with_itself_alone(function):
    labels = dict(zip(NAMES, "xyxyx", strict=True))
    values = numbers(20, 5, missing=0.2).round(1)
    made = qv.Baskets(None, f"{function}(by='kind')", labels={"kind": labels})
    found = made.run(pandas.DataFrame(values, columns=NAMES)).to_numpy()
    for columns in ([0, 2, 4], [1, 3]):
        alone = qv.Baskets(None, function).run(np.ascontiguousarray(values[:, columns]))
        same_bits(found[:, columns], alone)


@pytest.mark.parametrize("function", BY)
def test_one_group_of_all_is_the_function_without_groups(make, function):
    values, days = numbers(), START + np.arange(40)
    expected = make(f"ewma(3);{function}", hold=1).run(values, date=days)
    labels = {"kind": dict.fromkeys(make("none").baskets, 1)}
    grouped = make(f"ewma(3);{function}(by='kind')", hold=1, labels=labels)
    same_bits(grouped.run(values, date=days), expected)


def test_two_labels_in_one_expression_do_not_meet():
    labels = {"kind": dict(zip(NAMES, "xyxyx", strict=True)), "size": dict.fromkeys(NAMES, 1)}
    labels["size"]["A"] = 2
    values = pandas.DataFrame(numbers(20, 5, missing=0.2), columns=NAMES)
    expression = 'demean(by="kind");demean(by="size")'
    found = qv.Baskets(None, expression, labels=labels).run(values)
    between = qv.Baskets(None, 'demean(by="kind")', labels=labels).run(values)
    same_bits(found, qv.Baskets(None, 'demean(by="size")', labels=labels).run(between))


@pytest.mark.parametrize(
    ("labels", "groups"),
    [
        ([("x", 1), ("x", 1), ("x", 2), "x", "x"], [[0, 1], [2], [3, 4]]),
        ([1, 1.0, np.int64(1), "1", 2], [[0, 1, 2], [3], [4]]),
        ([np.str_("x"), "x", "X", "é", "é"], [[0, 1], [2], [3, 4]]),
        (np.array([1, 2, 1, 2, 1]), [[0, 2, 4], [1, 3]]),
    ],
    ids=["tuples", "numbers", "texts", "array"],
)
def test_labels_are_what_they_are_equal_to(labels, groups):
    values = numbers(9, 5, missing=0)
    of_basket = dict(zip(NAMES, labels, strict=True))
    made = qv.Baskets(None, "rank(by='kind')", labels={"kind": of_basket})
    found = made.run(pandas.DataFrame(values, columns=NAMES)).to_numpy()
    for columns in groups:
        alone = qv.Baskets(None, "rank").run(np.ascontiguousarray(values[:, columns]))
        same_bits(found[:, columns], alone)


# ---- labels that are not there ------------------------------------------------------------------


@pytest.mark.parametrize("missing", [None, NAN, np.float64("nan"), pandas.NA, pandas.NaT])
def test_a_missing_label_is_no_label(missing):
    labels = {"kind": {**dict.fromkeys(WEIGHTS, "x"), "all": missing, "e": missing}}
    with pytest.raises(ValueError, match=r"labels: 'kind' has none for 'all', 'e'$"):
        qv.Baskets(WEIGHTS, "rank(by='kind')", labels=labels)
    qv.Baskets(WEIGHTS, "rank", labels=labels)


def test_names_of_labels_are_texts():
    with pytest.raises(TypeError, match="labels must be a mapping with names that are str, got 3"):
        qv.Baskets(WEIGHTS, "none", labels={"kind": {}, 3: {}})


def test_a_label_that_cannot_be_hashed_is_named():
    with pytest.raises(TypeError, match=r"labels: 'kind' .* got \['x'\] for 'e'"):
        qv.Baskets(WEIGHTS, "none", labels={"kind": {"e": ["x"]}})


@pytest.mark.parametrize(
    ("labels", "text"),
    [
        ({"sector": {}}, "labels: there is no 'sectr'; did you mean 'sector'?"),
        ({"size": {}, "k": {}}, "labels: there is no 'sectr'; known are 'size', 'k'"),
        ({}, "labels: there is no 'sectr'; none are given"),
        (None, "labels: there is no 'sectr'; none are given"),
    ],
)
def test_a_name_without_labels_gets_a_hint(labels, text):
    with pytest.raises(ValueError, match="labels") as caught:
        qv.Baskets(WEIGHTS, "rank(by='sectr')", labels=labels)
    assert str(caught.value) == f"expression: \"rank(by='sectr')\": {text}"


def test_baskets_that_are_not_there_are_refused_where_none_can_come():
    labels = {"kind": {**dict.fromkeys(WEIGHTS, "x"), "f": "x"}}
    with pytest.raises(ValueError, match=r"labels: 'kind' names baskets .* there: .'f'"):
        qv.Baskets(WEIGHTS, "none", labels=labels)
    rows = pandas.DataFrame(long_columns([(0, "a", "A", 1.0)]))
    made = qv.Baskets.from_long(rows, "rank(by='kind')", labels={"kind": dict.fromkeys("abc", 1)})
    made.extend(pandas.DataFrame(long_columns([(5, "b", "B", 1.0)])))
    before = made.baskets
    with pytest.raises(ValueError, match="labels: 'kind' has none for 'f'"):
        made.extend(pandas.DataFrame(long_columns([(6, "f", "B", 1.0)])))
    assert made.baskets == before


def test_columns_without_a_label_are_refused_when_they_come():
    made = qv.Baskets(None, "rank(by='kind')", labels={"kind": {"A": 1, "B": 1, "Z": 2}})
    table = pandas.DataFrame({"A": [1.0, 2.0], "B": [2.0, 1.0]})
    expected = made.run(table)
    for go_on in (made.run, qv.Baskets(None, "rank(by='k')", labels={"k": {"A": 1}}).update):
        with pytest.raises(ValueError, match=r"labels: 'k\w*' has none for '[BC]'"):
            go_on(table.assign(C=1.0) if go_on == made.run else table)
    same_bits(made.update(table), expected)


# ---- over time ----------------------------------------------------------------------------------


@st.composite
def worlds(draw):
    """Lists of baskets of one instrument each that come and go, their labels, and numbers."""
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    rows, every = draw(st.integers(2, 30)), draw(st.integers(1, 5))
    values = rng.normal(size=(rows, len(POOL))).round(2)
    values[rng.random(values.shape) < draw(st.sampled_from([0, 0.1, 0.4]))] = np.nan
    most = draw(st.integers(1, len(POOL)))
    lists, order = {}, []
    for day in range(0, rows, every):
        chosen = rng.permutation(list(POOL))[: rng.integers(1, most + 1)].tolist()
        order += [name for name in chosen if name not in order]
        lists[day] = sorted(chosen, key=order.index)
    labels = dict(zip(POOL, rng.integers(0, draw(st.integers(1, 4)), len(POOL)), strict=True))
    hold = draw(st.sampled_from([0, 0, 1, 3]))
    return values, lists, labels, hold, rng


def long_table(lists):
    return pandas.DataFrame(
        long_columns([(day, name, name, 1.0) for day, names in lists.items() for name in names])
    )


def random_parts(made, fresh, values, days, rng):
    """Updates and steps of random sizes, now and then from a store or with more room."""
    found, row = [], 0
    while row < len(values):
        size = max(1, int(rng.integers(0, 7)))
        part = slice(row, row + size)
        if size == 1:
            found.append(made.step(values[row], date=days[row])[None])
        else:
            found.append(made.update(values[part], date=days[part]))
        row += size
        if rng.random() < 0.3:
            store = MemoryStore()
            made.save(store)
            made = fresh()
            made.load(store)
    return np.concatenate(found)


@RANDOM
@given(
    worlds(),
    st.sampled_from(BY),
    st.sampled_from(["ewma(2)", "sigmoid"]),
    st.sampled_from([None, 3, 5]),
)
def test_groups_follow_their_baskets_from_slot_to_slot(world, function, other, capacity):
    values, lists, labels, hold, rng = world
    days = START + np.arange(len(values))
    make = partial(
        qv.Baskets.from_long,
        long_table(lists),
        f"{other};{function}(by='kind');ewma(3)",
        labels={"kind": labels},
        instruments=[*POOL],
        hold=hold,
        capacity=capacity,
        reclaim=capacity is not None,
    )
    reference = plain(
        lambda day: {name: {name: 1.0} for name in lists[max(d for d in lists if d <= day)]},
        [other, function, "ewma(3)"],
        labels,
        hold=hold,
        capacity=capacity,
    )
    expected = np.full(values.shape, np.nan)
    try:
        for row, day in zip(expected, values.tolist(), strict=True):
            signal = reference.step(dict(zip(POOL, day, strict=True)))
            row[[POOL.index(name) for name in signal]] = list(signal.values())
    except OverflowError:
        with pytest.raises(ValueError, match="the capacity is"):
            make().run(values, date=days)
        return
    found = make().run(values, date=days)
    np.testing.assert_allclose(found, expected, rtol=1e-9, atol=1e-10)
    same_bits(make(threads=4).run(values, date=days), found)
    same_bits(random_parts(make(), make, values, days, rng), found)
    made = make()
    made.run(values[::-1], date=days)
    made.reset()
    same_bits([made.step(row, date=day) for row, day in zip(values, days, strict=True)], found)


@RANDOM
@given(worlds(), st.sampled_from(BY), st.booleans())
def test_groups_stay_right_when_baskets_come_later_and_room_grows(world, function, saves):
    values, lists, labels, hold, rng = world
    days = START + np.arange(len(values))
    options = {"labels": {"kind": labels}, "instruments": [*POOL], "hold": hold}
    make = partial(
        qv.Baskets.from_long, expression=f"ewma(2);{function}(by='kind');ewma(3)", **options
    )
    expected = make(long_table(lists)).run(values, date=days)
    starts = sorted(lists)
    made, found = make(long_table({0: lists[0]})), []
    for start, end in zip(starts, [*starts[1:], len(values)], strict=True):
        if start:
            made.extend(long_table({start: lists[start]}))
        if rng.random() < 0.3:
            made.grow(made.slots.capacity + 2 * len(POOL))
        if saves:
            store = MemoryStore()
            made.save(store)
            # Whoever comes back knows the labels of those so far, and of no others.
            known = {basket: labels[basket] for basket in made.baskets}
            so_far = long_table({day: names for day, names in lists.items() if day <= start})
            later = make(so_far, labels={"kind": known})
            later.load(store)
            same_bits(later.step(values[start], date=days[start]), expected[start])
        found.append(made.update(values[start:end], date=days[start:end]))
    same_bits(np.concatenate(found), expected)


def test_another_label_of_a_basket_that_was_there_is_named(store):
    values = numbers(9)
    made = qv.Baskets(WEIGHTS, "rank(by='kind')", labels={"kind": dict.fromkeys(WEIGHTS, "x")})
    made.run(values)
    made.save(store)
    other = {"kind": {**dict.fromkeys(WEIGHTS, "x"), "e": "y"}}
    with pytest.raises(qv.StateMismatch, match=r"labels: .*'x'.* stored, .*'y'.* here"):
        qv.Baskets(WEIGHTS, "rank(by='kind')", labels=other).load(store)


def test_a_day_that_fails_leaves_the_groups_as_they_were():
    lists = {0: "AB", 2: "CDE", 3: "AC"}
    labels = {"kind": dict(zip("ABCDE", "xyxyx", strict=True))}
    values = numbers(4, 5, missing=0)
    days = START + np.arange(4)
    made = qv.Baskets.from_long(
        long_table(lists),
        "rank(by='kind')",
        labels=labels,
        instruments=[*"ABCDE"],
        capacity=2,
        reclaim=True,
    )
    expected = made.run(values[:2], date=days[:2])
    assert expected[1, :2].tolist() == [1.0, 1.0]
    made.run(values[:1], date=days[:1])
    with pytest.raises(ValueError, match="the capacity is 2"):
        made.update(values[1:], date=days[1:])
    same_bits(made.step(values[1], date=days[1]), expected[1])
    found = made.step(values[3], date=days[3])
    assert sorted(found[[0, 2]]) == [0.5, 1.0]


def test_columns_are_in_their_groups_on_every_way(store):
    values = numbers(20, 5)
    labels = {"kind": {0: "x", 1: "y", 2: "x", 3: "y", 4: "y", 5: "z"}}
    make = partial(qv.Baskets, None, "ewma(2);zscore(by='kind');ewma(3)", labels=labels)
    expected = make().run(values)
    made = make()
    made.run(values[:, ::-1])
    made.reset()
    found = [made.update(values[:9])]
    made.grow(9)
    made.save(store)
    made = make(capacity=9)
    made.load(store)
    found += [made.step(row)[None] for row in values[9:]]
    same_bits(np.concatenate(found), expected)
