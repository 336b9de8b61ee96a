"""The child rotations through their `__call__`, one tenth of the slots NaN, against their peers."""

import numpy as np

from daybench.goals import Line
from daybench.kernel_peers import HISTORY_PEERS, ROW_PEERS
from daybench.ours import WINDOW, children, rows
from daybench.peers import or_absent
from daybench.timing import Side, compare, over_days
from quorvane.functions.rotations.longitudinal.ewma import Ewma

SIZES = {"1k": 1_000, "10k": 10_000, "100k": 100_000, "1m": 1_000_000}
HISTORIES = ["1k", "10k"]
HISTORY_DAYS = 250


def run(names, settings):
    """Yield a line for each peer of each child at each chosen size, or why it is left out."""
    for name in names:
        for child, peers in ROW_PEERS.items():
            for library, goal, make in peers:
                yield or_absent(_compare_rows, name, child, library, goal, make, settings)
        for library, missing, make in HISTORY_PEERS if name in HISTORIES else ():
            yield or_absent(_compare_histories, name, library, missing, make, settings)


def _compare_rows(name, child, library, goal, make, settings):
    slots = SIZES[name]
    peer, ours = make(slots), children(slots)[child]
    days = rows(slots)
    forms = [peer.form(row) for row in days]
    for row, form in zip(days, forms, strict=True):
        found = peer.ours(peer.timed(form), row)
        np.testing.assert_allclose(ours(row), found, rtol=1e-9, atol=1e-12)
    sides = over_days(days, ours), over_days(forms, peer.timed)
    what = f"{child} / {library}"
    return Line("kernels", f"{name} slots", what, compare(*sides, settings), goal, slots)


def _compare_histories(name, library, missing, make, settings):
    slots = SIZES[name]
    table = _table(slots, missing)
    over_table = make(table)
    days = list(table)
    ours = Ewma(window=WINDOW, N_alloc=slots)
    found = np.asarray(over_table())
    np.testing.assert_allclose([ours(row) for row in days], found, rtol=1e-9, atol=1e-12)

    def day_by_day():
        for row in days:
            ours(row)

    case = f"{name} slots x {HISTORY_DAYS} days{'' if missing else ', no NaN'}"
    found = compare(Side(day_by_day), Side(over_table), settings)
    return Line("kernels", case, f"ewma / {library}", found, None, slots * HISTORY_DAYS)


def _table(slots, missing):
    """Days by slots, one value in ten NaN when some are missing."""
    random_numbers = np.random.default_rng(12)
    table = random_numbers.standard_normal((HISTORY_DAYS, slots))
    if missing:
        table[random_numbers.random(table.shape) < 0.1] = np.nan
    return table
