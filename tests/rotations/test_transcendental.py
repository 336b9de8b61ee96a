import math

import numpy as np
import pytest

from quorvane.functions.rotations.numerical.transcendental import Transcendental
from support.series import random_rows, same_bits, ulps_apart

NUMPY_FUNCTIONS = {
    "abs": np.abs,
    "arctan": np.arctan,
    "cbrt": np.cbrt,
    "cos": np.cos,
    "exp": np.exp,
    "expm1": np.expm1,
    "log": np.log,
    "log10": np.log10,
    "log1p": np.log1p,
    "log2": np.log2,
    "reciprocal": np.reciprocal,
    "sign": np.sign,
    "sin": np.sin,
    "sqrt": np.sqrt,
    "square": np.square,
    "tanh": np.tanh,
}
OTHER_FUNCTIONS = {
    "cube": lambda x: x * x * x,
    "erf": lambda x: np.array([math.erf(each) for each in x]),
    "sigmoid": lambda x: np.where(x >= 0, 1 / (1 + np.exp(-x)), np.exp(x) / (1 + np.exp(x))),
}
FUNCTIONS = NUMPY_FUNCTIONS | OTHER_FUNCTIONS


def sample(seed):
    rng = np.random.default_rng(seed)
    widths = rng.choice([1e-300, 1e-12, 1e-3, 1.0, 10.0, 700.0], size=4000)
    return rng.uniform(-1, 1, size=4000) * widths


def test_the_sigmoid_is_scipy_expit_within_4_ulp():
    special = pytest.importorskip("scipy.special")
    sigmoid = Transcendental()
    for seed in range(20):
        row = sample(seed)
        assert ulps_apart(sigmoid(row), special.expit(row)).max() <= 4
    dense = np.linspace(-709.0, 40.0, 200_001)
    assert ulps_apart(sigmoid(dense), special.expit(dense)).max() <= 4


def test_the_sigmoid_of_extremes():
    row = [np.nan, np.inf, -np.inf, 1e308, -1e308, 800.0, -800.0, 0.0, -0.0, 5e-324]
    expected = [np.nan, 1.0, 0.0, 1.0, 0.0, 1.0, 0.0, 0.5, 0.5, 0.5]
    assert same_bits(Transcendental()(row), expected)


def test_small_sigmoids_keep_their_precision_down_to_the_smallest_number():
    row = np.linspace(-745.0, -709.0, 5001)
    assert ulps_apart(Transcendental()(row), np.exp(row)).max() <= 1


@pytest.mark.parametrize("name", FUNCTIONS)
def test_is_the_function_of_that_name(name):
    for seed in range(5):
        row = sample(seed)
        with np.errstate(all="ignore"):
            expected = FUNCTIONS[name](row)
        got = Transcendental(function=name)(row)
        there = ~np.isnan(expected)
        assert (np.isnan(got) == ~there).all()
        assert ulps_apart(got[there], expected[there]).max() <= 4


@pytest.mark.parametrize("name", NUMPY_FUNCTIONS)
def test_special_values_are_those_of_numpy(name):
    row = np.array([np.nan, np.inf, -np.inf, 0.0, -0.0, 1.0, -1.0, -2.0])
    with np.errstate(all="ignore"):
        expected = FUNCTIONS[name](row)
    got = Transcendental(function=name)(row)
    assert (np.isnan(got) == np.isnan(expected)).all()
    infinite = np.isinf(expected)
    assert (got[infinite] == expected[infinite]).all()
    finite = np.isfinite(expected)
    assert ulps_apart(np.abs(got[finite]), np.abs(expected[finite])).max() <= 4
    assert (np.signbit(got[finite]) == np.signbit(expected[finite])).all()


@pytest.mark.parametrize("name", FUNCTIONS)
def test_nothing_warns(name):
    # The test run turns warnings into errors.
    row = random_rows(5, days=1, columns=500)[0]
    with np.errstate(all="raise"):
        out = Transcendental(function=name)(row)
        assert np.add(out[:1], 0.0).shape == (1,)
    assert np.isnan(out[np.isnan(row)]).all()


def test_columns_that_are_left_out_stay_out(make_context):
    out = Transcendental()([0.0, 0.0], context=make_context(np.array([True, False])))
    assert same_bits(out, [0.5, np.nan])


def test_an_unknown_function_lists_those_there_are():
    with pytest.raises(
        ValueError, match=r"^function must be one of abs, .*tanh, got 'tan'$"
    ) as error:
        Transcendental(function="tan")
    assert all(name in str(error.value) for name in FUNCTIONS)


@pytest.mark.parametrize("function", ["", "sigmoid\0", "é", "\ud800"])
def test_a_name_in_any_characters_is_only_unknown(function):
    with pytest.raises(ValueError, match=r"^function must be one of abs, .*, got ") as error:
        Transcendental(function=function)
    assert str(error.value).endswith(repr(function))


@pytest.mark.parametrize("function", [None, 3, b"exp", np.exp])
def test_a_function_of_another_type(function):
    with pytest.raises(TypeError, match=r"^function must be a str, got .* of type"):
        Transcendental(function=function)


def test_a_function_that_was_replaced_is_looked_up_again():
    rotation = Transcendental(function="square")
    assert rotation([3.0])[0] == 9.0
    rotation.function = "cube"
    assert rotation([3.0])[0] == 27.0
    rotation.function = "none"
    with pytest.raises(ValueError, match="function must be one of"):
        rotation([3.0])


def test_shows_its_function():
    assert repr(Transcendental(N_alloc=2)) == "Transcendental(function='sigmoid', N_alloc=2)"
    assert Transcendental(function="log").parameters == {"function": "log"}
    assert Transcendental().stateful is False
    name, arity = Transcendental._name, Transcendental.arity
    assert (name, arity) == ("numerical_transcendental_2f4f61", 1)
