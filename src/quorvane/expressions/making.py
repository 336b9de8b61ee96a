"""From the calls of an expression to rotations."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from quorvane.expressions import registered
from quorvane.expressions.grammar import Call, calls_of, short
from quorvane.expressions.places import Places
from quorvane.expressions.ready_made import ALIASES, READY_MADE
from quorvane.hints import did_you_mean


@dataclass(frozen=True)
class Made:
    """A function of an expression.

    Attributes
    ----------
    text : str
        As it was written.
    rotation : object
        What takes part in the chain.
    identity : str
        Which class or function it is, for comparing states.
    is_ready_made : bool
        Whether it is the package's own.
    """

    text: str
    rotation: Any
    identity: str
    is_ready_made: bool


@dataclass(frozen=True)
class Recipe:
    """How a function of an expression is made, again and again.

    Registering the name again changes nothing of it: what goes on, grows or begins anew stays the
    function that it was.
    """

    text: str
    name: str
    function: Callable[..., Any]
    arguments: dict[str, Any]

    def make(self, places: Places) -> Made:
        """A new one for the places; TypeError or ValueError for arguments that make no sense."""
        is_ready_made = self.function is READY_MADE.get(self.name)
        try:
            if is_ready_made:
                rotation = self.function(**self.arguments, places=places)
            else:
                rotation = registered.make(self.name, self.function, self.arguments, places.count)
        except (TypeError, ValueError) as error:
            kind = TypeError if isinstance(error, TypeError) else ValueError
            raise kind(f"expression: {short(self.text)}: {error}") from error
        identity = registered.path_of(type(rotation) if is_ready_made else self.function)
        return Made(self.text, rotation, identity, is_ready_made)


def recipes_of(expression: str) -> tuple[Recipe, ...]:
    """The functions of an expression; ValueError where it is malformed or names what is not known.

    Arguments that are out of range show when they are made.
    """
    return tuple(_recipe(call) for call in calls_of(expression))


def make_functions(expression: str, places: Places) -> list[Made]:
    """New functions of an expression for the places; TypeError or ValueError as it is checked."""
    return [recipe.make(places) for recipe in recipes_of(expression)]


def signature_of(name: str) -> inspect.Signature:
    """What a known function takes in an expression."""
    if name in READY_MADE:
        parameters = inspect.signature(READY_MADE[name]).parameters.values()
        taken = [each for each in parameters if each.name != "places"]
    else:
        taken = registered.taken_by(registered.FUNCTIONS[name])
    return inspect.Signature([each.replace(annotation=each.empty) for each in taken])


def known_names() -> list[str]:
    """The catalogue's names, and those that are registered."""
    return [*READY_MADE, *registered.FUNCTIONS]


def _recipe(call: Call) -> Recipe:
    name = ALIASES.get(call.name, call.name)
    function = READY_MADE.get(name) or registered.FUNCTIONS.get(name)
    if function is None:
        hint = did_you_mean(name, known_names()) or f"known are {', '.join(known_names())}"
        raise ValueError(f"expression: there is no function {short(call.name)}; {hint}")
    return Recipe(call.text, name, function, _bound(call, name))


def _bound(call: Call, name: str) -> dict[str, Any]:
    """The arguments by name; ValueError where the function takes no such."""
    signature = signature_of(name)
    takes_any = any(p.kind is p.VAR_KEYWORD for p in signature.parameters.values())
    for keyword in call.keywords:
        if keyword not in signature.parameters and not takes_any:
            hint = did_you_mean(keyword.lower(), signature.parameters) or f"it is {name}{signature}"
            text = f"expression: {short(call.text)} has no argument {short(keyword)}; {hint}"
            raise ValueError(text)
    try:
        bound = signature.bind(*call.positional, **call.keywords)
    except TypeError as error:
        text = f"expression: {short(call.text)}: {error}; it is {name}{signature}"
        raise ValueError(text) from None
    arguments = dict(bound.arguments)
    for parameter in signature.parameters.values():
        if parameter.kind is parameter.VAR_KEYWORD:
            arguments.update(arguments.pop(parameter.name, {}))
    return arguments
