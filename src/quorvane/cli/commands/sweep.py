"""``quorvane sweep`` from its options to its exit status."""

from __future__ import annotations

import argparse
import os
import time
from collections.abc import Iterator
from contextlib import contextmanager, nullcontext
from pathlib import Path
from typing import Any

from quorvane.baskets.progress import without_bars
from quorvane.cli.day_labels import Moments
from quorvane.cli.day_table import day_index, read_days
from quorvane.cli.errors import DataError, UsageError, reason
from quorvane.cli.files import WholeOutputs, ending_of
from quorvane.cli.hold import written_hold
from quorvane.cli.inputs import require_judgeable, structure_input
from quorvane.cli.libraries import require_library
from quorvane.cli.saying import say
from quorvane.cli.stopping import signals_held
from quorvane.cli.summary import describe_table, format_rows
from quorvane.cli.sweep_grid import GRID_ENDINGS, read_grid
from quorvane.cli.sweep_report import report_of
from quorvane.cli.table import Table
from quorvane.cli.table_io import TABLE_ENDINGS
from quorvane.counting import counted
from quorvane.stores.errors import StoreError

TABLE, REPORT = "table.csv", "report.html"

_SHOWN = 5


def execute(options: argparse.Namespace) -> int:
    """Read, sweep, write, sum up; raises CommandError for whatever the user can mend."""
    start = time.perf_counter()
    ending_of(options.grid, GRID_ENDINGS, "a grid")
    ending_of(options.table, TABLE_ENDINGS, "a table")
    _require_own_places(options)
    require_library("pandas", "a sweep", extra="evaluation")
    grid, score = read_grid(options.grid)
    table, moments = read_days(options.table, sort=options.sort)
    require_judgeable(options.table, table.values, options.input, "a sweep")
    with _executor(options.cluster) as executor, without_bars() if options.quiet else nullcontext():
        found = _swept(_frame(table, moments, options.input), grid, score, executor, options.out)
    found = _in_words(found)
    title = f"{options.grid.name} over {options.table.name}"
    _write(found, options.out, title if options.report else None)
    failed = int((found["error"] != "").sum())
    if not options.quiet:
        say(_summary(options, table, found, failed, time.perf_counter() - start))
    return 1 if failed == len(found) else 0


def _require_own_places(options: argparse.Namespace) -> None:
    """Raise UsageError where an output would overwrite an input."""
    real = os.path.realpath
    taken = {real(options.table): "the table read", real(options.grid): "the grid"}
    written = [(TABLE, "the table"), *([(REPORT, "the report")] if options.report else [])]
    for name, what in written:
        path = options.out / name
        if real(path) in taken:
            raise UsageError(f"{path}: cannot be both {taken[real(path)]} and {what} to write")


def _frame(table: Table, moments: Moments | None, kind: Any) -> Any:
    """What the sweep is over, by name and day."""
    pandas = require_library("pandas", "a sweep", extra="evaluation")
    values = structure_input(table.values, kind)
    return pandas.DataFrame(
        values, index=day_index(table, moments), columns=list(table.instruments), copy=False
    )


def _swept(frame: Any, grid: Any, score: Any, executor: Any, out: Path) -> Any:
    with signals_held():
        from quorvane.sweeping import sweep

    try:
        return sweep(frame, grid, score=score, executor=executor, out=out)
    except (TypeError, ValueError, StoreError, RuntimeError) as error:
        raise DataError(str(error)) from error


@contextmanager
def _executor(address: str | None) -> Iterator[Any]:
    """A client of the cluster, None where there is no address; DataError for one that is none."""
    if address is None:
        yield None
        return
    distributed = require_library("distributed", "--cluster", extra="cluster")
    try:
        client = distributed.Client(address, set_as_default=False)
    except (OSError, ValueError, TypeError) as error:
        raise UsageError(f"--cluster {address}: no cluster answers: {reason(error)}") from error
    with client:
        yield client


def _in_words(found: Any) -> Any:
    """The same table with what a file has no value for as the grid writes it."""
    if "hold" not in found.columns:
        return found
    held = [written_hold(days) for days in found["hold"]]
    return found.assign(hold=held)


def _write(found: Any, folder: Path, title: str | None) -> None:
    with WholeOutputs() as outputs:
        with outputs.making(folder / TABLE, "the table") as part:
            found.to_csv(part, index=False)
        if title is not None:
            with outputs.making(folder / REPORT, "the report") as part:
                part.write_text(report_of(found, title), encoding="utf-8")
        outputs.take_places()


def _summary(
    options: argparse.Namespace, table: Table, found: Any, failed: int, seconds: float
) -> str:
    rows = [
        ("table", describe_table(table)),
        ("read as", "; ".join(table.taken)),
        ("grid", counted(len(found), "configuration") + (f", {failed:,} failed" if failed else "")),
        ("output", str(options.out / TABLE)),
        *([("report", str(options.out / REPORT))] if options.report else []),
        ("time", f"{seconds:.2f} s"),
    ]
    if failed:
        rows.append(("first error", reason(found.loc[found["error"] != "", "error"].iloc[0])))
    return "\n\n".join([format_rows([row for row in rows if row[1]]), *_best(found)])


def _best(found: Any) -> list[str]:
    """The configurations of the highest t-statistic, none where all failed."""
    columns = list(found.columns)
    by = next((name for name in columns if name.startswith("ic_t_")), None)
    if by is None:
        return []
    horizon = by.removeprefix("ic_t_")
    shown = [*columns[: columns.index(f"ic_mean_{horizon}")], f"ic_mean_{horizon}", by, "turnover"]
    best = found[found["error"] == ""].nlargest(_SHOWN, by)[shown]
    text = best.to_string(index=False, float_format=lambda value: f"{value:.4f}")
    return [f"The highest {by} (the best of many looks good by chance too):\n\n{text}"]
