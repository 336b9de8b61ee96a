"""What the rules of both languages share: where changes go, and the tables of operators.

A rule is a function that takes a node of the syntax tree and gives changes: tuples of the bytes
`start` and `end`, the text `after`, and the name of the kind of change.
"""

import itertools
import re

BOUNDARY, COMPARISON, ARITHMETIC = "boundary", "comparison", "arithmetic"
CONDITION, CONSTANT, STATEMENT = "condition", "constant", "statement removed"
GUARD, RETURNED, ARGUMENTS = "guard removed", "returned value", "arguments swapped"
REFERENCE = "reference"

ORDERED = {
    "<": [("<=", BOUNDARY), (">=", COMPARISON)],
    "<=": [("<", BOUNDARY), (">", COMPARISON)],
    ">": [(">=", BOUNDARY), ("<=", COMPARISON)],
    ">=": [(">", BOUNDARY), ("<", COMPARISON)],
    "==": [("!=", COMPARISON)],
    "!=": [("==", COMPARISON)],
}

CALCULATED = {
    "+": [("-", ARITHMETIC)],
    "-": [("+", ARITHMETIC)],
    "*": [("/", ARITHMETIC)],
    "/": [("*", ARITHMETIC)],
    "%": [("*", ARITHMETIC)],
    "&": [("|", ARITHMETIC)],
    "|": [("&", ARITHMETIC)],
    "<<": [(">>", ARITHMETIC)],
    ">>": [("<<", ARITHMETIC)],
}

WHOLE_NUMBER = re.compile(r"(\d[\d'_]*)([uUlLzZ]*)")
DECIMAL = re.compile(r"\d+\.\d*([eE][-+]?\d+)?|\d+[eE][-+]?\d+")


def text(node):
    return node.text.decode()


def field(node, name):
    return node.child_by_field_name(name)


def replaced(node, after, operator):
    """Another text for the whole of a node."""
    return node.start_byte, node.end_byte, after, operator


def by_table(token, table):
    """The token of an operator becomes each of those that the table has for it."""
    for after, operator in table.get(text(token), ()):
        yield replaced(token, after, operator)


def number(node):
    """A constant becomes one more and one less; a decimal or odd one only one more."""
    said = text(node)
    if whole := WHOLE_NUMBER.fullmatch(said):
        value, suffix = int(re.sub("['_]", "", whole[1]), 10), whole[2]
        yield replaced(node, f"{value + 1}{suffix}", CONSTANT)
        # One less than nothing has a sign, which suffixes do not like.
        if value > 0 or not suffix:
            yield replaced(node, f"{value - 1}" + suffix if value else "(-1)", CONSTANT)
    elif DECIMAL.fullmatch(said):
        yield replaced(node, f"({said} + 1.0)", CONSTANT)


def swapped(arguments):
    """Two arguments that stand beside each other change places."""
    for left, right in itertools.pairwise(arguments):
        if left.next_named_sibling == right and text(left) != text(right):
            around, begin = left.parent.text, left.parent.start_byte
            between = around[left.end_byte - begin : right.start_byte - begin].decode()
            after = text(right) + between + text(left)
            yield left.start_byte, right.end_byte, after, ARGUMENTS
