"""Restoring a state against only making the dicts and the list that it must make.

The floor makes what a restore cannot do without, with the interpreter's own copying: both slot
maps, the legs by slot, and one metadata dict per slot. It checks nothing.

    python benchmarks/bench_restore.py
"""

from __future__ import annotations

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


def make_only(state: dict[str, Any]) -> tuple[Any, ...]:
    """What a restore must make, without any check."""
    return (
        dict(state["slot_by_key"]),
        dict(state["key_by_slot"]),
        dict(state["legs_by_slot"]),
        list(map(dict, state["structure_metadata_by_slot"])),
    )


def seconds(action: Callable[[dict[str, Any]], Any], state: dict[str, Any]) -> float:
    """Wall time of one call, what it made being dropped within it."""
    start = time.perf_counter()
    action(state)
    return time.perf_counter() - start


def measure(slots: int, rounds: int) -> None:
    rotation = rotation_of(slots)
    state = rotation.get_state()
    pairs = [(seconds(rotation.set_state, state), seconds(make_only, state)) for _ in range(rounds)]
    restore, floor = (statistics.median(side) for side in zip(*pairs, strict=True))
    ratio = statistics.median(ours / least for ours, least in pairs)
    print(
        f"{slots:>9,} slots: restore {restore * 1e3:8.2f} ms,"
        f" making only {floor * 1e3:8.2f} ms, ratio {ratio:.2f}"
    )


def main() -> None:
    for slots, rounds in ROUNDS.items():
        measure(slots, rounds)


if __name__ == "__main__":
    main()
