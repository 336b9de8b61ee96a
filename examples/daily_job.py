"""Every evening: take in the days that are new, write their signals, keep the state.

python daily_job.py prices.csv states.db signals
"""

import contextlib
import os
import sys
from pathlib import Path

import pandas as pd

import quorvane as qv

WEIGHTS = {
    "ALDER/BIRCH": {"ALDER": 1, "BIRCH": -1},
    "CEDAR/ELM": {"CEDAR": 1, "ELM": -1},
    "MAPLE/OAK": {"MAPLE": 1, "OAK": -1},
}
EXPRESSION = "ewma(20);zscore"


def take_in(table, states, folder):
    """Compute the days of a table that are new; a file of signals for each. How many they were."""
    pairs = qv.Baskets(WEIGHTS, EXPRESSION)
    store = qv.SqliteStore(states)
    with contextlib.suppress(LookupError):  # On the first evening nothing is stored yet.
        pairs.load(store, name="pairs")
    prices = pd.read_csv(table, index_col=0, parse_dates=True)
    returns = prices.pct_change(fill_method=None)
    new = returns if pairs.last_date is None else returns[returns.index > pairs.last_date]
    Path(folder).mkdir(exist_ok=True)
    for day, row in pairs.update(new).iterrows():
        write_whole(Path(folder) / f"{day:%Y-%m-%d}.csv", row.to_csv(header=["signal"]))
    # At the end: a job that was killed before computes the same days again.
    pairs.save(store, name="pairs")
    return len(new)


def write_whole(path, text):
    """Write a file that is there entirely or not at all, after a power cut too."""
    part = path.with_suffix(".part")
    with part.open("w", encoding="utf-8") as file:
        file.write(text)
        file.flush()
        os.fsync(file.fileno())
    os.replace(part, path)
    folder = os.open(path.parent, os.O_RDONLY)
    os.fsync(folder)
    os.close(folder)


if __name__ == "__main__":
    print(take_in(*sys.argv[1:]), "new days")
