"""Paths: endings, checks before the work starts, and outputs that are whole or not there."""

from __future__ import annotations

import os
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
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
    if path.is_dir():
        raise DataError(f"{path}: is a folder, expected {what}")
    try:
        with path.open("rb"):
            pass
    except FileNotFoundError:
        raise DataError(f"{path}: no such file, expected {what}") from None
    except OSError as error:
        raise DataError(f"{path}: cannot read {what}: {error.strerror}") from error


def check_writable(path: Path, what: str) -> None:
    """Raise DataError unless a file can be made at ``path``; asked before a long run starts."""
    folder = path.parent
    if not folder.is_dir():
        raise DataError(f"{path}: cannot write {what}: there is no folder {folder}")
    if path.is_dir():
        raise DataError(f"{path}: cannot write {what}: it is a folder")
    if not os.access(folder, os.W_OK | os.X_OK):
        raise DataError(f"{path}: cannot write {what}: folder {folder} is not writable")


@contextmanager
def whole_output(path: Path, what: str) -> Iterator[Path]:
    """A path beside ``path``, with its ending, to write to.

    It is renamed onto ``path`` at the end and removed on any failure, so that ``path`` is never
    left half-written.
    """
    part = path.with_name(f".part-{os.getpid()}-{path.name}")
    try:
        yield part
        with part.open("rb") as written:
            os.fsync(written.fileno())
        part.replace(path)
    except OSError as error:
        raise DataError(f"{path}: cannot write {what}: {error.strerror or error}") from error
    finally:
        part.unlink(missing_ok=True)


def _one_of(endings: Sequence[str]) -> str:
    *head, last = endings
    return f"{', '.join(head)} or {last}" if head else last
