"""``quorvane replay`` from its options to its exit status."""

from __future__ import annotations

import argparse
import os
import time
from contextlib import nullcontext
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli import summary
from quorvane.cli.basket_days import BasketDays, Choices
from quorvane.cli.checkpoint import Checkpoint
from quorvane.cli.commands.replay_options import FOREVER
from quorvane.cli.day_labels import Moments, in_order, table_moments
from quorvane.cli.day_loop import Progress, replay
from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.files import WholeOutputs, check_writable, ending_of
from quorvane.cli.inputs import structure_input
from quorvane.cli.labels import LABEL_ENDINGS, Labels, read_labels
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import MAX_CELLS, MAX_STRUCTURES
from quorvane.cli.own_functions import import_functions
from quorvane.cli.plot import PICTURE_ENDINGS, Picture, choose_evenly, draw_picture
from quorvane.cli.recording import OutputRecorder, Recorder, StructureRecorder
from quorvane.cli.run_identity import RunIdentity
from quorvane.cli.saying import note, say
from quorvane.cli.stopping import StopRequest
from quorvane.cli.structures import STRUCTURE_ENDINGS, StructureBook, read_structures
from quorvane.cli.table import Table
from quorvane.cli.table_io import TABLE_ENDINGS, place_of, read_table, write_table
from quorvane.cli.trace import TRACE_ENDINGS, Trace, TraceRecorder, legs_by_day, write_trace

PLOTTED_STRUCTURES = 48


@dataclass
class Run:
    """A replay that is ready to go: what was read, the days, and who records them."""

    options: argparse.Namespace
    table: Table
    structures: StructureBook
    labels: Labels
    days: BasketDays
    output: OutputRecorder
    plotted: StructureRecorder | None
    trace: TraceRecorder | None

    @property
    def recorders(self) -> list[Recorder]:
        """All recorders of the run."""
        optional: list[Recorder | None] = [self.plotted, self.trace]
        return [self.output, *(recorder for recorder in optional if recorder is not None)]


def execute(options: argparse.Namespace) -> int:
    """Read, replay, write, sum up; raises CommandError for whatever the user can mend."""
    times = [time.perf_counter()]
    _check_options(options)
    run = _prepare(options)
    times.append(time.perf_counter())
    checkpoint = _checkpoint(run)
    first_day = 0 if checkpoint is None else _first_day(checkpoint, options)
    with StopRequest() as stop:
        progress = _replay(run, checkpoint, first_day, stop)
    times.append(time.perf_counter())
    if progress.next_day < len(run.days.inputs):
        return _stopped(run, progress, stop.signal_number)
    result = Table(run.output.output, run.table.instruments, run.table.dates)
    _write(run, result, checkpoint)
    times.append(time.perf_counter())
    if not options.quiet:
        say(_summary(run, result, progress, times))
    return 0


def _check_options(options: argparse.Namespace) -> None:
    """Everything that can be refused before a file is read."""
    ending_of(options.table, TABLE_ENDINGS, "a table")
    ending_of(options.structures, STRUCTURE_ENDINGS, "a structures file")
    ending_of(options.output, TABLE_ENDINGS, "a table")
    if options.plot is not None:
        ending_of(options.plot, PICTURE_ENDINGS, "a picture")
        require_library("matplotlib", "drawing a picture")
    if options.trace is not None:
        ending_of(options.trace, TRACE_ENDINGS, "a trace")
    if options.labels is not None:
        ending_of(options.labels, LABEL_ENDINGS, "a file of labels")
    if options.output.name.lower().endswith(".parquet"):
        require_library("pyarrow", "writing a Parquet table")
    if options.checkpoint is None and (options.resume or options.stop_after is not None):
        option = "--resume" if options.resume else "--stop-after"
        raise UsageError(f"{option} needs --checkpoint FILE")
    _check_distinct(options)
    for path, what in _outputs(options):
        check_writable(path, what)
    if options.checkpoint is not None:
        options.checkpoint.check()
    if options.functions is not None:
        import_functions(options.functions)
    # Arguments that are out of range show when the functions are made.
    _choices(options).settings(None, {})


def _outputs(options: argparse.Namespace) -> list[tuple[Path, str]]:
    named = [
        (options.output, "the table"),
        (options.plot, "the picture"),
        (options.trace, "the trace"),
    ]
    return [(path, what) for path, what in named if path is not None]


