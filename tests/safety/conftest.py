"""Processes that end."""

import pytest

from support.exits import ExitServer


@pytest.fixture(scope="session")
def exits():
    """Forks processes and tells how they ended."""
    with ExitServer("safety.endings.server") as server:
        yield server
