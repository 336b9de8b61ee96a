"""What the stores have in common that keep the last versions of each name in a database."""

from __future__ import annotations

import contextlib
from abc import abstractmethod
from collections.abc import Iterator
from dataclasses import dataclass
from datetime import UTC, datetime
from typing import Any

from quorvane.stores._place import Place
from quorvane.stores._table_records import TableRecords
from quorvane.stores.encoding import pack
from quorvane.stores.errors import RecordDamagedError
from quorvane.stores.records import RecordStore, check_text
from quorvane.stores.transaction import StoreTransaction, version_number


@dataclass(frozen=True)
class StoredVersion:
    """One version of a record.

    Attributes
    ----------
    version : int
        Counts the writes of the record from 1.
    written_at : datetime
        When, in UTC, by the clock of the writing machine.
    size : int
        Bytes.
    """

    version: int
    written_at: datetime
    size: int


class VersionedStore(RecordStore):
    """Keeps the last versions of each name.

    A subclass says where; how they are written, loaded and listed is the same for all.

    Parameters
    ----------
    place : Place
        Where the tables are.
    namespace : str
        Keeps instances apart whose rotations have the same name.
    keep : int
        How many versions of each name stay.
    """

    def __init__(self, place: Place, namespace: str, keep: int) -> None:
        self._place = place
        self._namespace = namespace
        self._keep = keep

    @abstractmethod
    def _records(self, connection: Any) -> TableRecords:
        """Return the namespace's records through a connection that is inside a transaction."""

    def write(self, name: str, state: object) -> None:
        """Keep `state` as the next version of `name`; see `RecordStore.write`.

        Raises
        ------
        RecordDamagedError, StoreFormatError
            The place is damaged so far that nothing can be written, or no longer is a store.
        """
        name = check_text(name, "name")
        payload = pack(state)
        with self._transaction(f"write record {name!r} of {self!r}") as records:
            records.write(name, payload)

    @contextlib.contextmanager
    def transaction(self) -> Iterator[StoreTransaction]:
        """Run a block whose loads and writes are one transaction.

        Nobody else writes to the store between its first load and its last write, and its writes
        happen all of them or, when the block raises, none. They are on the disk when the block
        has ended. Others who want to write wait, as long as their busy timeout; so does
        ``write`` of the store itself, which must not be called inside the block.

        Yields
        ------
        StoreTransaction
            ``load`` and ``write`` as the store has them.

        Raises
        ------
        StoreWriteError
            The disk is full or cannot be written to, or a write of the block failed and the
            block went on all the same. Nothing has happened.
        StoreBusyError
            Another process held the store for too long.
        RecordDamagedError, StoreFormatError
            See `write`.
        """
        with self._transaction(f"run a transaction on {self!r}") as records:
            yield records

    @contextlib.contextmanager
    def _transaction(self, what: str) -> Iterator[StoreTransaction]:
        with self._place.write_transaction(what) as connection:
            records = StoreTransaction(
                self._place, self._records(connection), self._keep, repr(self)
            )
            yield records
            records.require_whole(what)

    def load(self, name: str, version: int | None = None) -> Any:
        """Return a state of `name`, the newest or the one of a given version.

        Raises
        ------
        TypeError
            `version` is neither None nor an integer.
        RecordNotFoundError
            Nothing is stored under this name, or not this version.
        RecordDamagedError, StateVersionError, StoreFormatError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        name = check_text(name, "name")
        wanted = version_number(version)
        what = f"record {name!r} of {self!r}"
        with self._place.reading(what), self._place.read_transaction() as connection:
            found = self._records(connection).find(name, wanted)
        return found.state()

    def versions(self, name: str) -> list[StoredVersion]:
        """Return the versions of `name` that ``load`` finds, the newest first.

        Raises
        ------
        RecordDamagedError, StoreFormatError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        name = check_text(name, "name")
        what = f"the versions of record {name!r} of {self!r}"
        with self._place.reading(what), self._place.read_transaction() as connection:
            rows = self._records(connection).versions(name)
        try:
            return [
                StoredVersion(version, datetime.fromtimestamp(written_at, UTC), size)
                for version, written_at, size in rows
            ]
        except (TypeError, ValueError, OverflowError, OSError) as error:
            raise RecordDamagedError(f"{what} are damaged: {error}") from error

    def names(self) -> list[str]:
        """Return the names that have a record in this namespace, sorted.

        Raises
        ------
        RecordDamagedError, StoreFormatError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        what = f"the names of {self!r}"
        with self._place.reading(what), self._place.read_transaction() as connection:
            names = self._records(connection).names()
        if not all(isinstance(name, str) for name in names):
            raise RecordDamagedError(f"{what} are damaged: one of them is no text")
        return names


def check_keep(keep: object) -> int:
    """Return `keep`; ValueError unless it is a positive integer."""
    if type(keep) is not int or keep < 1:
        raise ValueError(f"keep must be a positive integer, got {keep!r}")
    return keep


def check_busy_timeout(seconds: float) -> float:
    """Return `seconds` as a float; ValueError unless somebody can wait so long."""
    if not 0 <= seconds <= 1e6:
        raise ValueError(f"busy_timeout must be between 0 and 1e6 seconds, got {seconds}")
    return float(seconds)
