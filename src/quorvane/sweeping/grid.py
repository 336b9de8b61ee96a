"""What is to be tried: every combination of lists, or a list of configurations."""

from __future__ import annotations

import inspect
import itertools
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any

from quorvane.baskets.front import Baskets
from quorvane.baskets.weights import mapping_of_frame
from quorvane.hints import did_you_mean
from quorvane.sweeping.plain_values import plain, spelled
from quorvane.tables.reading import frame_kind

_PARAMETERS = {
    name: parameter
    for name, parameter in inspect.signature(Baskets).parameters.items()
    if name != "self"
}
REQUIRED = tuple(n for n, p in _PARAMETERS.items() if p.default is inspect.Parameter.empty)
DEFAULTS = {n: p.default for n, p in _PARAMETERS.items() if n not in REQUIRED}

# Arguments that are mappings themselves: given by label, or a configuration could not be told.
_BY_LABEL = ("weights", "labels")


@dataclass(frozen=True)
class Choice:
    """One of the values of an argument.

    Attributes
    ----------
    shown : object
        What the table says: the label, or the value itself.
    value : object
        Plain.
    fault : str
        Why it can be no value, which is the error of every configuration that has it.
    """

    shown: Any
    value: Any
    fault: str = ""


@dataclass(frozen=True)
class Grid:
    """Configurations of `Baskets`.

    Attributes
    ----------
    choices : dict
        By argument, in the order of the table's columns.
    configurations : list of tuples
        For each argument the number of its choice.
    """

    choices: dict[str, list[Choice]]
    configurations: list[tuple[int, ...]]


def grid_of(grid: Any) -> Grid:
    """Read a grid: lists by argument, the first one the slowest to change, or a list of dicts.

    Raises
    ------
    TypeError
        It is neither, an argument is unknown, or a value is of no plain type.
    ValueError
        There is no configuration, an argument has no values, or ``weights`` or ``expression`` is
        not there.
    """
    if isinstance(grid, Mapping):
        _check_names(grid, "grid")
        choices = {name: _choices(name, values) for name, values in grid.items()}
        numbers = [range(len(values)) for values in choices.values()]
        return Grid(choices, list(itertools.product(*numbers)))
    if isinstance(grid, (str, bytes)) or not isinstance(grid, Iterable):
        raise TypeError(
            "grid must be a mapping {argument: list of values} or a list of mappings, "
            f"got {grid!r}"
        )
    return _listed(list(grid))


def _listed(rows: list[Any]) -> Grid:
    """The grid of a list of mappings; what one of them leaves out is the argument's default."""
    if not rows:
        raise ValueError("grid must hold at least one configuration")
    for number, row in enumerate(rows):
        if not isinstance(row, Mapping):
            raise TypeError(f"grid[{number}] must be a mapping {{argument: value}}, got {row!r}")
        _check_names(row, f"grid[{number}]")
    names = list(dict.fromkeys(name for row in rows for name in row))
    choices: dict[str, list[Choice]] = {name: [] for name in names}
    seen: dict[tuple[str, str], int] = {}
    configurations = []
    for number, row in enumerate(rows):
        places = []
        for name in names:
            choice = _single(name, row, f"grid[{number}]")
            key = (name, repr([spelled(choice.shown), spelled(choice.value), choice.fault]))
            if key not in seen:
                seen[key] = len(choices[name])
                choices[name].append(choice)
            places.append(seen[key])
        configurations.append(tuple(places))
    return Grid(choices, configurations)


def _single(name: str, row: Mapping[str, Any], where: str) -> Choice:
    if name not in row:
        return Choice(DEFAULTS[name], DEFAULTS[name])
    value = row[name]
    if not isinstance(value, Mapping):
        return _choice(name, value, f"{where}: {name}")
    found = _labelled(name, value, f"{where}: {name}")
    if len(found) != 1:
        raise ValueError(f"{where}: {name} must be {{label: one value}}, got {len(found)} labels")
    return found[0]


def _choices(name: str, values: Any) -> list[Choice]:
    where = f"grid: {name}"
    if isinstance(values, Mapping):
        found = _labelled(name, values, where)
    elif isinstance(values, (str, bytes)) or frame_kind(values, where) is not None:
        raise TypeError(f"{where} must be a list of values or {{label: value}}, {_shown(values)}")
    elif not isinstance(values, Iterable):
        raise TypeError(f"{where} must be a list of values or {{label: value}}, got {values!r}")
    else:
        found = [_choice(name, value, where) for value in values]
    if not found:
        raise ValueError(f"{where} must hold at least one value")
    return found


def _labelled(name: str, values: Mapping[Any, Any], where: str) -> list[Choice]:
    for label, value in values.items():
        if not isinstance(label, str) or not label:
            raise TypeError(f"{where}: a label must be a text that is not empty, got {label!r}")
        if name in _BY_LABEL and _lacks_label(value):
            raise TypeError(
                f"{where} must be {{label: {name}}}, got the {name} themselves; "
                f"give them a label, {{'mine': {name}}}"
            )
    return [_with_label(name, label, value, where) for label, value in values.items()]


def _lacks_label(value: Any) -> bool:
    """Whether a mapping's values are numbers or texts where one by label has mappings."""
    return (
        isinstance(value, Mapping)
        and len(value) > 0
        and not any(isinstance(item, Mapping) for item in value.values())
    )


def _with_label(name: str, label: str, value: Any, where: str) -> Choice:
    where = f"{where}: {label!r}"
    if name == "weights" and frame_kind(value, where) is not None:
        try:
            return Choice(label, plain(mapping_of_frame(value), where))
        except (TypeError, ValueError) as error:
            return Choice(label, None, f"{type(error).__name__}: {error}")
    return Choice(label, plain(value, where))


def _choice(name: str, value: Any, where: str) -> Choice:
    if name in _BY_LABEL and value is not None:
        raise TypeError(f"{where} must be {{label: {name}}} or None, {_shown(value)}")
    made = plain(value, where)
    return Choice(tuple(made) if isinstance(made, list) else made, made)


def _check_names(row: Mapping[Any, Any], where: str) -> None:
    for name in row:
        if name not in _PARAMETERS:
            known = f"known are {', '.join(_PARAMETERS)}"
            hint = did_you_mean(name, _PARAMETERS, cutoff=0.4) if isinstance(name, str) else ""
            raise TypeError(f"{where}: Baskets has no argument {name!r}; {hint or known}")
    missing = [name for name in REQUIRED if name not in row]
    if missing:
        way = "{label: weights}, or [None] for each column as a basket of its own"
        hint = way if missing[0] == "weights" else "a list of texts such as ['ewma(20);rank']"
        raise ValueError(f"{where} has no {missing[0]!r}: give {hint}")


def _shown(value: Any) -> str:
    return f"got {value!r}" if isinstance(value, (str, bytes)) else f"got {type(value).__name__}"
