"""The records of one namespace in an SQLite file, inside a transaction on it."""

from __future__ import annotations

import os
import sqlite3
import time
from typing import Any

from quorvane.stores._table_records import Glimpse, TableRecords
from quorvane.stores.encoding import HEADER_BYTES


class SqliteRecords(TableRecords):
    """Reads and adds records through a connection that is inside a transaction.

    Parameters
    ----------
    database : sqlite3.Connection
        The connection.
    namespace, store : str
        Whose records they are, and how errors call the store.
    """

    def __init__(self, database: sqlite3.Connection, namespace: str, store: str) -> None:
        super().__init__(namespace, store)
        self._database = database

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
        (version,) = self._database.execute(
            "SELECT max(version) FROM (SELECT version FROM heads WHERE namespace = ? AND name = ?"
            " UNION ALL SELECT max(version) FROM records WHERE namespace = ? AND name = ?)",
            (self._namespace, name) * 2,
        ).fetchone()
        return version if isinstance(version, int) else 0

    def _insert(self, name: str, version: int, data: bytes) -> None:
        self._database.execute(
            "INSERT INTO records VALUES (?, ?, ?, ?, ?)",
            (self._namespace, name, version, time.time(), data),
        )

    def _set_head(self, name: str, version: int, head_seal: bytes) -> None:
        self._database.execute(
            "INSERT OR REPLACE INTO heads VALUES (?, ?, ?, ?)",
            (self._namespace, name, version, head_seal),
        )

    def _delete_until(self, name: str, version: int) -> None:
        self._database.execute(
            "DELETE FROM records WHERE namespace = ? AND name = ? AND version <= ?",
            (self._namespace, name, version),
        )

    def _find_head(self, name: str) -> tuple[Any, Any] | None:
        head: tuple[Any, Any] | None = self._database.execute(
            "SELECT version, seal FROM heads WHERE namespace = ? AND name = ?",
            (self._namespace, name),
        ).fetchone()
        return head

    def _glimpse(self, name: str, version: int) -> Glimpse | None:
        found = self._database.execute(
            "SELECT rowid, typeof(data), length(data), substr(data, 1, ?) FROM records "
            "WHERE namespace = ? AND name = ? AND version = ?",
            (HEADER_BYTES, self._namespace, name, version),
        ).fetchone()
        if found is None:
            return None
        row, kind, size, header = found
        # SQLite takes the beginning of an empty blob for NULL.
        return Glimpse(row, kind, size, header or b"")

    def _bytes_of(self, row: Any) -> bytes:
        (data,) = self._database.execute(
            "SELECT data FROM records WHERE rowid = ?", (row,)
        ).fetchone()
        return bytes(data)
