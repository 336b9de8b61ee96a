"""A writer that is killed without warning loses nothing that it acknowledged.

QUORVANE_KILLS sets how often each durable store's writer is killed, 200 times unless it does; that
of a server a quarter as often, since each of its operations takes a connection of its own.
"""

import os
import random
import time

import pytest

from stores.support.samples import durable_store, exactly_equal, numbered_state

pytestmark = pytest.mark.plain_python

KILLS = int(os.environ.get("QUORVANE_KILLS", "200"))
WRITES_IN_A_LONG_LIFE = 3


def last_acknowledged(notes):
    """Return the last number noted in full, or None."""
    data = notes.read_bytes() if notes.exists() else b""
    whole = len(data) - len(data) % 8
    return int.from_bytes(data[whole - 8 : whole], "little") if whole else None


def length_of_life(kind, folder, writes):
    """Return how long opening a store and some writes take here and now, in seconds."""
    start = time.perf_counter()
    for _ in range(10):
        store = durable_store(kind, folder)
    opened = time.perf_counter()
    for number in range(1, 11):
        store.write("trial", numbered_state(number))
    return (opened - start + writes * (time.perf_counter() - opened)) / 10


def test_what_is_recovered_is_acknowledged_or_in_flight(durable_kind, tmp_path, tasks):
    generator = random.Random(20)
    notes = tmp_path / "acknowledged"
    longest_life = length_of_life(durable_kind, tmp_path, WRITES_IN_A_LONG_LIFE)
    kills = KILLS // 4 if durable_kind == "postgres" else KILLS
    stored, in_flight = 0, 0
    for _ in range(kills):
        notes.unlink(missing_ok=True)
        writer = tasks.start(
            "write_until_killed",
            kind=durable_kind,
            folder=str(tmp_path),
            acknowledged=str(notes),
            first=stored + 1,
        )
        time.sleep(generator.uniform(0.0, longest_life))
        assert tasks.kill(writer) == -9
        acknowledged = last_acknowledged(notes) or stored
        state = durable_store(durable_kind, tmp_path).read("rotation")
        found = 0 if state is None else state["number"]
        assert found in (acknowledged, acknowledged + 1)
        assert found == 0 or exactly_equal(state, numbered_state(found))
        in_flight += found == acknowledged + 1
        stored = found
    # The moments were spread well enough for many writes to be finished, on a busy machine too.
    assert stored > kills // 40
    print(f"{durable_kind}: {kills} kills, {stored} states stored, {in_flight} of them in flight")
