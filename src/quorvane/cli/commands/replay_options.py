"""The options of ``quorvane replay``."""

from __future__ import annotations

import argparse
from pathlib import Path

from quorvane.cli.checkpoint_server import checkpoint_place
from quorvane.cli.hold import FOREVER
from quorvane.cli.labels import LABEL_ENDINGS
from quorvane.cli.limits import MAX_CELLS, MAX_INSTRUMENTS, MAX_STRUCTURES
from quorvane.cli.structures import STRUCTURE_ENDINGS
from quorvane.cli.table_io import TABLE_ENDINGS
from quorvane.cli.trace import TRACE_ENDINGS
from quorvane.functions.rotations.virtualization.history import MOST_THREADS

PICTURE_ENDINGS = (".png", ".pdf", ".svg")
REPORT_ENDINGS = (".html", ".htm")

_TEXT = """\
Replay a table of days by instruments through structures: weighted baskets of instruments.
Each day the structures' values run through the functions of the expression, and what
comes out is brought back onto the instruments.
"""

_NOTES = f"""\
The table has a header of instrument names and one row per day. A first column that is named
Date, Day, Time, Datetime or Timestamp, or not named at all, or that does not hold numbers, is
taken as the dates and written back as it is; dates such as 2000-01-31 or 20000131 must ascend.
A table with columns named date, instrument and value is a long one, with a row for each date and
instrument. An empty cell, nan, NA, null or none is a missing number. Columns may be separated by
commas, semicolons, tabs or bars. An .npy table is a plain array; its instruments are named
0, 1, ... by column.

A TOML structures file holds one table per structure, a CSV or Parquet one a leg per row. With a
column of dates each date is the complete list of structures from then on, until the next:

    ["KO/PEP"]            key,instrument,weight      date,key,instrument,weight
    KO = 1.0              KO/PEP,KO,1.0              2020-01-02,KO/PEP,KO,1.0
    PEP = -1.0            KO/PEP,PEP,-1.0            2020-01-02,KO/PEP,PEP,-1.0

Limits: {MAX_INSTRUMENTS:,} instruments, {MAX_STRUCTURES:,} structures, {MAX_CELLS:,} cells in
any array of days; input and output are held in memory at 8 bytes a cell.

Exit status: 0 done, 1 a file is at fault, 2 the options are at fault, 130 or 143 stopped by a
signal.
"""


def add_options(parser: argparse.ArgumentParser) -> None:
    """Describe the subcommand and add its options."""
    parser.description, parser.epilog = _TEXT, _NOTES
    _add_inputs(parser)
    _add_outputs(parser)
    _add_checkpoints(parser)


def _add_inputs(replay: argparse.ArgumentParser) -> None:
    group = replay.add_argument_group("what goes in")
    group.add_argument(
        "table", type=Path, metavar="TABLE", help=f"the table ({', '.join(TABLE_ENDINGS)})"
    )
    group.add_argument(
        "--structures",
        type=Path,
        required=True,
        metavar="FILE",
        help=f"the structures ({', '.join(STRUCTURE_ENDINGS)})",
    )
    group.add_argument(
        "--changes-only",
        action="store_true",
        help="a date of dated structures says only what changes: each structure keeps its legs "
        "until its own next date, and ends where its weights are all 0 or missing",
    )
    group.add_argument(
        "--sort",
        action="store_true",
        help="sort the days by their dates, which else must ascend",
    )
    group.add_argument(
        "--input",
        choices=("returns", "levels"),
        default="returns",
        help="what the structures see: the day-to-day returns of a table of prices, or the "
        "table's numbers as they are, also for a table that already holds returns "
        "(default: %(default)s)",
    )
    group.add_argument(
        "--expression",
        default="none",
        metavar="EXPR",
        help='the functions, such as "ewma(20);rank": all that quorvane.catalogue() lists, one '
        "after the other (default: %(default)s)",
    )
    group.add_argument(
        "--functions",
        metavar="MODULE",
        help="a Python module to import first, such as mine or mine.functions, which registers "
        "functions of one's own for the expression; the folder you are in is looked through, too",
    )
    group.add_argument(
        "--labels",
        type=Path,
        metavar="FILE",
        help="labels of the structures, for functions that go by groups: a column of keys, and a "
        f"column for each label ({', '.join(LABEL_ENDINGS)})",
    )
    group.add_argument(
        "--hold",
        type=_hold,
        metavar="DAYS",
        help="for how many days a structure goes on speaking without a value, or "
        f'"{FOREVER}" (default: {FOREVER}, with dated structures 0)',
    )
    group.add_argument(
        "--policy",
        choices=("proportional", "equal_split"),
        default="proportional",
        help="how a structure's value comes back onto its instruments: times the weight, or in "
        "equal parts with the weight's sign (default: %(default)s)",
    )
    group.add_argument(
        "--max-structures",
        type=_positive,
        metavar="N",
        help="number of slots (default: the number of structures)",
    )
    group.add_argument(
        "--threads",
        type=_threads,
        metavar="N",
        help="threads to compute with, which changes no number (default: what QUORVANE_NUM_THREADS "
        "says, or 1)",
    )


