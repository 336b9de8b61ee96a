"""The changes that are made to C++."""

import re

from mutants.rules import (
    ARITHMETIC,
    CALCULATED,
    CONDITION,
    CONSTANT,
    GUARD,
    ORDERED,
    REFERENCE,
    RETURNED,
    STATEMENT,
    by_table,
    field,
    number,
    replaced,
    swapped,
    text,
)

# Macros that stand before a function or a loop and take no arguments: the parser takes them for
# types. Blanks in their place keep every position.
BARE_MACRO = re.compile(rb"\bQUORVANE_[A-Z_]+\b(?!\()")

BINARY = (
    ORDERED
    | CALCULATED
    | {"&&": [("||", CONDITION)], "||": [("&&", CONDITION)], "^": [("&", ARITHMETIC)]}
)
ASSIGNED = {
    f"{sign}=": [(f"{after}=", kind) for after, kind in table] for sign, table in CALCULATED.items()
}
STEPS = {"++": [("--", ARITHMETIC)], "--": [("++", ARITHMETIC)]}

# Nobody runs these, or they only choose the words of an error.
SKIPPED = {
    "attribute_declaration",
    "concept_definition",
    "noexcept",
    "preproc_def",
    "preproc_function_def",
    "preproc_include",
    "requires_clause",
    "static_assert_declaration",
    "throw_statement",
}

FUNCTIONS = {"function_definition", "lambda_expression"}
ACTIONS = {"call_expression", "assignment_expression", "update_expression"}
JUMPS = {"return_statement", "continue_statement", "break_statement", "throw_statement"}
NOTHING = {"nullptr", "false", "true", "0", "{}"}


def prepared(source):
    """What the parser gets instead of the source, with every place where it is."""
    return BARE_MACRO.sub(lambda found: b" " * len(found[0]), source)


def skips(node):
    """Whether no change is made in a node."""
    if node.type in SKIPPED or (node.type == "call_expression" and is_assertion(node)):
        return True
    parent = node.parent
    return (
        parent is not None
        and parent.type in {"preproc_if", "preproc_elif"}
        and field(parent, "condition") == node
    )


def is_assertion(call):
    return text(field(call, "function")) == "assert"


def negated(condition):
    """A condition that is neither a comparison nor a negation: those have changes of their own."""
    if condition.type == "binary_expression" and text(field(condition, "operator")) in ORDERED:
        return
    if condition.type not in {"declaration", "unary_expression", "true", "false"}:
        yield replaced(condition, f"!({text(condition)})", CONDITION)


def binary_expression(node):
    yield from by_table(field(node, "operator"), BINARY)


def assignment_expression(node):
    yield from by_table(field(node, "operator"), ASSIGNED)


def update_expression(node):
    yield from by_table(field(node, "operator"), STEPS)


def unary_expression(node):
    sign = text(field(node, "operator"))
    if sign in {"!", "-"}:
        kind = CONDITION if sign == "!" else ARITHMETIC
        yield replaced(node, f"({text(field(node, 'argument'))})", kind)


def condition_clause(node):
    yield from negated(field(node, "value"))


def conditional_expression(node):
    yield from negated(field(node, "condition"))


def true(node):
    yield replaced(node, "false", CONSTANT)


def false(node):
    yield replaced(node, "true", CONSTANT)


def number_literal(node):
    yield from number(node)


def expression_statement(node):
    action = node.named_children[0] if node.named_children else node
    if action.type in ACTIONS and not skips(action):
        yield replaced(node, ";", STATEMENT)


def continue_statement(node):
    yield replaced(node, ";", STATEMENT)


def break_statement(node):
    yield replaced(node, ";", STATEMENT)


def if_statement(node):
    """A test that does nothing but leave."""
    if field(node, "alternative") is None and leaves(field(node, "consequence")):
        yield replaced(node, ";", GUARD)


def leaves(body):
    if body.type == "attributed_statement":
        body = body.named_children[-1]
    if body.type == "compound_statement":
        return len(body.named_children) == 1 and leaves(body.named_children[0])
    return body.type in JUMPS


def declaration(node):
    """An object that nobody speaks of again is there for what its making and its end do."""
    if node.parent.type != "compound_statement":
        return
    declarator = field(node, "declarator")
    while declarator is not None and declarator.type != "identifier":
        declarator = field(declarator, "declarator")
    if declarator is None:
        return
    name = rb"\b" + re.escape(declarator.text) + rb"\b"
    if len(re.findall(name, node.parent.text)) == 1:
        yield replaced(node, ";", GUARD)


def return_statement(node):
    values = [child for child in node.named_children if child.type != "comment"]
    if values and text(values[0]) not in NOTHING:
        yield replaced(values[0], "{}", RETURNED)


def call_expression(node):
    """Arguments change places; who owns a reference is mistaken."""
    arguments = field(node, "arguments")
    if arguments is None or arguments.type != "argument_list":
        return
    yield from swapped([child for child in arguments.named_children if child.type != "comment"])
    function = field(node, "function")
    name = text(function)
    if name in {"Py_NewRef", "Py_XNewRef"}:
        yield replaced(node, text(arguments), REFERENCE)
    elif name.endswith("Ref::steal"):
        yield replaced(function, name.removesuffix("steal") + "borrow", REFERENCE)
    elif name.endswith("Ref::borrow"):
        yield replaced(function, name.removesuffix("borrow") + "steal", REFERENCE)
    elif name.endswith(".release") and not arguments.named_children:
        yield replaced(function, name.removesuffix("release") + "get", REFERENCE)