def _check_distinct(options: argparse.Namespace) -> None:
    """No output may overwrite an input or another output."""
    # Of realpath, since Path.resolve fails for links in a circle before Python 3.13.
    real = os.path.realpath
    taken = {real(options.table): "the table read", real(options.structures): "structures"}
    if options.labels is not None:
        taken[real(options.labels)] = "labels"
    written: list[tuple[Any, str, str]] = [
        (path, real(path), what) for path, what in _outputs(options)
    ]
    if options.checkpoint is not None:
        place = options.checkpoint
        written.append((place, place.identity, "the checkpoint"))
    for path, identity, what in written:
        other = taken.setdefault(identity, what)
        if other != what:
            raise UsageError(f"{path}: cannot be both {other} and {what} to write")


def _prepare(options: argparse.Namespace) -> Run:
    table, moments = _dated_table(options)
    structures = read_structures(
        options.structures, table.instruments, changes_only=options.changes_only
    )
    labels: Labels = {}
    if options.labels is not None:
        labels = read_labels(options.labels, structures.keys)
    days = BasketDays(
        structures.book,
        _choices(options),
        structure_input(table.values, options.input),
        dates=_dates_for(structures, moments, options),
        slots=_slots(options.max_structures, len(structures.keys)),
        labels=labels,
    )
    if options.checkpoint is not None:
        days.require_states()
    trace = None
    if options.trace is not None:
        cells = len(days.inputs) * days.slots
        if cells > MAX_CELLS:
            raise DataError(
                f"{options.trace}: a trace of {len(days.inputs)} days of {days.slots} slots is "
                f"{cells} cells, at most {MAX_CELLS} are allowed"
            )
        trace = TraceRecorder(days)
    plotted = None
    if options.plot is not None:
        chosen = choose_evenly(len(structures.keys), PLOTTED_STRUCTURES)
        plotted = StructureRecorder(days, [structures.keys[position] for position in chosen])
    output = OutputRecorder(*table.values.shape)
    return Run(options, table, structures, labels, days, output, plotted, trace)


def _dated_table(options: argparse.Namespace) -> tuple[Table, Moments | None]:
    """The table, whose days are in order if they have dates."""
    table = read_table(options.table)

    def place(row: int) -> str:
        return place_of(options.table, row)

    return in_order(table, table_moments(table, place), place, sort=options.sort)


def _dates_for(
    structures: StructureBook, moments: Moments | None, options: argparse.Namespace
) -> NDArray[np.datetime64] | None:
    """The days' dates for dated structures, None for others."""
    if not structures.book.is_dated:
        return None
    if moments is None:
        raise DataError(
            f"{options.structures}: the structures have dates, but the days of {options.table} "
            f"have none such as 2000-01-31"
        )
    if moments.is_utc != structures.book.is_utc:
        knows = "know" if moments.is_utc else "do not know"
        raise DataError(
            f"{options.structures}: the dates of {options.table} {knows} their time zone, those of "
            f"the structures {'do not' if moments.is_utc else 'do'}"
        )
    return moments.nanoseconds(lambda row: place_of(options.table, row))


def _choices(options: argparse.Namespace) -> Choices:
    return Choices(options.expression, options.policy, options.hold, options.threads)


def _slots(wanted: int | None, structures: int) -> int:
    if wanted is None:
        return structures
    if wanted < structures:
        raise UsageError(
            f"--max-structures {wanted}: expected at least {structures}, "
            f"the number of structures in the file"
        )
    if wanted > MAX_STRUCTURES:
        raise UsageError(f"--max-structures {wanted}: expected at most {MAX_STRUCTURES}")
    return wanted


def _checkpoint(run: Run) -> Checkpoint | None:
    options = run.options
    if options.checkpoint is None:
        return None
    identity = RunIdentity(
        table=run.table,
        book=run.structures.book,
        options={
            "input": options.input,
            "expression": options.expression,
            "functions": ", ".join(run.days.functions),
            "policy": options.policy,
            "hold": _hold_text(options),
            "changes-only": options.changes_only,
            "max-structures": run.days.slots,
            "plot": run.plotted is not None,
            "trace": run.trace is not None,
        },
        moments=run.days.dates,
        labels=run.labels,
    )
    about = {
        "table": str(options.table),
        "structures file": str(options.structures),
        "output": str(options.output),
    }
    return Checkpoint(options.checkpoint, identity, run.days.rotation, run.recorders, about)


def _hold_text(options: argparse.Namespace) -> str:
    return FOREVER if options.hold is None else str(options.hold)


