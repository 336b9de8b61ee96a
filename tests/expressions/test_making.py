"""From names and arguments to functions: what is known, what is near, what is out of range."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.expressions import Places, make_functions
from quorvane.expressions.making import known_names
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean

PLACES = Places(4, {"sector": {"a": 1}})


def made(expression):
    return make_functions(expression, PLACES)


def refusal(expression, error=ValueError):
    """What is said of an expression when it is checked."""
    with pytest.raises(error) as caught:
        made(expression)
    with pytest.raises(error):
        qv.Baskets(None, expression, labels={"sector": {}})
    assert "\n" not in str(caught.value)
    return str(caught.value)


def test_functions_are_made_new_for_so_many_slots():
    first, second = made("ewma(20);rank"), made("ewma(20);rank")
    assert [each.text for each in first] == ["ewma(20)", "rank"]
    assert all(each.is_ready_made for each in first)
    assert first[0].rotation is not second[0].rotation
    assert first[0].rotation(np.arange(4.0)).shape == (4,)
    assert first[0].identity == "quorvane.functions.rotations.longitudinal.ewma.Ewma"


@pytest.mark.parametrize(
    ("name", "known"),
    [
        ("longitudinal_ewma_67301c(3)", "ewma(3)"),
        ("Latitudinal_Normalize_092871", "zscore"),
        ("LATITUDINAL_RANK_688068()", "rank"),
        ("numerical_transcendental_2f4f61", "sigmoid"),
    ],
)
def test_long_names_are_other_names_of_the_same(name, known):
    assert type(made(name)[0].rotation) is type(made(known)[0].rotation)


def test_a_whole_window_is_the_base_s_own_average():
    for text in ("ewma(3)", "ewma(window=3)", "ewma(+3)"):
        assert type(made(text)[0].rotation) is Ewma
    for text in ("ewma(3.0)", "ewma(span=3)", "ewma(halflife=3)"):
        assert type(made(text)[0].rotation) is ExponentialMean


@pytest.mark.parametrize(
    ("expression", "said"),
    [
        ("emwa(20)", "there is no function 'emwa'; did you mean 'ewma'?"),
        ("RANKS", "there is no function 'ranks'; did you mean 'rank'?"),
        ("centred_rank", "did you mean 'centered_rank'?"),
        ("q", f"there is no function 'q'; known are {', '.join(known_names())}"),
        ("none(3)", "there is no function 'none'"),
        ("ewma(spam=20)", "'ewma(spam=20)' has no argument 'spam'; did you mean 'span'?"),
        ("ewma(Span=20)", "has no argument 'Span'; did you mean 'span'?"),
        ("ewma(q=20)", "it is ewma(window=None, *, span=None, halflife=None)"),
        ("rank(places=3)", "'rank(places=3)' has no argument 'places'; it is rank(*, by=None)"),
        ("rank('sector')", "too many positional arguments; it is rank(*, by=None)"),
        ("ewma(3, window=3)", "multiple values for argument 'window'"),
        ("winsorize", "missing a required argument: 'fraction'; it is winsorize(fraction)"),
        ("ewma", "exactly one of window, span and halflife is wanted, got none of them"),
        (
            "ewma(3, span=3)",
            "'ewma(3, span=3)': exactly one of window, span and halflife is wanted, got",
        ),
        ("ewma(0)", "expression: 'ewma(0)': window must be a positive int, got 0"),
        ("ewma(0.5)", "window must be at least 1 and at most 2**53, got 0.5"),
        ("ewma(inf)", "window must be at least 1 and at most 2**53, got inf"),
        ("ewma(nan)", "window must be at least 1 and at most 2**53, got nan"),
        (f"ewma(span={'1' * 400})", "span must be at least 1 and at most 2**53, got 1"),
        ("ewma(span=1e300)", "span must be at least 1 and at most 2**53, got 1e+300"),
        ("ewma(halflife=1e17)", "halflife must be above 0 and at most 2**53, got 1e+17"),
        ("ewma(halflife=0)", "halflife must be above 0"),
        ("ewma(halflife=-1)", "halflife must be above 0"),
        ("rolling_mean(3, 4)", "min_periods must be at most the window 3, got 4"),
        ("delay(0)", "days must be"),
        ("delay(-1)", "days must be"),
        ("clip(1, 0)", "low must not be above high"),
        ("clip(nan, 0)", "low must be"),
        ("winsorize(0.5)", "fraction must be"),
        ("rank(by='sectr')", "labels: there is no 'sectr'; did you mean 'sector'?"),
    ],
)
def test_what_makes_no_sense_is_refused_when_the_baskets_are_made(expression, said):
    assert said in refusal(expression)


@pytest.mark.parametrize(
    ("expression", "said"),
    [
        ("ewma(True)", "window must be"),
        ("ewma('3')", "window must be a number, got '3'"),
        ("ewma(span=False)", "span must be a number, got False"),
        ("ewm_std(None, span='x')", "span='x')\": span must be a number, got 'x'"),
        ("delay(2.0)", "days must be"),
        ("rolling_mean(1e3)", "window must be"),
        ("clip('a', 1)", "low must be a number"),
        ("winsorize('a')", "fraction must be"),
        ("rank(by=3)", "expression: 'rank(by=3)': by must be the name of a label, got 3"),
    ],
)
def test_an_argument_of_the_wrong_type_is_refused(expression, said):
    assert said in refusal(expression, TypeError)


@pytest.mark.parametrize("text", ["span=1", "span=9007199254740992", "halflife=9007199254740992"])
def test_the_longest_and_the_shortest_memory_can_be_had(text):
    values = np.random.default_rng(1).normal(size=(9, 2))
    for name in ("ewma", "ewm_std"):
        found = qv.Baskets(None, f"{name}({text})").run(values)
        assert text == "span=1" or np.isfinite(found[2:]).all()
    assert np.isfinite(qv.Baskets(None, "ewma(halflife=5e-324)").run(values)).all()


def test_a_long_name_makes_no_long_error():
    assert len(refusal("e" * 9000)) < 1000
    assert len(refusal(f"ewma({'s' * 9000}=3)")) < 500
    assert len(refusal(f"rank({'1,' * 4000}1)")) < 500
