"""Baskets that change on days which are known beforehand."""

import doctest
import gc
import sys
import types

import numpy as np
import pytest

from quorvane.functions.rotations.virtualization import planned_baskets
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.planned_baskets import PlannedBaskets

NAMES = ["KO", "PEP", "XOM"]
JANUARY = {"drinks": {"KO": 1.0, "PEP": -1.0}, "oil": {"XOM": 1.0}}
FEBRUARY = {"drinks": {"KO": 0.5, "PEP": 0.5}, "all": {"KO": 1.0, "PEP": 1.0, "XOM": 1.0}}


def make(plan, **options):
    options.setdefault("transformation_expression", "none")
    return PlannedBaskets(plan, NAMES, **options)


def test_the_docstring_example_is_true():
    assert doctest.testmod(planned_baskets) == (0, 4)


def test_one_plan_from_the_beginning_is_that_of_fixed_baskets():
    matrix = np.random.default_rng(1).normal(size=(40, 3))
    planned = make({0: JANUARY}, transformation_expression="ewma(3);rank")
    fixed = FixedBaskets(JANUARY, NAMES, transformation_expression="ewma(3);rank")
    assert planned.batch_reference(matrix).tobytes() == fixed.batch_reference(matrix).tobytes()
    assert planned.get_state().keys() == fixed.get_state().keys()


def test_each_day_has_the_baskets_that_hold_on_it():
    rotation = make([(3, FEBRUARY), (0, JANUARY)])
    assert rotation.keys == (("drinks",), ("oil",), ("all",))
    assert rotation.instruments == tuple(NAMES)
    day = np.array([4.0, 1.0, 10.0])
    for index, values in [(0, [3, 10, np.nan]), (2, [3, 10, np.nan]), (3, [2.5, np.nan, 15])]:
        rotation(day, context=types.SimpleNamespace(current_day_index=index))
        np.testing.assert_array_equal(rotation._txi_input, values)
    assert rotation.basket_values(day).tolist() == [3.0, 10.0]


def test_a_basket_that_is_gone_is_missing_and_keeps_its_slot():
    rotation = make({0: JANUARY, 2: FEBRUARY}, transformation_expression="ewma(1)")
    output = rotation.batch_reference(np.array([[4.0, 1.0, 10.0]] * 4))
    assert rotation.slot_by_key == {("drinks",): 0, ("oil",): 1, ("all",): 2}
    # The average of the oil basket is held, and goes on reaching XOM.
    assert output[1, 2] == 10.0
    assert output[3, 2] == 10.0 + 15.0


@pytest.mark.parametrize(
    ("plan", "error", "text"),
    [
        ({1: JANUARY}, ValueError, "plan must have baskets for day 0"),
        ({}, ValueError, "plan must have baskets for day 0"),
        ({0: JANUARY, -1: FEBRUARY}, ValueError, "plan: a first day must be at least 0, got -1"),
        ([(0, JANUARY), (0, JANUARY)], ValueError, "plan: first day 0 is given twice"),
        ({"0": JANUARY}, TypeError, "plan: a first day must be an int, got '0'"),
        ({True: JANUARY}, TypeError, "plan: a first day must be an int, got True"),
        (7, TypeError, "plan must be a mapping or pairs of first day and baskets, got 7"),
        ({0: {}}, ValueError, "baskets must hold at least one basket"),
        ({0: {"x": {"KOO": 1.0}}}, ValueError, "unknown instrument 'KOO'; did you mean 'KO'"),
    ],
)
def test_a_plan_that_makes_no_sense_is_refused(plan, error, text):
    with pytest.raises(error, match=text):
        make(plan)


def test_fewer_slots_than_keys_are_refused():
    with pytest.raises(ValueError, match="max_structures must be at least 3, the number of keys"):
        make({0: JANUARY, 2: FEBRUARY}, max_structures=2)


def test_an_input_without_all_the_named_columns_is_refused():
    with pytest.raises(ValueError, match="planned_baskets: input has 2 columns, expected at least"):
        make({0: JANUARY}, N_alloc=5)(np.ones(2))


@pytest.mark.usefixtures("all_collected")
def test_the_module_tells_the_collector_of_what_it_holds():
    module = sys.modules["quorvane.functions.rotations.virtualization.planned"]
    method = module.PlannedStructures.basket_values
    assert any(holder is module for holder in gc.get_referrers(type(method)))
