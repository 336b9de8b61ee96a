"""The text at the end of a replay."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from itertools import pairwise

import numpy as np

from quorvane.baskets.listing import Book
from quorvane.cli.day_labels import looks_like_date
from quorvane.cli.structures import Structures
from quorvane.cli.table import Table
from quorvane.counting import counted
from quorvane.tables import date_text


def format_rows(rows: Iterable[tuple[str, str]]) -> str:
    """Labels and texts as two aligned columns."""
    listed = list(rows)
    width = max(len(label) for label, _ in listed)
    return "\n".join(f"  {label:<{width}}  {text}" for label, text in listed)


def describe_table(table: Table) -> str:
    """Size, first and last date, missing cells."""
    days, instruments = table.values.shape
    text = f"{counted(days, 'day')} x {counted(instruments, 'instrument')}"
    if table.dates is not None:
        text += f", {table.label(0)} to {table.label(days - 1)}"
        if not any(map(looks_like_date, table.dates.text)):
            text += " (labels, no dates: in the file's order)"
    missing = int(np.count_nonzero(np.isnan(table.values)))
    return f"{text}, {_share(missing, table.values.size)} missing" if missing else text


def describe_structures(structures: Structures) -> str:
    """Number of structures and legs."""
    legs = sum(map(len, structures.values()))
    return f"{counted(len(structures), 'structure')}, {counted(legs, 'leg')}"


def describe_book(book: Book) -> str:
    """Number of structures and legs, and from how many dates they are, the first and the last."""
    legs = sum(len(listing.leg_ids) for listing in book.listings)
    text = f"{counted(len(book.baskets), 'structure')}, {counted(legs, 'leg')}"
    if book.dates is None:
        return text
    first, last = (date_text(date, book.is_utc) for date in (book.dates[0], book.dates[-1]))
    return f"{text} of {counted(len(book.dates), 'date')}, {first} to {last}"


def describe_hold(hold: int | None) -> str:
    """For how long a structure goes on speaking without a value."""
    return "for ever" if hold is None else counted(hold, "day")


def describe_output(output: Table) -> str:
    """How many of the output's cells hold a value."""
    filled = int(np.count_nonzero(np.isfinite(output.values)))
    return f"{_share(filled, output.values.size)} hold a value"


def describe_time(days: int, seconds: float) -> str:
    """Time of the days, and time per day in a unit that suits it."""
    if days == 0:
        return "no day left to compute"
    return f"{seconds:.2f} s for {counted(days, 'day')}, {_duration(seconds / days)} per day"


def describe_times(
    days: int, computing: float, times: Sequence[float], *, has_checkpoint: bool
) -> str:
    """The whole time and its parts; ``times`` are of the start and of the end of each step.

    The steps are reading, the days, and writing. What the second took besides computing is for
    checkpoints.
    """
    reading, between, writing = (after - before for before, after in pairwise(times))
    parts = [f"{reading:.2f} s reading", describe_time(days, computing)]
    if has_checkpoint:
        parts.append(f"{between - computing:.2f} s keeping checkpoints")
    parts.append(f"{writing:.2f} s writing")
    return f"{times[-1] - times[0]:.2f} s: {', '.join(parts)}"


def _share(part: int, whole: int) -> str:
    return f"{part:,} of {counted(whole, 'cell')} ({100.0 * part / whole:.1f} %)"


def _duration(seconds: float) -> str:
    if seconds < 1e-3:
        return f"{seconds * 1e6:.1f} µs"
    return f"{seconds * 1e3:.2f} ms" if seconds < 1.0 else f"{seconds:.2f} s"
