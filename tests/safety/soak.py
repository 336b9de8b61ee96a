"""Prints by how many bytes a process's resident memory grows over so many days of a rotation."""

import gc
import os
import sys

import numpy as np

from safety.subjects.rotations import Baskets, Context, Store

WARM_UP = 10_000
STATM = "/proc/self/statm"


def resident_bytes():
    """The process's resident memory, after a collection."""
    gc.collect()
    with open(STATM) as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def run_days(rotation, days, store):
    """Days that repeat, change and end: new legs, other orders, values that are not finite."""
    random = np.random.default_rng(1)
    context = Context()
    values = random.normal(size=(16, 6))
    values[3, 2] = np.nan
    keys = [(name, number) for name in "abc" for number in range(4)]
    for day in range(days):
        if day % 4 == 0:
            chosen = keys[day // 4 % 8 :][:5]
            rotation.items = [
                {"key": key, "legs": ((day % 6, 1.0), ((day + 1) % 6, -0.5)), "value": day * 0.5}
                for key in chosen
            ]
        rotation(values[day % 16], context=context if day % 3 else None)
        if day % 100 == 0:
            rotation.checkpoint(store)
            assert rotation.recover(store)
        if day % 1000 == 0:
            rotation.resize(6 + day // 1000 % 2)


def growth(days):
    """The bytes that so many days add, after some that fill what there is to be filled."""
    rotation, store = Baskets(max_structures=12), Store()
    run_days(rotation, WARM_UP, store)
    before = resident_bytes()
    run_days(rotation, days, store)
    return resident_bytes() - before


if __name__ == "__main__":
    print(growth(int(sys.argv[1])))
