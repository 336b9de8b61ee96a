"""Room for structures: who gets a slot, who gives it, and what is said when there is none."""

import warnings

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, START, WEIGHTS, long_columns, numbers, same_bits

pandas = pytest.importorskip("pandas")

NAN = float("nan")


def long_table(rows):
    return pandas.DataFrame(long_columns(rows))


def of_days(lists, expression="ewma(3)", **options):
    """Baskets of one instrument each: ``lists`` says by day which, as letters."""
    rows = [(day, name, name, 1.0) for day, names in lists.items() for name in names]
    options.setdefault("instruments", sorted({row[1] for row in rows}))
    return qv.Baskets.from_long(long_table(rows), expression, **options)


def both(lists, values, capacity, **options):
    """The numbers in a narrow room, and in one that never fills."""
    values = np.array(values, dtype=float)
    days = START + np.arange(len(values))
    narrow = of_days(lists, capacity=capacity, reclaim=True, **options).run(values, date=days)
    return narrow, of_days(lists, **options).run(values, date=days)


def test_there_are_as_many_slots_as_baskets_by_default():
    assert qv.Baskets(WEIGHTS, "none").slots.capacity == 4
    assert of_days({0: "AB", 1: "BC"}).slots.capacity == 3
    assert qv.Baskets(WEIGHTS, "none", capacity=9).slots.capacity == 9


def test_a_shortage_that_is_known_is_an_error_at_construction():
    text = "capacity must be at least 4, the number of baskets, got 3"
    with pytest.raises(ValueError, match=text):
        qv.Baskets(WEIGHTS, "none", capacity=3)
    with pytest.raises(ValueError, match="capacity must be at least 3"):
        of_days({0: "AB", 1: "BC"}, capacity=2)
    with pytest.raises(ValueError, match="capacity must be at least 2"):
        qv.Baskets(None, "none", instruments=[*"AB"], capacity=1)
    of_days({0: "AB", 1: "BC"}, capacity=2, reclaim=True)


@pytest.mark.parametrize("go_on", ["run", "update"])
def test_columns_without_a_slot_each_are_an_error_too(go_on):
    made = qv.Baskets(None, "ewma(3)", capacity=2)
    values = np.array([[1.0, 2.0, NAN, NAN], [NAN, NAN, 3.0, 4.0]])
    with pytest.raises(ValueError, match="capacity"):
        getattr(made, go_on)(values)


def test_there_is_one_warning_where_four_fifths_are_taken():
    with pytest.warns(UserWarning, match="4 of 5 slots are taken") as caught:
        made = of_days({0: "ABCD"}, capacity=5)
    assert len(caught) == 1
    assert caught[0].filename == __file__
    made.extend(long_table([(9, "E", "E", 1.0)]))
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        of_days({0: "ABC"}, capacity=5)
        of_days({0: "ABCD"})
        qv.Baskets(WEIGHTS, "none", capacity=4)


def test_the_warning_of_more_rows_points_at_whoever_gave_them():
    made = of_days({0: "ABC"}, capacity=5)
    with pytest.warns(UserWarning, match="4 of 5 slots are taken") as caught:
        made.extend(long_table([(9, "D", "D", 1.0)]))
    assert [each.filename for each in caught] == [__file__]


def test_more_rows_than_there_is_room_for_are_refused_and_change_nothing():
    made = of_days({0: "ABC"}, capacity=4)
    with pytest.raises(ValueError, match="capacity must be at least 5"):
        made.extend(long_table([(9, "D", "D", 1.0), (9, "E", "E", 1.0)]))
    assert made.baskets == ("A", "B", "C")
    made.run(np.ones((12, 3)), date=START + np.arange(12))


@pytest.mark.parametrize("go_on", ["run", "update", "step"])
def test_a_shortage_on_a_day_says_who_speaks_and_what_to_do(go_on):
    made = of_days({0: "AB", 1: "CDE"}, capacity=2, reclaim=True)
    values, days = np.ones((2, 5)), START + np.arange(2)
    text = r"3 baskets speak on 2024-01-02 and 2 are known, but the capacity is 2; call grow\(\d+\)"
    calls = {
        "run": lambda: made.run(values, date=days),
        "update": lambda: made.update(values[1:], date=days[1:]),
        "step": lambda: made.step(values[1], date=days[1]),
    }
    made.update(values[:1], date=days[:1])
    with pytest.raises(ValueError, match=text):
        calls[go_on]()
    assert made.slots == qv.SlotUsage(2, 2, 2)
    made.grow(5)
    found = made.update(values[1:], date=days[1:])
    np.testing.assert_array_equal(found, [[NAN, NAN, 1, 1, 1]])


