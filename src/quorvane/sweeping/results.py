"""A folder with a file for each configuration that was computed, named by what it is of."""

from __future__ import annotations

import contextlib
import json
import os
import stat
import time
from pathlib import Path
from typing import Any

from quorvane.stores._files import TEMPORARY_SUFFIX, make_folder, replace_file
from quorvane.stores.errors import StoreFormatError, StoreReadError, StoreWriteError
from quorvane.sweeping.outcome import Outcome, as_json, of_json
from quorvane.sweeping.plain_values import digest

_FORMAT = "quorvane sweep, format 1"
_SUFFIX = ".json"
_MOST_BYTES = 1 << 24
# A temporary file this old belongs to a process that died while writing it.
_STALE_SECONDS = 3600.0


class Results:
    """What is known already of the configurations of sweeps, and what comes to it.

    A file is whole or not there, whoever is killed. Several sweeps may use one folder at once: the
    same name stands for the same numbers. What is damaged counts as not there.

    Parameters
    ----------
    folder : path
        Made if it is missing.

    Raises
    ------
    StoreFormatError
        It is no folder.
    StoreWriteError
        It cannot be made.
    """

    def __init__(self, folder: str | os.PathLike[str]) -> None:
        self._folder = Path(folder).absolute()
        try:
            make_folder(self._folder)
        except (FileExistsError, NotADirectoryError) as error:
            raise StoreFormatError(f"out: {str(folder)!r} is not a folder") from error
        except OSError as error:
            text = f"out: cannot make the folder {str(folder)!r}: {error.strerror}"
            raise StoreWriteError(error.errno, text) from error
        self._remove_stale()

    def get(self, name: str) -> Outcome | None:
        """What is known under a name, None where nothing is.

        Raises
        ------
        StoreFormatError
            Something other than a file has the name.
        StoreReadError
            The file cannot be read.
        """
        path = self._file(name)
        try:
            with open(path, "rb", opener=_open_without_waiting) as file:
                if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
                    raise StoreFormatError(f"out: {str(path)!r} is no regular file")
                data = file.read(_MOST_BYTES + 1)
        except FileNotFoundError:
            return None
        except IsADirectoryError:
            raise StoreFormatError(f"out: {str(path)!r} is no regular file") from None
        except OSError as error:
            text = f"out: cannot read {str(path)!r}: {error.strerror}"
            raise StoreReadError(error.errno, text) from error
        return _outcome_in(data, name)

    def put(self, name: str, outcome: Outcome, arguments: dict[str, Any]) -> None:
        """Keep an outcome; the arguments are for whoever reads the file.

        Raises
        ------
        StoreWriteError
            The file cannot be written; nothing of it is there then.
        """
        body = {"format": _FORMAT, "name": name, "arguments": arguments, **as_json(outcome)}
        text = json.dumps({**body, "check": _check(body)}, indent=1, allow_nan=False, default=str)
        path = self._file(name)
        try:
            replace_file(path, text.encode() + b"\n")
        except OSError as error:
            text = f"out: cannot write {str(path)!r}: {error.strerror}"
            raise StoreWriteError(error.errno, text) from error

    def _file(self, name: str) -> Path:
        return self._folder / f"{name}{_SUFFIX}"

    def _remove_stale(self) -> None:
        oldest = time.time() - _STALE_SECONDS
        with contextlib.suppress(OSError), os.scandir(self._folder) as entries:
            for entry in entries:
                if (
                    entry.name.startswith(".")
                    and entry.name.endswith(f"{TEMPORARY_SUFFIX}")
                    and f"{_SUFFIX}." in entry.name
                    and entry.stat(follow_symlinks=False).st_mtime < oldest
                ):
                    with contextlib.suppress(OSError):
                        os.unlink(entry.path)


def _outcome_in(data: bytes, name: str) -> Outcome | None:
    """The outcome that a file holds, None where it is damaged, foreign or of another name."""
    try:
        found = json.loads(data)
        if found.pop("check") != _check(found) or found["format"] != _FORMAT:
            return None
        if found["name"] != name:
            return None
        return of_json(found)
    except (ValueError, TypeError, LookupError, AttributeError, RecursionError):
        return None


def _check(body: dict[str, Any]) -> str:
    """A digest of what matters in a file: its name and its numbers."""
    numbers = [body["figures"], body["seconds"], body["error"]]
    return digest(body["format"], body["name"], json.dumps(numbers))


def _open_without_waiting(path: str, flags: int) -> int:
    # Opening a pipe otherwise waits for somebody to write into it.
    return os.open(path, flags | os.O_NONBLOCK | os.O_CLOEXEC)
