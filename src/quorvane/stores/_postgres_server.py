"""One PostgreSQL database: connecting to it, transactions, and what its errors mean."""

from __future__ import annotations

import contextlib
import errno
import hashlib
import os
import time
from collections.abc import Iterator
from typing import TYPE_CHECKING, Any

from quorvane.stores import _postgres_tables as tables
from quorvane.stores._postgres_address import PostgresAddress, import_psycopg
from quorvane.stores._postgres_errors import (
    NoConnectionError,
    is_busy,
    is_damage,
    is_of_other_tables,
    number_of,
    text_of,
)
from quorvane.stores.errors import (
    RecordDamagedError,
    StoreBusyError,
    StoreError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)

if TYPE_CHECKING:
    import psycopg

_RETRY_SECONDS = 0.05
# The namespace of no store: none holds a NUL.
_WHILE_MAKING = "\0"
# Names of all languages fit into these.
_ENCODINGS = ("UTF8", "SQL_ASCII")
# For one transaction, whatever the database, the user or the address sets: nobody else's functions
# are found, no row is left out silently, an acknowledged write is on the disk, and the server
# notices before long that a writer's machine has gone, whose lock would keep the others waiting.
_SETTINGS = """
    SET LOCAL search_path = '';
    SET LOCAL row_security = off;
    SET LOCAL tcp_keepalives_idle = 30;
    SET LOCAL tcp_keepalives_interval = 10;
    SET LOCAL tcp_keepalives_count = 3;
    SELECT pg_catalog.set_config('synchronous_commit', 'on', true)
        WHERE pg_catalog.current_setting('synchronous_commit') OPERATOR(pg_catalog.=) 'off'
"""