def test_slots_that_are_never_given_away_need_a_hold():
    with pytest.raises(ValueError, match="reclaim=True needs a hold"):
        qv.Baskets(WEIGHTS, "none", reclaim=True, hold=None)


def test_a_reclaimed_basket_starts_afresh_and_another_goes_on():
    lists = {0: "AB", 2: "C", 3: "AB"}
    values = [[1.0, 10.0, 0.0], [2.0, 20.0, 0.0], [0.0, 0.0, 5.0], [9.0, 30.0, 0.0]]
    narrow, wide = both(lists, values, 2)
    # A and B are equally long silent: A has the lower slot, gives it to C and comes back new.
    assert narrow[3, 0] == 9.0
    assert narrow[3, 1] == pytest.approx(wide[3, 1], abs=1e-12)
    assert wide[3, 0] != 9.0


def test_the_longest_silent_gives_its_slot_first():
    lists = {0: "AB", 2: "A", 3: "C", 4: "AB"}
    values = [[1.0, 10.0, 0.0]] * 2 + [[2.0, 0.0, 0.0], [0.0, 0.0, 5.0], [9.0, 30.0, 0.0]]
    narrow, wide = both(lists, values, 2)
    assert narrow[4, 1] == 30.0
    assert narrow[4, 0] == pytest.approx(wide[4, 0], abs=1e-12)


def test_an_ended_basket_gives_its_slot_before_one_that_is_only_silent():
    lists = {0: "AB", 3: "AC", 4: "AB"}
    values = [[1.0, 10.0, 0.0], [NAN, 20.0, 0.0], [NAN, 20.0, 0.0], [NAN, 0.0, 5.0], [9.0, 30.0, 0]]
    narrow, wide = both(lists, values, 2)
    assert narrow[4, 1] == 30.0
    assert narrow[4, 0] == pytest.approx(wide[4, 0], abs=1e-12)


def test_a_listed_basket_that_is_silent_gives_its_slot_when_no_other_is_left():
    lists = {0: "A", 1: "AB"}
    values = [[1.0, 0.0], [NAN, 10.0], [NAN, 20.0]]
    narrow, wide = both(lists, values, 1)
    np.testing.assert_allclose(narrow, wide, rtol=0, atol=1e-12)


@pytest.mark.parametrize("hold", [1, 2])
def test_a_basket_that_still_speaks_keeps_its_slot(hold):
    lists = {0: "A", 1: "B"}
    values = np.ones((3, 2))
    with pytest.raises(ValueError, match="the capacity is 1"):
        both(lists, values, 1, hold=hold)
    late = {0: "A", 1: "B"}
    values[1 : 1 + hold, 1] = NAN
    narrow, wide = both(late, values, 1, hold=hold)
    np.testing.assert_allclose(narrow, wide, rtol=0, atol=1e-12)


@pytest.mark.parametrize(
    "expression", ["ewma(3)", "ewma(3);ewma(5)", "rank;ewma(3);zscore;ewma(2)"]
)
def test_nothing_of_the_old_structure_is_left_in_any_function(expression):
    lists = {0: "AX", 4: "BX"}
    values = np.random.default_rng(1).normal(size=(9, 3))
    narrow, wide = both(lists, values, 2, expression=expression)
    np.testing.assert_allclose(narrow, wide, rtol=0, atol=1e-12)


def random_lists(days, pool, rng):
    return {
        day: sorted(rng.permutation(pool)[: rng.integers(1, 4)].tolist())
        for day in range(0, days, 2)
    }


