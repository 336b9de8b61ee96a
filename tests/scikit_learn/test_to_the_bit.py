"""Fitted on some days and asked for others: what one run over all of them gives, to the bit."""

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import (
    EXPRESSIONS,
    NAMES,
    START,
    WEIGHTS,
    numbers,
    same_bits,
    three_lists,
)

HOLDS = [0, 2, None]
HARDEST = ["none", "ewma(3);rank;ewma(5);sigmoid", "rolling_zscore(5);winsorize(0.1);ewm_std(4)"]


@pytest.mark.parametrize("hold", HOLDS)
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_the_training_and_the_days_after_it_give_a_run(make, sort, frame, expression, hold):
    weights, others, baskets = sort
    expected = baskets(expression, hold=hold, instruments=NAMES).run(frame).to_numpy()
    made = make(weights, expression, hold=hold, instruments=NAMES, **others)
    same_bits(made.fit_transform(frame), expected)
    for cut in (1, 13, 39):
        made.fit(frame[:cut])
        same_bits(made.transform(frame[:cut]), expected[:cut])
        same_bits(made.transform(frame[cut:]), expected[cut:])
        same_bits(made.transform(frame), expected)
        same_bits(made.transform(frame[cut // 2 : cut + 1]), expected[cut // 2 : cut + 1])


@pytest.mark.parametrize("level", ["instrument", "basket"])
@pytest.mark.parametrize("expression", HARDEST)
def test_every_kind_of_table_gives_the_same(make, kind, expression, level):
    values = numbers()
    table = kind.table(values)
    expected = kind.values(qv.Baskets(WEIGHTS, expression).run(table, level=level))
    made = make(WEIGHTS, expression, level=level).fit(kind.part(table, 0, 25))
    same_bits(made.transform(kind.part(table, 25, 40)), expected[25:])
    same_bits(made.transform(kind.part(table, 0, 25)), expected[:25])
    same_bits(made.transform(table), expected)
    assert isinstance(made.transform(table), np.ndarray)


@pytest.mark.parametrize("level", ["instrument", "basket"])
def test_both_levels_of_dated_baskets_go_on(make, sort, frame, level):
    weights, others, baskets = sort
    expected = baskets("ewma(3);rank", instruments=NAMES).run(frame, level=level).to_numpy()
    made = make(weights, "ewma(3);rank", level=level, instruments=NAMES, **others)
    for cut in (2, 12, 30):
        same_bits(made.fit_transform(frame[:cut]), expected[:cut])
        same_bits(made.transform(frame[cut:]), expected[cut:])


def test_every_argument_reaches_the_baskets(make, frame):
    labels = {"group": dict(zip(WEIGHTS, "xxyy", strict=True))}
    options = {"policy": "equal_split", "hold": 3, "labels": labels, "capacity": 9, "threads": 1}
    expression = 'ewma(3);demean(by="group")'
    expected = qv.Baskets(WEIGHTS, expression, **options).run(frame).to_numpy()
    made = make(WEIGHTS, expression, **options).fit(frame[:20])
    same_bits(made.transform(frame[20:]), expected[20:])
    assert made.baskets_.slots.capacity == 9


@pytest.mark.parametrize("zone", [None, "UTC", "Asia/Tokyo"])
def test_dates_of_baskets_and_of_days_know_their_zone(make, frame, zone):
    pandas = pytest.importorskip("pandas")
    legs = pandas.DataFrame(three_lists())
    legs["date"] = legs["date"].dt.tz_localize(zone)
    days = frame.tz_localize(zone)
    expected = qv.Baskets.from_long(legs, "ewma(3);rank", instruments=NAMES).run(days).to_numpy()
    made = make(legs, "ewma(3);rank", instruments=NAMES).fit(days[:15])
    same_bits(made.transform(days[15:]), expected[15:])
    same_bits(made.transform(days[:15]), expected[:15])
    assert made.baskets_.last_date == days.index[14].tz_localize(None) - (
        days.index[14].utcoffset() or pandas.Timedelta(0)
    )


def test_slots_that_change_hands_go_on(make, frame):
    pandas = pytest.importorskip("pandas")
    rows = [
        (START + np.timedelta64(day, "D"), f"{a}{day}", a, 1.0)
        for day in range(0, 40, 5)
        for a in "ABCDE"[day % 3 : day % 3 + 3]
    ]
    legs = pandas.DataFrame(rows, columns=["date", "basket", "instrument", "weight"])
    options = {"capacity": 6, "reclaim": True, "instruments": NAMES}
    expected = qv.Baskets.from_long(legs, "ewma(3);rank", **options).run(frame).to_numpy()
    made = make(legs, "ewma(3);rank", **options)
    for cut in (1, 7, 15, 38):
        same_bits(made.fit(frame[:cut]).transform(frame[cut:]), expected[cut:])


@pytest.mark.parametrize("kind_of_weights", ["pandas", "polars", "pyarrow"])
def test_a_long_table_without_dates_is_of_baskets_that_stay(make, frame, kind_of_weights):
    library = pytest.importorskip(kind_of_weights)
    legs = [(b, i, w) for b, legs in WEIGHTS.items() for i, w in legs.items()]
    names = ("basket", "instrument", "weight")
    columns = dict(zip(names, map(list, zip(*legs, strict=True)), strict=True))
    frame_of = library.table if kind_of_weights == "pyarrow" else library.DataFrame
    expected = make(WEIGHTS, "ewma(3);rank").fit_transform(frame)
    same_bits(make(frame_of(columns), "ewma(3);rank").fit_transform(frame), expected)


def test_a_frame_of_instruments_by_baskets_is_weights(make, frame):
    pandas = pytest.importorskip("pandas")
    expected = make(WEIGHTS, "ewma(3);rank").fit_transform(frame)
    same_bits(make(pandas.DataFrame(WEIGHTS), "ewma(3);rank").fit_transform(frame), expected)


# ---- nothing changes the fitted state, nothing looks ahead ---------------------------------------


def test_the_same_later_days_give_the_same_bits_again(make, frame):
    made = make(WEIGHTS, "ewma(3);rank;ewma(5)").fit(frame[:20])
    first = made.transform(frame[20:])
    made.transform(frame)
    made.transform(frame[:20])
    made.transform(frame[20:30])
    same_bits(made.transform(frame[20:]), first)


def test_what_is_done_to_results_and_to_the_baskets_changes_nothing(make, frame):
    made = make(expression="ewma(3);rank")
    expected = made.fit_transform(frame).copy()
    made.fit_transform(frame[:20])[:] = 7.0
    for days, rows in ((frame[:20], slice(20)), (frame[20:], slice(20, 40))):
        made.transform(days)[:] = 7.0
        made.baskets_.update(frame[20:])
        same_bits(made.transform(days), expected[rows])


def test_the_table_of_the_training_may_be_written_to_afterwards(make):
    values = numbers(30, missing=0)
    kept = values.copy()
    made = make(expression="ewma(3);rank").fit(values[:20])
    values[:] = 0.0
    same_bits(made.transform(kept[:20]), make(expression="ewma(3);rank").fit_transform(kept[:20]))
    assert np.ptp(made.transform(values)[0]) > 0  # later days, which go on from others


@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_no_number_depends_on_a_later_day(make, sort, frame, expression):
    weights, others, _ = sort
    changed = frame.copy()
    changed.iloc[25:] = 9.0 - changed.iloc[25:] * 3.0
    made = make(weights, expression, instruments=NAMES, **others).fit(frame[:20])
    same_bits(made.transform(changed[20:])[:5], made.transform(frame[20:])[:5])
    same_bits(made.fit_transform(changed)[:25], made.fit_transform(frame)[:25])


def test_a_function_of_ones_own_goes_on_and_is_not_changed(make, frame, register):
    @register("running_sum")
    class RunningSum:
        def __init__(self, *, N_alloc):
            self.total = np.zeros(N_alloc)

        def __call__(self, values, context=None):
            # In place: whoever does so must not reach what others go on from.
            self.total += np.nan_to_num(values)
            return self.total.copy()

        def get_state(self):
            return {"total": self.total}

        def set_state(self, state):
            self.total = state["total"]

    expected = qv.Baskets(WEIGHTS, "running_sum;rank").run(frame).to_numpy()
    made = make(WEIGHTS, "running_sum;rank").fit(frame[:20])
    for _ in range(3):
        same_bits(made.transform(frame[20:]), expected[20:])


def test_a_function_that_cannot_say_what_it_remembers_is_refused_at_fit(make, frame, register):
    @register("forgetful")
    class Forgetful:
        def __init__(self, *, N_alloc):
            self.last = None

        def __call__(self, values, context=None):
            return np.array(values)

    with pytest.raises(TypeError, match="'forgetful' of the expression has no get_state"):
        make(WEIGHTS, "forgetful").fit(frame)


def test_the_fitted_baskets_go_on_by_themselves(make, frame):
    made = make(WEIGHTS, "ewma(3);rank").fit(frame[:20])
    baskets = made.baskets_
    later = baskets.update(frame[20:])
    same_bits(later.to_numpy(), made.transform(frame[20:]))
    assert made.baskets_.last_date == frame.index[19].to_datetime64()
    assert baskets.last_date == frame.index[-1].to_datetime64()
    expected = qv.Baskets(WEIGHTS, "ewma(3);rank")
    expected.run(frame[:20])
    pandas = pytest.importorskip("pandas")
    pandas.testing.assert_frame_equal(made.baskets_.explain("A"), expected.explain("A"))
