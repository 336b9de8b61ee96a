"""Fixtures for the benchmarks' own tests."""

import pytest
from daybench.timing import CLOCKS, Settings


class Clock:
    """A clock that only `pass_time` moves."""

    now = 0

    def read(self):
        return self.now

    def pass_time(self, nanoseconds):
        self.now += nanoseconds


@pytest.fixture
def clock(monkeypatch):
    made = Clock()
    monkeypatch.setitem(CLOCKS, "hand", made.read)
    return made


@pytest.fixture
def settings(clock):
    """Few short turns on the clock that is moved by hand."""
    return Settings(clock="hand", max_pairs=4, min_pairs=4, block_seconds=1e-6)
