"""What of a replay's options can be refused before a file is read."""

from __future__ import annotations

import argparse
import os
from pathlib import Path
from typing import Any

from quorvane.cli.basket_days import Choices
from quorvane.cli.commands.replay_options import PICTURE_ENDINGS, REPORT_ENDINGS
from quorvane.cli.errors import UsageError
from quorvane.cli.files import check_writable, ending_of
from quorvane.cli.hold import hold_of
from quorvane.cli.labels import LABEL_ENDINGS
from quorvane.cli.libraries import require_library
from quorvane.cli.own_functions import import_functions
from quorvane.cli.structures import STRUCTURE_ENDINGS
from quorvane.cli.table_io import TABLE_ENDINGS
from quorvane.cli.trace import TRACE_ENDINGS


def check_options(options: argparse.Namespace) -> None:
    """Raise CommandError for everything that can be refused before a file is read."""
    ending_of(options.table, TABLE_ENDINGS, "a table")
    ending_of(options.structures, STRUCTURE_ENDINGS, "a structures file")
    ending_of(options.output, TABLE_ENDINGS, "a table")
    if options.plot is not None:
        ending_of(options.plot, PICTURE_ENDINGS, "a picture")
        _require_drawing("drawing a picture")
    if options.report is not None:
        ending_of(options.report, REPORT_ENDINGS, "a report")
        _require_drawing("making a report")
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
    choices_of(options, is_dated=False).settings(None, {})


def _require_drawing(purpose: str) -> None:
    for library in ("matplotlib", "pandas"):
        require_library(library, purpose)


def _outputs(options: argparse.Namespace) -> list[tuple[Path, str]]:
    named = [
        (options.output, "the table"),
        (options.plot, "the picture"),
        (options.report, "the report"),
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


def choices_of(options: argparse.Namespace, *, is_dated: bool) -> Choices:
    """What the options say of how structures are computed.

    Without a word, structures that stay the same are held for ever, as the base class does it, and
    dated ones not at all: those that have ended would speak for ever.
    """
    hold = options.hold
    if hold is None and is_dated:
        hold = 0
    return Choices(options.expression, options.policy, hold_of(hold), options.threads)
