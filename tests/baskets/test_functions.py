"""Every function of the catalogue: the same bits however the days come, and those of the base."""

import itertools

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import quorvane as qv
from quorvane.expressions import calls_of
from quorvane.expressions.ready_made import READY_MADE
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.tables_of_baskets import NAMES, START, WEIGHTS, numbers, same_bits

FUNCTIONS = [
    "ewma(3)",
    "ewma(span=2.5)",
    "ewma(halflife=3)",
    "ewm_std(4)",
    "ewm_std(halflife=0.5)",
    "rolling_mean(3)",
    "rolling_mean(5, min_periods=2)",
    "rolling_std(4, 2)",
    "rolling_zscore(5, 3)",
    "delay(1)",
    "delay(7)",
    "diff(2)",
    "rank",
    "centered_rank",
    "zscore",
    "demean",
    "scale",
    "clip(-0.5, high=1)",
    "winsorize(0.25)",
    "sigmoid",
    "tanh",
    "sign",
    "abs",
    "log",
]
CHAINS = [
    "delay(2);ewma(3);demean;rank",
    "log;rolling_mean(3, 1);centered_rank",
    "diff(1);ewm_std(3);scale;ewma(halflife=2);tanh",
    "rank;rolling_zscore(4, 2);winsorize(0.1);ewma(5);ewma(2);abs;log;zscore",
]
GROUPED = [f"ewma(3);{name}(by='kind')" for name in ("rank", "centered_rank", "zscore", "demean")]


def in_parts(made, values, days):
    bounds = [0, 1, 1, 8, 9, 21, len(values)]
    pairs = itertools.pairwise(bounds)
    return np.concatenate([made.update(values[a:b], date=days[a:b]) for a, b in pairs])


def test_no_function_is_left_out():
    assert {call.name for text in FUNCTIONS for call in calls_of(text)} == set(READY_MADE)


@pytest.mark.parametrize("hold", [0, 2, None])
@pytest.mark.parametrize("expression", FUNCTIONS + CHAINS)
def test_parts_steps_threads_and_reloads_give_the_bits_of_a_run(make, expression, hold, store):
    values = numbers()
    days = START + np.arange(len(values))
    expected = make(expression, hold=hold).run(values, date=days)
    assert np.isfinite(expected).any()
    same_bits(make(expression, hold=hold, threads=4).run(values, date=days), expected)
    same_bits(in_parts(make(expression, hold=hold), values, days), expected)
    made, found = make(expression, hold=hold), []
    for day, row in zip(days, values, strict=True):
        found.append(made.step(row, date=day))
        if (day - START).astype(int) % 9 == 5:
            made.save(store)
            made = make(expression, hold=hold)
            made.load(store)
    same_bits(np.array(found), expected)
    made.reset()
    same_bits(made.update(values, date=days), expected)


@pytest.mark.parametrize("expression", FUNCTIONS + CHAINS)
def test_more_room_and_forgetting_keep_every_bit(make, expression):
    values = numbers()
    days = START + np.arange(len(values))
    expected = make(expression).run(values, date=days)
    made = make(expression)
    first = made.run(values[:17], date=days[:17])
    made.grow(50)
    same_bits(np.concatenate([first, made.update(values[17:], date=days[17:])]), expected)
    made.reset()
    same_bits(made.run(values, date=days), expected)


@pytest.mark.parametrize("expression", FUNCTIONS + CHAINS + GROUPED)
def test_many_baskets_on_four_threads_are_those_on_one(expression):
    values = numbers(200, 130, missing=0.2)
    labels = {"kind": {column: column % 7 for column in range(130)}}
    made = [
        qv.Baskets(None, expression, hold=1, labels=labels, threads=threads) for threads in (1, 4)
    ]
    one, four = (each.run(values) for each in made)
    same_bits(four, one)
    same_bits(made[1].update(values[:50]), made[0].update(values[:50]))


def test_a_result_that_is_not_finite_is_missing():
    none = np.nan
    found = qv.Baskets(None, "log;rank").run(np.array([[0.0, -1.0, 2.0, 3.0]]))
    np.testing.assert_array_equal(found, [[none, none, 0.5, 1.0]])
    huge = np.array([[1.7e308, -1.7e308, 1.0]])
    found = qv.Baskets(None, "diff(1);rank").run(np.concatenate([huge, -huge]))
    np.testing.assert_array_equal(found, [[none] * 3, [none, none, 1.0]])


