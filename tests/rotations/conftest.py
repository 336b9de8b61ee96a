import types

import pytest


@pytest.fixture
def make_context():
    """Makes the context of a day from a universe mask and an index."""

    def make(universe_mask, current_day_index=0):
        return types.SimpleNamespace(
            universe_mask=universe_mask, current_day_index=current_day_index
        )

    return make
