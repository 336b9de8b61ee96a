"""Frames of sweeps beside each other."""

import pytest


@pytest.fixture
def same():
    """Compare two tables of sweeps to the bit, seconds aside."""
    pandas = pytest.importorskip("pandas")

    def same(left, right):
        assert list(left.columns) == list(right.columns)
        pandas.testing.assert_frame_equal(
            left.drop(columns="seconds"), right.drop(columns="seconds"), check_exact=True
        )

    return same
