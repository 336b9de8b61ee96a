"""The functions of expressions against their peers, on rows or on whole tables.

Functions across structures take rows, those over time whole tables; one number in ten is NaN.

A table is computed in two ways: by the function alone, called for each day, and by
``Baskets(None, expression, hold=None).run(table)``, which reads the table and gives a new one.
"""

import numpy as np

from daybench.function_peers import GROUPS, ROWS, TABLES
from daybench.goals import Line
from daybench.ours import rows
from daybench.peers import or_absent
from daybench.timing import Side, compare, over_days
from quorvane.baskets import Baskets
from quorvane.expressions import Places, make_functions

SIZES = {"row-1k": 1_000, "row-100k": 100_000, "row-1m": 1_000_000}
# Days, columns.
SHAPES = {"table-1k": (1_260, 1_000), "table-10k": (252, 10_000)}
CASES = [*SIZES, *SHAPES]


def run(names, settings):
    """Yield a line for each function at each chosen size, or why it is left out."""
    for name in names:
        for expression in ROWS if name in SIZES else ():
            yield or_absent(_compare_rows, name, expression, settings)
        for expression in TABLES if name in SHAPES else ():
            yield or_absent(_compare_days, name, expression, settings)
            yield or_absent(_compare_tables, name, expression, settings)


def _function(expression, slots):
    places = Places(slots, {"group": {slot: slot % GROUPS for slot in range(slots)}})
    (made,) = make_functions(expression, places)
    for slot in range(slots) if places.has_groups else ():
        places.assign(slot, slot)
    return made.rotation


def _compare_rows(name, expression, settings):
    library, goal, peer_of = ROWS[expression]
    slots = SIZES[name]
    ours, days = _function(expression, slots), rows(slots)
    peers = [peer_of(row) for row in days]
    for row, peer in zip(days, peers, strict=True):
        found = np.array(ours(row))
        # What is not finite is made missing behind the function.
        np.testing.assert_allclose(
            np.where(np.isfinite(found), found, np.nan), peer(), rtol=1e-9, atol=1e-9
        )
    sides = over_days(days, ours), over_days(peers, lambda peer: peer())
    what = f"{expression} / {library}"
    return Line("functions", f"{name} slots", what, compare(*sides, settings), goal, slots)


def _compare_days(name, expression, settings):
    library, _, peer_of = TABLES[expression]
    table = _table(*SHAPES[name])
    ours, peer, days = _function(expression, table.shape[1]), peer_of(table), list(table)
    np.testing.assert_allclose([np.array(ours(row)) for row in days], peer(), rtol=1e-6, atol=1e-9)

    def day_by_day():
        for row in days:
            ours(row)

    found = compare(Side(day_by_day), Side(peer), settings)
    what = f"{expression}, days / {library}"
    return Line("functions", _shape_text(name), what, found, TABLES[expression][1], table.size)


def _compare_tables(name, expression, settings):
    library, _, peer_of = TABLES[expression]
    table = _table(*SHAPES[name])
    peer, baskets = peer_of(table), Baskets(None, expression, hold=None)
    np.testing.assert_allclose(baskets.run(table), peer(), rtol=1e-6, atol=1e-9)
    found = compare(Side(lambda: baskets.run(table)), Side(peer), settings)
    what = f"{expression}, run / {library}"
    return Line("functions", _shape_text(name), what, found, None, table.size)


def _shape_text(name):
    return "{} x {}".format(*SHAPES[name])


def _table(days, columns):
    draw = np.random.default_rng(13)
    table = draw.standard_normal((days, columns))
    table[draw.random(table.shape) < 0.1] = np.nan
    return table
