"""What a report says of structures: of the same day, and adding up to what was judged."""

import numpy as np
import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")

from evaluation.report.judged import dated_pairs, judged, pairs_of, table  # noqa: E402
from quorvane.evaluation.report import structure_figures  # noqa: E402


def test_the_largest_holding_is_taken_apart_into_what_makes_it_up():
    found, baskets = judged()
    parts = structure_figures(found, baskets).parts
    last = found.weights.iloc[-1]
    assert parts.instrument == last.abs().idxmax()
    explained = baskets.explain(parts.instrument)
    assert sorted(parts.contributions) == sorted(
        zip(explained["basket"], explained["contribution"], strict=True)
    )
    assert parts.is_whole


def test_many_contributions_are_summed_up_after_the_largest():
    returns = table(instruments=30)
    names = list(returns.columns)
    star = {f"I0/{name}": {"I0": 1.0, name: -1.0} for name in names[1:]}
    baskets = qv.Baskets(star, "ewma(5);rank")
    found = qv.evaluate(baskets.run(returns), returns)
    parts = structure_figures(found, baskets).parts
    assert (parts.instrument, len(parts.contributions), parts.others[0]) == ("I0", 12, 17)
    sizes = [abs(value) for _, value in parts.contributions]
    assert sizes == sorted(sizes, reverse=True)
    assert parts.is_whole


def test_a_signal_that_is_not_the_baskets_is_told():
    _, baskets = judged()
    returns = table()
    other = qv.evaluate(2.0 * baskets.run(returns), returns)
    assert not structure_figures(other, baskets).parts.is_whole


@pytest.mark.parametrize("baskets", [{"a": {"I0": 1.0}}, "baskets", 1])
def test_baskets_must_be_baskets(baskets):
    found, _ = judged()
    with pytest.raises(TypeError, match="baskets must be Baskets, got"):
        structure_figures(found, baskets)


def test_baskets_that_stand_at_another_day_are_refused():
    found, baskets = judged()
    baskets.run(table().iloc[:-1])
    with pytest.raises(ValueError, match=r"computed is 2020-06-15.*signal is 2020-06-16"):
        structure_figures(found, baskets)


def test_without_dates_the_number_of_days_is_compared():
    returns = table().to_numpy()
    baskets = qv.Baskets(None, "rank")
    found = qv.evaluate(baskets.run(returns), returns)
    structure_figures(found, baskets)
    baskets.run(returns[:-1])
    with pytest.raises(ValueError, match="have computed 119 days, and the signal has 120"):
        structure_figures(found, baskets)


def test_baskets_of_other_instruments_are_refused():
    found, _ = judged()
    baskets = qv.Baskets(None, "rank")
    baskets.run(table().rename(columns={"I3": "J3"}))
    with pytest.raises(ValueError, match="they have no instruments 'I3', for which there is"):
        structure_figures(found, baskets)


def test_lists_that_all_begin_later_have_no_births_yet():
    returns = table()
    later = dated_pairs(returns)
    later["date"] += pandas.Timedelta(days=1000)
    baskets = qv.Baskets.from_long(later, date="date", expression="ewma(5)")
    found = qv.evaluate(table(seed=1), returns)
    baskets.run(returns)
    assert structure_figures(found, baskets).census is None


def test_baskets_without_a_day_are_refused():
    found, _ = judged()
    fresh = qv.Baskets(pairs_of(["I0", "I1"]), "rank")
    with pytest.raises(ValueError, match="have computed no day yet"):
        structure_figures(found, fresh)


def test_births_and_ends_are_those_of_the_lists():
    returns = table()
    listed = dated_pairs(returns)
    baskets = qv.Baskets.from_long(listed, date="date", expression="ewma(5)")
    found = qv.evaluate(baskets.run(returns), returns)
    figures = structure_figures(found, baskets)
    sets = [set(part["basket"]) for _, part in listed.groupby("date")]
    before = [set(), *sets[:-1]]
    census = figures.census
    assert census.dates.astype("datetime64[D]").tolist() == [
        day.date() for day in returns.index[::20]
    ]
    assert census.listed.tolist() == [len(now) for now in sets]
    assert census.born.tolist() == [len(now - old) for now, old in zip(sets, before, strict=True)]
    assert census.ended.tolist() == [len(old - now) for now, old in zip(sets, before, strict=True)]
    assert figures.slots == baskets.slots


def test_lists_after_the_last_day_do_not_count_yet():
    returns = table()
    baskets = qv.Baskets.from_long(dated_pairs(returns), date="date", expression="ewma(5)")
    early = returns.iloc[:50]
    found = qv.evaluate(baskets.run(early), early)
    assert len(structure_figures(found, baskets).census.dates) == 3


def test_baskets_that_never_change_have_no_births():
    assert structure_figures(*judged()).census is None


def test_labels_of_single_instruments_are_groups():
    returns = table()
    labels = {name: "ab"[number % 2] for number, name in enumerate(returns.columns)}
    baskets = qv.Baskets(None, 'rank(by="side")', labels={"side": labels})
    found = qv.evaluate(baskets.run(returns), returns)
    assert structure_figures(found, baskets).groups == labels
    assert structure_figures(*judged()).groups is None


def test_a_last_day_without_a_signal_has_nothing_to_take_apart():
    returns = table()
    returns.iloc[-1] = np.nan
    baskets = qv.Baskets(pairs_of(list(returns.columns)), "ewma(5)", hold=0)
    found = qv.evaluate(baskets.run(returns), returns)
    assert structure_figures(found, baskets).parts is None
