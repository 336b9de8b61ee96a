"""Checkpoints of a replay: a stopped run that is resumed ends with the same bits."""

from __future__ import annotations

import secrets
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from typing import Any

from quorvane.baskets.rotation import BasketRotation
from quorvane.cli.checkpoint_contents import (
    ContentsError,
    Head,
    format_of,
    head_from,
    require_all_rows,
    rows_from,
)
from quorvane.cli.checkpoint_place import CheckpointPlace
from quorvane.cli.errors import DataError
from quorvane.cli.recording import Recorder
from quorvane.cli.run_identity import RunIdentity

FORMAT = 3
HEAD = "head"
_WRITER = "writer"
_RECORD_BYTES = 1 << 26


class Checkpoint:
    """The checkpoint of one run in a SQLite store.

    Each save adds the rows recorded since the last one as records of their own, and a head: day
    number, identity, the rotation's state, and how many records of rows there are. Rows and head
    are one transaction, so a run that is killed resumes from the last whole one.

    A process that starts or resumes leaves a token in the file, and one that finds another's
    there changes nothing any more, neither the file nor the outputs. It looks in the transaction
    in which it would: nobody can take the checkpoint over in between. Head and rows also bear the
    token of their run, which stays when it is resumed: rows of two runs are never put together.
    """

    def __init__(
        self,
        place: CheckpointPlace,
        identity: RunIdentity,
        rotation: BasketRotation,
        recorders: Sequence[Recorder],
        about: Mapping[str, str],
    ) -> None:
        self._stores = place.stores
        self.place = place
        self.saved_days = 0
        self._identity = identity
        self._rotation = rotation
        self._about = about
        self._recorders = recorders
        self._records = 0
        self._run = secrets.token_hex(16)
        self._writer = secrets.token_hex(16)

    def start(self) -> None:
        """Begin at day 0, in place of whatever run the file holds.

        Raises
        ------
        DataError
            The store refuses.
        """
        with self._reporting():
            head = self._packed_head(0, 0)
        with self._transaction() as records:
            self._begin(records, head)

    def save(self, day: int) -> None:
        """Keep everything that is needed to go on with ``day``.

        Raises
        ------
        DataError
            The store refuses, or another replay has the file now.
        """
        spans = list(self._spans(self.saved_days, day))
        with self._reporting():
            head = self._packed_head(day, self._records + len(spans))
        with self._transaction() as records:
            self._require_own(records)
            # Rows are packed one record at a time, lest all of them be in memory twice.
            for number, (first, last) in enumerate(spans, start=self._records):
                records.write(_rows_name(number), self._rows(first, last))
            records.write(HEAD, head)
        self._records += len(spans)
        self.saved_days = day

    def resume(self) -> int | None:
        """Refill the recorders and the rotation, and take the run over.

        Returns
        -------
        int or None
            The day to go on with; None when the file holds no run yet, as after a kill before
            the first save, and this one begins at day 0.

        Raises
        ------
        DataError
            The store refuses, or holds a run that this one cannot go on with.
        """
        with self._transaction() as records:
            try:
                record = records.load(HEAD)
            except self._stores.RecordNotFoundError:
                self._begin(records, self._packed_head(0, 0))
                return None
            head = self._head(record)
            self._require_same_run(head.next_day, head.identity)
            self._refill(records, head)
            try:
                self._rotation.set_state(head.rotation)
            except (ValueError, TypeError) as error:
                raise DataError(f"{self.place}: the rotation refuses its state: {error}") from error
            records.write(_WRITER, self._writer)
        self._run, self._records, self.saved_days = head.run, head.records, head.next_day
        return head.next_day

    @contextmanager
    def held(self) -> Iterator[None]:
        """Run the block while nobody can take the checkpoint over.

        Raises
        ------
        DataError
            Another replay has the file now, or the store refuses.
        """
        with self._transaction() as records:
            self._require_own(records)
            yield

    @contextmanager
    def _transaction(self) -> Iterator[Any]:
        with self._reporting(), self.place.open().transaction() as records:
            yield records

    def _begin(self, records: Any, head: Any) -> None:
        records.write(_WRITER, self._writer)
        records.write(HEAD, head)

    def _packed_head(self, day: int, records: int) -> Any:
        """The head after ``day`` days, packed: a large rotation's state takes a while."""
        head = {
            "format": FORMAT,
            "run": self._run,
            "next_day": day,
            "identity": self._identity.upto(day),
            "records": records,
            "rotation": self._rotation.get_state(),
            "about": self._identity.about(day, self._about),
        }
        return self._stores.pack(head)

    def _arrays(self) -> dict[str, Any]:
        return {
            name: array for recorder in self._recorders for name, array in recorder.arrays.items()
        }

    def _require_own(self, records: Any) -> None:
        """Refuse to go on with a file that another process has started or resumed meanwhile."""
        try:
            writer = records.load(_WRITER)
        except self._stores.RecordNotFoundError:
            raise DataError(f"{self.place}: the checkpoint of this run has been removed") from None
        if type(writer) is not str or writer != self._writer:
            raise DataError(f"{self.place}: another replay has taken the checkpoint over")

    def _head(self, record: Any) -> Head:
        number = format_of(record)
        if number != FORMAT:
            raise DataError(
                f"{self.place}: the checkpoint has format {number}, expected {FORMAT}: it was made "
                f"by another version and cannot be resumed; without --resume the run begins anew"
            )
        return head_from(record)

    def _spans(self, first_day: int, day: int) -> Iterator[tuple[int, int]]:
        """The days from ``first_day`` to ``day`` in runs that make records of moderate size."""
        bytes_per_day = sum(array[0].nbytes for array in self._arrays().values())
        step = max(_RECORD_BYTES // bytes_per_day, 1)
        for first in range(first_day, day, step):
            yield first, min(first + step, day)

    def _rows(self, first: int, last: int) -> dict[str, Any]:
        arrays = {name: array[first:last] for name, array in self._arrays().items()}
        return {"run": self._run, "first": first, "last": last, "arrays": arrays}

    def _refill(self, records: Any, head: Head) -> None:
        """Put the stored rows of all days before the head's into the recorders."""
        arrays, filled = self._arrays(), 0
        for number in range(head.records):
            last, stored = rows_from(records.load(_rows_name(number)), head, filled, arrays)
            for name, rows in stored.items():
                arrays[name][filled:last] = rows
            filled = last
        require_all_rows(head, filled)

    def _require_same_run(self, day: int, made_with: Mapping[str, Any]) -> None:
        """Refuse to go on with anything that was not so when the checkpoint was made."""
        days = self._identity.table.values.shape[0]
        if day > days:
            raise DataError(
                f"{self.place}: the checkpoint was made after {day} days, the table has only {days}"
            )
        difference = self._identity.difference(day, made_with)
        if difference:
            raise DataError(f"{self.place}: the checkpoint was made with {difference}")

    @contextmanager
    def _reporting(self) -> Iterator[None]:
        """Turn the store's errors, and contents without sense, into one that names the file."""
        try:
            with self.place.reporting():
                yield
        except ContentsError as error:
            raise DataError(f"{self.place}: the checkpoint makes no sense: {error}") from error


def _rows_name(number: int) -> str:
    return f"rows {number}"
