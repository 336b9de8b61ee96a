"""The options of ``quorvane explain``."""

from __future__ import annotations

import argparse
from pathlib import Path

from quorvane.cli.trace import TRACE_ENDINGS

_TEXT = """\
Say which structures make up an instrument's number on a day, from what `quorvane replay
--trace` wrote: for each structure that reaches the instrument its weight, what entered and
what left the expression, and the contribution. The contributions add up to the number.
"""

_NOTES = """\
Exit status: 0 done, 1 the trace is at fault, or has no such instrument or day.
"""


def add_options(parser: argparse.ArgumentParser) -> None:
    """Describe the subcommand and add its options."""
    parser.description, parser.epilog = _TEXT, _NOTES
    parser.add_argument(
        "trace", type=Path, metavar="TRACE", help=f"the trace ({', '.join(TRACE_ENDINGS)})"
    )
    parser.add_argument("instrument", metavar="INSTRUMENT", help="one of the trace's instruments")
    parser.add_argument(
        "date",
        metavar="DATE",
        help="a day as the table has it, or a date such as 2000-01-31; without dates its number, "
        "counted from 0",
    )
