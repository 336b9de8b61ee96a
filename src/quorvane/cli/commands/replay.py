"""``quorvane replay`` from its options to its exit status."""

from __future__ import annotations

import argparse
import os
from contextlib import nullcontext
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

from quorvane.cli import summary
from quorvane.cli.checkpoint import Checkpoint, RunIdentity
from quorvane.cli.day_loop import Progress, replay
from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.files import WholeOutputs, check_writable, ending_of
from quorvane.cli.inputs import structure_input
from quorvane.cli.libraries import require_library
from quorvane.cli.limits import MAX_CELLS, MAX_STRUCTURES
from quorvane.cli.plot import PICTURE_ENDINGS, Picture, choose_evenly, draw_picture
from quorvane.cli.recording import OutputRecorder, Recorder, StructureRecorder
from quorvane.cli.saying import note, say
from quorvane.cli.stopping import StopRequest
from quorvane.cli.structures import Structures, read_structures
from quorvane.cli.table import Table
from quorvane.cli.table_io import TABLE_ENDINGS, read_table, write_table
from quorvane.cli.trace import TRACE_ENDINGS, TraceRecorder, write_trace
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets

PLOTTED_STRUCTURES = 48


@dataclass
class Run:
    """A replay that is ready to go: what was read, the rotation, and who records its days."""

    options: argparse.Namespace
    table: Table
    structures: Structures
    inputs: NDArray[np.float64]
    rotation: FixedBaskets
    output: OutputRecorder
    plotted: StructureRecorder | None
    trace: TraceRecorder | None

    @property
    def recorders(self) -> list[Recorder]:
        """All recorders of the run."""
        optional: list[Recorder | None] = [self.plotted, self.trace]
        return [self.output, *(recorder for recorder in optional if recorder is not None)]


def replay_command(options: argparse.Namespace) -> int:
    """Read, replay, write, sum up; raises CommandError for whatever the user can mend."""
    _check_options(options)
    run = _prepare(options)
    checkpoint = _checkpoint(run)
    first_day = 0 if checkpoint is None else _first_day(checkpoint, options)
    with StopRequest() as stop:
        progress = _replay(run, checkpoint, first_day, stop)
    if progress.next_day < run.inputs.shape[0]:
        return _stopped(run, progress, stop.signal_number)
    result = Table(run.output.output, run.table.instruments, run.table.dates)
    _write(run, result, checkpoint)
    if not options.quiet:
        say(_summary(run, result, progress))
    return 0


def _check_options(options: argparse.Namespace) -> None:
    """Everything that can be refused before a file is read."""
    ending_of(options.table, TABLE_ENDINGS, "a table")
    ending_of(options.output, TABLE_ENDINGS, "a table")
    if options.plot is not None:
        ending_of(options.plot, PICTURE_ENDINGS, "a picture")
        require_library("matplotlib", "drawing a picture")
    if options.trace is not None:
        ending_of(options.trace, TRACE_ENDINGS, "a trace")
    if options.output.name.lower().endswith(".parquet"):
        require_library("pyarrow", "writing a Parquet table")
    if options.checkpoint is None and (options.resume or options.stop_after is not None):
        option = "--resume" if options.resume else "--stop-after"
        raise UsageError(f"{option} needs --checkpoint FILE")
    _check_distinct(options)
    for path, what in _outputs(options):
        check_writable(path, what)


def _outputs(options: argparse.Namespace) -> list[tuple[Path, str]]:
    named = [
        (options.output, "the table"),
        (options.plot, "the picture"),
        (options.trace, "the trace"),
        (options.checkpoint, "the checkpoint"),
    ]
    return [(path, what) for path, what in named if path is not None]


def _check_distinct(options: argparse.Namespace) -> None:
    """No output may overwrite an input or another output."""
    # Of realpath, since Path.resolve fails for links in a circle before Python 3.13.
    real = os.path.realpath
    taken = {real(options.table): "the table read", real(options.structures): "structures"}
    for path, what in _outputs(options):
        other = taken.setdefault(real(path), what)
        if other != what:
            raise UsageError(f"{path}: cannot be both {other} and {what} to write")


