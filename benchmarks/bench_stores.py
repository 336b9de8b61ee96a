"""How long a checkpoint takes and how large it is.

    python benchmarks/bench_stores.py [slots ...]

Writes and reads the state of a rotation with two-legged structures, all of them active, and an
ewma child, in every store; and the same with MessagePack alone, every tuple an extension type,
for comparison. Each figure is the best of the repetitions; the stores' folder is the system's
temporary one, whose disk decides what a flush costs.
"""

import argparse
import tempfile
import time
from pathlib import Path

import msgpack
import numpy as np

from quorvane.stores import DirectoryStore, MemoryStore, SqliteStore, decode, encode

REPETITIONS = 3


def rotation_state(slots):
    """Return a state as `get_state` makes it, with the tuples shared as a rotation shares them."""
    keys = [(f"INST{i % 2000:05d}", f"INST{(i // 2000 + i + 1) % 2000:05d}") for i in range(slots)]
    legs = [((i % 5000, 1.0 + i), (i * 7 % 5000, -0.5 * i)) for i in range(slots)]
    assert len(set(keys)) == slots
    random = np.random.default_rng(1).random
    return {
        "constructor": {
            "max_structures": slots,
            "transformation_expression": "ewma(20);rank",
            "unmap_policy": "proportional",
            "N_alloc": 5000,
        },
        "slot_by_key": {key: slot for slot, key in enumerate(keys)},
        "key_by_slot": dict(enumerate(keys)),
        "legs_by_slot": dict(enumerate(legs)),
        "structure_metadata_by_slot": [
            {"key": keys[i], "legs": legs[i], "slot": i, "active": True} for i in range(slots)
        ],
        "structure_N_limit": 5000,
        "child_states": [{"mean": random(slots), "weight": random(slots)}, {}],
    }


def plain_encode(state):
    """Encode with MessagePack alone."""

    def default(value):
        if type(value) is tuple:
            data = msgpack.packb(list(value), default=default, strict_types=True)
            return msgpack.ExtType(1, data)
        return msgpack.ExtType(2, value.tobytes())

    return msgpack.packb(state, default=default, strict_types=True)


def plain_decode(data):
    def hook(code, part):
        if code == 1:
            return tuple(msgpack.unpackb(part, ext_hook=hook, strict_map_key=False))
        return np.frombuffer(part)

    return msgpack.unpackb(data, ext_hook=hook, strict_map_key=False)


def best_time(action):
    best = float("inf")
    for _ in range(REPETITIONS):
        start = time.perf_counter()
        result = action()
        best = min(best, time.perf_counter() - start)
        del result
    return best


def report(slots, what, write_time, read_time, size):
    print(
        f"{slots:>9}  {what:<22}{1e3 * write_time:>10.1f} ms{1e3 * read_time:>10.1f} ms"
        f"{size / 1e6:>10.2f} MB"
    )


def measure(slots, folder):
    state = rotation_state(slots)
    data = encode(state)
    size = len(data)
    report(
        slots,
        "encode, decode",
        best_time(lambda: encode(state)),
        best_time(lambda: decode(data)),
        size,
    )
    plain = plain_encode(state)
    report(
        slots,
        "MessagePack alone",
        best_time(lambda: plain_encode(state)),
        best_time(lambda: plain_decode(plain)),
        len(plain),
    )
    measure_store(MemoryStore(), state, size)
    measure_store(DirectoryStore(folder / "records"), state, size)
    measure_store(SqliteStore(folder / f"{slots}.db"), state, size)


def measure_store(store, state, size):
    write_time = best_time(lambda: store.write("rotation", state))
    read_time = best_time(lambda: store.read("rotation"))
    slots = len(state["slot_by_key"])
    report(slots, type(store).__name__, write_time, read_time, size)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("slots", nargs="*", type=int, default=[10_000, 1_000_000])
    print(f"{'slots':>9}  {'':<22}{'write':>13}{'read':>13}{'size':>13}")
    with tempfile.TemporaryDirectory() as folder:
        for slots in parser.parse_args().slots:
            measure(slots, Path(folder))


if __name__ == "__main__":
    main()
