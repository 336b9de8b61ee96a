"""Columns found by their names."""

from __future__ import annotations

from collections import Counter
from collections.abc import Collection, Hashable, Sequence
from difflib import get_close_matches
from itertools import islice

# Looking for near names among thousands takes long: the first few say enough.
_SUGGESTED = 5


def positions_of(
    wanted: Sequence[Hashable], names: Sequence[Hashable], argument: str, what: str = "column"
) -> list[int]:
    """The position of each wanted name among ``names``, each of them there exactly once."""
    place = dict(zip(names, range(len(names)), strict=True))
    missing = [name for name in wanted if name not in place]
    if missing:
        raise ValueError(f"{argument}: {_no_such(missing, names, what)}")
    if len(place) < len(names):
        counts = Counter(names)
        doubled = list(dict.fromkeys(name for name in wanted if counts[name] > 1))
        if doubled:
            raise ValueError(
                f"{argument}: {listed(doubled)} named more than once, allowed is one {what} each"
            )
    return [place[name] for name in wanted]


def listed(names: Collection[Hashable], *, most: int | None = None) -> str:
    """Write names one after the other; with ``most``, how many more there are."""
    shown = ", ".join(map(repr, islice(names, most)))
    return shown if most is None or len(names) <= most else f"{shown} and {len(names) - most} more"


def _no_such(missing: list[Hashable], names: Sequence[Hashable], what: str) -> str:
    texts = {str(name): name for name in names}
    near: dict[Hashable, None] = {}
    for name in missing[:_SUGGESTED]:
        close = get_close_matches(str(name), texts, n=2)
        near.update((texts[text], None) for text in close)
    plural = "s" if len(missing) > 1 else ""
    hint = f"; did you mean {listed(near)}?" if near else ""
    return f"no {what}{plural} {listed(missing)}{hint}"
