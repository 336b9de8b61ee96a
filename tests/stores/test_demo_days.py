"""The demo's days, with a rotation that is stopped and taken from a store again and again."""

import numpy as np
import pytest

from quorvane.cli import csv_table
from quorvane.cli.demo import find_prices, same_sector_pairs
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.stores import MemoryStore, SqliteStore

STOPS = 200


@pytest.fixture(scope="module")
def market():
    """Daily returns and the instruments' names."""
    path = find_prices()
    if path is None:
        pytest.skip("the demo's prices are not installed")
    table = csv_table.read(path)
    return table.values[1:] / table.values[:-1] - 1.0, table.instruments


def new_rotation(names, expression):
    pairs = {
        f"{first}/{second}": {first: 1.0, second: -1.0} for first, second in same_sector_pairs()
    }
    return FixedBaskets(pairs, names, transformation_expression=expression)


@pytest.mark.parametrize("kind", ["memory", "sqlite"])
@pytest.mark.parametrize("expression", ["ewma(20);rank", "zscore;ewma(5);sigmoid"])
def test_a_rotation_taken_from_a_store_at_200_days_goes_on_to_the_bit(
    market, tmp_path, kind, expression
):
    returns, names = market
    store = MemoryStore() if kind == "memory" else SqliteStore(tmp_path / "days.sqlite")
    stops = set(np.linspace(0, len(returns) - 1, STOPS).astype(int).tolist())
    steady = new_rotation(names, expression)
    stopped = new_rotation(names, expression)
    for day, row in enumerate(returns):
        if day in stops:
            stopped.checkpoint(store)
            stopped = new_rotation(names, expression)
            assert stopped.recover(store)
        assert stopped(row).tobytes() == steady(row).tobytes()
    assert len(stops) == STOPS
