"""What the records of a checkpoint must look like.

A store vouches that a record is what somebody wrote, not that this command did. So each is looked
through before it is used, and what makes no sense is said in one line.
"""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

IDENTITY_FIELDS = frozenset({"instruments", "structures", "values", "dates", "labels"})
"""What a run is known by besides its options, each as a digest."""

IDENTITY_OPTIONS = frozenset(
    {"input", "expression", "functions", "policy", "hold", "changes-only", "max-structures"}
    | {"plot", "trace"}
)
"""The options that change what a run computes or keeps."""

_OPTION_TYPES = frozenset({str, bool, int, float})


class ContentsError(Exception):
    """A record of a checkpoint makes no sense; the text says what about it."""


@dataclass(frozen=True)
class Head:
    """The record that says how far a run has come.

    Attributes
    ----------
    run : str
        Token of the run, which its rows bear as well.
    next_day : int
        The day to go on with.
    identity : Mapping
        What the run was made with; see `RunIdentity.upto`.
    records : int
        How many records of rows there are.
    rotation : object
        The rotation's state, which the rotation itself checks.
    about : Mapping
        What a person wants to know of the run; see `RunIdentity.about`.
    """

    run: str
    next_day: int
    identity: Mapping[str, Any]
    records: int
    rotation: Any
    about: Mapping[str, Any]


def format_of(record: Any) -> int:
    """The format number of a head, whose other contents are that format's affair."""
    _require(type(record) is dict and type(record.get("format")) is int, "its head has no format")
    number: int = record["format"]
    return number


def head_from(record: Any) -> Head:
    """The head in ``record``; ContentsError where it makes no sense."""
    fields = {"format", "next_day", "run", "identity", "records", "rotation", "about"}
    _require(type(record) is dict and record.keys() == fields, "its head has other fields")
    head = Head(**{name: record[name] for name in fields - {"format"}})
    _require(type(head.run) is str, "its run has no token")
    _require(type(head.next_day) is int and head.next_day >= 0, "its day is no day number")
    _require(type(head.records) is int and head.records >= 0, "its number of records is none")
    _require_identity(head.identity)
    about = head.about
    _require(type(about) is dict, "it does not say what run it is of")
    _require(all(type(value) in (str, int) for value in about.values()), "its run has odd words")
    return head


def _require_identity(stored: Any) -> None:
    what = "it does not say what it was made with"
    _require(type(stored) is dict and stored.keys() == IDENTITY_FIELDS | {"options"}, what)
    options = stored["options"]
    _require(type(options) is dict and options.keys() == IDENTITY_OPTIONS, what)
    _require(all(type(value) in _OPTION_TYPES for value in options.values()), what)
    _require(all(type(stored[name]) is str for name in IDENTITY_FIELDS), what)


def rows_from(
    record: Any, head: Head, first: int, into: Mapping[str, NDArray[Any]]
) -> tuple[int, dict[str, NDArray[Any]]]:
    """The day after the rows in ``record``, and the rows by array, the first of day ``first``."""
    fields = {"run", "first", "last", "arrays"}
    _require(type(record) is dict and record.keys() == fields, "its rows have other fields")
    _require(_equal(record["run"], head.run), "some of its rows are of another run")
    last, arrays = record["last"], record["arrays"]
    _require(
        _equal(record["first"], first) and type(last) is int and first < last <= head.next_day,
        f"the rows of day {first} are not there",
    )
    _require(type(arrays) is dict and arrays.keys() == into.keys(), "its rows are of other arrays")
    for name, array in into.items():
        rows = arrays[name]
        _require(
            type(rows) is np.ndarray
            and rows.dtype == array.dtype
            and rows.shape == (last - first, *array.shape[1:]),
            f"its rows of {name} do not fit",
        )
    return last, arrays


def require_all_rows(head: Head, filled: int) -> None:
    """Refuse rows that end before the day to go on with."""
    _require(filled == head.next_day, f"the rows of day {filled} are not there")


def _equal(stored: Any, expected: Any) -> bool:
    # An array in place of a number would compare item by item.
    return type(stored) is type(expected) and bool(stored == expected)


def _require(holds: bool, what: str) -> None:
    if not holds:
        raise ContentsError(what)
