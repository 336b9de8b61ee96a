"""States as rotations have them, and comparison that sees every difference."""

import struct
from pathlib import Path

import numpy as np

from quorvane.stores import DirectoryStore, PostgresStore, SqliteStore
from support.postgres import address_in

DURABLE_KINDS = ("directory", "sqlite", "postgres")
# Those that keep versions.
VERSIONED_KINDS = ("sqlite", "postgres")


def durable_store(kind, folder, **options):
    """Open the store of a kind in a folder, or in the database that the folder names."""
    if kind == "directory":
        return DirectoryStore(Path(folder) / "records", **options)
    if kind == "postgres":
        return PostgresStore(address_in(folder), **options)
    return SqliteStore(Path(folder) / "states.db", **options)


def rotation_state(slots, *, width=3, active=None):
    """Return a state as `get_state` makes it, its tuples shared as a rotation shares them."""
    active = slots if active is None else active
    keys = [(f"LONG{i}", f"SHORT{i % 7}") for i in range(slots)]
    legs = [tuple((j, 0.25 * i - j) for j in range(1 + i % width)) for i in range(slots)]
    return {
        "constructor": {
            "max_structures": slots,
            "transformation_expression": "ewma(20);rank",
            "unmap_policy": "proportional",
            "N_alloc": None,
        },
        "slot_by_key": {key: slot for slot, key in enumerate(keys)},
        "key_by_slot": dict(enumerate(keys)),
        "legs_by_slot": dict(enumerate(legs)),
        "structure_metadata_by_slot": [
            {"key": keys[i], "legs": legs[i], "slot": i, "active": True}
            if i < active
            else {"active": False}
            for i in range(slots)
        ],
        "structure_N_limit": 5,
        "child_states": [
            {"mean": np.linspace(-1.0, 1.0, slots), "weight": np.full(slots, np.nan)},
            {},
        ],
    }


def numbered_state(number):
    """Return a state that belongs to `number` alone, of a size between 0.5 and 300 KB."""
    generator = np.random.default_rng(number)
    state = rotation_state(5)
    state["child_states"][0]["mean"] = generator.random(number * 7919 % 37_000)
    state["number"] = number
    return state


def exactly_equal(left, right):
    """Tell whether two values are the same in type, order and every bit."""
    if type(left) is not type(right):
        return False
    if isinstance(left, (list, tuple)):
        return len(left) == len(right) and all(map(exactly_equal, left, right))
    if isinstance(left, dict):
        return exactly_equal(list(left.items()), list(right.items()))
    if isinstance(left, (np.ndarray, np.generic)) and not isinstance(left, (str, bytes)):
        return (
            left.dtype == right.dtype
            and left.dtype.str == right.dtype.str
            and left.shape == right.shape
            and left.tobytes() == right.tobytes()
        )
    if isinstance(left, float):
        return struct.pack("<d", left) == struct.pack("<d", right)
    return bool(left == right)