def _add_outputs(replay: argparse.ArgumentParser) -> None:
    group = replay.add_argument_group("what comes out")
    group.add_argument(
        "--output",
        type=Path,
        required=True,
        metavar="FILE",
        help=f"the instrument table ({', '.join(TABLE_ENDINGS)}; .npy holds the numbers alone)",
    )
    group.add_argument(
        "--plot", type=Path, metavar="FILE", help=f"a picture ({', '.join(PICTURE_ENDINGS)})"
    )
    group.add_argument(
        "--report",
        type=Path,
        metavar="FILE",
        help="a report for a browser, of what the output would have earned (.html)",
    )
    group.add_argument(
        "--title",
        metavar="TEXT",
        help="the title of the picture and the report (default: the table's file name)",
    )
    group.add_argument(
        "--trace",
        type=Path,
        metavar="FILE",
        help=f"every slot of every day ({', '.join(TRACE_ENDINGS)})",
    )
    group.add_argument(
        "--quiet", action="store_true", help="print neither the progress bar nor the summary"
    )


def _add_checkpoints(replay: argparse.ArgumentParser) -> None:
    group = replay.add_argument_group("stopping and going on")
    group.add_argument(
        "--checkpoint",
        type=checkpoint_place,
        metavar="FILE",
        help="keep the state in FILE: at regular days, when stopped by Ctrl-C or SIGTERM, "
        "and at the end; postgresql://USER@HOST/DATABASE#NAME keeps it in a database, under a "
        "name of your choice",
    )
    group.add_argument(
        "--checkpoint-every",
        type=_positive,
        default=1000,
        metavar="DAYS",
        help="days from one checkpoint to the next (default: %(default)s)",
    )
    group.add_argument(
        "--resume",
        action="store_true",
        help="go on from the checkpoint, or begin when it holds no run yet; days after it may have "
        "been added to the table, everything before it must be as it was",
    )
    group.add_argument(
        "--stop-after",
        type=_positive,
        metavar="DAYS",
        help="compute so many days, keep a checkpoint, and stop without writing the outputs",
    )


def _hold(text: str) -> int | str:
    if text == FOREVER:
        return FOREVER
    # Not int(), which takes 1_0 and digits of other scripts.
    if not (text.isascii() and text.isdigit()):
        raise argparse.ArgumentTypeError(
            f"expected a number of days, 0 or more, or {FOREVER}, got {text!r}"
        )
    return int(text)


def _threads(text: str) -> int:
    number = _positive(text)
    if number > MOST_THREADS:
        raise argparse.ArgumentTypeError(f"expected at most {MOST_THREADS}, got {text!r}")
    return number


def _positive(text: str) -> int:
    try:
        number = int(text)
    except ValueError:
        number = 0
    if number <= 0:
        raise argparse.ArgumentTypeError(f"expected a positive integer, got {text!r}")
    return number
