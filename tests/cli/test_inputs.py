"""What the structures see."""

import math

import numpy as np
import pytest

from quorvane.cli.inputs import structure_input

pytestmark = pytest.mark.plain_python

NAN, INF = math.nan, math.inf


def test_levels_are_the_table_as_it_is():
    values = np.array([[1.0, NAN], [INF, -2.0]])
    assert structure_input(values, "levels") is values


def test_returns_are_the_relative_change_from_the_day_before():
    values = np.array([[100.0, 4.0], [110.0, 3.0], [99.0, 3.0]])
    returns = structure_input(values, "returns")
    assert np.isnan(returns[0]).all()
    assert returns[1:].tolist() == [[110.0 / 100.0 - 1.0, -0.25], [99.0 / 110.0 - 1.0, 0.0]]


@pytest.mark.parametrize(
    ("before", "after"), [(NAN, 1.0), (1.0, NAN), (0.0, 1.0), (-1.0, 1.0), (INF, 1.0), (1.0, INF)]
)
def test_a_return_without_two_prices_is_missing(before, after):
    assert np.isnan(structure_input(np.array([[before], [after]]), "returns")).all()


def test_one_day_has_no_return():
    assert np.isnan(structure_input(np.ones((1, 3)), "returns")).all()


def test_a_return_beyond_all_numbers_is_infinite():
    returns = structure_input(np.array([[5e-324], [1e308]]), "returns")
    assert returns[1:].tolist() == [[INF]]
