"""The trace of a replay: every slot of every day, as one .npz archive or as lines of JSON."""

from __future__ import annotations

import json
import math
import zipfile
from collections.abc import Hashable, Iterator, Sequence
from dataclasses import dataclass
from itertools import pairwise
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.files import ending_of
from quorvane.cli.recording import FloatArray
from quorvane.cli.table import Table

TRACE_ENDINGS = (".npz", ".jsonl")


class TraceRecorder:
    """Keeps of every slot what changes from day to day."""

    sees_each_day = True

    def __init__(self, days: BasketDays) -> None:
        self._days = days
        shape = len(days.inputs), days.slots
        self.active = np.zeros(shape, dtype=np.bool_)
        self.txi_input = np.full(shape, np.nan)
        self.txi_output = np.full(shape, np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """Which slots were active, and the rows before and after the expression."""
        return {
            "trace_active": self.active,
            "trace_txi_input": self.txi_input,
            "trace_txi_output": self.txi_output,
        }

    def record(self, day: int, output: FloatArray) -> None:
        """Look at the slots as the day has left them."""
        rotation = self._days.rotation
        self.active[day] = self._days.active()
        self.txi_input[day] = rotation._txi_input
        self.txi_output[day] = rotation._txi_output


@dataclass(frozen=True)
class Trace:
    """All that a trace holds; ``legs`` are in the order of the days from which they hold."""

    recorder: TraceRecorder
    slots: dict[str, int]
    legs: Sequence[DatedLegs]
    policy: str
    output: Table


@dataclass(frozen=True)
class DatedLegs:
    """The legs that a structure has from a day on, until it gets others."""

    day: int
    key: str
    columns: NDArray[np.int64]
    weights: NDArray[np.float64]


def legs_by_day(days: BasketDays) -> list[DatedLegs]:
    """What legs the structures had on the days, and from when.

    A structure that is not listed any more keeps its legs: while it is held, they are what its
    value comes back by.
    """
    book, known = days.book, dict[Hashable, DatedLegs]()
    in_force = book.in_force(days.dates, len(days.inputs))
    starts = np.flatnonzero(np.diff(in_force, prepend=-1))
    told = []
    for day in starts.tolist():
        listing = book.listing(int(in_force[day]))
        bounds = zip(listing.baskets, pairwise(listing.offsets.tolist()), strict=True)
        for key, (first, last) in bounds:
            legs = DatedLegs(
                day, str(key), listing.leg_ids[first:last], listing.weights[first:last]
            )
            if key not in known or not _same_legs(known[key], legs):
                known[key] = legs
                told.append(legs)
    return told


def write_trace(path: Path, trace: Trace) -> None:
    """Write the trace by the ending of the file's name.

    ``.npz`` holds ``keys`` (by slot), ``instruments``, ``dates`` (when the table has them),
    ``policy``, ``active``, ``txi_input`` and ``txi_output`` (days by slots), ``txn_output`` (days
    by instruments), and the legs as ``leg_slot``, ``leg_instrument`` (a column), ``leg_weight`` and
    ``leg_day``, the day from which the slot has them until it gets others.
    ``.jsonl`` holds one object per day; NaN is null, and infinities are "inf" and "-inf". The first
    one has the policy, and a structure its legs on the first day and where they change.
    """
    if ending_of(path, TRACE_ENDINGS, "a trace") == ".npz":
        _write_archive(path, _archive(trace))
        return
    with path.open("w", encoding="utf-8") as lines:
        for day in _days(trace):
            lines.write(json.dumps(day, ensure_ascii=False, allow_nan=False) + "\n")


def _write_archive(path: Path, arrays: dict[str, NDArray[Any]]) -> None:
    """Write what ``numpy.savez_compressed`` writes; older ones leave a failed archive open."""
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, array in arrays.items():
            with archive.open(f"{name}.npy", "w", force_zip64=True) as member:
                np.lib.format.write_array(member, array, allow_pickle=False)


def _archive(trace: Trace) -> dict[str, NDArray[Any]]:
    slots, recorder, output = trace.slots, trace.recorder, trace.output
    legs = trace.legs
    sizes = [len(each.columns) for each in legs]
    archive: dict[str, NDArray[Any]] = {
        "keys": np.array(sorted(slots, key=slots.__getitem__)),
        "instruments": np.array(output.instruments),
        "policy": np.array(trace.policy),
        "active": recorder.active,
        "txi_input": recorder.txi_input,
        "txi_output": recorder.txi_output,
        "txn_output": output.values,
        "leg_slot": np.repeat([slots[each.key] for each in legs], sizes).astype(np.int64),
        "leg_instrument": _joined([each.columns for each in legs], np.int64),
        "leg_weight": _joined([each.weights for each in legs], np.float64),
        "leg_day": np.repeat([each.day for each in legs], sizes).astype(np.int64),
    }
    if output.dates is not None:
        archive["dates"] = np.array(output.dates.text)
    return archive


def _joined(parts: list[NDArray[Any]], kind: type) -> NDArray[Any]:
    return np.concatenate([np.empty(0, dtype=kind), *parts])


def _days(trace: Trace) -> Iterator[dict[str, Any]]:
    recorder, output, slots = trace.recorder, trace.output, trace.slots
    told = dict[int, dict[str, dict[str, float]]]()
    for each in trace.legs:
        names = [output.instruments[column] for column in each.columns]
        weights = each.weights.tolist()
        told.setdefault(each.day, {})[each.key] = dict(zip(names, weights, strict=True))
    for day in range(output.values.shape[0]):
        entered, left = recorder.txi_input[day].tolist(), recorder.txi_output[day].tolist()
        active, legs = recorder.active[day].tolist(), told.get(day, {})
        head = {"day_index": day, "date": None if output.dates is None else output.dates.text[day]}
        yield {
            **head,
            **({"policy": trace.policy} if day == 0 else {}),
            "structures": {
                key: {
                    "slot": slot,
                    "active": active[slot],
                    "input": _plain(entered[slot]),
                    "output": _plain(left[slot]),
                    **({"legs": legs[key]} if key in legs else {}),
                }
                for key, slot in slots.items()
            },
            "output": {
                name: _plain(number)
                for name, number in zip(
                    output.instruments, output.values[day].tolist(), strict=True
                )
            },
        }


def _same_legs(one: DatedLegs, other: DatedLegs) -> bool:
    return np.array_equal(one.columns, other.columns) and np.array_equal(one.weights, other.weights)


def _plain(number: float) -> float | str | None:
    """A number as JSON knows it."""
    if math.isnan(number):
        return None
    return number if math.isfinite(number) else str(number)
