"""``python -m quorvane.cli.cluster_demo``: a sweep over the demo's prices on a cluster of two."""

from __future__ import annotations

import argparse
import time
from collections.abc import Sequence
from typing import Any

import quorvane as qv
from quorvane.cli import INTERRUPTED
from quorvane.cli.demo import PACKAGE, find_prices, pair_weights
from quorvane.cli.errors import CommandError
from quorvane.cli.inputs import structure_input
from quorvane.cli.libraries import require_library
from quorvane.cli.saying import note, say
from quorvane.cli.table_io import read_table

WORKERS = 2

# By default a worker of a cluster gives the memory of an array back at once, and gets it anew for
# the next one: that takes as long as all the rest of a configuration.
_MEMORY = {
    "distributed.nanny.pre-spawn-environ.MALLOC_TRIM_THRESHOLD_": 1 << 28,
    "distributed.nanny.pre-spawn-environ.MALLOC_MMAP_THRESHOLD_": 1 << 25,
}

_SMOOTHINGS = ("ewma({})", "rolling_mean({})")
_DAYS = (2, 3, 5, 8, 13, 20, 30, 60, 120, 250)
_COMPARISONS = ("rank", "centered_rank", "zscore", "demean", "winsorize(0.1)")

_SHOWN = ("weights", "expression", "ic_mean_1", "ic_t_1", "ic_mean_20", "turnover")


def grid() -> dict[str, Any]:
    """Two hundred configurations over the demo's stocks."""
    return {
        "weights": {"same-sector pairs": pair_weights(), "single stocks": None},
        "expression": [
            f"{smoothing.format(days)};{comparison}"
            for smoothing in _SMOOTHINGS
            for days in _DAYS
            for comparison in _COMPARISONS
        ],
    }


def main(argv: Sequence[str] | None = None) -> int:
    """Run it; the exit status is 1 without the prices or a library."""
    name = "python -m quorvane.cli.cluster_demo"
    argparse.ArgumentParser(prog=name, description=__doc__).parse_args(argv)
    try:
        return _run()
    except CommandError as error:
        note(f"cluster demo: error: {error}")
        return error.exit_status
    except KeyboardInterrupt:
        return INTERRUPTED


def _run() -> int:
    path = find_prices()
    if path is None:
        say(f"The prices come with a package: python -m pip install --no-deps {PACKAGE}")
        return 1
    pandas = require_library("pandas", "a sweep", extra="evaluation")
    require_library("distributed", "a cluster", extra="cluster")
    prices = read_table(path)
    dates = None if prices.dates is None else pandas.to_datetime(list(prices.dates.text))
    values = structure_input(prices.values, "returns")
    returns = pandas.DataFrame(values, index=dates, columns=prices.instruments)
    tables, times = [], []
    for workers in (1, WORKERS):
        found, seconds = _swept(returns, workers)
        tables.append(found.drop(columns="seconds"))
        times.append(seconds)
        count = "1 worker" if workers == 1 else f"{workers} workers"
        say(f"{len(found)} configurations on {count}: {seconds:.1f} s")
    best = tables[-1].sort_values("ic_t_1", key=abs, ascending=False)[list(_SHOWN)]
    say("\nThe ten whose correlation with the next day's returns is surest, of either sign:\n")
    say(best.head(10).to_string(index=False, float_format=lambda value: f"{value:.4f}"))
    same = "the same rows to the bit" if tables[0].equals(tables[1]) else "OTHER ROWS"
    say(f"\n{times[0] / times[1]:.2f} times as fast on {WORKERS} workers as on one; {same}.")
    return 0 if tables[0].equals(tables[1]) else 1


def _swept(returns: Any, workers: int) -> tuple[Any, float]:
    """The sweep on a cluster of its own, and the time without the cluster's own beginning."""
    distributed: Any = require_library("distributed", "a cluster", extra="cluster")
    with (
        require_library("dask", "a cluster", extra="cluster").config.set(_MEMORY),
        distributed.LocalCluster(
            n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0"
        ) as cluster,
        distributed.Client(cluster) as client,
    ):
        # What a worker imports it imports once, however many sweeps it takes part in.
        few = {**grid(), "expression": ["rank"]}
        qv.sweep(returns.iloc[:50], few, executor=client)
        start = time.perf_counter()
        found = qv.sweep(returns, grid(), executor=client)
        return found, time.perf_counter() - start


if __name__ == "__main__":
    raise SystemExit(main())
