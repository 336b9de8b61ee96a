"""Replays that are stopped, and what they leave."""

import numpy as np

from quorvane.cli.table import Dates, Table

EXPRESSION = "ewma(5);zscore"
STRUCTURES = '["A/B"]\nA = 1.0\nB = -1.0\n[mix]\nA = 0.3\nC = 0.7\n[late]\nD = 1.0\n'
DAYS = 40


def walk(days=DAYS, seed=11):
    """Prices of four instruments; some missing, the last one not there at first."""
    rng = np.random.default_rng(seed)
    values = 100.0 * np.exp(rng.normal(0.0, 0.02, size=(DAYS, 4)).cumsum(axis=0))
    values[rng.random(values.shape) < 0.05] = np.nan
    values[:9, 3] = np.nan
    labels = np.datetime_as_string(np.datetime64("2020-01-01") + np.arange(DAYS))
    return Table(values[:days], tuple("ABCD"), Dates("Date", tuple(labels[:days])))


def outputs(folder, name):
    return (folder / f"{name}.csv").read_bytes(), (folder / f"{name}.npz").read_bytes()


def stored(files):
    """The checkpoint's records, to be read and altered."""
    from quorvane.stores import SqliteStore

    return SqliteStore(files / "c.db", namespace="quorvane replay", keep=1)
