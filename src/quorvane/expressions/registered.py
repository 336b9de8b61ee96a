"""Functions of one's own, by name."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from typing import Any, TypeVar, overload

from quorvane.expressions.grammar import IDENTITIES, is_name
from quorvane.expressions.own_classes import OwnClass
from quorvane.expressions.plain_functions import PlainFunction
from quorvane.expressions.ready_made import ALIASES, READY_MADE

F = TypeVar("F", bound=Callable[..., Any])

FUNCTIONS: dict[str, Callable[..., Any]] = {}


@overload
def register(name: str) -> Callable[[F], F]: ...
@overload
def register(name: str, function: F) -> F: ...
def register(name: str, function: F | None = None) -> F | Callable[[F], F]:
    """Let expressions know a function of one's own; ``@qv.register("name")`` does so too.

    A class is made with ``N_alloc``, the number of slots, and the expression's arguments as
    keywords, and called as ``rotation(values, context=None)`` on each day: a float64 array with a
    number per slot, NaN where there is none, and the same back. One that remembers days has
    ``get_state()``, ``set_state(state)``, ``resize(N_alloc)`` and ``forget(slots)``; one that does
    not says ``stateful = False``.

    Anything else is called as ``function(values, state, **arguments)`` and returns new values and
    the new state: None before the first day, and then None or a dict of arrays with a number per
    slot, which become float64; NaN for a slot that was forgotten or is new.

    Parameters
    ----------
    name : str
        A name in lower case letters, digits and underscores; others are made lower case.
        Registering it again replaces the function, so that a notebook's cell can be run twice;
        baskets that are there already keep the one that they were made with.
    function : class or callable
        Its parameters are those of the expression, by position or by name.

    Returns
    -------
    function
        Itself.

    Raises
    ------
    TypeError
        The name is not a str, or the function cannot be called as it would be.
    ValueError
        The name is none, or one of the catalogue's own.

    Examples
    --------
    >>> import numpy as np
    >>> import quorvane as qv
    >>> @qv.register("halved")
    ... def halved(values, state, times=1):
    ...     return values / 2**times, state
    >>> qv.Baskets(None, "halved(times=2)").run(np.array([[4.0, 8.0]]))
    array([[1., 2.]])
    """
    if not isinstance(name, str):
        raise TypeError(f"name must be a str, got {name!r}")
    key = name.lower()
    if not is_name(name):
        raise ValueError(f"name must be letters, digits and underscores, got {name!r}")
    if key in READY_MADE or key in ALIASES or key in IDENTITIES:
        raise ValueError(f"name: {key!r} is the catalogue's own and cannot be replaced")
    if function is None:
        return lambda given: register(key, given)
    if not callable(function):
        raise TypeError(f"function must be a class or a callable, got {function!r}")
    taken_by(function)
    FUNCTIONS[key] = function
    return function


def make(
    name: str, function: Callable[..., Any], arguments: dict[str, Any], slots: int
) -> OwnClass | PlainFunction:
    """A new rotation for so many slots; TypeError where the function cannot be called so."""
    is_class = inspect.isclass(function)
    if is_class:
        return OwnClass(name, function(N_alloc=slots, **arguments))
    signature = _signature_of(function)
    if signature is not None:
        # Now, not on the first day.
        signature.bind(None, None, **arguments)
    return PlainFunction(name, function, arguments, slots)


def taken_by(function: Callable[..., Any]) -> list[inspect.Parameter]:
    """The parameters that an expression gives: without those that are given by us.

    Raises
    ------
    TypeError
        The function does not take what is given by us, or does not take the others by name.
    """
    signature = _signature_of(function)
    if signature is None:
        return [inspect.Parameter("arguments", inspect.Parameter.VAR_KEYWORD)]
    parameters = list(signature.parameters.values())
    if inspect.isclass(function):
        given = ["N_alloc"]
        own = [each for each in parameters if each.name != "N_alloc"]
        takes_them = _takes(signature, N_alloc=1)
    else:
        given = ["values", "state"]
        by_position = [p for p in parameters if p.kind in (p.POSITIONAL_ONLY, _BY_BOTH)]
        own = [p for p in parameters if not any(p is each for each in by_position[:2])]
        takes_them = _takes(signature, None, None)
    taken = [each for each in own if each.kind is not each.VAR_POSITIONAL]
    if not takes_them:
        raise TypeError(f"function must take {' and '.join(given)}, got one of {signature}")
    for each in taken:
        if each.kind is each.POSITIONAL_ONLY:
            raise TypeError(f"function must take {each.name!r} by name, got one of {signature}")
    return taken


def path_of(function: Any) -> str:
    """The module and the qualified name of a class or a function, or of the class of another."""
    named = function if hasattr(function, "__qualname__") else type(function)
    return f"{named.__module__}.{named.__qualname__}"


_BY_BOTH = inspect.Parameter.POSITIONAL_OR_KEYWORD


def _signature_of(function: Callable[..., Any]) -> inspect.Signature | None:
    """None where Python does not know it, as of some functions of C."""
    try:
        return inspect.signature(function)
    except (TypeError, ValueError):
        return None


def _takes(signature: inspect.Signature, *positional: Any, **keywords: Any) -> bool:
    try:
        signature.bind_partial(*positional, **keywords)
    except TypeError:
        return False
    return True
