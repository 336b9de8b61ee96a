"""What a replay has read and made before its first day."""

from __future__ import annotations

import argparse
from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.basket_days import BasketDays
from quorvane.cli.day_labels import Moments
from quorvane.cli.day_table import read_days
from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.inputs import require_judgeable, structure_input
from quorvane.cli.labels import Labels, read_labels
from quorvane.cli.limits import MAX_CELLS, MAX_STRUCTURES
from quorvane.cli.recording import OutputRecorder, Recorder
from quorvane.cli.replay_checks import choices_of
from quorvane.cli.structures import StructureBook, read_structures
from quorvane.cli.table import Table
from quorvane.cli.table_io import place_of
from quorvane.cli.trace import TraceRecorder


@dataclass
class Run:
    """A replay that is ready to go: what was read, the days, and who records them."""

    options: argparse.Namespace
    table: Table
    structures: StructureBook
    labels: Labels
    days: BasketDays
    output: OutputRecorder
    trace: TraceRecorder | None
    moments: Moments | None

    @property
    def recorders(self) -> list[Recorder]:
        """All recorders of the run."""
        return [self.output] if self.trace is None else [self.output, self.trace]


def prepare(options: argparse.Namespace) -> Run:
    """Read the files and make the days; CommandError for whatever the user can mend."""
    table, moments = read_days(options.table, sort=options.sort)
    if options.report is not None:
        require_judgeable(options.table, table.values, options.input, "--report")
    structures = read_structures(
        options.structures, table.instruments, changes_only=options.changes_only
    )
    labels: Labels = {}
    if options.labels is not None:
        keys = None if structures.book.is_dated else structures.keys
        labels = read_labels(options.labels, keys)
    days = BasketDays(
        structures.book,
        choices_of(options, is_dated=structures.book.is_dated),
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
    output = OutputRecorder(*table.values.shape)
    return Run(options, table, structures, labels, days, output, trace, moments)


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
