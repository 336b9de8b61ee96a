"""Rows that are worth several threads have the same numbers with any number of them."""

import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from support import functions

WIDTHS = [99_999, 100_000, 100_001, 131_077]
CHILDREN = {
    "ewma": lambda width: Ewma(5, N_alloc=width),
    "rank": lambda width: Rank(N_alloc=width),
    "zscore": lambda width: ZScore(N_alloc=width),
    "sigmoid": lambda width: Transcendental(N_alloc=width),
    "log": lambda width: Transcendental(function="log", N_alloc=width),
    **functions.OVER_TIME,
    **functions.ACROSS,
}
VALUES = {
    "numbers": lambda rng, width: rng.normal(size=width),
    "few different": lambda rng, width: rng.integers(0, 4, size=width).astype(float),
    "all equal": lambda rng, width: np.full(width, 0.1),
    "nothing": lambda rng, width: np.full(width, np.nan),
    "infinite": lambda rng, width: rng.choice([np.inf, -np.inf, 0.0, -0.0], size=width),
    "only at the end": lambda rng, width: np.where(np.arange(width) < width - 3, np.nan, 1.0),
    "of all sizes": lambda rng, width: rng.normal(size=width) * 10.0 ** rng.integers(-300, 300),
}


@pytest.mark.parametrize("values", VALUES)
@pytest.mark.parametrize("child", CHILDREN)
def test_threads_change_no_number_of_a_row(monkeypatch, child, values):
    for width in WIDTHS:
        rng = np.random.default_rng(1)
        rows = [VALUES[values](rng, width) for _ in range(2)]
        rows[1][rng.random(width) < 0.1] = np.nan
        outputs = []
        for threads in ("1", "2", "5"):
            monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
            rotation = CHILDREN[child](width)
            outputs.append([rotation(row).tobytes() for row in rows])
        assert outputs[1:] == outputs[:1] * 2, width


def test_threads_change_no_sum_of_structures(monkeypatch):
    rng = np.random.default_rng(1)
    counts = rng.integers(0, 4, size=120_000)
    columns = StructureColumns(
        keys=[(i,) for i in range(len(counts))],
        offsets=np.cumsum([0, *counts]),
        leg_ids=rng.integers(0, 50, size=counts.sum()),
        weights=rng.normal(size=counts.sum()),
        values=np.zeros(len(counts)),
    )
    row, sums = rng.normal(size=50), []
    for threads in ("1", "2", "5"):
        monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
        sums.append(columns.weighted_sums(row).tobytes())
    assert sums[1:] == sums[:1] * 2


def test_a_number_of_threads_that_is_none_is_refused_where_it_counts(monkeypatch):
    monkeypatch.setenv("QUORVANE_NUM_THREADS", "no")
    assert Rank(N_alloc=3)(np.ones(3)).tolist() == [2 / 3] * 3
    rotation = Ewma(5, N_alloc=100_000)
    before = rotation.get_state()
    with pytest.raises(ValueError, match="QUORVANE_NUM_THREADS must be a whole number from 1 to"):
        rotation(np.ones(100_000))
    after = rotation.get_state()
    assert all(np.array_equal(after[key], before[key], equal_nan=True) for key in before)
