"""A store that is a folder with one file per record."""

from __future__ import annotations

import contextlib
import errno
import os
import stat
import time
from pathlib import Path
from typing import Any
from urllib.parse import unquote

from quorvane.stores._files import TEMPORARY_SUFFIX, make_folder, replace_file
from quorvane.stores.encoding import HEADER_BYTES, encode, header_fault
from quorvane.stores.errors import (
    RecordDamagedError,
    RecordNotFoundError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)
from quorvane.stores.records import RecordStore, check_text, decode_record

_SUFFIX = ".qvstate"
# Longest file name on common file systems, less what a temporary name adds to it.
_LONGEST_FILE_NAME = 255 - 32
# A temporary file this old belongs to a process that died while writing it.
_STALE_SECONDS = 3600.0
_READ_ATTEMPTS = 5
_PLAIN = frozenset("abcdefghijklmnopqrstuvwxyz0123456789_-")


class DirectoryStore(RecordStore):
    """Keeps the newest state of each name in a file of its own.

    A write makes a temporary file beside the record, flushes it to the disk, renames it over the
    record and flushes the folder. At any moment the record is the old one or the new one, also
    for readers on other machines, and also after a power cut. There are no locks: of two writers
    the one that renames last stays.

    Parameters
    ----------
    path : str or path-like
        The folder, made if it is missing.
    namespace : str
        Keeps instances apart whose rotations have the same name. Stores on one folder with
        different namespaces do not see each other's records.

    Raises
    ------
    StoreFormatError
        `path` is not a folder.
    StoreWriteError
        The folder is missing and cannot be made.
    """

    def __init__(self, path: str | os.PathLike[str], *, namespace: str = "") -> None:
        # Absolute, as the working folder may change while the store is in use.
        self._path = Path(path).absolute()
        self._namespace = check_text(namespace, "namespace", may_be_empty=True)
        try:
            make_folder(self._path)
        except (FileExistsError, NotADirectoryError) as error:
            raise StoreFormatError(f"{str(path)!r} is not a folder") from error
        except OSError as error:
            raise StoreWriteError(
                error.errno, f"cannot make the folder {str(path)!r}: {_why(error)}"
            ) from error

    def __repr__(self) -> str:
        return f"DirectoryStore({str(self._path)!r}, namespace={self._namespace!r})"

    def write(self, name: str, state: object) -> None:
        """Keep `state` under `name`; see `RecordStore.write`."""
        name = check_text(name, "name")
        target = self._file(name)
        data = encode(state, label=self._label(name))
        try:
            replace_file(target, data)
        except OSError as error:
            raise StoreWriteError(
                error.errno, f"cannot write record {name!r} of {self!r}: {_why(error)}"
            ) from error
        _remove_stale(target)

    def load(self, name: str) -> Any:
        """Return the state of `name`; see `RecordStore.load`."""
        name = check_text(name, "name")
        source = self._file(name)
        what = f"record {name!r} of {self!r}"
        try:
            data = _read_file(source)
        except _NoRecordError as fault:
            raise RecordDamagedError(f"{what} is damaged: {fault}") from None
        except FileNotFoundError:
            raise RecordNotFoundError(f"{self!r} holds no record named {name!r}") from None
        except OSError as error:
            raise StoreReadError(error.errno, f"cannot read {what}: {_why(error)}") from error
        return decode_record(data, self._label(name), what)

    def names(self) -> list[str]:
        """Return the names that have a record in this namespace, sorted.

        Raises
        ------
        StoreReadError
            The folder cannot be listed.
        """
        prefix = self._prefix()
        try:
            files = os.listdir(self._path)
        except OSError as error:
            raise StoreReadError(error.errno, f"cannot list {self!r}: {_why(error)}") from error
        records = [
            file[len(prefix) : -len(_SUFFIX)]
            for file in files
            if file.startswith(prefix) and file.endswith(_SUFFIX)
        ]
        names = ((unquote(record), record) for record in records)
        return sorted(name for name, record in names if _escape(name) == record)

    def _prefix(self) -> str:
        # An escaped text holds no "@", so names of different namespaces never meet.
        return f"{_escape(self._namespace)}@" if self._namespace else ""

    def _label(self, name: str) -> str:
        return f"{self._namespace}\0{name}"

    def _file(self, name: str) -> Path:
        file = f"{self._prefix()}{_escape(name)}{_SUFFIX}"
        if len(file) > _LONGEST_FILE_NAME:
            raise ValueError(
                f"name and namespace make a file name of {len(file)} characters, "
                f"allowed are {_LONGEST_FILE_NAME}"
            )
        return self._path / file


def _escape(text: str) -> str:
    """Return `text` as part of a file name, different texts giving different parts.

    Everything but lower-case ASCII letters, digits, "_" and "-" becomes its UTF-8 bytes after
    percent signs: no text leaves the folder, and none differ by case alone.
    """
    return "".join(
        character
        if character in _PLAIN
        else "".join(f"%{byte:02x}" for byte in character.encode("utf-8"))
        for character in text
    )


class _NoRecordError(Exception):
    """What stands at a record's path cannot be one; the text says why."""


def _read_file(source: Path) -> bytes:
    """Return what `source` holds, which has the header of a record of its length.

    A network file system may lose the file between opening and reading, when another machine
    replaces it; the new one is then read.
    """
    for _ in range(_READ_ATTEMPTS - 1):
        try:
            return _read_file_once(source)
        except OSError as error:
            if error.errno != errno.ESTALE:
                raise
    return _read_file_once(source)


def _read_file_once(source: Path) -> bytes:
    with open(source, "rb", opener=_open_without_waiting) as file:
        status = os.fstat(file.fileno())
        if not stat.S_ISREG(status.st_mode):
            raise _NoRecordError("it is no regular file")
        header = file.read(HEADER_BYTES)
        fault = header_fault(header, status.st_size)
        if fault is not None:
            raise _NoRecordError(fault)
        file.seek(0)
        return file.read(status.st_size)


def _open_without_waiting(path: str, flags: int) -> int:
    # Opening a pipe otherwise waits for somebody to write into it.
    return os.open(path, flags | os.O_NONBLOCK | os.O_CLOEXEC)


def _remove_stale(target: Path) -> None:
    """Remove temporary files of `target` that a killed writer left long ago."""
    oldest = time.time() - _STALE_SECONDS
    with contextlib.suppress(OSError), os.scandir(target.parent) as entries:
        for entry in entries:
            if (
                entry.name.startswith(f".{target.name}.")
                and entry.name.endswith(TEMPORARY_SUFFIX)
                and entry.stat(follow_symlinks=False).st_mtime < oldest
            ):
                with contextlib.suppress(OSError):
                    os.unlink(entry.path)


def _why(error: OSError) -> str:
    return error.strerror or str(error)
