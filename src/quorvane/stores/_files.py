"""Files that survive a power cut."""

from __future__ import annotations

import contextlib
import errno
import os
import secrets
from pathlib import Path

TEMPORARY_SUFFIX = ".tmp"


def replace_file(target: Path, data: bytes) -> None:
    """Put `data` in the place of `target` in one step that survives a power cut."""
    temporary = target.with_name(f".{target.name}.{secrets.token_hex(8)}{TEMPORARY_SUFFIX}")
    try:
        _write_file(temporary, data)
        os.replace(temporary, target)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(temporary)
        raise
    flush_folder(target.parent)


def _write_file(path: Path, data: bytes) -> None:
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
    try:
        rest = memoryview(data)
        while rest:
            rest = rest[os.write(descriptor, rest) :]
        os.fsync(descriptor)
    except BaseException:
        with contextlib.suppress(OSError):
            os.close(descriptor)
        raise
    # Network file systems report a full disk only here.
    os.close(descriptor)


def make_folder(folder: Path) -> None:
    """Make `folder` and those above it that are missing, in a way that survives a power cut."""
    if folder.is_dir():
        return
    if folder.parent != folder:
        make_folder(folder.parent)
    # Another process may have been first; it may not have come to flushing yet.
    folder.mkdir(exist_ok=True)
    flush_folder(folder.parent)


def flush_folder(folder: Path) -> None:
    """Make the names in `folder` survive a power cut."""
    try:
        descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    except PermissionError:
        # A folder that may be written to and not read cannot be flushed alone.
        os.sync()
        return
    try:
        os.fsync(descriptor)
    except OSError as error:
        # Some network file systems have nothing to flush for a folder and say so.
        if error.errno not in (errno.EINVAL, errno.ENOTSUP):
            raise
    finally:
        os.close(descriptor)
