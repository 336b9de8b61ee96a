"""Every configuration of a grid over one table, as a table."""

from __future__ import annotations

import importlib
import os
from collections.abc import Generator, Sequence
from concurrent.futures import Executor
from contextlib import closing
from typing import Any

from quorvane.baskets.progress import progress_bar
from quorvane.sweeping.clusters import in_cluster, is_client
from quorvane.sweeping.executors import in_executor
from quorvane.sweeping.outcome import Outcome
from quorvane.sweeping.plan import Plan, plan_of
from quorvane.sweeping.processes import Numbered, in_processes
from quorvane.sweeping.results import Results


def sweep(
    data: Any,
    grid: Any,
    score: Any = None,
    executor: Any = None,
    out: str | os.PathLike[str] | None = None,
    *,
    date: Any = None,
) -> Any:
    """Run baskets in every configuration of a grid over one table, and say how each does.

    A configuration that fails is a row with its error; the others go on. The numbers are the same,
    to the bit, whoever computes them.

    Parameters
    ----------
    data : frame of pandas, polars or pyarrow, or array_like of days x instruments
        What `Baskets.run` gets, and what its signal is judged by.
    grid : mapping or list of mappings
        ``{argument of Baskets: list of values}`` for all combinations, the last argument changing
        first; or the configurations one by one. Any argument may be ``{label: value}`` instead of
        a list, ``weights`` and ``labels`` have to be (but for None): the table shows the label.
    score : mapping or function, optional
        Arguments of `evaluate`, whose summary gives the figures, ``ic_mean_5`` for ``ic_mean`` of
        the horizon 5; or ``function(signal, data)``, of frames of pandas, that returns figures by
        name.
    executor : concurrent.futures.Executor or dask.distributed.Client, optional
        Who computes; by default as many processes as there are cores. A worker uses one thread.
    out : path, optional
        A folder that keeps each result, so that another run computes only what is missing.
    date : column name or dates, optional
        As of `Baskets.run`.

    Returns
    -------
    pandas.DataFrame
        A row per configuration in the order of the grid: the arguments, the figures, ``seconds``,
        and ``error``, empty where there is none.

    Raises
    ------
    TypeError, ValueError
        An argument is of the wrong type or unknown, or the table is none.
    ImportError
        pandas is not there.
    StoreError
        The folder cannot be used; what is in it stays.

    Notes
    -----
    Functions of one's own, registered ones and the score, are imported by their path in each
    worker; an expression with one that cannot be imported there is that row's error.

    Examples
    --------
    >>> import numpy as np
    >>> import quorvane as qv
    >>> returns = np.random.default_rng(0).normal(size=(250, 30))
    >>> grid = {"weights": [None], "expression": ["ewma(3)", "ewma(9)", "emwa(9)"]}
    >>> found = qv.sweep(returns, grid, score={"horizons": [1]})
    >>> found["days_1"].tolist()
    [249.0, 249.0, nan]
    >>> found["error"][2]
    "ValueError: expression: there is no function 'emwa'; did you mean 'ewma'?"
    """
    _pandas()
    engine = _engine_of(executor)
    plan = plan_of(data, grid, score, date)
    results = None if out is None else Results(out)
    outcomes, names = dict(plan.faults), dict[int, str]()
    if results is not None:
        for number, job in enumerate(plan.jobs):
            if number not in outcomes:
                names[number] = plan.name_of(job)
                known = results.get(names[number])
                if known is not None:
                    outcomes[number] = known
    todo = [(number, job) for number, job in enumerate(plan.jobs) if number not in outcomes]
    if todo:
        with progress_bar("sweep", "configuration") as tell, closing(engine(plan, todo)) as found:
            for done, (number, outcome) in enumerate(found, start=1):
                outcomes[number] = outcome
                # An error may be mended until the next time.
                if results is not None and not outcome.error:
                    results.put(names[number], outcome, plan.shown(plan.jobs[number]))
                if tell is not None:
                    tell(done, len(todo))
    return _table(plan, [outcomes[number] for number in range(len(plan.jobs))])


def _engine_of(executor: Any) -> Any:
    """Who computes: a function of a plan and jobs that gives outcomes by number as they come."""

    def engine(plan: Plan, jobs: Sequence[Numbered]) -> Generator[tuple[int, Outcome], None, None]:
        if executor is None:
            yield from in_processes(plan.shared, jobs)
        elif is_client(executor):
            yield from in_cluster(plan.shared, jobs, executor)
        else:
            yield from in_executor(plan.shared, jobs, executor)

    if executor is None or is_client(executor) or isinstance(executor, Executor):
        return engine
    raise TypeError(
        "executor must be a concurrent.futures.Executor, a dask.distributed.Client or None, "
        f"got {executor!r}"
    )


def _table(plan: Plan, outcomes: list[Outcome]) -> Any:
    frame = _pandas().DataFrame
    shown = [plan.shown(job) for job in plan.jobs]
    columns = {name: _arguments([row[name] for row in shown]) for name in plan.grid.choices}
    for name in dict.fromkeys(name for each in outcomes for name in each.figures):
        columns[name] = [each.figures.get(name, float("nan")) for each in outcomes]
    columns["seconds"] = [each.seconds for each in outcomes]
    columns["error"] = [each.error for each in outcomes]
    return frame(columns)


def _arguments(values: list[Any]) -> Any:
    """A column of arguments as they are: None stays None, and 5 does not become 5.0."""
    if {type(value) for value in values} in ({int}, {float}, {str}, {bool}):
        return values
    column = _pandas().Series([None] * len(values), dtype=object)
    for row, value in enumerate(values):
        column.iat[row] = value
    return column


def _pandas() -> Any:
    try:
        return importlib.import_module("pandas")
    except ImportError as error:
        raise ImportError(
            "sweep() gives a frame of pandas: pip install 'quorvane[evaluation]'"
        ) from error
