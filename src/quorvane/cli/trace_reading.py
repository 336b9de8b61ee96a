"""One day of a trace as it was written: what each structure brings an instrument."""

from __future__ import annotations

import json
import math
import zipfile
import zlib
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.day_labels import canonical
from quorvane.cli.errors import DataError, did_you_mean, reason, shown
from quorvane.cli.files import check_readable, ending_of
from quorvane.cli.trace import TRACE_ENDINGS

_OLD = "it does not say how values come back: replay again to have it explained"


@dataclass(frozen=True)
class Contribution:
    """What one structure brings an instrument on a day."""

    key: str
    weight: float
    entered: float
    left: float
    contribution: float


@dataclass(frozen=True)
class TracedNumber:
    """An instrument's number on a day, and what it is made up of, the largest part first."""

    label: str
    number: float
    parts: list[Contribution]


@dataclass(frozen=True)
class _Leg:
    """A structure's leg in the instrument, and how many legs it has."""

    key: str
    weight: float
    legs: int
    entered: float
    left: float


def read_number(path: Path, instrument: str, date: str) -> TracedNumber:
    """Look one number of a trace up.

    Raises
    ------
    DataError
        It is no trace, has no such instrument or day, or does not add up.
    """
    ending = ending_of(path, TRACE_ENDINGS, "a trace")
    check_readable(path, "a trace")
    with _reporting_faults(path):
        look = _in_archive if ending == ".npz" else _in_lines
        label, policy, number, legs = look(path, instrument, date)
    if policy not in ("proportional", "equal_split"):
        raise DataError(f"{path}: {_OLD}")
    parts = [part for leg in legs if (part := _contribution(leg, policy)) is not None]
    parts.sort(key=lambda part: -abs(part.contribution))
    total = _sum([part.contribution for part in parts])
    if not _adds_up(parts, total, number):
        raise DataError(
            f"{path}: the structures' parts add up to {total!r}, the number of {shown(instrument)} "
            f"is {number!r}: the trace was changed since"
        )
    return TracedNumber(label, number, parts)


def _adds_up(parts: list[Contribution], total: float, number: float) -> bool:
    """Whether it is the parts' sum; the replay adds in another order, to other last digits."""
    if not parts:
        return math.isnan(number)
    if not (math.isfinite(total) and math.isfinite(number)):
        # Beyond the largest number it depends on the order what comes out.
        return not math.isfinite(number) or math.isinf(_sum([abs(p.contribution) for p in parts]))
    return abs(total - number) <= 1e-9 * _sum([abs(part.contribution) for part in parts])


def _sum(numbers: list[float]) -> float:
    try:
        return math.fsum(numbers)
    except (OverflowError, ValueError):
        # Exact sums know no infinities.
        return sum(numbers)


def _contribution(leg: _Leg, policy: str) -> Contribution | None:
    """Nothing for a structure that was silent."""
    if not math.isfinite(leg.left):
        return None
    share = leg.weight
    if policy == "equal_split":
        share = (1.0 if leg.weight >= 0.0 else -1.0) / leg.legs
    return Contribution(leg.key, leg.weight, leg.entered, leg.left, leg.left * share)


# ---- an archive of arrays -----------------------------------------------------------------------


def _in_archive(path: Path, instrument: str, date: str) -> tuple[str, str, float, list[_Leg]]:
    with zipfile.ZipFile(path) as archive:
        names = {name.removesuffix(".npy") for name in archive.namelist()}
        if not {"policy", "leg_day"} <= names:
            raise DataError(f"{path}: {_OLD}")
        instruments = _array(archive, "instruments").tolist()
        column = _position(path, instruments, instrument)
        labels = _array(archive, "dates").tolist() if "dates" in names else None
        with archive.open("txn_output.npy") as member:
            days = _header(member)[0][0]
        day = _day(path, labels or list(map(str, range(days))), date)
        keys = _array(archive, "keys").tolist()
        entered, left = _row(archive, "txi_input", day), _row(archive, "txi_output", day)
        chosen, sizes = _legs_on(archive, day, len(left))
        of_column = chosen[_array(archive, "leg_instrument")[chosen] == column]
        slots, weights = _array(archive, "leg_slot")[of_column], _array(archive, "leg_weight")
        legs = [
            _Leg(str(keys[s]), float(w), int(sizes[s]), float(entered[s]), float(left[s]))
            for s, w in zip(slots.tolist(), weights[of_column].tolist(), strict=True)
        ]
        number = float(_row(archive, "txn_output", day)[column])
        label = str(day) if labels is None else str(labels[day])
        return label, str(_array(archive, "policy")), number, legs


