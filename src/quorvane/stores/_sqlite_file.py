"""One SQLite file: opening it, its tables, transactions, and what its errors mean."""

from __future__ import annotations

import contextlib
import errno
import os
import sqlite3
import time
from collections.abc import Iterator
from pathlib import Path

from quorvane.stores._files import flush_folder
from quorvane.stores.errors import (
    RecordDamagedError,
    StoreBusyError,
    StoreError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)

_APPLICATION_ID = 0x51565354
_SCHEMA_VERSION = 1
# Every record has a row in heads that says which version is the newest. Its seal covers the
# version's own checksum, so losing or altering either row shows, whatever else is still there.
_TABLES = {
    "records": """CREATE TABLE records (
        namespace TEXT NOT NULL,
        name TEXT NOT NULL,
        version INTEGER NOT NULL,
        written_at REAL NOT NULL,
        data BLOB NOT NULL,
        UNIQUE (namespace, name, version)
    )""",
    "heads": """CREATE TABLE heads (
        namespace TEXT NOT NULL,
        name TEXT NOT NULL,
        version INTEGER NOT NULL,
        seal BLOB NOT NULL,
        PRIMARY KEY (namespace, name)
    ) WITHOUT ROWID""",
}
_SCHEMA = (
    *_TABLES.values(),
    f"PRAGMA application_id = {_APPLICATION_ID}",
    f"PRAGMA user_version = {_SCHEMA_VERSION}",
)
# Weak settings of the library's build must not weaken a write or let a foreign schema act.
_CONNECTION_SETTINGS = (
    "PRAGMA synchronous = FULL",
    "PRAGMA fullfsync = ON",
    "PRAGMA checkpoint_fullfsync = ON",
    "PRAGMA trusted_schema = OFF",
    "PRAGMA cell_size_check = ON",
)
_RETRY_SECONDS = 0.01
_WAITING_TURN_SECONDS = 0.2
_SMALLEST_PAGE = 512
# What SQLite and Python say of a file that no longer holds what was written.
_SIGNS_OF_DAMAGE = (
    "malformed",
    "no such table",
    "no such column",
    "has no column named",
    "unsupported file format",
    "constraint failed",
    "datatype mismatch",
    "Could not decode to UTF-8",
)


