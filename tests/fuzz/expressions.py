"""Transformation expressions: mutated chains of tokens, around every limit, and what is no text."""

import contextlib
import types

from adversary.values.answers import Converts
from adversary.values.chosen import anything, chance, number, pick
from fuzz.subjects import both_modules as subjects
from fuzz.subjects import usual_class
from quorvane.functions import _registry
from support import frozen
from support.siblings import recording_registry

__all__ = ["play", "subjects"]

NAMES = ["ewma", "ewma", "ewma", "rank", "zscore", "sigmoid", "longitudinal_ewma_67301c"]
NAMES += ["latitudinal_normalize_092871", "latitudinal_rank_688068"]
NAMES += ["numerical_transcendental_2f4f61", "identity", "noop", "none", "recording_identity"]
ARGUMENTS = ["", "20", " 3 ", "+5", "-1", "0", "1_0", "٣", "2.5", "1,2", "window=3", "x", "a=1,b=2"]
ARGUMENTS += ["1__0", "_1", "9" * 30, "20\n", "\x1c7\x1f", "1 2", "1e3", "²", "\U0001d7da"]
SEPARATORS = [";", ";", ";", " ; ", ";;", "\n;\t", "\u00a0;\u2003", ",", "\uff1b", ""]
SPACES = ["", "", "", " ", "\t\n", "\u00a0", "\u200b", "\x1c", "\x00"]
CHARACTERS = [*"();,= _-+.0azAZ\n\t\x00'\"\\[]{}%é€\u017f\u212aİ٣\u2028\ud800\U0001f600"]
CAPACITIES = [1, 2, 3, 4, 8, 8]
LARGE_CAPACITIES = [249_999, 250_000, 250_001, 333_334, 500_000, 500_001, 10**6]


def play(random, base):
    """Build a rotation from an expression, or have the expression parsed alone."""
    text = expression(random)
    draw = random.random()
    if draw < 0.25:
        return [frozen.outcome(construct, base, text, pick(random, CAPACITIES))]
    if draw < 0.9:
        return [frozen.outcome(parse, base, text, pick(random, CAPACITIES))]
    if draw < 0.95:
        log = []
        with recorded_registry(log):
            log.append(frozen.outcome(parse, base, text, pick(random, LARGE_CAPACITIES)))
        return log
    with changed_globals(random, base):
        return [frozen.outcome(parse, base, text, pick(random, CAPACITIES))]


def construct(base, text, capacity):
    rotation = usual_class(base)(max_structures=capacity, N_alloc=3, transformation_expression=text)
    return rotation.transformation_expression is text, rotation.child_rotations


def parse(base, text, capacity):
    rotation = types.SimpleNamespace(max_structures=capacity, _name="parser")
    return base.VirtualizationBase._parse_transformation_expression(rotation, text)


# Texts


def expression(random):
    draw = random.random()
    if draw < 0.02:
        return anything(random)
    text = chain(random)
    if draw < 0.05:
        return OddText(text, pick(random, OddText.METHODS), anything(random, 1))
    if draw < 0.1:
        return around_the_limit(random, text)
    if draw < 0.5:
        for _ in range(pick(random, [1, 1, 1, 2, 3, 8])):
            text = edited(random, text)
    return text


def chain(random):
    """Chain of tokens, most of them supported."""
    parts = []
    for _ in range(pick(random, [0, 1, 1, 2, 2, 3, 4, 4, 5, 9])):
        parts += [token(random), pick(random, SEPARATORS)]
    return pick(random, SPACES) + "".join(parts[: -pick(random, [1, 1, 1, 2]) or None])


def token(random):
    name = pick(random, NAMES)
    if chance(random, 0.2):
        name = pick(random, [name.upper(), name.title(), name[:-1], name + "x", "x"])
    takes_argument = "ewma" in name.lower()
    if chance(random, 0.7):
        if not takes_argument:
            return pick(random, [name, name, name + "()", name + "( )"])
        return f"{name}({pick(random, ARGUMENTS[1:3])})"
    gap = pick(random, SPACES)
    argument = pick(random, ARGUMENTS) if chance(random, 0.8) else str(number(random))
    return pick(random, SPACES) + f"{name}{gap}({argument})" + pick(random, SPACES)


def edited(random, text):
    """Insert, delete, replace, repeat or move some characters."""
    start = int(random.random() * (len(text) + 1))
    end = min(len(text), start + pick(random, [0, 0, 1, 1, 2, 5]))
    piece = pick(random, ["", text[start:end] * 2, text[start:end].swapcase()])
    if chance(random, 0.6):
        piece = pick(random, CHARACTERS)
    return text[:start] + piece + text[end:]


def around_the_limit(random, text):
    """Fill up to about the largest number of bytes, in characters of one to four bytes."""
    filler = pick(random, [";", " ", "x", "é", "€", "\U0001f600", "rank;", "\u2003"])
    size = 512 + pick(random, [-2, -1, 0, 1, 2, 100])
    missing = size - len(text.encode("utf-8", "surrogatepass"))
    filled = filler * (missing // len(filler.encode()))
    filled += "z" * pick(random, [0, 0, missing % len(filler.encode())])
    return pick(random, [text + filled, filled + text, f"{text};{filled}", f" {text}{filled} "])


class OddText(str):
    """Text one of whose methods answers in its own way."""

    METHODS = ("strip", "encode", "lower", "split")

    def __new__(cls, text, method, answer):
        made = super().__new__(cls, text)
        if isinstance(answer, Converts):
            setattr(made, method, answer.convert)
        else:
            setattr(made, method, lambda *_: answer)
        return made


# Surroundings


@contextlib.contextmanager
def recorded_registry(log):
    """Write down what the registry is asked for, instead of making children of a million slots."""
    usual = _registry.StaticFunctionRegistry
    _registry.StaticFunctionRegistry = recording_registry(log)
    try:
        yield
    finally:
        _registry.StaticFunctionRegistry = usual


GLOBALS = {
    "MAX_TRANSFORMATION_EXPRESSION_BYTES": [0, 4, 10, 2**70, -1, 5.5, None, "5"],
    "MAX_TRANSFORMATION_CHILDREN": [0, 1, 5, 2**70, -1, 1.5, None, "1"],
    "MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS": [0, 1, 16, 2**70, -1, 8.5, None, "1"],
    "_IDENTITY_EXPRESSIONS": [set(), {"rank"}, ["rank", "none"], {"none": 1}, "none", None, 5],
    "_CHILD_ROTATION_ALIASES": [
        {},
        {"rank": ("latitudinal_rank_688068", "window"), "ewma": ("nobody", None)},
        {"rank": "ab", "ewma": (1, 2, 3), "zscore": None},
        {"rank": ["latitudinal_rank_688068", None], "ewma": ("longitudinal_ewma_67301c", 5)},
        None,
    ],
    "_EXPRESSION_TOKEN_RE": [None, 5, types.SimpleNamespace(match=lambda token: None)],
}


@contextlib.contextmanager
def changed_globals(random, base):
    """Give one of the module's names another value for a while."""
    name = pick(random, sorted(GLOBALS))
    usual = getattr(base, name)
    setattr(base, name, pick(random, GLOBALS[name]))
    try:
        yield
    finally:
        setattr(base, name, usual)
