"""Functions of one's own that worker processes import by their path, and what sweeps are of."""

import contextlib
import itertools
import os
import signal
import time

import numpy as np

import quorvane as qv

KILL = signal.SIGKILL

NAMES = [f"I{i}" for i in range(12)]
PAIRS = {f"{a}/{b}": {a: 1.0, b: -1.0} for a, b in itertools.pairwise(NAMES)}
SINGLES = {name: {name: 2.0} for name in NAMES[:8]}


def returns(days=300, seed=3, missing=0.02):
    """A frame of pandas of days by instruments."""
    import pandas

    draw = np.random.default_rng(seed)
    values = draw.normal(scale=0.01, size=(days, len(NAMES)))
    values[draw.random(values.shape) < missing] = np.nan
    index = pandas.bdate_range("2021-01-04", periods=days)
    return pandas.DataFrame(values, index=index, columns=NAMES)


def grid():
    """Eighteen configurations, of which three fail."""
    return {
        "weights": {"pairs": PAIRS, "singles": SINGLES, "columns": None},
        "expression": ["ewma(5);rank", "zscore", "ewma(0)"],
        "hold": [0, None],
    }


def in_a_loop(data, configurations, horizons=(1, 5, 20)):
    """What a sweep finds, written by hand: the figures of each configuration, None for an error."""
    found = []
    for arguments in configurations:
        try:
            signal = qv.Baskets(**arguments).run(data)
        except ValueError:
            found.append(None)
            continue
        summary = qv.evaluate(signal, data, horizons=horizons).summary
        row = {
            f"{name}_{horizon}": summary.loc[horizon, name]
            for horizon in summary.index
            for name in summary
            if name not in ("turnover", "coverage")
        }
        row.update({name: summary[name].iloc[0] for name in ("turnover", "coverage")})
        found.append(row)
    return found


def mean_of_signal(signal, data):
    return {"mean": signal.to_numpy()[~np.isnan(signal.to_numpy())].mean(), "days": len(data)}


def odd_numbers(signal, data):
    return {"nan": float("nan"), "inf": np.inf, "tiny": 5e-324, "third": 1 / 3, "n": np.int64(7)}


def no_mapping(signal, data):
    return [1.0]


def a_text(signal, data):
    return {"mean": "high"}


def a_name_that_is_taken(signal, data):
    return {"expression": 1.0}


def spoils_its_data(signal, data):
    before = float(np.nansum(data.to_numpy()))
    signal.iloc[:] = 0.0
    with contextlib.suppress(ValueError):
        data.iloc[:] = 0.0
    return {"before": before}


def ends_the_process(signal, data):
    os.kill(os.getpid(), KILL)


def wants_to_exit(signal, data):
    raise SystemExit(3)


def talks(signal, data):
    print("a line on standard output")
    os.write(1, b"and another\n")
    return {"one": 1.0}


def sleeps(signal, data):
    time.sleep(30.0)
    return {"one": 1.0}


def sleeps_a_little(signal, data):
    time.sleep(0.05)
    return mean_of_signal(signal, data)


def sleeps_longer(signal, data):
    time.sleep(0.15)
    return {"one": 1.0}


def process(signal, data):
    return {"process": os.getpid(), "threads": int(os.environ.get("QUORVANE_NUM_THREADS", 0))}


def memory(signal, data):
    """Whether the data is a file that is mapped: the first number's address lies in one."""
    address = data.to_numpy().__array_interface__["data"][0]
    with open("/proc/self/maps", encoding="utf-8") as maps:
        for line in maps:
            first, last = (int(part, 16) for part in line.split(" ")[0].split("-"))
            if first <= address < last:
                return {"is_mapped": "data.npy" in line}
    return {"is_mapped": False}


def ending(values, state):
    os.kill(os.getpid(), KILL)


def halved(values, state, times=1):
    return values / 2**times, state


class Doubled:
    """A class of one's own."""

    stateful = False

    def __init__(self, N_alloc):
        self.slots = N_alloc

    def __call__(self, values, context=None):
        return 2.0 * values


def made():
    def inside(values, state):
        return values, state

    return inside
