"""A row that goes to the rotation as it is: an array of the right width without an infinity."""

import numpy as np
import pytest

from quorvane.baskets._plain_row import is_plain_row

GOOD = np.array([1.0, np.nan, -3.0])


class Own(np.ndarray):
    pass


@pytest.mark.parametrize(
    ("row", "is_plain"),
    [
        (GOOD, True),
        (np.empty(0), False),
        (np.array([1.0, np.inf, 2.0]), False),
        (np.array([1.0, 2.0, -np.inf]), False),
        (np.ones(4), False),
        (np.ones((3, 1)), False),
        (np.ones(6)[::2], False),
        (np.ones(3, np.float32), False),
        (np.ones(3, ">f8"), False),
        (GOOD.view(Own), False),
        ([1.0, 2.0, 3.0], False),
        (None, False),
    ],
    ids=str,
)
def test_only_finite_or_missing_numbers_of_the_right_width_are_plain(row, is_plain):
    assert is_plain_row(row, 3) is is_plain


@pytest.mark.parametrize("arguments", [(), (GOOD,), (GOOD, 3, 3), (GOOD, "3"), (GOOD, 10**30)])
def test_what_it_cannot_be_asked_is_an_error(arguments):
    with pytest.raises((TypeError, OverflowError)):
        is_plain_row(*arguments)
