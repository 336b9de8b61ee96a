"""What expressions know, as a table to look at."""

from __future__ import annotations

import html
import inspect
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from typing import overload

from quorvane.expressions import registered
from quorvane.expressions.making import known_names, signature_of
from quorvane.expressions.ready_made import READY_MADE


@dataclass(frozen=True)
class Entry:
    """A function of expressions.

    Attributes
    ----------
    name : str
        As expressions name it.
    signature : str
        With its arguments and their defaults.
    summary : str
        What it does, in a line.
    """

    name: str
    signature: str
    summary: str


class Catalogue(Sequence[Entry]):
    """The functions of expressions, in order; shown as a table."""

    def __init__(self, entries: Sequence[Entry]) -> None:
        self._entries = tuple(entries)

    @overload
    def __getitem__(self, index: int) -> Entry: ...
    @overload
    def __getitem__(self, index: slice) -> Sequence[Entry]: ...
    def __getitem__(self, index: int | slice) -> Entry | Sequence[Entry]:
        """Return an entry, or some of them."""
        return self._entries[index]

    def __len__(self) -> int:
        """Return how many there are."""
        return len(self._entries)

    def __iter__(self) -> Iterator[Entry]:
        """Go through the entries."""
        return iter(self._entries)

    def __repr__(self) -> str:
        width = max((len(entry.signature) for entry in self), default=0)
        return "\n".join(f"{entry.signature:{width}}  {entry.summary}" for entry in self)

    def _repr_html_(self) -> str:
        rows = "".join(
            f"<tr><td style='text-align:left'><code>{html.escape(entry.signature)}</code></td>"
            f"<td style='text-align:left'>{html.escape(entry.summary)}</td></tr>"
            for entry in self
        )
        return f"<table>{rows}</table>"


def catalogue() -> Catalogue:
    """The functions that expressions know, those that are registered last.

    Examples
    --------
    >>> import quorvane as qv
    >>> [entry.name for entry in qv.catalogue()][:3]
    ['ewma', 'ewm_std', 'rolling_mean']
    """
    return Catalogue([_entry(name) for name in known_names()])


def _entry(name: str) -> Entry:
    function = READY_MADE.get(name) or registered.FUNCTIONS[name]
    lines = (inspect.getdoc(function) or "").splitlines()
    return Entry(name, f"{name}{signature_of(name)}", lines[0] if lines else "")