class SqliteFile:
    """A file with the tables of a store.

    Parameters
    ----------
    path : Path
        The file, made if it is missing; absolute, as the working folder may change.
    busy_timeout : float
        Seconds to wait for another process.
    """

    def __init__(self, path: Path, busy_timeout: float) -> None:
        self.path = path
        self._busy_timeout = busy_timeout

    def check(self) -> None:
        """Make the file if it is missing, and raise if it is not a store.

        Raises
        ------
        StoreFormatError
            It is not a store, or a newer version made it.
        """
        with self._connected(make=True):
            pass

    @contextlib.contextmanager
    def write_transaction(self, what: str) -> Iterator[sqlite3.Connection]:
        """Run the block in one transaction that waits for other writers.

        Failures to begin and to commit become a store's errors; what the block raises is its
        own affair, and closing the connection undoes what it did.
        """
        with contextlib.ExitStack() as opened:
            with self.writing(what):
                database = opened.enter_context(self._connected(make=True))
                self._begin_writing(database)
            yield database
            with self.writing(what):
                database.execute("COMMIT")

    @contextlib.contextmanager
    def read_transaction(self) -> Iterator[sqlite3.Connection]:
        """Run the block on the file as it is at one moment, without ever making it."""
        with self._connected(make=False) as database, _committed(database, "BEGIN"):
            yield database

    @contextlib.contextmanager
    def writing(self, what: str) -> Iterator[None]:
        """Turn what SQLite raises while it is to "`what`" into a store's errors."""
        try:
            yield
        except StoreError:
            raise
        except (sqlite3.Error, UnicodeDecodeError, OverflowError, OSError) as error:
            raise self._shared_error(error, f"cannot {what}") or StoreWriteError(
                _error_number(error), f"cannot {what}: {error}"
            ) from error

    @contextlib.contextmanager
    def reading(self, what: str) -> Iterator[None]:
        """Turn what SQLite raises while it reads `what` into a store's errors."""
        try:
            yield
        except (sqlite3.Error, UnicodeDecodeError) as error:
            raise self._shared_error(error, f"cannot read {what}") or StoreReadError(
                _error_number(error), f"cannot read {what}: {error}"
            ) from error

    def _shared_error(self, error: Exception, failure: str) -> StoreError | None:
        """Return what an error means for reading and writing alike, if it does."""
        if _is_busy(error):
            return StoreBusyError(
                errno.ETIMEDOUT,
                f"{failure}: another process held it for {self._busy_timeout} seconds",
            )
        if "not a database" in str(error) or os.path.isdir(self.path):
            return StoreFormatError(f"{failure}: {str(self.path)!r} is not an SQLite database")
        if _is_damage(error):
            return RecordDamagedError(f"{failure}: the file is damaged: {error}")
        return None

    @contextlib.contextmanager
    def _connected(self, *, make: bool) -> Iterator[sqlite3.Connection]:
        """Open the file for one operation.

        Opening takes about a millisecond, and no connection is ever carried over a fork, shared
        between threads, or left open.
        """
        self._refuse_fragment()
        address = f"{self.path.as_uri()}?mode={'rwc' if make else 'rw'}"
        with contextlib.closing(
            sqlite3.connect(address, uri=True, timeout=self._busy_timeout, isolation_level=None)
        ) as database:
            for setting in _CONNECTION_SETTINGS:
                database.execute(setting)
            # One transaction, lest another process make the tables between the questions.
            with _committed(database, "BEGIN"):
                is_new = self._is_new(database)
            if is_new and not make:
                raise StoreFormatError(f"{str(self.path)!r} was a store and is now empty")
            if is_new:
                self._make_tables(database)
            yield database

    def _begin_writing(self, database: sqlite3.Connection) -> None:
        """Wait for other writers in short turns: a signal can act only between two of them."""
        deadline = time.monotonic() + self._busy_timeout
        turn = min(self._busy_timeout, _WAITING_TURN_SECONDS)
        database.execute(f"PRAGMA busy_timeout = {int(1000 * turn)}")
        while True:
            try:
                database.execute("BEGIN IMMEDIATE")
                break
            except sqlite3.OperationalError as error:
                if not _is_busy(error) or time.monotonic() > deadline:
                    raise
                # Some of what SQLite calls busy it does not wait for.
                time.sleep(_RETRY_SECONDS)
        database.execute(f"PRAGMA busy_timeout = {int(1000 * self._busy_timeout)}")

    def _refuse_fragment(self) -> None:
        # SQLite takes a file shorter than its smallest page for an empty one and overwrites it.
        with contextlib.suppress(OSError):
            if 0 < self.path.stat().st_size < _SMALLEST_PAGE:
                raise StoreFormatError(f"{str(self.path)!r} is too short to be an SQLite database")

    def _is_new(self, database: sqlite3.Connection) -> bool:
        """Tell whether the file has nothing in it yet.

        Raises
        ------
        StoreFormatError
            It has something in it that is not a store, or is a newer one.
        """
        (application,) = database.execute("PRAGMA application_id").fetchone()
        (schema,) = database.execute("PRAGMA user_version").fetchone()
        if application == _APPLICATION_ID and schema > _SCHEMA_VERSION:
            raise StoreFormatError(
                f"{str(self.path)!r} is a store of format {schema}, made by a newer version; "
                f"this one knows up to {_SCHEMA_VERSION}"
            )
        if application == _APPLICATION_ID and schema == _SCHEMA_VERSION:
            self._require_own_tables(database)
            return False
        (objects,) = database.execute("SELECT count(*) FROM sqlite_master").fetchone()
        if (application, schema, objects) == (0, 0, 0):
            return True
        raise StoreFormatError(f"{str(self.path)!r} is an SQLite database, and not a store")

    def _require_own_tables(self, database: sqlite3.Connection) -> None:
        """Refuse a schema that somebody else made: views and triggers would run their SQL here."""
        # Indexes without SQL are those that SQLite makes for the tables' keys.
        objects = database.execute(
            "SELECT type, name, sql FROM sqlite_master WHERE type <> 'index' OR sql IS NOT NULL"
        ).fetchall()
        if set(objects) != {("table", name, sql) for name, sql in _TABLES.items()}:
            raise StoreFormatError(
                f"{str(self.path)!r} is marked as a store and holds other tables than a store's"
            )

    def _make_tables(self, database: sqlite3.Connection) -> None:
        self._use_write_ahead_log(database)
        with _committed(database, "BEGIN IMMEDIATE"):
            # Another process may have been first.
            if self._is_new(database):
                for statement in _SCHEMA:
                    database.execute(statement)
        flush_folder(self.path.parent)

    def _use_write_ahead_log(self, database: sqlite3.Connection) -> None:
        deadline = time.monotonic() + self._busy_timeout
        while True:
            try:
                (mode,) = database.execute("PRAGMA journal_mode = WAL").fetchone()
                break
            except sqlite3.OperationalError as error:
                # SQLite does not wait here by itself when two processes make the file at once.
                if not _is_busy(error) or time.monotonic() > deadline:
                    raise
                time.sleep(_RETRY_SECONDS)
        if mode != "wal":
            raise StoreWriteError(
                errno.ENOTSUP,
                f"the file system of {str(self.path)!r} does not support SQLite's write-ahead "
                "log; a DirectoryStore needs less",
            )


@contextlib.contextmanager
def _committed(database: sqlite3.Connection, begin: str) -> Iterator[None]:
    database.execute(begin)
    try:
        yield
        database.execute("COMMIT")
    except BaseException:
        # SQLite has already rolled back when the disk is full.
        with contextlib.suppress(sqlite3.Error):
            database.execute("ROLLBACK")
        raise


def _is_busy(error: Exception) -> bool:
    # SQLite says "locking protocol" when others kept it from the log's locks again and again.
    return isinstance(error, sqlite3.OperationalError) and any(
        sign in str(error) for sign in ("locked", "locking protocol")
    )


def _is_damage(error: Exception) -> bool:
    """Tell whether an error says that the file no longer holds what was written.

    Whatever does not say so may pass: taken for damage, it would lose a state that is there.
    """
    # A broken schema stands in SQLite's message, which Python then cannot read.
    if isinstance(error, UnicodeDecodeError):
        return True
    return (
        isinstance(error, sqlite3.DatabaseError)
        and not isinstance(error, (sqlite3.ProgrammingError, sqlite3.InternalError))
        and any(sign in str(error) for sign in _SIGNS_OF_DAMAGE)
    )


def _error_number(error: Exception) -> int:
    """Return the system's number for an error that Python reports by text only."""
    text = str(error)
    if "full" in text:
        return errno.ENOSPC
    if "readonly" in text or "unable to open" in text:
        return errno.EACCES
    return errno.EFBIG if "too big" in text or "longer than" in text else errno.EIO
