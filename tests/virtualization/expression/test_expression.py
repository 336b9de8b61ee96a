"""The transformation expression: what it may say, and what is said of one that it may not."""

import pytest

from support.fakes import make_rotation
from virtualization.expression.children import EWMA, RANK, ZSCORE, failure, requests

SIGMOID = "numerical_transcendental_2f4f61"
EMPTY_CHAIN = (
    "transformation_expression must be an explicit identity alias or contain "
    "at least one supported child rotation"
)
PREFIX = "virtualization_base: "


class Formatted:
    """An object whose formatted text differs from its str() and repr()."""

    def __format__(self, format_spec):
        return f"formatted<{format_spec}>"

    def __str__(self):
        return "str"


# --- identity ---------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "expression",
    [
        "identity",
        "identity()",
        "noop",
        "noop()",
        "none",
        "recording_identity",
        "recording_identity()",
        "None",
        "NOOP()",
        "Identity",
        "  Recording_Identity()\n",
        "",
        "   ",
    ],
)
def test_identity_expression_gives_a_new_empty_list(rotation, siblings, expression):
    first = rotation._parse_transformation_expression(expression)
    second = rotation._parse_transformation_expression(expression)
    assert type(first) is list
    assert first == second == []
    assert first is not second
    assert siblings.registry_log == []


@pytest.mark.parametrize(
    "expression", ["none()", "identity( )", "identity;noop", ";", " ; ;", "none;", "NOOP;none()"]
)
def test_chain_of_identity_and_empty_tokens_alone_is_rejected(rotation, expression):
    assert str(failure(rotation, expression)) == EMPTY_CHAIN


@pytest.mark.parametrize(
    "expression",
    ["identity;rank", "rank;noop()", "none ; RANK ; recording_identity( )", "none();rank"],
)
def test_identity_tokens_inside_a_chain_do_nothing(rotation, siblings, expression):
    assert len(rotation._parse_transformation_expression(expression)) == 1
    assert requests(siblings) == [(RANK, {})]


def test_identity_name_with_an_argument_is_unsupported(rotation):
    assert str(failure(rotation, "identity(3)")) == (
        PREFIX + "unsupported transformation_expression token 'identity(3)'"
    )


def test_identity_set_is_read_when_called(base, rotation, siblings):
    base._IDENTITY_EXPRESSIONS.add("rank")
    assert rotation._parse_transformation_expression("RANK") == []
    base._IDENTITY_EXPRESSIONS = ("nothing",)
    assert rotation._parse_transformation_expression("Nothing") == []
    assert "unsupported" in str(failure(rotation, "none"))
    assert siblings.registry_log == []


# --- supported tokens -------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("expression", "expected"),
    [
        ("rank", [(RANK, {})]),
        ("rank()", [(RANK, {})]),
        ("rank(  )", [(RANK, {})]),
        ("zscore", [(ZSCORE, {})]),
        ("sigmoid()", [(SIGMOID, {})]),
        ("ewma(20)", [(EWMA, {"window": 20})]),
        ("EWMA( 20 )", [(EWMA, {"window": 20})]),
        (f"{EWMA}(3)", [(EWMA, {"window": 3})]),
        (f"{EWMA}(3)".upper(), [(EWMA, {"window": 3})]),
        (ZSCORE, [(ZSCORE, {})]),
        (RANK, [(RANK, {})]),
        (SIGMOID, [(SIGMOID, {})]),
        ("ewma(20);rank", [(EWMA, {"window": 20}), (RANK, {})]),
        ("rank;ewma(20)", [(RANK, {}), (EWMA, {"window": 20})]),
        (";;rank;", [(RANK, {})]),
        ("\trank ;\n zscore ", [(RANK, {}), (ZSCORE, {})]),
        ("rank;rank;rank;rank", [(RANK, {})] * 4),
    ],
)
def test_expression_creates_its_children_in_token_order(rotation, siblings, expression, expected):
    children = rotation._parse_transformation_expression(expression)
    assert type(children) is list
    assert [(child.registry_name, child.params) for child in children] == expected
    assert requests(siblings) == expected


