"""Keyword arguments that nobody knows: refused, with the nearest name."""

from __future__ import annotations

import functools
import inspect
from collections.abc import Callable
from typing import Any, ParamSpec, TypeVar

from quorvane.hints import did_you_mean

P = ParamSpec("P")
R = TypeVar("R")


def refusing_misspelt(function: Callable[P, R]) -> Callable[P, R]:
    """The function, whose TypeError for an unknown keyword argument suggests one that it has."""
    parameters = inspect.signature(function).parameters.values()
    known = [p.name for p in parameters if p.kind is p.KEYWORD_ONLY]
    allowed = {p.name for p in parameters}

    @functools.wraps(function)
    def checked(*args: P.args, **keywords: P.kwargs) -> R:
        for name in keywords.keys() - allowed:
            hint = did_you_mean(name, known, cutoff=0.4) or f"known are {', '.join(known)}"
            raise TypeError(f"{_shown(function)}() has no argument {name!r}; {hint}")
        return function(*args, **keywords)

    return checked


def _shown(function: Callable[..., Any]) -> str:
    return function.__qualname__.removesuffix(".__init__")
