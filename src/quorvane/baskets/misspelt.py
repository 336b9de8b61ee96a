"""Keyword arguments that nobody knows: refused, with the nearest name."""

from __future__ import annotations

import difflib
import functools
import inspect
from collections.abc import Callable
from typing import Any, ParamSpec, TypeVar

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
            near = difflib.get_close_matches(name, known, n=1, cutoff=0.4)
            hint = f"did you mean {near[0]!r}?" if near else f"known are {', '.join(known)}"
            raise TypeError(f"{_shown(function)}() has no argument {name!r}; {hint}")
        return function(*args, **keywords)

    return checked


def _shown(function: Callable[..., Any]) -> str:
    return function.__qualname__.removesuffix(".__init__")
