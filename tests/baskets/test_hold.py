"""Who speaks, and for how long after the last value."""

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, WEIGHTS, numbers

NAN = float("nan")


def run(values, expression="ewma(3)", **options):
    made = qv.Baskets(None, expression, **options)
    return made.run(np.array(values, dtype=float).reshape(len(values), -1))


@pytest.mark.parametrize(("hold", "spoken"), [(0, 0), (1, 1), (2, 2), (3, 3), (4, 3), (None, 3)])
def test_a_structure_speaks_on_for_so_many_days(hold, spoken):
    found = run([NAN, 1.0, NAN, NAN, NAN, 2.0], hold=hold)[:, 0]
    assert np.isnan(found).tolist() == [True, False] + [False] * spoken + [True] * (3 - spoken) + [
        False
    ]


@pytest.mark.parametrize("hold", [0, 1, None])
def test_memory_goes_on_as_that_of_pandas_over_missing_days(hold):
    pandas = pytest.importorskip("pandas")
    values = numbers(missing=0.4)
    found = run(values, hold=hold)
    expected = pandas.DataFrame(values).ewm(span=3).mean()
    spoken = ~np.isnan(found)
    np.testing.assert_allclose(found[spoken], expected.to_numpy()[spoken], rtol=0, atol=1e-12)


@pytest.mark.parametrize("hold", [0, 1, 5, None])
@pytest.mark.parametrize("expression", ["none", "rank", "sigmoid", "zscore"])
def test_hold_fills_nothing(expression, hold):
    found = run([[1.0, 2.0, 4.0], [1.0, NAN, 4.0]], expression, hold=hold)
    assert np.isnan(found).tolist() == [[False] * 3, [False, True, False]]


def test_a_silent_structure_counts_in_no_rank():
    found = run([[1.0, 2.0, 3.0], [NAN, 2.0, 3.0]], "ewma(3);rank")
    np.testing.assert_allclose(found, [[1 / 3, 2 / 3, 1], [NAN, 1 / 2, 1]])
    held = run([[1.0, 2.0, 3.0], [NAN, 2.0, 3.0]], "ewma(3);rank", hold=1)
    np.testing.assert_allclose(held, [[1 / 3, 2 / 3, 1]] * 2)


def test_a_silent_structure_feeds_nothing_to_the_functions_behind():
    # Behind the first average the second one sees a missing value, not the held one.
    found = run([1.0, NAN, 3.0], "ewma(3);ewma(3)")[:, 0]
    first = [1.0, (0.25 + 3) / 1.25]
    np.testing.assert_allclose(found, [1.0, NAN, (0.25 * first[0] + first[1]) / 1.25])


def test_one_missing_leg_silences_the_basket():
    made = qv.Baskets({"p": {"A": 1, "B": 1}, "q": {"B": 1}}, "none")
    found = made.run([[1.0, 2.0], [NAN, 2.0]], level="basket")
    np.testing.assert_array_equal(found, [[3.0, 2.0], [NAN, 2.0]])
    assert made.slots.speaking == 1


def test_for_ever_is_what_the_base_class_does():
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

    values = numbers()
    found = qv.Baskets(WEIGHTS, "ewma(3);rank", hold=None, instruments=NAMES).run(values)
    base = FixedBaskets(WEIGHTS, NAMES, transformation_expression="ewma(3);rank")
    np.testing.assert_array_equal(found, base.batch_reference(values))


def test_the_gauge_says_how_many_speak():
    made = qv.Baskets(None, "ewma(3)", hold=1, instruments=[*"ABC"])
    assert made.slots == qv.SlotUsage(speaking=0, known=0, capacity=3)
    speaking = []
    for row in ([1.0, NAN, 1.0], [NAN, NAN, 1.0], [NAN, NAN, NAN], [NAN, 1.0, NAN]):
        made.step(row)
        speaking.append(made.slots.speaking)
    assert speaking == [2, 2, 1, 1]