def _prepare(options: argparse.Namespace) -> Run:
    table = read_table(options.table)
    structures = read_structures(options.structures, table.instruments)
    days = table.values.shape[0]
    slots = _slots(options.max_structures, len(structures))
    trace = None
    if options.trace is not None:
        if days * slots > MAX_CELLS:
            raise DataError(
                f"{options.trace}: a trace of {days} days of {slots} slots is {days * slots} "
                f"cells, at most {MAX_CELLS} are allowed"
            )
        trace = TraceRecorder(days, slots)
    rotation = _rotation(options, structures, table.instruments, slots, trace)
    plotted = None
    if options.plot is not None:
        chosen = choose_evenly(len(structures), PLOTTED_STRUCTURES)
        plotted = StructureRecorder(rotation, chosen, days)
    return Run(
        options=options,
        table=table,
        structures=structures,
        inputs=structure_input(table.values, options.input),
        rotation=rotation,
        output=OutputRecorder(*table.values.shape),
        plotted=plotted,
        trace=trace,
    )


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


def _rotation(
    options: argparse.Namespace,
    structures: Structures,
    instruments: tuple[str, ...],
    slots: int,
    trace: TraceRecorder | None,
) -> FixedBaskets:
    try:
        return FixedBaskets(
            structures,
            instruments,
            transformation_expression=options.expression,
            max_structures=slots,
            unmap_policy=options.policy,
            trace_sink=trace,
        )
    except (ValueError, TypeError, LookupError) as error:
        # The baskets were checked with the file's lines at hand, so the expression is at fault.
        raise UsageError(f"--expression {options.expression!r}: {error}") from error


def _checkpoint(run: Run) -> Checkpoint | None:
    options = run.options
    if options.checkpoint is None:
        return None
    identity = RunIdentity(
        table=run.table,
        structures=run.structures,
        options={
            "input": options.input,
            "expression": options.expression,
            "policy": options.policy,
            "max-structures": run.rotation.max_structures,
            "plot": run.plotted is not None,
            "trace": run.trace is not None,
        },
    )
    return Checkpoint(options.checkpoint, identity, run.rotation, run.recorders)


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
        ends: list[int] = [run.inputs.shape[0]]
        if options.stop_after is not None:
            ends.append(first_day + options.stop_after)
        if checkpoint is not None:
            ends.append(checkpoint.saved_days + options.checkpoint_every)
        return max(min(ends) - day, 1)

    progress = replay(
        run.rotation,
        run.inputs,
        run.recorders,
        first_day=first_day,
        show_progress=not options.quiet,
        stop_before=stop_before,
        days_before_stop=days_before_stop,
        threads=options.threads,
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
            slots = {key: run.rotation.slot_by_key[(key,)] for key in run.structures}
            with outputs.making(options.trace, "the trace") as part:
                write_trace(part, run.trace, slots, run.structures, result)
        if run.plotted is not None:
            with outputs.making(options.plot, "the picture") as part:
                draw_picture(part, _picture(run, run.plotted, result))
        with nullcontext() if checkpoint is None else checkpoint.held():
            outputs.take_places()


def _picture(run: Run, plotted: StructureRecorder, result: Table) -> Picture:
    options, keys = run.options, list(run.structures)
    return Picture(
        title=options.title or options.table.name,
        table=run.table,
        input_kind=options.input,
        expression=options.expression,
        policy=options.policy,
        structures=run.structures,
        shown_keys=[keys[position] for position in plotted.baskets],
        entered=plotted.entered,
        left=plotted.left,
        output=result.values,
    )


def _summary(run: Run, result: Table, progress: Progress) -> str:
    options = run.options
    rows = [
        ("table", f"{options.table}: {summary.describe_table(run.table)}"),
        ("structures", f"{options.structures}: {summary.describe_structures(run.structures)}"),
        ("structures see", "daily returns" if options.input == "returns" else "levels"),
        ("expression", options.expression),
        ("unmap policy", options.policy),
        ("output", f"{options.output}: {summary.describe_output(result)}"),
    ]
    rows += [
        (label, str(path))
        for label, path in [
            ("picture", options.plot),
            ("trace", options.trace),
            ("checkpoint", options.checkpoint),
        ]
        if path is not None
    ]
    if progress.first_day:
        rows.append(("resumed", f"before day {progress.first_day:,}"))
    computed = progress.next_day - progress.first_day
    rows.append(("time", summary.describe_time(computed, progress.seconds)))
    return "quorvane replay\n" + summary.format_rows(rows)
