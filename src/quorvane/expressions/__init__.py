"""Expressions such as ``"ewma(20);zscore"``: how they are read, and what functions they know."""

from quorvane.expressions.catalogue import Catalogue, catalogue
from quorvane.expressions.grammar import Call, calls_of
from quorvane.expressions.making import Made, Recipe, make_functions, recipes_of
from quorvane.expressions.places import Places
from quorvane.expressions.registered import register

__all__ = [
    "Call",
    "Catalogue",
    "Made",
    "Places",
    "Recipe",
    "calls_of",
    "catalogue",
    "make_functions",
    "recipes_of",
    "register",
]
