"""Digests of plain values: equal for the same, other for anything else."""

import datetime
import itertools
import math

import numpy as np
import pytest

from quorvane.sweeping.plain_values import digest, plain

DIFFERENT = [
    None,
    True,
    False,
    0,
    1,
    0.0,
    -0.0,
    1.0,
    math.nextafter(1.0, 2.0),
    math.inf,
    math.nan,
    "",
    "1",
    "None",
    [],
    [1],
    [[1]],
    ["list", 1],
    ["mapping"],
    {},
    {"a": 1, "b": 2},
    {"b": 2, "a": 1},
    [["a", 1], ["b", 2]],
    datetime.date(2020, 1, 1),
    datetime.datetime(2020, 1, 1),
    np.datetime64("2020-01-01"),
    "2020-01-01",
    b"1",
]


def test_what_differs_has_another_digest():
    found = [digest(value) for value in DIFFERENT]
    assert len(set(found)) == len(found)
    assert all(len(text) == 40 for text in found)
    for one, other in itertools.pairwise(DIFFERENT[:-1]):
        assert digest(one, other) != digest([one, other])


def test_what_is_the_same_has_the_same_digest():
    for value in DIFFERENT:
        assert digest(value) == digest(value)
    assert digest((1, 2)) == digest([1, 2])
    assert digest(plain(np.float64(0.1), "x")) == digest(0.1)


@pytest.mark.parametrize("value", [object(), 1j, {1}, b"x", np.zeros((2, 2)), [lambda: None]])
def test_what_cannot_be_known_again_is_refused(value):
    with pytest.raises(TypeError, match=r"(?s)grid: hold: got .* allowed are numbers, text"):
        plain(value, "grid: hold")
