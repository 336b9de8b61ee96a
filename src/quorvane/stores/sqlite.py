"""A store in one SQLite file, for many rotations and the last versions of each."""

from __future__ import annotations

import contextlib
import os
from pathlib import Path
from typing import Any

from quorvane.stores._sqlite_file import SqliteFile
from quorvane.stores._sqlite_records import SqliteRecords
from quorvane.stores.errors import RecordDamagedError
from quorvane.stores.records import check_text
from quorvane.stores.versioned import VersionedStore, check_busy_timeout, check_keep


class SqliteStore(VersionedStore):
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
        keep = check_keep(keep)
        self._file = SqliteFile(Path(path).absolute(), check_busy_timeout(busy_timeout))
        super().__init__(self._file, check_text(namespace, "namespace", may_be_empty=True), keep)
        # A damaged file is for ``read`` and ``load`` to report, as if the damage came later.
        with contextlib.suppress(RecordDamagedError), self._file.writing(f"open {self!r}"):
            self._file.check()

    def __repr__(self) -> str:
        return f"SqliteStore({str(self._file.path)!r}, namespace={self._namespace!r})"

    def _records(self, connection: Any) -> SqliteRecords:
        return SqliteRecords(connection, self._namespace, repr(self))
