"""What was probably meant, for messages."""

from __future__ import annotations

import difflib
from collections.abc import Iterable


def did_you_mean(name: str, known: Iterable[str], *, cutoff: float = 0.6) -> str:
    """The nearest known name as a question; empty where none is near."""
    near = difflib.get_close_matches(name, list(known), n=1, cutoff=cutoff)
    return f"did you mean {near[0]!r}?" if near else ""
