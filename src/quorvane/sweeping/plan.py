"""A sweep before it begins: what workers get, what each configuration is, and what it is called."""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property
from typing import Any

from quorvane.expressions import recipes_of, registered
from quorvane.sweeping.bench import functions_in
from quorvane.sweeping.grid import DEFAULTS, REQUIRED, Grid, grid_of
from quorvane.sweeping.outcome import Outcome, error_text
from quorvane.sweeping.own_functions import OwnFunction, own_function
from quorvane.sweeping.plain_values import digest
from quorvane.sweeping.scores import Score, score_of
from quorvane.sweeping.shared import Data, Job, Shared, data_of


@dataclass(frozen=True)
class Plan:
    """The configurations of a sweep over data.

    Attributes
    ----------
    grid : Grid
    shared : Shared
        What workers get.
    faults : dict
        Of configurations that nobody has to compute, by number.
    """

    grid: Grid
    shared: Shared
    faults: dict[int, Outcome]

    @property
    def jobs(self) -> list[Job]:
        """The configurations, in order."""
        return self.grid.configurations

    def shown(self, job: Job) -> dict[str, Any]:
        """The arguments of a configuration, as the table shows them."""
        chosen = zip(self.grid.choices.items(), job, strict=True)
        return {name: choices[number].shown for (name, choices), number in chosen}

    def name_of(self, job: Job) -> str:
        """What a configuration computes, as a name: another one for anything else."""
        given = dict(zip(self.grid.choices, job, strict=True))
        whole = {name: self._values[name][given.get(name, -1)] for name in sorted(self._values)}
        expression = self.shared.choices["expression"][given["expression"]]
        own = functions_in(expression, self.shared.functions)
        functions = sorted((name, each.path, each.source) for name, each in own.items())
        return digest(self._common, whole, functions)

    @cached_property
    def _values(self) -> dict[str, list[str]]:
        """Digests of the choices of each argument of `Baskets`, its default behind them."""
        given, defaults = self.shared.choices, DEFAULTS
        return {
            name: [digest(value) for value in (*given.get(name, ()), defaults.get(name))]
            for name in (*REQUIRED, *defaults)
        }

    @cached_property
    def _common(self) -> str:
        """What all configurations compute with."""
        shared = self.shared
        data, function = shared.data, shared.score.function
        days = (
            data.days if isinstance(data.days, list) or data.days is None else data.days.tobytes()
        )
        return digest(
            shared.version,
            data.matrix.tobytes(),
            list(data.matrix.shape),
            list(data.instruments),
            days,
            data.is_utc,
            shared.score.arguments,
            None if function is None else [function.path, function.source],
        )


def plan_of(data: Any, grid: Any, score: Any, date: Any) -> Plan:
    """Read what a sweep is given; TypeError or ValueError where nothing could come of it."""
    read: Data = data_of(data, date)
    judged: Score = score_of(score)
    found = grid_of(grid)
    choices = {name: tuple(each.value for each in them) for name, them in found.choices.items()}
    functions = _functions(choices["expression"])
    shared = Shared(read, choices, functions, judged)
    return Plan(found, shared, _faults(found, shared))


def _functions(expressions: tuple[Any, ...]) -> dict[str, OwnFunction]:
    """The functions of one's own that any of the expressions names."""
    named: dict[str, OwnFunction] = {}
    for expression in expressions:
        if not _fault_of(expression):
            for recipe in recipes_of(expression):
                function = registered.FUNCTIONS.get(recipe.name)
                if function is recipe.function and recipe.name not in named:
                    named[recipe.name] = own_function(function)
    return named


def _faults(grid: Grid, shared: Shared) -> dict[int, Outcome]:
    faulty = {name: [each.fault for each in choices] for name, choices in grid.choices.items()}
    faulty["expression"] = [
        fault or _fault_of(value)
        for fault, value in zip(faulty["expression"], shared.choices["expression"], strict=True)
    ]
    found = {}
    for number, job in enumerate(grid.configurations):
        faults = [faulty[name][place] for name, place in zip(faulty, job, strict=True)]
        fault = next(filter(None, faults), "")
        if fault:
            found[number] = Outcome({}, 0.0, fault)
    return found


def _fault_of(expression: Any) -> str:
    """Why an expression is none; told here, where all names of one's own are known."""
    if not isinstance(expression, str):
        return f"TypeError: expression must be a str such as 'ewma(20);rank', got {expression!r}"
    try:
        recipes_of(expression)
    except Exception as error:
        return error_text(error)
    return ""
