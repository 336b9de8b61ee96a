"""The options of ``quorvane sweep``."""

from __future__ import annotations

import argparse
from pathlib import Path

from quorvane.cli.table_io import TABLE_ENDINGS

_TEXT = """\
Run baskets over a table in every configuration of a grid, and say how each does. Results are
kept in a folder: the same command again computes only what is missing there.
"""

_NOTES = """\
The grid is a TOML file of lists by argument; the first one changes slowest:

    expression = ["ewma(10);rank", "ewma(40);rank"]
    hold = [0, 5, "forever"]

    [weights]                  # by label
    pairs = "pairs.toml"       # structures in a file beside this one,
    single = "columns"         # each column a basket of its own,

    [weights.oil."XOM/CVX"]    # or baskets and their legs here
    XOM = 1.0
    CVX = -1.0

    [evaluate]                 # how signals are judged, where it is not the usual way
    horizons = [1, 5]
    cost = 0.0005

Exit status: 0 done, also where configurations fail, 1 a file is at fault or all of them fail, 2 the
options are at fault, 130 or 143 stopped by a signal.
"""


def add_options(parser: argparse.ArgumentParser) -> None:
    """Add what `execute` reads."""
    parser.description, parser.epilog = _TEXT, _NOTES
    parser.add_argument("grid", type=Path, metavar="GRID", help="the configurations (.toml)")
    parser.add_argument(
        "table", type=Path, metavar="TABLE", help=f"the table ({', '.join(TABLE_ENDINGS)})"
    )
    parser.add_argument(
        "--input",
        choices=("returns", "levels"),
        default="returns",
        help="what the baskets see, and what signals are judged by: the day-to-day returns of a "
        "table of prices, or the table's numbers as they are, for a table that already holds "
        "returns (default: %(default)s)",
    )
    parser.add_argument(
        "--sort",
        action="store_true",
        help="sort the days by their dates, which else must ascend",
    )
    parser.add_argument(
        "--out",
        type=Path,
        required=True,
        metavar="FOLDER",
        help="where results are kept, with all of them as table.csv at the end",
    )
    parser.add_argument(
        "--report", action="store_true", help="write report.html into the folder, too"
    )
    parser.add_argument(
        "--cluster",
        metavar="ADDRESS",
        help="the scheduler of a dask.distributed cluster to compute on, such as "
        "tcp://10.0.0.1:8786 (default: this machine's cores)",
    )
    parser.add_argument(
        "--quiet", action="store_true", help="print neither the progress bar nor the summary"
    )
