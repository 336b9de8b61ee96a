"""A store in a PostgreSQL database, for rotations on many machines."""

from __future__ import annotations

import contextlib
from typing import Any

from quorvane.stores._postgres_address import PostgresAddress
from quorvane.stores._postgres_records import PostgresRecords
from quorvane.stores._postgres_server import PostgresServer
from quorvane.stores.errors import RecordDamagedError
from quorvane.stores.records import check_text
from quorvane.stores.versioned import VersionedStore, check_busy_timeout, check_keep


class PostgresStore(VersionedStore):
    """Keeps the last versions of each name in a PostgreSQL database.

    A write is one transaction: it happens entirely or not at all, also when the process or the
    server is killed or the connection breaks, and the server has it on its disk when ``write``
    returns. Threads, processes and machines may use the database at once; writers of one
    namespace wait for each other, readers wait for nobody. Each operation has a connection of its
    own, so that a server may be stopped and started between any two.

    The tables are made in a schema of their own, ``quorvane``, when they are missing.

    Parameters
    ----------
    dsn : str
        A URL, ``postgresql://user@host:5432/database``, or the same as ``key=value`` text. What it
        does not say, libpq takes from its environment variables, and a password best from its
        password file. No password is ever shown, or pickled with the store.
    namespace : str
        Keeps instances apart whose rotations have the same name: rotations of one class share
        ``_name``, and would overwrite each other's records.
    keep : int
        How many versions of each name stay; older ones go when a new one is written.
    busy_timeout : float
        Seconds to wait for another writer, for a server that is about to start, or for one that
        has too many connections, before giving up.

    Raises
    ------
    ValueError
        libpq cannot read `dsn`, or another argument is out of its range.
    StoreFormatError
        The schema ``quorvane`` of the database is not a store, or a newer version made it.
    StoreWriteError
        The server cannot be reached or does not let in, or the tables cannot be made.
    StoreBusyError
        Another process held the database for too long, or the server has too many connections.
    StoreDependencyError
        psycopg is not installed.
    """

    def __init__(
        self,
        dsn: str,
        namespace: str = "",
        keep: int = 5,
        *,
        busy_timeout: float = 30.0,
    ) -> None:
        keep = check_keep(keep)
        namespace = check_text(namespace, "namespace", may_be_empty=True)
        address = PostgresAddress(dsn)
        # An error from here on shows no frame that holds the password.
        del dsn
        self._server = PostgresServer(address, namespace, check_busy_timeout(busy_timeout))
        super().__init__(self._server, namespace, keep)
        # Damaged tables are for ``read`` and ``load`` to report, as if the damage came later.
        with contextlib.suppress(RecordDamagedError), self._server.writing(f"open {self!r}"):
            self._server.check()

    def __repr__(self) -> str:
        return f"PostgresStore({str(self._server.address)!r}, namespace={self._namespace!r})"

    def __copy__(self) -> PostgresStore:
        # Nothing in it ever changes. A copy made as a pickle is would be without its password.
        return self

    def __deepcopy__(self, memo: dict[int, Any]) -> PostgresStore:
        return self

    def _records(self, connection: Any) -> PostgresRecords:
        return PostgresRecords(connection, self._namespace, repr(self))
