"""``quorvane explain`` from its options to its exit status."""

from __future__ import annotations

import argparse

from quorvane.cli.saying import say
from quorvane.cli.trace_reading import TracedNumber, read_number
from quorvane.counting import counted

_COLUMNS = ("structure", "weight", "entered", "left", "contribution")


def execute(options: argparse.Namespace) -> int:
    """Print what an instrument's number is made up of; CommandError where that cannot be said."""
    number = read_number(options.trace, options.instrument, options.date)
    say(_text(options.instrument, number))
    return 0


def _text(instrument: str, traced: TracedNumber) -> str:
    if not traced.parts:
        return f"{instrument} on {traced.label}: missing, no structure reaches it"
    count = counted(len(traced.parts), "structure")
    rows = [list(_COLUMNS)]
    for part in traced.parts:
        numbers = part.weight, part.entered, part.left, part.contribution
        rows.append([part.key, *map(_shown, numbers)])
    rows.append(["sum", "", "", "", _shown(traced.number)])
    widths = [max(map(len, column)) for column in zip(*rows, strict=True)]
    lines = [
        "  ".join(
            # Names begin at the left, numbers end at the right.
            f"{cell:<{width}}" if place == 0 else f"{cell:>{width}}"
            for place, (cell, width) in enumerate(zip(row, widths, strict=True))
        )
        for row in rows
    ]
    head = f"{instrument} on {traced.label}: {_shown(traced.number)}, from {count}"
    return "\n".join([head, *(f"  {line}".rstrip() for line in lines)])


def _shown(number: float) -> str:
    """The shortest text that reads back as the same number; a dash where it is missing."""
    return "-" if number != number else repr(number)