@pytest.mark.parametrize(
    ("argument", "window"),
    [
        ("+5", 5),
        ("-3", -3),
        ("0", 0),
        ("007", 7),
        ("1_000", 1000),
        ("\t7\n", 7),
        ("\u0663\u0662", 32),
        ("9" * 40, int("9" * 40)),
        ("-" + "9" * 40, -int("9" * 40)),
    ],
)
def test_argument_is_read_as_python_reads_integers(rotation, siblings, argument, window):
    rotation._parse_transformation_expression(f"ewma({argument})")
    ((_, params),) = requests(siblings)
    assert params == {"window": window}
    assert type(params["window"]) is int


# --- malformed and unsupported tokens ---------------------------------------------------------


@pytest.mark.parametrize(
    "token",
    [
        "1rank",
        "rank(2)(3)",
        "ewma (20)",
        "rank(a(b))",
        "rank[1]",
        "rank)",
        "rank(",
        "(3)",
        "rank rank",
        "rank,zscore",
        "ra\nnk",
        "r\u00e4nk",
        "it's",
        "\\",
        "ewma(20)x",
    ],
)
def test_token_outside_the_grammar_is_malformed(rotation, siblings, token):
    assert str(failure(rotation, f"rank; {token} ")) == (
        f"{PREFIX}malformed transformation_expression token {token!r}"
    )
    assert siblings.registry_log == []


@pytest.mark.parametrize(
    "token", ["foo", "foo(3)", "Foo", "_x1( a )", "identity(3)", "none(x)", "ewma20", "ranks()"]
)
def test_unknown_name_is_unsupported(rotation, siblings, token):
    assert str(failure(rotation, f"rank;{token}")) == (
        f"{PREFIX}unsupported transformation_expression token {token!r}"
    )
    assert siblings.registry_log == []


# --- arguments --------------------------------------------------------------------------------


@pytest.mark.parametrize("token", ["ewma", "ewma()", "ewma(  )", "EWMA", EWMA])
def test_missing_argument_is_rejected(rotation, token):
    error = failure(rotation, token)
    assert str(error) == f"{PREFIX}{token!r} requires an integer argument"
    assert error.__cause__ is None


@pytest.mark.parametrize("token", ["rank(3)", "zscore(x)", "sigmoid(1,2)", f"{RANK}(=)"])
def test_argument_to_a_name_that_takes_none_is_rejected(rotation, token):
    assert str(failure(rotation, token)) == f"{PREFIX}{token!r} does not accept arguments"


@pytest.mark.parametrize(
    "token", ["ewma(1,2)", "ewma(window=20)", "ewma(,)", "ewma(x=)", "ewma(1,)", "ewma(x,=)"]
)
def test_more_than_one_plain_argument_is_rejected(rotation, token):
    error = failure(rotation, token)
    assert str(error) == f"{PREFIX}{token!r} only accepts one integer argument"
    assert error.__cause__ is None


@pytest.mark.parametrize(
    "argument", ["x", "2.5", "0x10", "1e3", "_1", "1__0", "1 0", "- 3", "\u00b2"]
)
def test_argument_that_is_no_integer_is_rejected_with_the_cause(rotation, siblings, argument):
    token = f"ewma({argument})"
    error = failure(rotation, token)
    assert str(error) == f"{PREFIX}{token!r} requires an integer argument"
    assert type(error) is ValueError
    assert type(error.__cause__) is ValueError
    assert error.__context__ is error.__cause__
    assert str(error.__cause__) == f"invalid literal for int() with base 10: {argument!r}"
    assert siblings.registry_log == []


def test_argument_is_stripped_before_it_is_read(rotation):
    error = failure(rotation, "ewma( 2.5 )")
    assert str(error) == f"{PREFIX}'ewma( 2.5 )' requires an integer argument"
    assert str(error.__cause__) == "invalid literal for int() with base 10: '2.5'"


# --- the prefix -------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("name", "text"), [("pairs", "pairs"), (17, "17"), (None, "None"), (Formatted(), "formatted<>")]
)
@pytest.mark.parametrize(
    ("expression", "message"),
    [
        ("1", "malformed transformation_expression token '1'"),
        ("foo", "unsupported transformation_expression token 'foo'"),
        ("ewma", "'ewma' requires an integer argument"),
        ("ewma(x)", "'ewma(x)' requires an integer argument"),
        ("rank(1)", "'rank(1)' does not accept arguments"),
        ("ewma(,)", "'ewma(,)' only accepts one integer argument"),
    ],
)
def test_token_message_starts_with_the_formatted_name(base, name, text, expression, message):
    rotation = make_rotation(base, attributes={"_name": name})
    assert str(failure(rotation, expression)) == f"{text}: {message}"


