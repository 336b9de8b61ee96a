"""How files and options write for how long a structure goes on speaking."""

from __future__ import annotations

from typing import Any

FOREVER = "forever"
"""What stands for a hold of None, for which neither has a word."""


def hold_of(written: Any) -> Any:
    """The hold that is meant; anything else stays as it is, to be looked at where it is used."""
    return None if written == FOREVER else written


def written_hold(hold: Any) -> Any:
    """The same back."""
    return FOREVER if hold is None else hold
