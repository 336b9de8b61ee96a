"""Which days of a table are days of the training: by their names, else by their numbers."""

import numpy as np
import pytest

from support.tables_of_baskets import NAMES, START, numbers, same_bits

pandas = pytest.importorskip("pandas")

LABELS = {
    "dates": pandas.DatetimeIndex(START + np.arange(40), name="day"),
    "UTC": pandas.date_range("2024-01-01", periods=40, tz="UTC"),
    "periods": pandas.period_range("2024-01-01", periods=40, freq="D"),
    "text of dates": [str(day) for day in START + np.arange(40)],
    "whole numbers": 20240000 + np.arange(40),
    "numbers": np.arange(40) / 8 + 3,
    "elapsed times": pandas.timedelta_range("1h", periods=40, freq="h"),
    "categories of dates": pandas.CategoricalIndex(START + np.arange(40)),
    "categories of UTC": pandas.CategoricalIndex(
        pandas.date_range("2024-01-01", periods=40, tz="UTC")
    ),
    "objects that are numbers": pandas.Index(range(5, 45), dtype=object),
    "names": [f"day {i}" for i in range(40)],
    "pairs": pandas.MultiIndex.from_product([["x", "y"], range(20)]),
    "plain": range(40),
    "none": None,
}
ORDERED = ["dates", "UTC", "periods", "text of dates", "whole numbers", "numbers", "elapsed times"]
ORDERED += ["categories of dates", "categories of UTC", "objects that are numbers"]


@pytest.fixture(params=LABELS)
def labels(request):
    return request.param


@pytest.fixture(params=ORDERED)
def ordered(request):
    return request.param


def table(labels, values=None):
    values = numbers() if values is None else values
    if labels == "none":
        return values
    return pandas.DataFrame(values, LABELS[labels], NAMES)


def part(days, start, stop):
    return days.iloc[start:stop] if hasattr(days, "iloc") else days[start:stop]


@pytest.fixture
def fitted(make):
    """Fits on a part of the forty days, and says what a run from its first day gives."""

    def fitted(labels, start=10, stop=30, **options):
        days = table(labels)
        made = make(expression="ewma(3);rank", **options)
        expected = np.full((40, 5), np.nan)
        expected[start:] = made.fit_transform(part(days, start, 40))
        return made.fit(part(days, start, stop)), days, expected

    return fitted


@pytest.mark.parametrize(
    ("start", "stop"), [(0, 20), (3, 9), (19, 20), (15, 33), (0, 40), (20, 31)]
)
def test_parts_of_the_training_and_what_follows_give_what_they_gave(fitted, labels, start, stop):
    made, days, expected = fitted(labels, 0, 20)
    same_bits(made.transform(part(days, start, stop)), expected[start:stop])


def test_no_days_give_no_rows(fitted, labels):
    made, days, _ = fitted(labels)
    assert made.transform(part(days, 5, 5)).shape == (0, 5)


def test_some_days_of_the_training_give_what_they_gave(fitted, labels):
    if labels in ("none", "plain"):
        pytest.skip("days without names are known in their order alone")
    made, days, expected = fitted(labels)
    some = [10, 13, 14, 22, 29, 30, 35]
    # Behind the training are days 30 and 35: nobody knows of those in between.
    found = made.transform(days.iloc[some])
    same_bits(found[:6], expected[some[:6]])
    same_bits(found[5:], made.transform(days.iloc[[30, 35]]))


@pytest.mark.parametrize(("start", "stop"), [(0, 10), (5, 20), (0, 40), (9, 10)])
def test_days_before_the_training_are_refused(fitted, ordered, start, stop):
    made, days, _ = fitted(ordered)
    with pytest.raises(ValueError, match="is not among the days of the training, and comes before"):
        made.transform(part(days, start, stop))


def test_days_among_those_of_the_training_are_refused(make, ordered):
    days = table(ordered)
    made = make(expression="ewma(3)").fit(days.drop(days.index[[20]]).iloc[:30])
    with pytest.raises(ValueError, match="is not among the days of the training"):
        made.transform(days.iloc[20:21])
    with pytest.raises(ValueError, match="is not among the days of the training"):
        made.transform(days)


def test_a_name_that_is_new_before_one_that_is_known_is_refused(fitted):
    made, days, _ = fitted("names")
    with pytest.raises(ValueError, match="X: day 9 is not among the days of the training"):
        made.transform(days.iloc[9:12])


def test_numbers_that_a_day_did_not_have_are_refused(fitted, labels):
    if labels in ("none", "plain"):
        pytest.skip("days without names are known by their numbers")
    made, days, _ = fitted(labels, 0, 20)
    changed = days.copy()
    changed.iloc[7, 2] += 0.5
    with pytest.raises(ValueError, match=r"is a day of the training, where 'C' had .*fit again"):
        made.transform(changed)
    changed = days.copy()
    changed.iloc[7, 2] = np.nan
    with pytest.raises(ValueError, match=r"is a day of the training, where 'C' had .*nan"):
        made.transform(changed)
    changed = days.copy()
    changed.iloc[25, 2] += 0.5
    made.transform(changed)