class PostgresServer:
    """A database with the tables of a store.

    Parameters
    ----------
    address : PostgresAddress
        Which database on which server.
    namespace : str
        Writers of one namespace wait for each other.
    busy_timeout : float
        Seconds to wait for others, and for a server that is about to start.
    """

    def __init__(self, address: PostgresAddress, namespace: str, busy_timeout: float) -> None:
        self.address = address
        self._namespace = namespace
        self._busy_timeout = busy_timeout

    def check(self) -> None:
        """Make the tables if they are missing, and raise if something else is there.

        Raises
        ------
        StoreFormatError
            It is not a store, or a newer version made it.
        """
        with self._connected() as connection:
            self._begin_reading(connection)
            if tables.are_missing(connection, str(self.address)):
                connection.execute("ROLLBACK")
                self._make_tables(connection)

    @contextlib.contextmanager
    def write_transaction(self, what: str) -> Iterator[psycopg.Connection[Any]]:
        """Run the block in one transaction that waits for other writers of the namespace.

        Failures to begin and to commit become a store's errors; what the block raises is its
        own affair, and closing the connection undoes what it did.
        """
        with contextlib.ExitStack() as opened:
            with self.writing(what):
                connection = opened.enter_context(self._connected())
                self._begin_writing(connection, self._namespace)
                if tables.are_missing(connection, str(self.address)):
                    connection.execute("ROLLBACK")
                    self._make_tables(connection)
                    self._begin_writing(connection, self._namespace)
            yield connection
            with self.writing(what):
                _commit(connection)

    @contextlib.contextmanager
    def read_transaction(self) -> Iterator[psycopg.Connection[Any]]:
        """Run the block on the tables as they are at one moment, without ever making them."""
        with self._connected() as connection:
            self._begin_reading(connection)
            if tables.are_missing(connection, str(self.address)):
                raise StoreFormatError(f"{self.address} holds no store: its tables are not there")
            yield connection

    @contextlib.contextmanager
    def writing(self, what: str) -> Iterator[None]:
        """Turn what psycopg raises while it is to "`what`" into a store's errors."""
        try:
            yield
        except StoreError:
            raise
        except (NoConnectionError, import_psycopg().Error, UnicodeError) as error:
            raise self._shared_error(error, f"cannot {what}") or StoreWriteError(
                number_of(error), f"cannot {what}: {text_of(error)}"
            ) from error

    @contextlib.contextmanager
    def reading(self, what: str) -> Iterator[None]:
        """Turn what psycopg raises while it reads `what` into a store's errors."""
        try:
            yield
        except (NoConnectionError, import_psycopg().Error, UnicodeError) as error:
            raise self._shared_error(error, f"cannot read {what}") or StoreReadError(
                number_of(error), f"cannot read {what}: {text_of(error)}"
            ) from error

    def _shared_error(self, error: Exception, failure: str) -> StoreError | None:
        """Return what an error means for reading and writing alike, if it does."""
        if isinstance(error, NoConnectionError) and error.is_crowded:
            return StoreBusyError(errno.ETIMEDOUT, f"{failure}: {error}")
        if is_busy(error):
            return StoreBusyError(
                errno.ETIMEDOUT,
                f"{failure}: another process held it for {self._busy_timeout} seconds",
            )
        if is_of_other_tables(error):
            return StoreFormatError(f"{failure}: {self.address} is no store: {text_of(error)}")
        if is_damage(error):
            return RecordDamagedError(f"{failure}: the tables are damaged: {text_of(error)}")
        return None

    @contextlib.contextmanager
    def _connected(self) -> Iterator[psycopg.Connection[Any]]:
        """Connect for one operation.

        That takes some milliseconds, and no connection is ever carried over a fork, shared between
        threads, or kept while the server is stopped and started.
        """
        process = os.getpid()
        connection = self._connect()
        try:
            encoding = connection.info.parameter_status("server_encoding")
            if encoding not in _ENCODINGS:
                raise StoreFormatError(
                    f"{self.address} is a database of encoding {encoding}, a store needs UTF8"
                )
            yield connection
        finally:
            # To close the copy that a fork has would end the parent's connection.
            if os.getpid() == process:
                connection.close()

    def _connect(self) -> psycopg.Connection[Any]:
        """Connect, waiting for a server that is about to start or has too many connections."""
        deadline = time.monotonic() + self._busy_timeout
        while True:
            outcome = self._attempt()
            if not isinstance(outcome, NoConnectionError):
                return outcome
            if not outcome.may_pass or time.monotonic() > deadline:
                # Not where psycopg's own error is at hand: its frames hold the password.
                raise outcome
            time.sleep(_RETRY_SECONDS)

    def _attempt(self) -> psycopg.Connection[Any] | NoConnectionError:
        psycopg = import_psycopg()
        try:
            return self.address.open(self._busy_timeout)
        except psycopg.Error as error:
            text = text_of(error)
            has_timed_out = isinstance(error, psycopg.errors.ConnectionTimeout)
            is_locked_out = error.pgconn is not None and (
                error.pgconn.used_password or error.pgconn.needs_password
            )
        if is_locked_out and self.address.without_secrets:
            text += (
                "; its password was left out when the store was pickled, and is looked for in "
                "PGPASSWORD and the password file"
            )
        if has_timed_out:
            return NoConnectionError(text, errno.ETIMEDOUT)
        return NoConnectionError(text, errno.EACCES if is_locked_out else errno.ENOTCONN)

    def _begin_reading(self, connection: psycopg.Connection[Any]) -> None:
        self._begin(connection, "REPEATABLE READ READ ONLY")

    def _begin_writing(self, connection: psycopg.Connection[Any], namespace: str) -> None:
        """Begin a transaction and wait until nobody else is in one of the namespace."""
        self._begin(connection, "READ COMMITTED READ WRITE")
        connection.execute("SELECT pg_advisory_xact_lock(%s)", (_lock_of(namespace),))

    def _begin(self, connection: psycopg.Connection[Any], mode: str) -> None:
        # Readers wait for nobody but an administrator who alters a table. Zero would be for ever.
        patience = max(int(1000 * self._busy_timeout), 1)
        connection.execute(
            f"BEGIN ISOLATION LEVEL {mode}; SET LOCAL lock_timeout = {patience}; {_SETTINGS}"
        )

    def _make_tables(self, connection: psycopg.Connection[Any]) -> None:
        self._begin_writing(connection, _WHILE_MAKING)
        # Another process may have been first.
        if tables.are_missing(connection, str(self.address)):
            tables.make(connection)
        _commit(connection)


def _lock_of(namespace: str) -> int:
    """Return the number of the lock that the writers of a namespace take in turn."""
    digest = hashlib.blake2b(namespace.encode(), digest_size=8, person=b"quorvane-lock")
    return int.from_bytes(digest.digest(), "little", signed=True)


def _commit(connection: psycopg.Connection[Any]) -> None:
    """Let the transaction happen; an interrupt waits until it is known whether it has.

    Raises
    ------
    psycopg.Error
        It has not happened; or the connection was lost, and it may have happened in its entirety.
    """
    psycopg = import_psycopg()
    # libpq's own waiting: psycopg's would cancel the commit when a signal comes.
    result = connection.pgconn.exec_(b"COMMIT")
    if result.status == psycopg.pq.ExecStatus.COMMAND_OK:
        if result.command_status != b"COMMIT":
            raise psycopg.OperationalError("the server has undone the transaction after an error")
        return
    said = (result.error_message or connection.pgconn.error_message).decode(errors="replace")
    state = result.error_field(psycopg.pq.DiagnosticField.SQLSTATE)
    if state is None or connection.pgconn.status != psycopg.pq.ConnStatus.OK:
        said = (
            f"the connection was lost at its end, so that it may have happened all the same: {said}"
        )
    kind = psycopg.OperationalError
    with contextlib.suppress(KeyError):
        kind = psycopg.errors.lookup((state or b"").decode())
    raise kind(said)
