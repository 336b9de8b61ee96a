"""Paths: endings, checks before the work starts, and outputs that are whole or not there."""

from __future__ import annotations

import os
import secrets
import shutil
import stat
from collections.abc import Iterator, Sequence
from contextlib import contextmanager, suppress
from pathlib import Path

from quorvane.cli.errors import DataError, UsageError


def ending_of(path: Path, allowed: Sequence[str], what: str) -> str:
    """The one of ``allowed`` that the file's name ends with; UsageError when there is none."""
    name = path.name.lower()
    for ending in allowed:
        if name.endswith(ending) and name != ending:
            return ending
    raise UsageError(f"{path}: unsupported ending for {what}, expected {_one_of(allowed)}")


def check_readable(path: Path, what: str) -> None:
    """Raise DataError unless ``path`` is an existing file that can be opened for reading."""
    if os.path.isdir(path):
        raise DataError(f"{path}: is a folder, expected {what}")
    try:
        # A pipe without a writer would not open otherwise, and a device need not end.
        opened = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        try:
            is_file = stat.S_ISREG(os.fstat(opened).st_mode)
        finally:
            os.close(opened)
    except FileNotFoundError:
        raise DataError(f"{path}: no such file, expected {what}") from None
    except OSError as error:
        raise DataError(f"{path}: cannot read {what}: {error.strerror}") from error
    if not is_file:
        raise DataError(f"{path}: is no regular file, expected {what}")


def check_writable(path: Path, what: str) -> None:
    """Raise DataError unless a file can be made at ``path``; asked before a long run starts."""
    folder = path.parent
    try:
        folder_kind, kind = _kind(folder), _kind(path)
    except OSError as error:
        raise DataError(f"{path}: cannot write {what}: {error.strerror}") from error
    if folder_kind != stat.S_IFDIR:
        raise DataError(f"{path}: cannot write {what}: there is no folder {folder}")
    if kind == stat.S_IFDIR:
        raise DataError(f"{path}: cannot write {what}: it is a folder")
    if kind not in (None, stat.S_IFREG):
        raise DataError(f"{path}: cannot write {what}: it is no regular file")
    if not os.access(folder, os.W_OK | os.X_OK):
        raise DataError(f"{path}: cannot write {what}: folder {folder} is not writable")


def _kind(path: Path) -> int | None:
    """The kind of file that ``path`` leads to, None when there is none."""
    try:
        return stat.S_IFMT(os.stat(path).st_mode)
    except (FileNotFoundError, NotADirectoryError):
        return None


@contextmanager
def whole_output(path: Path, what: str) -> Iterator[Path]:
    """A path of the same name in a folder of its own beside ``path``, to write to.

    It is renamed onto ``path`` at the end and removed on any failure, so that ``path`` is never
    left half-written. Nobody else can enter the folder, so nobody can put a link there.
    """
    folder = path.with_name(f".part-{secrets.token_hex(8)}")
    try:
        folder.mkdir(mode=0o700)
        part = folder / path.name
        yield part
        _flush(part)
        _keep_mode(path, part)
        part.replace(path)
    except OSError as error:
        raise DataError(f"{path}: cannot write {what}: {error.strerror or error}") from error
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def _keep_mode(old: Path, new: Path) -> None:
    """Give ``new`` the permissions of ``old``, if that exists: a private file stays private."""
    with suppress(FileNotFoundError):
        permissions = os.stat(old).st_mode & 0o777
        if permissions != os.stat(new).st_mode & 0o777:
            new.chmod(permissions)


def _flush(path: Path) -> None:
    with path.open("rb") as written:
        os.fsync(written.fileno())


def _one_of(endings: Sequence[str]) -> str:
    *head, last = endings
    return f"{', '.join(head)} or {last}" if head else last
