"""Paths: endings, checks before the work starts, and outputs that are whole or not there."""

from __future__ import annotations

import os
import secrets
import shutil
import stat
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path
from types import TracebackType

from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.stopping import signals_held
from quorvane.stores._files import flush_folder


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


class WholeOutputs:
    """Files that are made beside their places and take these when all are made.

    Each is made in a folder of its own, which nobody else can enter, so that nobody can put a
    link there. On any failure all are removed: no place ever holds a file that is half-written.
    Signals wait from the first renaming until the folders are gone: none stays behind.
    """

    def __init__(self) -> None:
        self._folders = ExitStack()
        self._signals = ExitStack()
        self._made: list[tuple[Path, Path, str]] = []

    def __enter__(self) -> WholeOutputs:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        with self._signals, signals_held():
            self._folders.close()

    @contextmanager
    def making(self, path: Path, what: str) -> Iterator[Path]:
        """A path of the same name as ``path``, to write to; DataError when that fails."""
        folder = path.with_name(f".part-{secrets.token_hex(8)}")
        self._folders.callback(shutil.rmtree, folder, ignore_errors=True)
        with _naming(path, what):
            folder.mkdir(mode=0o700)
            part = folder / path.name
            yield part
            _keep_mode(path, part)
            _flush(part)
        self._made.append((part, path, what))

    def take_places(self) -> None:
        """Rename all that were made, the first one last, so that the others are there with it."""
        self._signals.enter_context(signals_held())
        for part, path, what in reversed(self._made):
            with _naming(path, what):
                part.replace(path)
        for _, path, what in self._made:
            with _naming(path, what):
                flush_folder(path.parent)


@contextmanager
def _naming(path: Path, what: str) -> Iterator[None]:
    try:
        yield
    except OSError as error:
        raise DataError(f"{path}: cannot write {what}: {error.strerror or error}") from error


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
