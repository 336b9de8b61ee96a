"""Rotations by name, for whoever builds them from a text."""

from __future__ import annotations

import difflib
import importlib
from collections.abc import Callable
from typing import Any, ClassVar

__all__ = ["StaticFunctionRegistry"]

# Module and class of each rotation that the package brings along. They are imported when one is
# asked for: whoever needs no child pays for none.
_READY_MADE = {
    "latitudinal_normalize_092871": (
        "quorvane.functions.rotations.latitudinal.normalize",
        "ZScore",
    ),
    "latitudinal_rank_688068": ("quorvane.functions.rotations.latitudinal.rank", "Rank"),
    "longitudinal_ewma_67301c": ("quorvane.functions.rotations.longitudinal.ewma", "Ewma"),
    "numerical_transcendental_2f4f61": (
        "quorvane.functions.rotations.numerical.transcendental",
        "Transcendental",
    ),
}


class StaticFunctionRegistry:
    """Makes rotations from their registered names, all for one number of columns.

    Parameters
    ----------
    N_alloc : int or None
        The number of columns that every rotation is allocated for, a positive int; with None
        their buffers grow with the days.

    Raises
    ------
    TypeError
        N_alloc is neither None nor an int, or is a bool.
    ValueError
        N_alloc is not positive.
    """

    _registered: ClassVar[dict[str, Callable[..., Any]]] = {}

    def __init__(self, *, N_alloc: int | None) -> None:
        _check_allocation(N_alloc)
        self._n_alloc = N_alloc

    def __repr__(self) -> str:
        return f"StaticFunctionRegistry(N_alloc={self._n_alloc})"

    def create_instance(self, name: str, /, **params: Any) -> Any:
        """Make a new rotation.

        Parameters
        ----------
        name : str
            A registered name.
        **params
            Keywords of the rotation itself, such as ``window=20``. N_alloc is added to them.

        Returns
        -------
        object
            What the registered factory returns for ``factory(N_alloc=..., **params)``. Its errors
            propagate.

        Raises
        ------
        TypeError
            The name is not a str.
        LookupError
            Nothing is registered under the name; the text lists the nearest names.
        """
        return self._factory(name)(N_alloc=self._n_alloc, **params)

    @classmethod
    def names(cls) -> list[str]:
        """Return all registered names, sorted."""
        return sorted([*_READY_MADE, *cls._registered])

    @classmethod
    def register(cls, name: str, factory: Callable[..., Any]) -> None:
        """Register a rotation of one's own, for all registries.

        Registering a name again replaces its factory, so that a notebook's cell can be run twice.

        Parameters
        ----------
        name : str
            The name, not empty and not that of a rotation of this package.
        factory : callable
            Usually the class; called with N_alloc and the parameters as keywords.

        Raises
        ------
        TypeError
            The name is not a str or the factory cannot be called.
        ValueError
            The name is empty, or is one of the package's own.
        """
        if not isinstance(name, str):
            raise TypeError(f"name must be a str, got {name!r} of type {type(name).__name__}")
        if not name or name in _READY_MADE:
            raise ValueError(
                f"name must not be empty or a name of this package's own rotations, got {name!r}"
            )
        if not callable(factory):
            raise TypeError(f"factory must be callable, got {factory!r}")
        cls._registered[name] = factory

    @classmethod
    def _factory(cls, name: str) -> Callable[..., Any]:
        if not isinstance(name, str):
            raise TypeError(f"name must be a str, got {name!r} of type {type(name).__name__}")
        if name in cls._registered:
            return cls._registered[name]
        if name in _READY_MADE:
            module, class_name = _READY_MADE[name]
            factory: Callable[..., Any] = getattr(importlib.import_module(module), class_name)
            return factory
        raise LookupError(f"no rotation is registered as {name!r}; {cls._nearest(name)}")

    @classmethod
    def _nearest(cls, name: str) -> str:
        known = cls.names()
        near = difflib.get_close_matches(str(name), known, n=3, cutoff=0.4)
        if near:
            return f"the nearest names are {', '.join(near)}"
        return f"the names are {', '.join(known)}"


def _check_allocation(N_alloc: object) -> None:
    text = f"N_alloc must be None or a positive int, got {N_alloc!r}"
    if N_alloc is None:
        return
    if not isinstance(N_alloc, int) or isinstance(N_alloc, bool):
        raise TypeError(f"{text} of type {type(N_alloc).__name__}")
    if N_alloc <= 0:
        raise ValueError(text)
