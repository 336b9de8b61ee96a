"""The changes that are made to Python."""

from mutants.rules import (
    ARITHMETIC,
    CALCULATED,
    COMPARISON,
    CONDITION,
    CONSTANT,
    GUARD,
    ORDERED,
    RETURNED,
    STATEMENT,
    by_table,
    field,
    number,
    replaced,
    swapped,
    text,
)

COMPARED = ORDERED | {
    "is": [("is not", COMPARISON)],
    "is not": [("is", COMPARISON)],
    "in": [("not in", COMPARISON)],
    "not in": [("in", COMPARISON)],
}
COMBINED = {"and": [("or", CONDITION)], "or": [("and", CONDITION)]}
BINARY = CALCULATED | {"//": [("*", ARITHMETIC)], "**": [("*", ARITHMETIC)]}
ASSIGNED = {
    f"{sign}=": [(f"{after}=", kind) for after, kind in table] for sign, table in BINARY.items()
}

# Types and texts, and what only chooses the words of an error.
SKIPPED = {
    "assert_statement",
    "decorator",
    "import_from_statement",
    "import_statement",
    "string",
    "type",
    "type_alias_statement",
}

FUNCTIONS = {"function_definition", "lambda"}
LEAVING = {"return_statement", "continue_statement", "break_statement"}
NO_VALUE = {"None", "True", "False"}
NOT_IN_ORDER = {"keyword_argument", "list_splat", "dictionary_splat", "comment"}


def prepared(source):
    """What the parser gets instead of the source."""
    return source


def skips(node):
    """Whether no change is made in a node."""
    parent = node.parent
    if node.type in SKIPPED:
        return True
    if parent is not None and parent.type == "raise_statement":
        return True
    # Code for the eyes of type checkers.
    return (
        node.type == "block"
        and parent.type == "if_statement"
        and text(field(parent, "condition")) == "TYPE_CHECKING"
    )


def negated(condition):
    """A condition that is neither a comparison nor a negation: those have changes of their own."""
    if condition.type not in {"comparison_operator", "not_operator", "true", "false"}:
        yield replaced(condition, f"(not ({text(condition)}))", CONDITION)


def comparison_operator(node):
    for child in node.children:
        yield from by_table(child, COMPARED)


def boolean_operator(node):
    yield from by_table(field(node, "operator"), COMBINED)


def not_operator(node):
    yield replaced(node, f"bool({text(field(node, 'argument'))})", CONDITION)


def binary_operator(node):
    # Strings are put together and filled in for people to read; `|` outside functions joins types.
    operands = field(node, "left"), field(node, "right")
    if any(operand.type in {"string", "concatenated_string"} for operand in operands):
        return
    if text(field(node, "operator")) != "|" or inside_function(node):
        yield from by_table(field(node, "operator"), BINARY)


def inside_function(node):
    while node is not None and node.type not in FUNCTIONS:
        node = node.parent
    return node is not None


def augmented_assignment(node):
    yield from by_table(field(node, "operator"), ASSIGNED)


def unary_operator(node):
    if text(field(node, "operator")) == "-":
        yield replaced(node, f"({text(field(node, 'argument'))})", ARITHMETIC)


def if_statement(node):
    """The condition, and a whole test that does nothing but leave."""
    yield from elif_clause(node)
    body = field(node, "consequence").named_children
    if field(node, "alternative") is None and len(body) == 1 and body[0].type in LEAVING:
        yield replaced(node, "pass", GUARD)


def elif_clause(node):
    if text(field(node, "condition")) != "TYPE_CHECKING":
        yield from negated(field(node, "condition"))


def while_statement(node):
    yield from negated(field(node, "condition"))


def conditional_expression(node):
    yield from negated(node.named_children[1])


def if_clause(node):
    yield from negated(node.named_children[0])


def true(node):
    yield replaced(node, "False", CONSTANT)


def false(node):
    yield replaced(node, "True", CONSTANT)


def integer(node):
    yield from number(node)


def float(node):  # noqa: A001 # the name of the node
    yield from number(node)


def expression_statement(node):
    """What is done for its effect. Without an assignment to a name everything would fail."""
    action = node.named_children[0]
    kept = action.type == "assignment" and (
        field(action, "right") is None
        or field(action, "left").type not in {"attribute", "subscript"}
    )
    if action.type in {"call", "augmented_assignment", "assignment"} and not kept:
        yield replaced(node, "pass", STATEMENT)


def raise_statement(node):
    yield replaced(node, "pass", GUARD)


def continue_statement(node):
    yield replaced(node, "pass", STATEMENT)


def break_statement(node):
    yield replaced(node, "pass", STATEMENT)


def return_statement(node):
    if node.named_children and text(node.named_children[0]) not in NO_VALUE:
        yield replaced(node, "return None", RETURNED)


def call(node):
    arguments = field(node, "arguments")
    if arguments.type == "argument_list":
        yield from swapped(
            [child for child in arguments.named_children if child.type not in NOT_IN_ORDER]
        )
