"""The trace of a replay: every slot of every day, as one .npz archive or as lines of JSON."""

from __future__ import annotations

import json
import math
import zipfile
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.files import ending_of
from quorvane.cli.recording import FloatArray
from quorvane.cli.structures import Structures
from quorvane.cli.table import Table

TRACE_ENDINGS = (".npz", ".jsonl")


class TraceRecorder:
    """A trace sink that keeps of each record what changes from day to day."""

    sees_each_day = True

    def __init__(self, days: int, slots: int) -> None:
        self.active = np.zeros((days, slots), dtype=np.bool_)
        self.txi_input = np.full((days, slots), np.nan)
        self.txi_output = np.full((days, slots), np.nan)

    @property
    def arrays(self) -> dict[str, NDArray[Any]]:
        """Which slots were active, and the rows before and after the child chain."""
        return {
            "trace_active": self.active,
            "trace_txi_input": self.txi_input,
            "trace_txi_output": self.txi_output,
        }

    def append(self, record: dict[str, Any]) -> None:
        """Take one day's record from the rotation."""
        day = record["day_index"]
        self.active[day] = [metadata["active"] for metadata in record["metadata_by_slot"]]
        self.txi_input[day] = record["txi_input"]
        self.txi_output[day] = record["txi_output"]

    def record(self, day: int, output: FloatArray) -> None:
        """Nothing is left to keep: the rotation has called ``append``."""


def write_trace(
    path: Path,
    recorder: TraceRecorder,
    slots: dict[str, int],
    structures: Structures,
    output: Table,
) -> None:
    """Write the trace by the ending of the file's name.

    ``.npz`` holds ``keys`` (by slot), ``instruments``, ``dates`` (when the table has them),
    ``active``, ``txi_input`` and ``txi_output`` (days by slots), ``txn_output`` (days by
    instruments), and the legs as ``leg_slot``, ``leg_instrument`` (a column) and ``leg_weight``.
    ``.jsonl`` holds one object per day; NaN is null, and infinities are "inf" and "-inf".
    """
    if ending_of(path, TRACE_ENDINGS, "a trace") == ".npz":
        _write_archive(path, _archive(recorder, slots, structures, output))
        return
    with path.open("w", encoding="utf-8") as lines:
        for day in _days(recorder, slots, output):
            lines.write(json.dumps(day, ensure_ascii=False, allow_nan=False) + "\n")


def _write_archive(path: Path, arrays: dict[str, NDArray[Any]]) -> None:
    """Write what ``numpy.savez_compressed`` writes; older ones leave a failed archive open."""
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, array in arrays.items():
            with archive.open(f"{name}.npy", "w", force_zip64=True) as member:
                np.lib.format.write_array(member, array, allow_pickle=False)


def _archive(
    recorder: TraceRecorder, slots: dict[str, int], structures: Structures, output: Table
) -> dict[str, Any]:
    columns = {name: column for column, name in enumerate(output.instruments)}
    legs = [
        (slots[key], columns[instrument], weight)
        for key, basket in structures.items()
        for instrument, weight in basket.items()
    ]
    archive: dict[str, Any] = {
        "keys": np.array(sorted(slots, key=slots.__getitem__)),
        "instruments": np.array(output.instruments),
        "active": recorder.active,
        "txi_input": recorder.txi_input,
        "txi_output": recorder.txi_output,
        "txn_output": output.values,
        "leg_slot": np.array([slot for slot, _, _ in legs], dtype=np.int64),
        "leg_instrument": np.array([column for _, column, _ in legs], dtype=np.int64),
        "leg_weight": np.array([weight for _, _, weight in legs], dtype=np.float64),
    }
    if output.dates is not None:
        archive["dates"] = np.array(output.dates.text)
    return archive


def _days(
    recorder: TraceRecorder, slots: dict[str, int], output: Table
) -> Iterator[dict[str, Any]]:
    for day in range(output.values.shape[0]):
        entered, left = recorder.txi_input[day].tolist(), recorder.txi_output[day].tolist()
        active = recorder.active[day].tolist()
        yield {
            "day_index": day,
            "date": None if output.dates is None else output.dates.text[day],
            "structures": {
                key: {
                    "slot": slot,
                    "active": active[slot],
                    "input": _plain(entered[slot]),
                    "output": _plain(left[slot]),
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


def _plain(number: float) -> float | str | None:
    """A number as JSON knows it."""
    if math.isnan(number):
        return None
    return number if math.isfinite(number) else str(number)
