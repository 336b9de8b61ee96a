"""Passwords that stand in an argument, whatever it was an argument of."""

from __future__ import annotations

import re

# What follows a user's name up to the last "@" of the word: the password may hold others. A path
# has but one slash left of two.
_IN_URL = re.compile(r"(\b[a-z][a-z0-9+.-]*:/{1,2}[^\s:/@]*):\S*@", re.IGNORECASE)
_AS_VALUE = re.compile(
    r"(\b(?:ssl)?password\s*=\s*)(?:'(?:\\.|[^'\\])*'|(?:\\.|[^\s&'])+)", re.IGNORECASE
)


def without_passwords(text: str) -> str:
    """``text`` with three stars for every password in a URL or in ``password=...``."""
    return _AS_VALUE.sub(r"\1***", _IN_URL.sub(r"\1:***@", text))
