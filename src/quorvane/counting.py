"""Numbers of things."""

from __future__ import annotations


def counted(number: int, what: str) -> str:
    """A number of things, one of which is no plural."""
    return f"{number:,} {what}" if number == 1 else f"{number:,} {what}s"
