"""A store in one SQLite file, for many rotations and the last versions of each."""

from __future__ import annotations

import contextlib
import os
import sqlite3
from collections.abc import Iterator
from dataclasses import dataclass
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from quorvane.stores._sqlite_file import SqliteFile
from quorvane.stores._sqlite_records import SqliteRecords
from quorvane.stores.encoding import pack
from quorvane.stores.errors import RecordDamagedError
from quorvane.stores.records import RecordStore, check_text
from quorvane.stores.transaction import SqliteTransaction, version_number


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


class SqliteStore(RecordStore):
    """Keeps the last versions of each name in one SQLite file.

    A write is one transaction with the write-ahead log and ``synchronous=FULL``: it happens
    entirely or not at all, also when the process is killed or the power fails, and it is on the
    disk when ``write`` returns. Several threads and processes of one machine may use the file at
    once. SQLite's locks do not work on network mounts; use `DirectoryStore` there.

    Parameters
    ----------
    path : str or path-like
        The file, made if it is missing. While it is in use there are two more beside it, ending
        in ``-wal`` and ``-shm``, which belong to it and must move with it.
    namespace : str
        Keeps instances apart whose rotations have the same name: rotations of one class share
        ``_name``, and would overwrite each other's records.
    keep : int
        How many versions of each name stay; older ones go when a new one is written.
    busy_timeout : float
        Seconds to wait for another process before giving up.

    Raises
    ------
    StoreFormatError
        The file is not a store, or a newer version made it.
    StoreWriteError
        The file cannot be made or opened.
    StoreBusyError
        Another process held the file for too long.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        namespace: str = "",
        keep: int = 5,
        busy_timeout: float = 30.0,
    ) -> None:
        if str(path) in ("", ":memory:"):
            raise ValueError(f"path must name a file, got {str(path)!r}; MemoryStore needs none")
        if type(keep) is not int or keep < 1:
            raise ValueError(f"keep must be a positive integer, got {keep!r}")
        if not 0 <= busy_timeout <= 1e6:
            raise ValueError(f"busy_timeout must be between 0 and 1e6 seconds, got {busy_timeout}")
        self._file = SqliteFile(Path(path).absolute(), float(busy_timeout))
        self._namespace = check_text(namespace, "namespace", may_be_empty=True)
        self._keep = keep
        # A damaged file is for ``read`` and ``load`` to report, as if the damage came later.
        with contextlib.suppress(RecordDamagedError), self._file.writing(f"open {self!r}"):
            self._file.check()

    def __repr__(self) -> str:
        return f"SqliteStore({str(self._file.path)!r}, namespace={self._namespace!r})"

    def write(self, name: str, state: object) -> None:
        """Keep `state` as the next version of `name`; see `RecordStore.write`.

        Raises
        ------
        RecordDamagedError, StoreFormatError
            The file is damaged so far that SQLite cannot write to it, or no longer is a store.
        """
        name = check_text(name, "name")
        payload = pack(state)
        with self._transaction(f"write record {name!r} of {self!r}") as records:
            records.write(name, payload)

    @contextlib.contextmanager
    def transaction(self) -> Iterator[SqliteTransaction]:
        """Run a block whose loads and writes are one transaction.

        Nobody else writes to the file between its first load and its last write, and its writes
        happen all of them or, when the block raises, none. They are on the disk when the block
        has ended. Others who want to write wait, as long as their busy timeout; so does
        ``write`` of the store itself, which must not be called inside the block.

        Yields
        ------
        SqliteTransaction
            ``load`` and ``write`` as the store has them.

        Raises
        ------
        StoreWriteError
            The disk is full or cannot be written to, or a write of the block failed and the
            block went on all the same. Nothing has happened.
        StoreBusyError
            Another process held the file for too long.
        RecordDamagedError, StoreFormatError
            See `write`.
        """
        with self._transaction(f"run a transaction on {self!r}") as records:
            yield records

    @contextlib.contextmanager
    def _transaction(self, what: str) -> Iterator[SqliteTransaction]:
        with self._file.write_transaction(what) as database:
            records = SqliteTransaction(self._file, self._records(database), self._keep, repr(self))
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
        with self._file.reading(what), self._file.read_transaction() as database:
            found = self._records(database).find(name, wanted)
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
        with self._file.reading(what), self._file.read_transaction() as database:
            rows = self._records(database).versions(name)
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
        with self._file.reading(what), self._file.read_transaction() as database:
            names = self._records(database).names()
        if not all(isinstance(name, str) for name in names):
            raise RecordDamagedError(f"{what} are damaged: one of them is no text")
        return names

    def _records(self, database: sqlite3.Connection) -> SqliteRecords:
        return SqliteRecords(database, self._namespace, repr(self))
