"""The records of one namespace in a PostgreSQL database, inside a transaction on it."""

from __future__ import annotations

import errno
import os
import threading
import time
from typing import TYPE_CHECKING, Any

from quorvane.stores._postgres_address import import_psycopg
from quorvane.stores._table_records import Glimpse, TableRecords
from quorvane.stores.encoding import HEADER_BYTES
from quorvane.stores.errors import StoreWriteError

if TYPE_CHECKING:
    import psycopg

# A value may have 1 GiB, and so may the message that carries it together with the rest.
_LARGEST_RECORD = 1_000_000_000
# An entry of an index must fit into a third of a page.
_LONGEST_KEY = 2_500
_INSERT = (
    "COPY quorvane.records (namespace, name, version, written_at, data) FROM STDIN (FORMAT BINARY)"
)


class PostgresRecords(TableRecords):
    """Reads and adds records through a connection that is inside a transaction.

    Parameters
    ----------
    connection : psycopg.Connection
        The connection.
    namespace, store : str
        Whose records they are, and how errors call the store.
    """

    def __init__(self, connection: psycopg.Connection[Any], namespace: str, store: str) -> None:
        super().__init__(namespace, store)
        self._connection = connection
        self._thread = threading.get_ident()

    def require_transaction(self) -> None:
        """Raise unless what comes next happens in the transaction.

        The server undoes it after any error. And what a forked child or another thread did would
        happen to the transaction of somebody who knows nothing of it.

        Raises
        ------
        psycopg.OperationalError
            There is no transaction any more, or it is another process's or thread's.
        """
        psycopg = import_psycopg()
        if os.getpid() != self._process:
            raise psycopg.OperationalError("the transaction is that of the process it began in")
        if threading.get_ident() != self._thread:
            raise psycopg.OperationalError("the transaction is that of the thread it began in")
        if self._connection.closed:
            raise psycopg.OperationalError("the transaction has ended: its connection is closed")
        if self._connection.info.transaction_status != psycopg.pq.TransactionStatus.INTRANS:
            raise psycopg.OperationalError("the server has undone the transaction after an error")

    def versions(self, name: str) -> list[tuple[Any, Any, Any]]:
        """Return number, time and size of the versions of `name`, the newest first."""
        return self._rows(
            "SELECT version, written_at, octet_length(data) FROM quorvane.records "
            "WHERE namespace = %s AND name = %s ORDER BY version DESC",
            self._namespace,
            name,
        )

    def names(self) -> list[Any]:
        """Return the names that have a record, sorted."""
        rows = self._rows(
            "SELECT name FROM quorvane.heads WHERE namespace = %s ORDER BY name", self._namespace
        )
        return [name for (name,) in rows]

    def _last_version(self, name: str) -> int:
        ((version,),) = self._rows(
            "SELECT greatest("
            "(SELECT version FROM quorvane.heads WHERE namespace = %s AND name = %s), "
            "(SELECT max(version) FROM quorvane.records WHERE namespace = %s AND name = %s))",
            *(self._namespace, name) * 2,
        )
        return version or 0

    def _insert(self, name: str, version: int, data: bytes) -> None:
        key = len(self._namespace.encode()) + len(name.encode())
        if key > _LONGEST_KEY:
            raise ValueError(
                f"name and namespace make a key of {key:,} bytes, allowed are {_LONGEST_KEY:,}"
            )
        if len(data) > _LARGEST_RECORD:
            raise StoreWriteError(
                errno.EFBIG,
                f"cannot write record {name!r} of {self._store}: it is too big with "
                f"{len(data):,} bytes, PostgreSQL keeps {_LARGEST_RECORD:,}",
            )
        # As a parameter of a statement, libpq would move all that is still to be sent with each
        # part that the line takes: minutes instead of seconds for the largest records.
        with self._connection.cursor() as cursor, cursor.copy(_INSERT) as copying:
            copying.set_types(["text", "text", "int8", "float8", "bytea"])
            copying.write_row((self._namespace, name, version, time.time(), data))

    def _set_head(self, name: str, version: int, head_seal: bytes) -> None:
        self._connection.execute(
            "INSERT INTO quorvane.heads (namespace, name, version, seal) VALUES (%s, %s, %s, %b) "
            "ON CONFLICT (namespace, name) "
            "DO UPDATE SET version = EXCLUDED.version, seal = EXCLUDED.seal",
            (self._namespace, name, version, head_seal),
        )

    def _delete_until(self, name: str, version: int) -> None:
        self._connection.execute(
            "DELETE FROM quorvane.records WHERE namespace = %s AND name = %s AND version <= %s",
            (self._namespace, name, version),
        )

    def _find_head(self, name: str) -> tuple[Any, Any] | None:
        rows = self._rows(
            "SELECT version, seal FROM quorvane.heads WHERE namespace = %s AND name = %s",
            self._namespace,
            name,
        )
        return rows[0] if rows else None

    def _glimpse(self, name: str, version: int) -> Glimpse | None:
        rows = self._rows(
            "SELECT octet_length(data), substr(data, 1, %s) FROM quorvane.records "
            "WHERE namespace = %s AND name = %s AND version = %s",
            HEADER_BYTES,
            self._namespace,
            name,
            version,
        )
        return Glimpse((name, version), "blob", *rows[0]) if rows else None

    def _bytes_of(self, row: Any) -> bytes:
        ((data,),) = self._rows(
            "SELECT data FROM quorvane.records WHERE namespace = %s AND name = %s AND version = %s",
            self._namespace,
            *row,
        )
        return bytes(data)

    def _rows(self, query: str, *values: object) -> list[Any]:
        # Bytes in the text format would be twice as long.
        return self._connection.execute(query, values, binary=True).fetchall()