@pytest.mark.parametrize("before", ["", "ewma(3);", "sign;", "sign;ewma(2);", "diff(1);"])
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("after", ["", ";ewma(4)", ";ewma(3);centered_rank", ";tanh"])
@pytest.mark.parametrize("by", ["", '(by="kind")'])
def test_changed_signs_of_all_weights_leave_the_signal_of_the_centered_rank(
    before, policy, after, by
):
    values = numbers(30, 5).round(1)
    flipped = {basket: {i: -w for i, w in legs.items()} for basket, legs in WEIGHTS.items()}
    labels = {"kind": dict(zip(WEIGHTS, "xxyx", strict=True))}
    signals = [
        qv.Baskets(
            weights, f"{before}centered_rank{by}{after}", policy=policy, hold=1, labels=labels
        ).run(values)
        for weights in (WEIGHTS, flipped)
    ]
    same_bits(*signals)


# ---- what the base class understands ------------------------------------------------------------

UNDERSTOOD = [
    "none",
    "  NoOp ",
    "identity()",
    "Recording_Identity()",
    "ewma(3)",
    " EWMA( 3 ) ; ;Rank;",
    "ewma(+3);none;rank()",
    "ewma(1_0)",
    "ewma(\u0663)",
    "ewma(\u2003\U0001d7da\x1f)",
    "ewma(170141183460469231731687303715884105728)",
    "sigmoid( );recording_identity;ZSCORE",
    "longitudinal_EWMA_67301c(4);latitudinal_normalize_092871",
    "latitudinal_rank_688068;numerical_transcendental_2f4f61",
    "\n;rank\t;\u00a0ewma(2)\n;sigmoid;ewma(2)",
]
PIECES = [
    "ewma(2)",
    "ewma( +7)",
    "Ewma(1)",
    "rank",
    "RANK()",
    "zscore",
    "sigmoid",
    "none",
    "noop()",
]
PIECES += [
    "identity( )",
    "latitudinal_rank_688068",
    "ewma(٤)",
    "",
    " ",
    "ewma(0)",
    "ewma",
    "rank(1)",
]
PIECES += [
    "ewma(2.5)",
    "ewma(x)",
    "none(1)",
    "ewma(1__0)",
    "ewma (2)",
    "rank;",
    "é",
    "²",
    "ewma(²)",
]


def of_base(expression):
    return FixedBaskets(WEIGHTS, NAMES, transformation_expression=expression)


def same_as_base(expression, values):
    """The numbers of a run and of single days are the base's, NaN where it has NaN."""
    expected = replay_history(of_base(expression), values)
    made = qv.Baskets(WEIGHTS, expression, instruments=NAMES, hold=None)
    same_bits(made.run(values), expected)
    made.reset()
    same_bits(np.array([made.step(row) for row in values]), expected)
    base = of_base(expression)
    same_bits(np.array([base(row) for row in values]), expected)


@pytest.mark.parametrize("expression", UNDERSTOOD)
def test_what_the_base_understands_gives_its_bits(expression):
    same_as_base(expression, numbers())


@settings(
    max_examples=150,
    deadline=None,
    derandomize=True,
    database=None,
    suppress_health_check=list(HealthCheck),
)
@given(
    st.lists(st.sampled_from(PIECES), min_size=1, max_size=5),
    st.sampled_from([";", " ; ", ";;", "\n;"]),
)
def test_random_chains_that_the_base_takes_are_taken_and_give_its_bits(pieces, separator):
    expression = separator.join(pieces)
    try:
        of_base(expression)
    except ValueError:
        return
    same_as_base(expression, numbers(12))


def test_limits_of_the_base_do_not_bind_here():
    values = numbers(12)
    many = ";".join(["ewma(2)", "rank", "sigmoid", "zscore"] * 3)
    assert qv.Baskets(WEIGHTS, many).run(values).shape == values.shape
    long = f"ewma(3){' ' * 600};rank"
    same_bits(
        qv.Baskets(WEIGHTS, long).run(values), qv.Baskets(WEIGHTS, "ewma(3);rank").run(values)
    )
    wide = qv.Baskets(None, ";".join(["abs"] * 11), capacity=100_000)
    np.testing.assert_array_equal(wide.run(values), np.abs(values))