def test_numbers_that_differ_by_rounding_are_the_same_day(fitted, labels):
    made, days, expected = fitted(labels, 0, 20)
    rounded = days * (1 + 1e-15) + 1e-17
    same_bits(made.transform(part(rounded, 0, 20)), expected[:20])
    same_bits(made.transform(part(rounded, 4, 25))[:16], expected[4:20])


@pytest.mark.parametrize("order", [slice(None, None, -1), [1, 0, 2]])
def test_days_in_no_order_are_refused_at_fit(make, ordered, order):
    days = table(ordered).iloc[order]
    with pytest.raises(ValueError, match="ascend"):
        make().fit(days)


def test_days_in_no_order_are_refused_afterwards(fitted, ordered):
    made, days, _ = fitted(ordered)
    with pytest.raises(ValueError, match="ascend"):
        made.transform(days.iloc[[33, 32]])


def test_a_shuffled_plain_index_is_refused(make):
    days = table("plain")
    with pytest.raises(ValueError, match=r"X: day 3 stands behind day 5, .*shuffle=False"):
        make().fit(days.iloc[[5, 3, 9]])


def test_a_name_that_comes_twice_is_refused(make):
    days = pandas.DataFrame(numbers(4), ["x", "y", "x", "z"], NAMES)
    with pytest.raises(ValueError, match="X: its index has x twice"):
        make().fit(days)


def test_days_of_another_sort_are_refused(fitted):
    made, _, _ = fitted("dates")
    for other, text in (("UTC", "dates with a time zone"), ("names", "are names"), ("numbers", "")):
        with pytest.raises(ValueError, match=f"X: its days .*{text}.*the training were dates"):
            made.transform(table(other))


def test_dates_as_text_are_dates(fitted):
    made, _, expected = fitted("dates")
    same_bits(made.transform(table("text of dates").iloc[20:]), expected[20:])
    with pytest.raises(ValueError, match="comes before"):
        made.transform(table("text of dates"))


def test_a_plain_index_is_no_name_where_a_new_table_has_it_too(make):
    days = table("plain")
    made = make(expression="ewma(3)").fit(days.iloc[:20])
    later = days.iloc[20:]
    expected = made.transform(later)
    same_bits(made.transform(later.reset_index(drop=True)), expected)
    same_bits(make(expression="ewma(3)").fit_transform(days)[20:], expected)


@pytest.mark.parametrize("later", ["dates", "names"])
def test_a_plain_index_is_no_name_where_days_have_names_later(make, later):
    made = make(expression="ewma(3)").fit(table("plain").iloc[:20])
    expected = make(expression="ewma(3)").fit_transform(table("plain"))
    same_bits(made.transform(table(later)), expected)
    same_bits(made.transform(table(later).iloc[20:]), expected[20:])


def test_a_plain_index_of_a_table_before_the_training_is_a_name(make):
    days = table("plain")
    made = make(expression="ewma(3)").fit(days.iloc[20:])
    with pytest.raises(ValueError, match=r"X: day 0 is not among .* comes before"):
        made.transform(days.iloc[:20])


@pytest.mark.parametrize("first", ["dates", "names"])
def test_days_that_lost_their_names_are_known_by_their_numbers(fitted, first):
    made, days, expected = fitted(first, 0, 20)
    with pytest.warns(UserWarning, match="valid feature names"):
        same_bits(made.transform(days.to_numpy()), expected)
    same_bits(made.transform(days[15:25].reset_index(drop=True)), expected[15:25])


# ---- without names ------------------------------------------------------------------------------


def test_a_table_that_begins_before_the_training_is_refused(fitted):
    made, days, _ = fitted("none")
    for start, stop in ((0, 40), (5, 20), (9, 11), (0, 30)):
        with pytest.raises(ValueError, match=r"X: row \d+ is a row of the training, but the rows"):
            made.transform(days[start:stop])


@pytest.mark.parametrize("rows", [[12, 11, 10], [10, 12, 14], [11, 10, 12, 13], [29, 28]])
def test_rows_of_the_training_in_another_order_are_refused(fitted, rows):
    made, days, _ = fitted("none")
    with pytest.raises(ValueError, match="an index of dates would tell the days"):
        made.transform(days[rows])


def test_rows_that_say_nothing_are_no_day(make):
    values = numbers(30, missing=0)
    values[[4, 9, 19]] = np.nan
    values[[6, 12]] = 0.0
    made = make(expression="ewma(3)", hold=None).fit(values[:20])
    for row in (np.full((1, 5), np.nan), np.zeros((1, 5))):
        found = made.transform(row)
        expected = make(expression="ewma(3)", hold=None).fit_transform(
            np.concatenate([values[:20], row])
        )
        same_bits(found, expected[-1:])
    same_bits(made.transform(values), make(expression="ewma(3)", hold=None).fit_transform(values))
    same_bits(made.transform(values[8:13]), made.transform(values)[8:13])
    for before in (1, 2, 30):
        longer = np.concatenate([np.full((before, 5), np.nan), values])
        with pytest.raises(ValueError, match=f"X: row {before} is a row of the training"):
            made.transform(longer)


