"""A store in one SQLite file, for many rotations and the last versions of each."""

from __future__ import annotations

import hashlib
import operator
import os
import sqlite3
import time
from dataclasses import dataclass
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

from quorvane.stores._sqlite_file import SqliteFile
from quorvane.stores.encoding import HEADER_BYTES, header_fault, pack, seal
from quorvane.stores.errors import RecordDamagedError, RecordNotFoundError
from quorvane.stores.records import RecordStore, check_text, decode_record

# SQLite's largest integer.
_LAST_VERSION = 2**63 - 1


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
        The file is missing and cannot be made.
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
        with self._file.writing(f"open {self!r}"):
            self._file.check()

    def __repr__(self) -> str:
        return f"SqliteStore({str(self._file.path)!r}, namespace={self._namespace!r})"

    def write(self, name: str, state: object) -> None:
        """Keep `state` as the next version of `name`; see `RecordStore.write`.

        Raises
        ------
        RecordDamagedError, StoreFormatError
            The file is damaged so far that SQLite cannot write to it.
        """
        name = check_text(name, "name")
        payload = pack(state)
        what = f"write record {name!r} of {self!r}"
        with self._file.writing(what), self._file.write_transaction() as database:
            version = self._last_version(database, name) + 1
            data = seal(payload, self._label(name, version))
            database.execute(
                "INSERT INTO records VALUES (?, ?, ?, ?, ?)",
                (self._namespace, name, version, time.time(), data),
            )
            database.execute(
                "INSERT OR REPLACE INTO heads VALUES (?, ?, ?, ?)",
                (self._namespace, name, version, self._seal_of_head(name, version, data)),
            )
            database.execute(
                "DELETE FROM records WHERE namespace = ? AND name = ? AND version <= ?",
                (self._namespace, name, version - self._keep),
            )

    def load(self, name: str, version: int | None = None) -> Any:
        """Return a state of `name`, the newest or the one of a given version.

        Raises
        ------
        TypeError
            `version` is neither None nor an integer.
        RecordNotFoundError
            Nothing is stored under this name, or not this version.
        RecordDamagedError, StateVersionError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        name = check_text(name, "name")
        wanted = None if version is None else _version_number(version)
        what = f"record {name!r} of {self!r}"
        with self._file.reading(what), self._file.read_transaction() as database:
            newest, head_seal = self._head(database, name, what)
            number = newest if wanted is None else wanted
            data = self._data(database, name, number, what, is_newest=number == newest)
        if number == newest and self._seal_of_head(name, number, data) != head_seal:
            raise RecordDamagedError(f"{what} is damaged: it is not the newest version")
        return decode_record(data, self._label(name, number), f"version {number} of {what}")

    def versions(self, name: str) -> list[StoredVersion]:
        """Return the versions of `name` that ``load`` finds, the newest first.

        Raises
        ------
        RecordDamagedError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        name = check_text(name, "name")
        what = f"the versions of record {name!r} of {self!r}"
        with self._file.reading(what), self._file.read_transaction() as database:
            rows = database.execute(
                "SELECT version, written_at, length(data) FROM records "
                "WHERE namespace = ? AND name = ? ORDER BY version DESC",
                (self._namespace, name),
            ).fetchall()
        try:
            return [
                StoredVersion(version, datetime.fromtimestamp(written_at, timezone.utc), size)
                for version, written_at, size in rows
            ]
        except (TypeError, ValueError, OverflowError, OSError) as error:
            raise RecordDamagedError(f"{what} are damaged: {error}") from error

    def names(self) -> list[str]:
        """Return the names that have a record in this namespace, sorted.

        Raises
        ------
        RecordDamagedError, StoreReadError, StoreBusyError
            See `RecordStore.load`.
        """
        what = f"the names of {self!r}"
        with self._file.reading(what), self._file.read_transaction() as database:
            rows = database.execute(
                "SELECT name FROM heads WHERE namespace = ? ORDER BY name", (self._namespace,)
            ).fetchall()
        return [name for (name,) in rows]

    def _last_version(self, database: sqlite3.Connection, name: str) -> int:
        # Both tables are asked, so that a write after damage to one goes on with a new number.
        (version,) = database.execute(
            "SELECT max(version) FROM (SELECT version FROM heads WHERE namespace = ? AND name = ?"
            " UNION ALL SELECT max(version) FROM records WHERE namespace = ? AND name = ?)",
            (self._namespace, name) * 2,
        ).fetchone()
        return version if isinstance(version, int) else 0

    def _head(self, database: sqlite3.Connection, name: str, what: str) -> tuple[int, bytes]:
        """Return the number and the seal of the newest version."""
        head = database.execute(
            "SELECT version, seal FROM heads WHERE namespace = ? AND name = ?",
            (self._namespace, name),
        ).fetchone()
        if head is not None:
            return head[0], head[1]
        if self._last_version(database, name) > 0:
            raise RecordDamagedError(f"{what} is damaged: nothing says which version is the newest")
        raise RecordNotFoundError(f"{self!r} holds no record named {name!r}")

    def _data(
        self, database: sqlite3.Connection, name: str, version: int, what: str, *, is_newest: bool
    ) -> bytes:
        """Return the bytes of one version, asking for kind, length and header before for them."""
        if not is_newest and not 1 <= version <= _LAST_VERSION:
            raise RecordNotFoundError(f"{self!r} holds no version {version} of record {name!r}")
        row = database.execute(
            "SELECT rowid, typeof(data), length(data), substr(data, 1, ?) FROM records "
            "WHERE namespace = ? AND name = ? AND version = ?",
            (HEADER_BYTES, self._namespace, name, version),
        ).fetchone()
        if row is None and not is_newest:
            raise RecordNotFoundError(f"{self!r} holds no version {version} of record {name!r}")
        if row is None:
            raise RecordDamagedError(f"{what} is damaged: its newest version is missing")
        # SQLite takes the beginning of an empty blob for NULL.
        rowid, kind, size, header = row
        fault = f"it is {kind}" if kind != "blob" else header_fault(header or b"", size)
        if fault is not None:
            raise RecordDamagedError(f"{what} is damaged: {fault}")
        (data,) = database.execute("SELECT data FROM records WHERE rowid = ?", (rowid,)).fetchone()
        return bytes(data)

    def _label(self, name: str, version: int) -> str:
        return f"{self._namespace}\0{name}\0{version}"

    def _seal_of_head(self, name: str, version: int, data: bytes) -> bytes:
        # The header holds the checksum of everything else.
        sealed = data[:HEADER_BYTES] + self._label(name, version).encode()
        return hashlib.blake2b(sealed, digest_size=32, person=b"quorvane-head").digest()


def _version_number(version: object) -> int:
    """Return `version` as an int; a bool is none, though Python counts with it."""
    if not isinstance(version, bool) and hasattr(version, "__index__"):
        return operator.index(version)
    raise TypeError(f"version must be an int, got {type(version).__name__}")