def _legs_on(
    archive: zipfile.ZipFile, day: int, slots: int
) -> tuple[NDArray[np.intp], NDArray[np.intp]]:
    """Which rows of legs hold on a day, and how many legs each slot has."""
    since, slot = _array(archive, "leg_day"), _array(archive, "leg_slot")
    latest = np.full(slots, -1, dtype=np.int64)
    begun = since <= day
    np.maximum.at(latest, slot[begun], since[begun])
    chosen = np.flatnonzero(begun & (since == latest[slot]))
    return chosen, np.bincount(slot[chosen], minlength=slots)


def _array(archive: zipfile.ZipFile, name: str) -> NDArray[Any]:
    with archive.open(f"{name}.npy") as member:
        array: NDArray[Any] = np.lib.format.read_array(member, allow_pickle=False)
        return array


def _row(archive: zipfile.ZipFile, name: str, day: int) -> NDArray[np.float64]:
    """One row of a table of numbers, without the memory for all."""
    with archive.open(f"{name}.npy") as member:
        (_, width), dtype = _header(member)
        size = width * dtype.itemsize
        member.seek(day * size, 1)
        return np.frombuffer(member.read(size), dtype=dtype, count=width).astype(np.float64)


def _header(member: Any) -> tuple[tuple[int, ...], np.dtype[Any]]:
    version = np.lib.format.read_magic(member)
    read = {(1, 0): np.lib.format.read_array_header_1_0}.get(version)
    if read is None:
        raise ValueError(f"an array of format {version}")
    shape, is_fortran, dtype = read(member)
    if len(shape) != 2 or is_fortran or dtype.kind != "f":
        raise ValueError("an array that is no table of numbers")
    return shape, dtype


# ---- lines of JSON ------------------------------------------------------------------------------


def _in_lines(path: Path, instrument: str, date: str) -> tuple[str, str, float, list[_Leg]]:
    policy, legs = "", dict[str, dict[str, float]]()
    labels: list[str] = []
    with path.open(encoding="utf-8") as lines:
        for line in lines:
            day = json.loads(line)
            policy = day.get("policy", policy)
            for key, told in day["structures"].items():
                if "legs" in told:
                    legs[key] = told["legs"]
            labels.append(str(day["day_index"]) if day["date"] is None else day["date"])
            if len(labels) == 1:
                _position(path, list(day["output"]), instrument)
                _check_policy(path, policy)
            if _is_day(labels[-1], date):
                return (
                    labels[-1],
                    policy,
                    _number(day["output"][instrument]),
                    [
                        _Leg(
                            key,
                            legs[key][instrument],
                            len(legs[key]),
                            _number(told["input"]),
                            _number(told["output"]),
                        )
                        for key, told in day["structures"].items()
                        if instrument in legs.get(key, {})
                    ],
                )
    _day(path, labels, date)
    raise DataError(f"{path}: the file is empty, expected a trace")


def _check_policy(path: Path, policy: str) -> None:
    if not policy:
        raise DataError(f"{path}: {_OLD}")


def _number(told: float | str | None) -> float:
    return math.nan if told is None else float(told)


# ---- both ---------------------------------------------------------------------------------------


def _position(path: Path, instruments: Sequence[str], instrument: str) -> int:
    if instrument not in instruments:
        raise DataError(
            f"{path}: there is no instrument {shown(instrument)}"
            f"{did_you_mean(instrument, instruments)}"
        )
    return instruments.index(instrument)


def _day(path: Path, labels: Sequence[str], date: str) -> int:
    for day, label in enumerate(labels):
        if _is_day(label, date):
            return day
    span = f", which has {labels[0]} to {labels[-1]}" if labels else ""
    raise DataError(f"{path}: there is no day {shown(date)} in the trace{span}")


def _is_day(label: str, date: str) -> bool:
    return label == date or canonical(label) == canonical(date)


@contextmanager
def _reporting_faults(path: Path) -> Iterator[None]:
    """Turn whatever a file that is no trace leads to into DataError."""
    try:
        yield
    except (
        zipfile.BadZipFile,
        zlib.error,
        OSError,
        EOFError,
        ValueError,
        LookupError,
        TypeError,
        AttributeError,
        RecursionError,
        NotImplementedError,
        RuntimeError,
    ) as error:
        raise DataError(f"{path}: not a readable trace: {reason(error)}") from error