@pytest.mark.parametrize("hold", [0, 1, 2])
@pytest.mark.parametrize("seed", range(8))
def test_reclaimed_slots_are_the_same_in_one_go_in_parts_and_from_a_store(seed, hold, store):
    rng = np.random.default_rng(seed)
    lists = random_lists(30, list("ABCDEF"), rng)
    values = numbers(30, 6, missing=0.5, seed=seed)
    days = START + np.arange(30)

    def make():
        return of_days(lists, capacity=4, reclaim=True, hold=hold, instruments=[*"ABCDEF"])

    try:
        expected = make().run(values, date=days)
    except ValueError:
        pytest.skip("more speak than there are slots")
    made, found = make(), []
    for row, day in zip(values, days, strict=True):
        found.append(made.step(row, date=day))
        made.save(store)
        made = make()
        made.load(store)
    same_bits(np.array(found), expected)
    made = make()
    cuts = np.split(np.arange(30), [3, 4, 11, 12, 20])
    same_bits(np.concatenate([made.update(values[c], date=days[c]) for c in cuts]), expected)


def test_a_list_that_had_no_room_is_looked_at_again_each_day_in_a_run_too():
    lists = {0: "A", 2: "XY", 4: "A"}
    values = np.full((5, 3), NAN)
    values[:, 0] = [1.0, 2.0, 5.0, 5.0, 9.0]
    days = START + np.arange(5)

    def make():
        return of_days(lists, capacity=2, reclaim=True, hold=1)

    stepped = make()
    steps = [stepped.step(row, date=day) for row, day in zip(values, days, strict=True)]
    same_bits(make().run(values, date=days), np.array(steps))


@pytest.fixture(scope="module")
def best_pairs():
    """Twenty years of the ten best pairs per month of 500 instruments."""
    rng = np.random.default_rng(1)
    months, names = 240, [f"i{i}" for i in range(500)]
    values = rng.normal(size=(months * 21, 500)) * 0.01
    rows = []
    for month in range(months):
        for a, b in rng.permutation(500)[:20].reshape(10, 2).tolist():
            pair = f"{month:03}:{names[a]}/{names[b]}"
            rows += [(month * 21, pair, names[a], 1.0), (month * 21, pair, names[b], -1.0)]
    return names, values, long_table(rows)


@pytest.mark.parametrize("expression", ["ewma(20);zscore", "ewma(20);rank"])
def test_twenty_years_of_the_best_pairs_run_in_200_slots(best_pairs, expression):
    names, values, table = best_pairs
    days = START + np.arange(len(values))
    wide = qv.Baskets.from_long(table, expression, instruments=names)
    narrow = qv.Baskets.from_long(table, expression, instruments=names, capacity=200, reclaim=True)
    found, expected = narrow.run(values, date=days), wide.run(values, date=days)
    np.testing.assert_allclose(found, expected, rtol=0, atol=1e-12)
    assert wide.slots == qv.SlotUsage(10, 2400, 2400)
    assert narrow.slots == qv.SlotUsage(10, 200, 200)
    parts = qv.Baskets.from_long(table, expression, instruments=names, capacity=200, reclaim=True)
    middle = 2000
    same_bits(parts.update(values[:middle], date=days[:middle]), found[:middle])
    same_bits(parts.update(values[middle:], date=days[middle:]), found[middle:])


@pytest.mark.parametrize("expression", ["none", "ewma(3);rank", "zscore;ewma(3);sigmoid"])
def test_more_room_keeps_every_bit(make, expression):
    values, days = numbers(), START + np.arange(40)
    expected = make(expression).run(values, date=days)
    made = make(expression)
    first = made.run(values[:17], date=days[:17])
    before = made.slots
    made.grow(50)
    assert made.slots == qv.SlotUsage(before.speaking, before.known, 50)
    assert made.last_date == days[16]
    same_bits(np.concatenate([first, made.update(values[17:], date=days[17:])]), expected)
    same_bits(made.run(values, date=days), expected)
    assert made.slots.capacity == 50
    made.reset()
    assert made.slots.capacity == 50


def test_less_room_or_no_number_is_refused():
    made = qv.Baskets(WEIGHTS, "none", instruments=NAMES)
    for capacity in (4, 3, 0, -1):
        with pytest.raises(ValueError, match="capacity must be"):
            made.grow(capacity)
    for capacity in (7.0, "7", True, None):
        with pytest.raises(TypeError, match="capacity must be"):
            made.grow(capacity)
    assert made.slots.capacity == 4
