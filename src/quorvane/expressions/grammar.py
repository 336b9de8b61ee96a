"""The text of an expression, taken apart: names and literals, of which nothing is evaluated."""

from __future__ import annotations

import math
import re
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

# What means no function, wherever it stands.
IDENTITIES = frozenset({"none", "noop", "identity", "recording_identity"})

MOST_CHARACTERS = 10_000

_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_]*")
_CALL = re.compile(
    r"""([A-Za-z_][A-Za-z0-9_]*)\s*(?:\(((?:[^()'"]|'[^']*'|"[^"]*")*)\))?""", re.DOTALL
)
_KEYWORD = re.compile(r"([A-Za-z_][A-Za-z0-9_]*)\s*=(.*)", re.DOTALL)
_QUOTED = re.compile(r"(['\"])((?:(?!\1).)*)\1", re.DOTALL)
_CONSTANTS = {"None": None, "True": True, "False": False}


@dataclass(frozen=True)
class Call:
    """One function of an expression, with the arguments that it is given.

    Attributes
    ----------
    text : str
        As it was written.
    name : str
        In lower case.
    """

    text: str
    name: str
    positional: tuple[Any, ...]
    keywords: dict[str, Any]


def calls_of(expression: str) -> list[Call]:
    """The functions of an expression, in order; ValueError where it makes no sense."""
    text = expression.strip()
    if len(text) > MOST_CHARACTERS:
        raise ValueError(
            f"expression must have at most {MOST_CHARACTERS} characters, got {len(text)}"
        )
    tokens = [token for part in _split(text, ";") if (token := part.strip())]
    calls = [call for token in tokens if (call := _call(token)) is not None]
    if not calls and len(tokens) != 1:
        raise ValueError(
            f"expression must be 'none' or hold at least one function, got {short(text)}"
        )
    return calls


def _call(token: str) -> Call | None:
    match = _CALL.fullmatch(token)
    if match is None:
        raise ValueError(f"expression: malformed {short(token)}; a function is name(arguments)")
    name, inside = match[1].lower(), (match[2] or "").strip()
    if name in IDENTITIES and not inside:
        return None
    positional: list[Any] = []
    keywords: dict[str, Any] = {}
    for argument in _split(inside, ",") if inside else ():
        keyword = _KEYWORD.fullmatch(argument.strip())
        if keyword is None:
            if keywords:
                raise ValueError(
                    f"expression: {short(token)} has an argument without a name after one with it"
                )
            positional.append(_literal(argument.strip(), token))
            continue
        if keyword[1] in keywords:
            raise ValueError(f"expression: {short(token)} has {keyword[1]!r} twice")
        keywords[keyword[1]] = _literal(keyword[2].strip(), token)
    return Call(token, name, tuple(positional), keywords)


def _literal(text: str, token: str) -> Any:
    """A number, a text in quotes, True, False or None."""
    if text in _CONSTANTS:
        return _CONSTANTS[text]
    if (quoted := _QUOTED.fullmatch(text)) is not None:
        return quoted[2]
    for read in (int, float):
        try:
            number = read(text)
        except ValueError:
            continue
        # One that no float holds would be another number without a word.
        if read is int or not math.isinf(number) or "inf" in text.lower():
            return number
    raise ValueError(
        f"expression: {short(token)} has the argument {short(text)}, allowed are numbers, "
        f"texts in quotes, True, False and None"
    )


def _split(text: str, separator: str) -> Iterator[str]:
    """The pieces between separators that stand in no quotes and no brackets."""
    start, quote, is_open = 0, "", False
    for at, character in enumerate(text):
        if quote:
            quote = "" if character == quote else quote
        elif character in "'\"":
            quote = character
        elif character == "(":
            if is_open:
                raise ValueError(f"expression: brackets in brackets at character {at + 1}")
            is_open = True
        elif character == ")":
            if not is_open:
                raise ValueError(f"expression: a closing bracket too many at character {at + 1}")
            is_open = False
        elif character == separator and not is_open:
            yield text[start:at]
            start = at + 1
    if quote:
        raise ValueError(f"expression: a quote {quote} that is never closed in {short(text)}")
    if is_open:
        raise ValueError(f"expression: a bracket that is never closed in {short(text)}")
    yield text[start:]


def short(text: str) -> str:
    """The text as errors show it."""
    return repr(text if len(text) <= 60 else f"{text[:57]}...")


def is_name(text: str) -> bool:
    """Whether an expression can hold this as a name."""
    return _NAME.fullmatch(text) is not None
