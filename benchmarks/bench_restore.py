"""Restoring a state against only making new tables of it and dropping the old ones.

The peer copies both slot maps, the legs by slot, and one metadata dict per slot, with the
interpreter's own copying. It checks nothing. Both get states of new objects, as from a store, and
drop what the state before has left.

    python benchmarks/bench_restore.py
"""

from __future__ import annotations

import gc
import pickle
import statistics
import time
from collections.abc import Callable
from typing import Any, ClassVar

from quorvane.functions.rotations.virtualization.base import VirtualizationBase

ROUNDS = {10_000: 40, 1_000_000: 5}


class Reported(VirtualizationBase):
    """Pairs that are reported once."""

    items: ClassVar[list[dict[str, Any]]] = []

    def _refresh_active_structures(self, *day: Any) -> list[dict[str, Any]]:
        return self.items


def rotation_of(slots: int) -> Reported:
    """A rotation whose every slot has a structure of two legs."""
    rotation = Reported(max_structures=slots, transformation_expression="none", N_alloc=5_000)
    rotation.items = [
        {"key": ("pair", i), "legs": ((i % 5_000, 1.0), ((i + 7) % 5_000, -1.0)), "value": 1.0}
        for i in range(slots)
    ]
    rotation([0.0] * 5_000)
    return rotation


class Tables:
    """Holds new tables of the last state, and does nothing else."""

    made: tuple[Any, ...] = ()

    def set_state(self, state: dict[str, Any]) -> None:
        self.made = (
            dict(state["slot_by_key"]),
            dict(state["key_by_slot"]),
            dict(state["legs_by_slot"]),
            list(map(dict, state["structure_metadata_by_slot"])),
        )


def seconds(restore: Callable[[dict[str, Any]], None], stored: bytes) -> float:
    """Processor time of restoring what a store gives."""
    state = pickle.loads(stored)
    start = time.process_time()
    restore(state)
    return time.process_time() - start


def measure(slots: int, rounds: int) -> None:
    rotation, tables = rotation_of(slots), Tables()
    stored = pickle.dumps(rotation.get_state())
    gc.disable()
    pairs = [
        (seconds(rotation.set_state, stored), seconds(tables.set_state, stored))
        for _ in range(rounds + 1)
    ][1:]
    gc.enable()
    restore, copying = (statistics.median(side) for side in zip(*pairs, strict=True))
    ratio = statistics.median(ours / peer for ours, peer in pairs)
    print(
        f"{slots:>9,} slots: restore {restore * 1e3:8.2f} ms,"
        f" copying only {copying * 1e3:8.2f} ms, ratio {ratio:.2f}"
    )


def main() -> None:
    for slots, rounds in ROUNDS.items():
        measure(slots, rounds)


if __name__ == "__main__":
    main()
