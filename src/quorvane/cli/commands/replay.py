"""``quorvane replay`` from its options to its exit status."""

from __future__ import annotations

import argparse
import time
from contextlib import nullcontext

from quorvane.cli import summary
from quorvane.cli.checkpoint import Checkpoint
from quorvane.cli.day_loop import Progress, replay
from quorvane.cli.files import WholeOutputs
from quorvane.cli.hold import written_hold
from quorvane.cli.prepared_run import Run, prepare
from quorvane.cli.replay_checks import check_options
from quorvane.cli.run_identity import RunIdentity
from quorvane.cli.saying import encodable, note, say
from quorvane.cli.stopping import StopRequest, signals_held
from quorvane.cli.table import Table
from quorvane.cli.table_io import write_table
from quorvane.cli.trace import Trace, legs_by_day, write_trace


def execute(options: argparse.Namespace) -> int:
    """Read, replay, write, sum up; raises CommandError for whatever the user can mend."""
    times = [time.perf_counter()]
    check_options(options)
    run = prepare(options)
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
            "hold": str(written_hold(run.days.hold)),
            "changes-only": options.changes_only,
            "max-structures": run.days.slots,
            "trace": run.trace is not None,
        },
        moments=run.days.dates,
        labels=run.labels,
    )
    about = {
        "table": encodable(options.table),
        "structures file": encodable(options.structures),
        "output": encodable(options.output),
    }
    return Checkpoint(options.checkpoint, identity, run.days.rotation, run.recorders, about)


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
        _make_drawings(run, result, outputs)
        with nullcontext() if checkpoint is None else checkpoint.held():
            outputs.take_places()


def _make_drawings(run: Run, result: Table, outputs: WholeOutputs) -> None:
    options = run.options
    if options.plot is None and options.report is None:
        return
    with signals_held():
        # What judges and draws takes its time to load, which a replay without it need not.
        from quorvane.cli.judged import judge
        from quorvane.cli.picture import draw_picture
        from quorvane.evaluation.report import write_page

    judged = judge(run.days, run.table, result, run.moments, options.input)
    title = options.title or options.table.name
    if options.plot is not None:
        with outputs.making(options.plot, "the picture") as part:
            subtitle = f"{summary.describe_table(run.table)}  \N{MIDDLE DOT}  {options.expression}"
            draw_picture(part, judged.evaluation, judged.structures, title, subtitle)
    if options.report is not None:
        with outputs.making(options.report, "the report") as part:
            page = write_page(judged.evaluation, judged.structures, title, note=judged.note)
            part.write_text(page, "utf-8")


def _summary(run: Run, result: Table, progress: Progress, times: list[float]) -> str:
    options = run.options
    rows = [
        ("table", f"{options.table}: {summary.describe_table(run.table)}"),
        ("read as", "; ".join(run.table.taken)),
        ("structures", f"{options.structures}: {summary.describe_book(run.structures.book)}"),
        ("read as", "; ".join(run.structures.taken)),
        ("structures see", "daily returns" if options.input == "returns" else "levels"),
        ("expression", options.expression),
        ("hold", summary.describe_hold(run.days.hold)),
        ("unmap policy", options.policy),
        ("output", f"{options.output}: {summary.describe_output(result)}"),
    ]
    rows += [
        (label, "" if place is None else str(place))
        for label, place in [
            ("picture", options.plot),
            ("report", options.report),
            ("trace", options.trace),
            ("checkpoint", options.checkpoint),
        ]
    ]
    if progress.first_day:
        rows.append(("resumed", f"before day {progress.first_day:,}"))
    times_text = summary.describe_times(
        progress.next_day - progress.first_day,
        progress.seconds,
        times,
        has_checkpoint=options.checkpoint is not None,
    )
    rows.append(("time", times_text))
    return "quorvane replay\n" + summary.format_rows((label, text) for label, text in rows if text)
