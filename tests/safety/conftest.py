"""Processes that end."""

import pytest

from safety.endings.exits import ExitServer


@pytest.fixture(scope="session")
def exits():
    """Forks processes and tells how they ended."""
    with ExitServer() as server:
        yield server