def test_name_set_on_the_instance_is_the_prefix(rotation):
    rotation._name = "mine"
    assert str(failure(rotation, "1")).startswith("mine: malformed")


# --- limits -----------------------------------------------------------------------------------


def test_text_of_exactly_the_byte_limit_passes(rotation, siblings):
    rotation._parse_transformation_expression("rank" + ";" * 508)
    assert requests(siblings) == [(RANK, {})]


def test_text_above_the_byte_limit_is_rejected(rotation):
    assert str(failure(rotation, "rank" + ";" * 509)) == (
        "transformation_expression must be <= 512 bytes"
    )


def test_byte_limit_counts_the_stripped_text(rotation):
    rotation._parse_transformation_expression(" " * 300 + "rank" + ";" * 508 + "\n" * 300)


@pytest.mark.parametrize(
    ("character", "count"), [("\u00e9", 256), ("\u20ac", 170), ("\U0001f600", 128)]
)
def test_byte_limit_counts_encoded_bytes(rotation, character, count):
    assert "malformed" in str(failure(rotation, character * count))
    assert "must be <= 512 bytes" in str(failure(rotation, character * (count + 1)))


def test_text_that_cannot_be_encoded_is_its_own_error(rotation):
    assert type(failure(rotation, "rank;\ud800")) is UnicodeEncodeError


def test_byte_limit_is_read_when_called_and_comes_before_identity(base, rotation):
    base.MAX_TRANSFORMATION_EXPRESSION_BYTES = 3
    assert str(failure(rotation, "none")) == "transformation_expression must be <= 3 bytes"


def test_byte_limit_comes_before_the_tokens(rotation):
    assert "bytes" in str(failure(rotation, "1" * 513))


def test_fifth_child_is_rejected(rotation, siblings):
    assert str(failure(rotation, "rank;zscore;sigmoid;ewma(1);rank")) == (
        "transformation_expression supports at most 4 child rotations"
    )
    assert siblings.registry_log == []


def test_identity_tokens_do_not_count_as_children(rotation, siblings):
    rotation._parse_transformation_expression("none;rank;noop;rank;identity();rank;none;rank;none")
    assert len(requests(siblings)) == 4


def test_every_token_is_checked_before_the_children_are_counted(rotation):
    assert "unsupported" in str(failure(rotation, "rank;" * 5 + "foo"))


def test_child_limit_is_read_when_called(base, rotation):
    base.MAX_TRANSFORMATION_CHILDREN = 1
    assert str(failure(rotation, "rank;rank")) == (
        "transformation_expression supports at most 1 child rotations"
    )


def test_cells_above_the_limit_are_rejected(base, siblings):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        make_rotation(base, max_structures=500001, transformation_expression="rank;zscore")
    assert str(caught.value) == (
        "transformation_expression child allocation must be <= 1000000 cells"
    )
    assert siblings.registry_log == []


def test_cells_at_the_limit_are_accepted(base):
    rotation = make_rotation(base, max_structures=500000, transformation_expression="rank;zscore")
    assert len(rotation.child_rotations) == 2


def test_cell_limit_is_read_when_called(base, rotation):
    base.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS = 7
    assert str(failure(rotation, "rank;zscore")) == (
        "transformation_expression child allocation must be <= 7 cells"
    )
    assert len(rotation._parse_transformation_expression("rank")) == 1


def test_child_count_comes_before_the_cells(rotation):
    rotation.max_structures = 10**30
    assert "at most 4" in str(failure(rotation, "rank;" * 5))
    assert "cells" in str(failure(rotation, "rank"))


def test_cells_come_before_the_empty_chain(base, rotation):
    base.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS = -1
    assert "must be <= -1 cells" in str(failure(rotation, ";"))


@pytest.mark.parametrize(
    ("expression", "message"),
    [
        ("foo;1bad", "unsupported"),
        ("1bad;foo", "malformed"),
        ("rank(1);ewma", "does not accept"),
        ("ewma;rank(1)", "requires"),
    ],
)
def test_first_bad_token_is_reported(rotation, expression, message):
    assert message in str(failure(rotation, expression))
