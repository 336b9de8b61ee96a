"""What a grid may be, and what is refused before anything is computed."""

import datetime
import itertools

import numpy as np
import pytest

from quorvane.sweeping.grid import grid_of
from support.sweeping import PAIRS, SINGLES


def shown(grid):
    found = grid_of(grid)
    return [
        {
            name: choices[place].shown
            for (name, choices), place in zip(found.choices.items(), job, strict=True)
        }
        for job in found.configurations
    ]


def test_all_combinations_come_in_the_order_of_the_grid_the_last_changing_first():
    grid = {"weights": {"p": PAIRS, "s": SINGLES}, "expression": ["rank", "zscore"], "hold": [0, 5]}
    expected = itertools.product(["p", "s"], ["rank", "zscore"], [0, 5])
    assert [tuple(row.values()) for row in shown(grid)] == list(expected)
    turned = shown({name: grid[name] for name in ("hold", "weights", "expression")})
    assert [row["hold"] for row in turned] == [0] * 4 + [5] * 4


def test_a_list_of_mappings_keeps_its_order_and_shows_what_is_left_out():
    rows = shown(
        [
            {"weights": {"p": PAIRS}, "expression": "rank"},
            {"weights": None, "expression": "zscore", "hold": 3},
            {"weights": {"p": PAIRS}, "expression": "rank"},
        ]
    )
    assert rows == [
        {"weights": "p", "expression": "rank", "hold": 0},
        {"weights": None, "expression": "zscore", "hold": 3},
        {"weights": "p", "expression": "rank", "hold": 0},
    ]


def test_one_label_may_mean_other_weights_elsewhere_in_a_list():
    found = grid_of(
        [
            {"weights": {"p": PAIRS}, "expression": "rank"},
            {"weights": {"p": SINGLES}, "expression": "rank"},
        ]
    )
    assert [choice.value for choice in found.choices["weights"]] == [PAIRS, SINGLES]


def test_any_argument_may_have_labels():
    rows = shown({"weights": [None], "expression": {"slow": "ewma(60)", "fast": "ewma(5)"}})
    assert [row["expression"] for row in rows] == ["slow", "fast"]


def test_values_may_be_of_numpy_and_any_kind_of_sequence():
    found = grid_of({"weights": (None,), "expression": iter(["rank"]), "hold": np.arange(3)})
    assert [choice.value for choice in found.choices["hold"]] == [0, 1, 2]
    assert {type(choice.value) for choice in found.choices["hold"]} == {int}


def test_weights_may_be_frames():
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame(PAIRS)
    found = grid_of({"weights": {"p": frame}, "expression": ["rank"]})
    assert found.choices["weights"][0].value == PAIRS


def test_weights_that_make_no_sense_are_the_fault_of_their_configurations_alone():
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame({"a": ["x", "y"]}, index=["I0", "I1"])
    choice = grid_of({"weights": {"p": frame}, "expression": ["rank"]}).choices["weights"][0]
    assert choice.fault.startswith("TypeError: weights")


@pytest.mark.parametrize("wrap", [lambda grid: grid, lambda grid: [grid]])
def test_a_name_that_is_misspelt_is_refused_with_the_right_one(wrap):
    with pytest.raises(TypeError, match=r"Baskets has no argument 'hodl'; did you mean 'hold'\?"):
        grid_of(wrap({"weights": [None], "expression": ["rank"], "hodl": [0]}))
    with pytest.raises(TypeError, match="no argument 7; known are weights, expression, policy"):
        grid_of(wrap({"weights": [None], "expression": ["rank"], 7: [0]}))


@pytest.mark.parametrize(
    ("grid", "error", "text"),
    [
        (None, TypeError, "grid must be a mapping .* or a list of mappings, got None"),
        ("rank", TypeError, "grid must be a mapping"),
        ([], ValueError, "at least one configuration"),
        ([3], TypeError, r"grid\[0\] must be a mapping"),
        ({}, ValueError, r"has no 'weights': give \{label: weights\}, or \[None\]"),
        ({"weights": [None]}, ValueError, "has no 'expression': give a list of texts"),
        ([{"expression": "rank"}], ValueError, r"grid\[0\] has no 'weights'"),
        (
            {"weights": [None], "expression": "rank"},
            TypeError,
            "expression must be a list .*'rank'",
        ),
        ({"weights": [None], "expression": []}, ValueError, "expression must hold at least one"),
        ({"weights": [None], "expression": 3}, TypeError, "expression must be a list .* got 3"),
        ({"weights": [PAIRS], "expression": ["x"]}, TypeError, "must be {label: weights} or None"),
        ({"weights": PAIRS, "expression": ["x"]}, TypeError, "got the weights themselves; give"),
        ({"weights": {1: PAIRS}, "expression": ["x"]}, TypeError, "a label must be a text"),
        ({"weights": {"": PAIRS}, "expression": ["x"]}, TypeError, "a label must be a text"),
        (
            {"weights": [None], "expression": ["x"], "labels": {"side": {"a": "x"}}},
            TypeError,
            "got the labels themselves",
        ),
        ({"weights": [None], "expression": ["x"], "hold": [object()]}, TypeError, "hold: got <obj"),
        ([{"weights": {}, "expression": "x"}], ValueError, "one value}, got 0 labels"),
        ([{"weights": {"a": PAIRS, "b": PAIRS}, "expression": "x"}], ValueError, "got 2 labels"),
    ],
)
def test_what_is_no_grid_is_refused_at_once(grid, error, text):
    with pytest.raises(error, match=text):
        grid_of(grid)


def test_a_frame_is_no_list_of_weights():
    pandas = pytest.importorskip("pandas")
    with pytest.raises(TypeError, match=r"weights must be a list of .* got DataFrame"):
        grid_of({"weights": pandas.DataFrame(PAIRS), "expression": ["rank"]})


def test_values_of_other_libraries_become_plain_ones():
    weights = {"p": {np.str_("b"): {datetime.date(2020, 1, 1): np.float32(0.5), 3: np.int8(1)}}}
    value = grid_of({"weights": weights, "expression": ["rank"]}).choices["weights"][0].value
    assert value == {"b": {datetime.date(2020, 1, 1): 0.5, 3: 1}}
    assert [type(weight) for weight in value["b"].values()] == [float, int]
    assert [type(name) for name in value] == [str]
