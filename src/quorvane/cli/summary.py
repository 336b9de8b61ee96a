"""The text at the end of a replay."""

from __future__ import annotations

from collections.abc import Iterable

import numpy as np

from quorvane.cli.structures import Structures
from quorvane.cli.table import Table


def format_rows(rows: Iterable[tuple[str, str]]) -> str:
    """Labels and texts as two aligned columns."""
    listed = list(rows)
    width = max(len(label) for label, _ in listed)
    return "\n".join(f"  {label:<{width}}  {text}" for label, text in listed)


def describe_table(table: Table) -> str:
    """Size, first and last date, missing cells."""
    days, instruments = table.values.shape
    text = f"{days:,} days x {instruments:,} instruments"
    if table.dates is not None:
        text += f", {table.label(0)} to {table.label(days - 1)}"
    missing = int(np.count_nonzero(np.isnan(table.values)))
    return f"{text}, {_share(missing, table.values.size)} missing" if missing else text


def describe_structures(structures: Structures) -> str:
    """Number of structures and legs."""
    legs = sum(map(len, structures.values()))
    return f"{len(structures):,} structures, {legs:,} legs"


def describe_output(output: Table) -> str:
    """How many of the output's cells hold a value."""
    filled = int(np.count_nonzero(np.isfinite(output.values)))
    return f"{_share(filled, output.values.size)} hold a value"


def describe_time(days: int, seconds: float) -> str:
    """Total time, and time per day in a unit that suits it."""
    if days == 0:
        return "no day left to compute"
    return f"{seconds:.2f} s for {days:,} days, {_duration(seconds / days)} per day"


def _share(part: int, whole: int) -> str:
    return f"{part:,} of {whole:,} cells ({100.0 * part / whole:.1f} %)"


def _duration(seconds: float) -> str:
    if seconds < 1e-3:
        return f"{seconds * 1e6:.1f} µs"
    return f"{seconds * 1e3:.2f} ms" if seconds < 1.0 else f"{seconds:.2f} s"
