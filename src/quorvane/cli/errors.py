"""Errors that a person can mend, shown as one line and never as a traceback."""

from __future__ import annotations

import difflib
import re
import reprlib
from collections.abc import Collection
from typing import Any

_MAX_OFFERED_FROM = 5000
"""Names among which a near one is looked for; among a million it would take half a minute."""

_CONTROL = re.compile("[\x00-\x1f\x7f-\x9f\u2028\u2029]")

_SHORT = reprlib.Repr()
_SHORT.maxstring = _SHORT.maxother = _SHORT.maxlong = 100


def one_line(text: str) -> str:
    """``text`` with its control characters, line ends among them, shown as escapes."""
    return _CONTROL.sub(lambda found: repr(found.group())[1:-1], text)


class CommandError(Exception):
    """A failure with a text for the user; ``exit_status`` is the command's exit status."""

    exit_status = 1

    def __str__(self) -> str:
        """One line, whatever a path or a library's message holds."""
        return one_line(super().__str__())


class DataError(CommandError):
    """A file cannot be read or written, or does not hold what was expected."""


class UsageError(CommandError):
    """The options do not make sense, whatever the files hold."""

    exit_status = 2


def shown(value: Any) -> str:
    """``repr(value)`` for an error text, with the middle left out when it is long."""
    try:
        return _SHORT.repr(value)
    except ValueError:  # Python refuses to write out an integer of thousands of digits.
        return f"a {type(value).__name__} that is too long to show"


def reason(error: object) -> str:
    """What a library says, for an error text, with the middle left out when it is long."""
    text = str(error) or type(error).__name__
    return text if len(text) <= 300 else f"{text[:200]} ... {text[-95:]}"


def did_you_mean(name: str, names: Collection[str]) -> str:
    """A clause that offers the nearest of ``names``, or nothing when none is near."""
    if len(names) > _MAX_OFFERED_FROM:
        return ""
    close = difflib.get_close_matches(name, sorted(names), n=3)
    return f"; did you mean {' or '.join(map(shown, close))}?" if close else ""
