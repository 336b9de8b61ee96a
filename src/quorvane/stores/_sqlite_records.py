"""The records of one namespace, as they are inside a transaction on their file."""

from __future__ import annotations

import hashlib
import os
import sqlite3
import time
from dataclasses import dataclass
from typing import Any

from quorvane.stores.encoding import HEADER_BYTES, Payload, header_fault, seal
from quorvane.stores.errors import RecordDamagedError, RecordNotFoundError
from quorvane.stores.records import decode_record

# SQLite's largest integer.
_LAST_VERSION = 2**63 - 1


@dataclass(frozen=True)
class FoundRecord:
    """The bytes of one version, which need the file no longer to be decoded.

    Attributes
    ----------
    data : bytes
        Header and payload.
    label, what : str
        What the bytes were sealed under, and how errors call them.
    """

    data: bytes
    label: str
    what: str

    def state(self) -> Any:
        """Return the state.

        Raises
        ------
        RecordDamagedError, StateVersionError
            See `RecordStore.load`.
        """
        return decode_record(self.data, self.label, self.what)


class SqliteRecords:
    """Reads and adds records through a connection that is inside a transaction.

    Parameters
    ----------
    database : sqlite3.Connection
        The connection.
    namespace, store : str
        Whose records they are, and how errors call the store.
    """

    def __init__(self, database: sqlite3.Connection, namespace: str, store: str) -> None:
        self._database = database
        self._namespace = namespace
        self._store = store
        self._process = os.getpid()

    def require_transaction(self) -> None:
        """Raise unless what comes next happens in the transaction.

        SQLite undoes it by itself when it is short of memory or cannot read; what came after that
        would happen statement by statement. And what a forked child did would happen to the
        parent's transaction, whose lock the child has not.

        Raises
        ------
        sqlite3.OperationalError
            There is no transaction any more, or it is another process's.
        """
        if os.getpid() != self._process:
            raise sqlite3.OperationalError("the transaction is that of the process it began in")
        if not self._database.in_transaction:
            raise sqlite3.OperationalError("SQLite has undone the transaction after an error")

    def append(self, name: str, payload: Payload, keep: int) -> None:
        """Add the next version of `name`, and remove those before the last `keep`."""
        version = self._last_version(name) + 1
        data = seal(payload, self._label(name, version))
        self._database.execute(
            "INSERT INTO records VALUES (?, ?, ?, ?, ?)",
            (self._namespace, name, version, time.time(), data),
        )
        self._database.execute(
            "INSERT OR REPLACE INTO heads VALUES (?, ?, ?, ?)",
            (self._namespace, name, version, self._seal_of_head(name, version, data)),
        )
        self._database.execute(
            "DELETE FROM records WHERE namespace = ? AND name = ? AND version <= ?",
            (self._namespace, name, version - keep),
        )

    def find(self, name: str, wanted: int | None) -> FoundRecord:
        """Return one version of `name`, the newest when `wanted` is None.

        Raises
        ------
        RecordNotFoundError
            Nothing is stored under this name, or not this version.
        RecordDamagedError
            It is not what was written, as far as that shows without decoding.
        """
        what = f"record {name!r} of {self._store}"
        newest, head_seal = self._head(name, what)
        number = newest if wanted is None else wanted
        data = self._data(name, number, what, is_newest=number == newest)
        if number == newest and self._seal_of_head(name, number, data) != head_seal:
            raise RecordDamagedError(f"{what} is damaged: it is not the newest version")
        return FoundRecord(data, self._label(name, number), f"version {number} of {what}")

    def versions(self, name: str) -> list[tuple[Any, Any, Any]]:
        """Return number, time and size of the versions of `name`, the newest first."""
        return self._database.execute(
            "SELECT version, written_at, length(data) FROM records "
            "WHERE namespace = ? AND name = ? ORDER BY version DESC",
            (self._namespace, name),
        ).fetchall()

    def names(self) -> list[Any]:
        """Return the names that have a record, sorted."""
        rows = self._database.execute(
            "SELECT name FROM heads WHERE namespace = ? ORDER BY name", (self._namespace,)
        ).fetchall()
        return [name for (name,) in rows]

    def _last_version(self, name: str) -> int:
        # Both tables are asked, so that a write after damage to one goes on with a new number.
        (version,) = self._database.execute(
            "SELECT max(version) FROM (SELECT version FROM heads WHERE namespace = ? AND name = ?"
            " UNION ALL SELECT max(version) FROM records WHERE namespace = ? AND name = ?)",
            (self._namespace, name) * 2,
        ).fetchone()
        return version if isinstance(version, int) else 0

    def _head(self, name: str, what: str) -> tuple[int, bytes]:
        """Return the number and the seal of the newest version."""
        head = self._database.execute(
            "SELECT version, seal FROM heads WHERE namespace = ? AND name = ?",
            (self._namespace, name),
        ).fetchone()
        if head is not None:
            return head[0], head[1]
        if self._last_version(name) > 0:
            raise RecordDamagedError(f"{what} is damaged: nothing says which version is the newest")
        raise RecordNotFoundError(f"{self._store} holds no record named {name!r}")

    def _data(self, name: str, version: int, what: str, *, is_newest: bool) -> bytes:
        """Return the bytes of one version, asking for kind, length and header before for them."""
        not_found = f"{self._store} holds no version {version} of record {name!r}"
        if not is_newest and not 1 <= version <= _LAST_VERSION:
            raise RecordNotFoundError(not_found)
        row = self._database.execute(
            "SELECT rowid, typeof(data), length(data), substr(data, 1, ?) FROM records "
            "WHERE namespace = ? AND name = ? AND version = ?",
            (HEADER_BYTES, self._namespace, name, version),
        ).fetchone()
        if row is None and not is_newest:
            raise RecordNotFoundError(not_found)
        if row is None:
            raise RecordDamagedError(f"{what} is damaged: its newest version is missing")
        # SQLite takes the beginning of an empty blob for NULL.
        rowid, kind, size, header = row
        fault = f"it is {kind}" if kind != "blob" else header_fault(header or b"", size)
        if fault is not None:
            raise RecordDamagedError(f"{what} is damaged: {fault}")
        (data,) = self._database.execute(
            "SELECT data FROM records WHERE rowid = ?", (rowid,)
        ).fetchone()
        return bytes(data)

    def _label(self, name: str, version: int) -> str:
        return f"{self._namespace}\0{name}\0{version}"

    def _seal_of_head(self, name: str, version: int, data: bytes) -> bytes:
        # The header holds the checksum of everything else.
        sealed = data[:HEADER_BYTES] + self._label(name, version).encode()
        return hashlib.blake2b(sealed, digest_size=32, person=b"quorvane-head").digest()
