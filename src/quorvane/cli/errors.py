"""Errors that a person can mend, shown as one line and never as a traceback."""

from __future__ import annotations

import difflib
from collections.abc import Iterable


class CommandError(Exception):
    """A failure with a text for the user; ``exit_status`` is the command's exit status."""

    exit_status = 1


class DataError(CommandError):
    """A file cannot be read or written, or does not hold what was expected."""


class UsageError(CommandError):
    """The options do not make sense, whatever the files hold."""

    exit_status = 2


def did_you_mean(name: str, names: Iterable[str]) -> str:
    """A clause that offers the nearest of ``names``, or nothing when none is near."""
    close = difflib.get_close_matches(name, names, n=3)
    return f"; did you mean {' or '.join(map(repr, close))}?" if close else ""