def _first_day(checkpoint: Checkpoint, options: argparse.Namespace) -> int:
    if not options.resume:
        checkpoint.start()
        return 0
    day = checkpoint.resume()
    if day is None and not options.quiet:
        note(f"quorvane replay: {options.checkpoint}: holds no run yet, beginning with day 0")
    return day or 0


def _replay(run: Run, checkpoint: Checkpoint | None, first_day: int, stop: StopRequest) -> Progress:
    options = run.options

    def stop_before(day: int) -> bool:
        stopping = stop.signal_number is not None or (
            options.stop_after is not None and day - first_day >= options.stop_after
        )
        if checkpoint is not None and (
            stopping or day - checkpoint.saved_days >= options.checkpoint_every
        ):
            checkpoint.save(day)
        return stopping

    def days_before_stop(day: int) -> int:
        ends: list[int] = [len(run.days.inputs)]
        if options.stop_after is not None:
            ends.append(first_day + options.stop_after)
        if checkpoint is not None:
            ends.append(checkpoint.saved_days + options.checkpoint_every)
        return max(min(ends) - day, 1)

    progress = replay(
        run.days,
        run.recorders,
        first_day=first_day,
        show_progress=not options.quiet,
        stop_before=stop_before,
        days_before_stop=days_before_stop,
    )
    if checkpoint is not None and progress.next_day > checkpoint.saved_days:
        checkpoint.save(progress.next_day)
    return progress


def _stopped(run: Run, progress: Progress, signal_number: int | None) -> int:
    """Say where the run stands; the status is that of a process ended by the signal."""
    options, day = run.options, progress.next_day
    text = f"stopped before day {day} ({run.table.label(day)})"
    if options.checkpoint is None:
        text += "; nothing was written (with --checkpoint FILE it could be resumed)"
    else:
        text += f"; go on with --checkpoint {options.checkpoint} --resume"
    if not options.quiet:
        say(f"quorvane replay: {text}")
    return 0 if signal_number is None else 128 + signal_number


def _write(run: Run, result: Table, checkpoint: Checkpoint | None) -> None:
    """Make every output before the first takes its place, so that a failure changes none.

    They take their places only while the checkpoint is still this run's.
    """
    options = run.options
    with WholeOutputs() as outputs:
        with outputs.making(options.output, "the table") as part:
            write_table(part, result)
        if run.trace is not None:
            slots, legs = run.days.slot_of, legs_by_day(run.days)
            with outputs.making(options.trace, "the trace") as part:
                write_trace(part, Trace(run.trace, slots, legs, options.policy, result))
        if run.plotted is not None:
            with outputs.making(options.plot, "the picture") as part:
                draw_picture(part, _picture(run, run.plotted, result))
        with nullcontext() if checkpoint is None else checkpoint.held():
            outputs.take_places()


def _picture(run: Run, plotted: StructureRecorder, result: Table) -> Picture:
    options = run.options
    return Picture(
        title=options.title or options.table.name,
        table=run.table,
        input_kind=options.input,
        expression=options.expression,
        policy=options.policy,
        structures=run.structures.latest,
        shown_keys=plotted.keys,
        entered=plotted.entered,
        left=plotted.left,
        output=result.values,
    )


def _summary(run: Run, result: Table, progress: Progress, times: list[float]) -> str:
    options = run.options
    rows = [
        ("table", f"{options.table}: {summary.describe_table(run.table)}"),
        ("read as", "; ".join(run.table.taken)),
        ("structures", f"{options.structures}: {summary.describe_book(run.structures.book)}"),
        ("read as", "; ".join(run.structures.taken)),
        ("structures see", "daily returns" if options.input == "returns" else "levels"),
        ("expression", options.expression),
        ("hold", summary.describe_hold(options.hold)),
        ("unmap policy", options.policy),
        ("output", f"{options.output}: {summary.describe_output(result)}"),
    ]
    rows += [
        (label, "" if place is None else str(place))
        for label, place in [
            ("picture", options.plot),
            ("trace", options.trace),
            ("checkpoint", options.checkpoint),
        ]
    ]
    if progress.first_day:
        rows.append(("resumed", f"before day {progress.first_day:,}"))
    computed = progress.next_day - progress.first_day
    rows.append(("time", summary.describe_times(computed, progress.seconds, times)))
    return "quorvane replay\n" + summary.format_rows((label, text) for label, text in rows if text)
