"""What all configurations of a sweep have in common, which goes to each worker once."""

from __future__ import annotations

import importlib
import os
import pickle
import tempfile
from collections.abc import Hashable, Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane import __version__
from quorvane.sweeping.own_functions import OwnFunction
from quorvane.sweeping.plain_values import plain
from quorvane.sweeping.scores import Score
from quorvane.tables import read_table

Job = tuple[int, ...]
"""A configuration: for each argument of a sweep, in order, the number of its choice."""


@dataclass(frozen=True, eq=False)
class Data:
    """A table in a form of its own, whichever library it came from.

    Attributes
    ----------
    matrix : ndarray of float64, days x instruments
        Not to be written to.
    instruments : tuple
        Plain names of the columns.
    days : ndarray of datetime64[ns], list or None
        The dates, else plain labels, else nothing but the order.
    is_utc : bool
        Whether the dates are in UTC.
    """

    matrix: NDArray[np.float64]
    instruments: tuple[Hashable, ...]
    days: NDArray[np.datetime64] | list[Any] | None
    is_utc: bool

    def frame(self) -> Any:
        """The table as a frame of pandas, on the same memory."""
        pandas = importlib.import_module("pandas")
        index: Any = self.days
        if isinstance(index, np.ndarray):
            index = pandas.DatetimeIndex(index, tz="UTC" if self.is_utc else None)
        elif index is not None:
            index = pandas.Index(index, tupleize_cols=False)
        columns = pandas.Index(list(self.instruments), tupleize_cols=False)
        return pandas.DataFrame(self.matrix, index=index, columns=columns, copy=False)


@dataclass(frozen=True, eq=False)
class Shared:
    """All that workers have to know before they can take jobs.

    Attributes
    ----------
    data : Data
    choices : dict
        By argument its plain values, in the order of a job.
    functions : dict
        The functions of one's own that expressions may name.
    score : Score
    version : str
        Of the package that made it.
    """

    data: Data
    choices: dict[str, tuple[Any, ...]]
    functions: dict[str, OwnFunction]
    score: Score
    version: str = __version__


def data_of(table: Any, date: Any) -> Data:
    """Read a table of any kind; TypeError or ValueError where it is none.

    Numbers that are infinite are refused where a configuration needs them, as `Baskets.run` does.
    """
    read = read_table(table, date=date, argument="data")
    names = tuple(range(read.width)) if read.names is None else read.names
    matrix = read.matrix(names, used=np.zeros(len(names), dtype=bool))
    days: Any = read.dates
    if days is None and read.kind == "pandas":
        is_plain = type(table.index).__name__ == "RangeIndex"
        days = None if is_plain else plain(table.index.tolist(), "data: its index")
    instruments = tuple(plain(name, "data: the name of a column") for name in names)
    return Data(_unwritable(matrix), instruments, days, read.is_utc)


# ---- as files that workers map into their memory ---------------------------------------------

_NUMBERS, _REST = "data.npy", "rest.pickle"


@contextmanager
def as_files(shared: Shared) -> Iterator[Path]:
    """A folder that nobody else can enter, with all of it; gone at the end."""
    with tempfile.TemporaryDirectory(prefix="quorvane-sweep-") as folder:
        path = Path(folder)
        np.save(path / _NUMBERS, shared.data.matrix)
        rest = replace(shared, data=replace(shared.data, matrix=np.empty((0, 0))))
        (path / _REST).write_bytes(pickle.dumps(rest))
        yield path


@contextmanager
def as_open_files(shared: Shared) -> Iterator[tuple[int, int]]:
    """The descriptors of files with all of it, which have no name any more.

    So nothing of them stays behind, however this process and those that inherit them end.
    """
    with ExitStack() as closing:
        with as_files(shared) as folder:
            opened = [os.open(folder / name, os.O_RDONLY) for name in (_NUMBERS, _REST)]
            for descriptor in opened:
                closing.callback(os.close, descriptor)
        yield opened[0], opened[1]


def from_folder(folder: Path) -> Shared:
    """What `as_files` wrote; the numbers are those of the file, and no copy."""
    return _from(folder / _NUMBERS, folder / _REST)


def from_open_files(numbers: int, rest: int) -> Shared:
    """What `as_open_files` wrote, in a process that has inherited the descriptors."""
    return _from(Path(f"/dev/fd/{numbers}"), Path(f"/dev/fd/{rest}"))


def _from(numbers: Path, others: Path) -> Shared:
    matrix = np.load(numbers, mmap_mode="r")
    rest: Shared = pickle.loads(others.read_bytes())
    return replace(rest, data=replace(rest.data, matrix=_unwritable(np.asarray(matrix))))


def _unwritable(matrix: NDArray[np.float64]) -> NDArray[np.float64]:
    view = matrix.view()
    view.flags.writeable = False
    return view
