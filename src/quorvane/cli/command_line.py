"""The command line of ``quorvane``: its options, and errors as one line."""

from __future__ import annotations

import argparse
from collections.abc import Sequence
from pathlib import Path

from quorvane import __version__
from quorvane.cli.errors import CommandError
from quorvane.cli.limits import MAX_CELLS, MAX_INSTRUMENTS, MAX_STRUCTURES
from quorvane.cli.plot import PICTURE_ENDINGS
from quorvane.cli.saying import note
from quorvane.cli.stopping import TERMINATED, Terminated, signals_held, termination_raised
from quorvane.cli.structures import STRUCTURE_ENDINGS
from quorvane.cli.table_io import TABLE_ENDINGS
from quorvane.cli.trace import TRACE_ENDINGS
from quorvane.functions.rotations.virtualization.history import MOST_THREADS

_REPLAY_TEXT = """\
Replay a table of days by instruments through structures: weighted baskets of instruments.
Each day the structures' values run through the child rotations of the expression, and what
comes out is brought back onto the instruments.
"""

_REPLAY_NOTES = f"""\
The table has a header of instrument names and one row per day. A first column that is named
Date, Day, Time, Datetime or Timestamp, or not named at all, or that does not hold numbers, is
taken as the dates and written back as it is. An empty cell, nan, NA, null or none is a missing
number. An .npy table is a plain array; its instruments are named 0, 1, ... by column.

A TOML structures file holds one table per structure, a CSV one leg per row:

    ["KO/PEP"]            key,instrument,weight
    KO = 1.0              KO/PEP,KO,1.0
    PEP = -1.0            KO/PEP,PEP,-1.0

Limits: {MAX_INSTRUMENTS:,} instruments, {MAX_STRUCTURES:,} structures, {MAX_CELLS:,} cells in
any array of days; input and output are held in memory at 8 bytes a cell.

Exit status: 0 done, 1 a file is at fault, 2 the options are at fault, 130 or 143 stopped by a
signal.
"""


def run(argv: Sequence[str] | None = None) -> int:
    """Parse ``argv`` and run the command; a failure is one line on standard error."""
    parser = _parser()
    try:
        options = parser.parse_args(argv)
    except SystemExit as exit_request:
        return int(exit_request.code or 0)
    try:
        with termination_raised():
            with signals_held():
                # Imported after parsing, so that --help does not wait for it.
                from quorvane.cli.commands.replay import replay_command

            return replay_command(options)
    except Terminated:
        return TERMINATED
    except CommandError as error:
        note(f"quorvane replay: error: {error}")
        return error.exit_status
    except MemoryError:
        note("quorvane replay: error: not enough memory for these tables")
        return 1


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="quorvane", description="Rotations over days of data.")
    parser.add_argument("--version", action="version", version=f"quorvane {__version__}")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    replay = commands.add_parser(
        "replay",
        help="replay a table of days through structures",
        description=_REPLAY_TEXT,
        epilog=_REPLAY_NOTES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    _add_inputs(replay)
    _add_outputs(replay)
    _add_checkpoints(replay)
    return parser


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
        help='the child rotations, such as "ewma(20);rank"; at most four of ewma(window), '
        "zscore, rank and sigmoid (default: %(default)s)",
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
        "--title", metavar="TEXT", help="the picture's title (default: the table's file name)"
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
        type=Path,
        metavar="FILE",
        help="keep the state in FILE: at regular days, when stopped by Ctrl-C or SIGTERM, "
        "and at the end",
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