def test_alike_rows_tell_no_day_and_are_refused(make):
    signs = np.array([[1.0, -1.0], [1.0, 1.0], [-1.0, 1.0], [1.0, 1.0], [-1.0, -1.0]])
    made = make(expression="ewma(3)").fit(signs)
    expected = make(expression="ewma(3)").fit_transform(np.concatenate([signs, signs[:1]]))
    # All of them in their order, or numbers that are not there: nothing else can be meant.
    same_bits(made.transform(signs), expected[:5])
    same_bits(made.transform(np.concatenate([signs, signs[:1]])), expected)
    made.transform(np.array([[0.5, 0.5]]))
    for rows in ([[1.0, 1.0]], [[-1.0, -1.0]], [[-1.0, -1.0], [1.0, 1.0]], signs[2:]):
        with pytest.raises(ValueError, match="may be later days with the same numbers"):
            made.transform(np.array(rows))
    # In the midst of others a row that comes again is chance.
    assert len(made.transform(np.array([[2.0, 3.0], [1.0, 1.0], [4.0, 5.0]]))) == 3


def test_equal_rows_by_the_thousand_are_refused_at_once(make):
    equal = np.ones((20_000, 2))
    made = make(expression="ewma(3)").fit(equal)
    with pytest.raises(ValueError, match="may be later days with the same numbers"):
        made.transform(equal[:9000])


def test_one_number_tells_no_day(make):
    values = numbers(30, 1, missing=0)
    values[:8] = np.arange(8)[:, None] / 8 + 1
    made = make(expression="ewma(3)").fit(values[:20])
    expected = make(expression="ewma(3)").fit_transform(values)
    same_bits(made.transform(values[20:]), expected[20:])
    same_bits(made.transform(values[5:25]), expected[5:25])
    with pytest.raises(ValueError, match="may be later days"):
        made.transform(values[5:6])
    # Number 3 of the training comes again, but not what came after it.
    again = np.array([[7.5], values[3], [8.5]])
    assert len(made.transform(again)) == 3


def test_numbers_of_columns_without_a_basket_say_nothing(make):
    values = numbers(missing=0)
    days = pandas.DataFrame(values, LABELS["dates"], NAMES)
    made = make({"p": {"A": 1.0, "B": -1.0}}, "ewma(3)").fit(days[:20])
    changed = days.copy()
    changed[["C", "D", "E"]] = np.inf
    same_bits(made.transform(changed), made.transform(days))
    same_bits(made.transform(changed.reset_index(drop=True)), made.transform(days))
    with pytest.warns(UserWarning, match="valid feature names"):
        same_bits(made.transform(changed.to_numpy()), made.transform(days))


@pytest.mark.parametrize("seed", range(12))
def test_whatever_days_are_asked_for_is_right_or_refused(make, labels, seed):
    """Against a run from the training's first day, over the training and the new days."""
    rng = np.random.default_rng(seed)
    days = table(labels)
    start, stop = sorted(rng.choice(41, 2, replace=False).tolist())
    made = make(expression="ewma(3);rank", hold=2).fit(part(days, start, stop))
    for _ in range(6):
        first, last = sorted(rng.choice(41, 2, replace=False).tolist())
        asked = part(days, first, last)
        if first < start:
            if labels == "none" and last <= start:
                # Days that were never seen, and have no names: they can only be later ones.
                continue
            if labels in ("names", "pairs") and last <= start:
                continue
            with pytest.raises(ValueError, match="training"):
                made.transform(asked)
            continue
        reached = (
            list(range(start, max(stop, first))) if first <= stop else list(range(start, stop))
        )
        whole = sorted({*reached, *range(first, last)})
        expected = make(expression="ewma(3);rank", hold=2).fit_transform(_rows(days, whole))
        same_bits(made.transform(asked), expected[[whole.index(i) for i in range(first, last)]])


def _rows(days, rows):
    return days.iloc[rows] if hasattr(days, "iloc") else days[rows]


@pytest.mark.parametrize("place", [1, 3, 7])
def test_rows_of_the_training_among_later_ones_are_refused(make, place):
    rows = np.random.default_rng(8).normal(size=(60, 5))
    fitted = make(expression="ewma(3);rank").fit(rows[:40])
    mixed = np.insert(rows[40:50], [place] * 3, rows[20:23], axis=0)
    with pytest.raises(ValueError, match=rf"row {place} is a row of the training"):
        fitted.transform(mixed)


def test_instruments_that_can_be_read_only_once_are_refused(make):
    made = make(weights={"a": {"A": 1.0}}, instruments=iter(["A", "B"]))
    with pytest.raises(TypeError, match="instruments must be a list or a tuple"):
        made.fit(np.ones((3, 2)))
