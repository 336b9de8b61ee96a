"""How the text of an expression is taken apart, and what is said where it makes no sense."""

import time

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.expressions.grammar import IDENTITIES, MOST_CHARACTERS, Call, calls_of

CHARACTERS = "abN_09(),;='\"+-.e \n\t\u00e9\u0663\u2003\x00\ud800[]{}"


def read(text):
    """The one call of a text as (name, positional, keywords)."""
    (call,) = calls_of(text)
    return call.name, call.positional, call.keywords


def refusal(text):
    """What is said of a text that makes no sense: one line, of bearable length."""
    with pytest.raises(ValueError, match="expression") as caught:
        calls_of(text)
    said = str(caught.value)
    assert "\n" not in said
    assert len(said) < 300
    return said


def test_a_call_has_a_name_arguments_and_the_text_as_it_was_written():
    found = calls_of(" Ewma ( 20 ) ;clip(-1,high=2.5)")
    assert found == [
        Call("Ewma ( 20 )", "ewma", (20,), {}),
        Call("clip(-1,high=2.5)", "clip", (-1,), {"high": 2.5}),
    ]


@pytest.mark.parametrize(
    "text", ["f", "F", "f()", " f ( ) ", ";f;", ";;\n;f ;\t;", "none;f;NoOp()"]
)
def test_blanks_capitals_identities_and_empty_pieces_do_not_matter(text):
    assert read(text) == ("f", (), {})


@pytest.mark.parametrize("name", sorted(IDENTITIES))
def test_identities_are_no_function(name):
    for text in (name, name.upper(), f" {name.title()} ", f"{name}()", f"{name} ( )", f";{name};"):
        assert calls_of(text) == []
    assert read(f"{name}(3)") == (name, (3,), {})


@pytest.mark.parametrize("text", ["", " ", "\n", ";", " ; ;", "none;none", "noop;identity()"])
def test_nothing_at_all_is_refused(text):
    assert refusal(text).startswith("expression must be 'none' or hold at least one function, got")


@pytest.mark.parametrize(
    ("text", "value"),
    [
        ("3", 3),
        ("+3", 3),
        ("-3", -3),
        (" 3\n", 3),
        ("1_000", 1000),
        ("\u0663", 3),
        ("\U0001d7da", 2),
        ("007", 7),
        ("3.", 3.0),
        ("1e3", 1000.0),
        (".5", 0.5),
        ("-1_0.5E-1", -1.05),
        ("inf", float("inf")),
        ("-Infinity", -float("inf")),
        ("1" * 400, int("1" * 400)),
        ("True", True),
        ("False", False),
        ("None", None),
        ("'a'", "a"),
        ('"a"', "a"),
        ("''", ""),
        ("'3'", "3"),
        ("'None'", "None"),
        ("' a '", " a "),
        ("'\"'", '"'),
        ("'a;b,c(d)=e'", "a;b,c(d)=e"),
        ("')('", ")("),
        ("'\\'", "\\"),
        ("'é\n\u0663'", "é\n\u0663"),
    ],
)
def test_arguments_are_literals(text, value):
    for found in (read(f"f({text})")[1][0], read(f"f(a={text})")[2]["a"]):
        assert found == value
        assert type(found) is type(value)


def test_nan_is_a_number_too():
    found = read("f(nan)")[1][0]
    assert found != found


@pytest.mark.parametrize(
    "text",
    [
        "",
        " ",
        "x",
        "none",
        "true",
        "3 4",
        "3-1",
        "2*3",
        "0x10",
        "1__0",
        "_1",
        "²",
        "1j",
        "[3]",
        "{}",
        "lambda: 0",
        "__import__",
        "a.b",
        "'a' 'b'",
        "'a'+'b'",
        "'a''b'",
        "b'a'",
        "1e400",
        "-1e999",
        "9" * 5000,
        "=3",
        "a==3",
        "é=3",
        "1a=3",
    ],
)
def test_what_is_no_literal_is_refused(text):
    allowed = "allowed are numbers, texts in quotes, True, False and None"
    assert refusal(f"f({text},1)").endswith(allowed)
    if "=" not in text:
        assert refusal(f"f(a={text})").endswith(allowed)


@pytest.mark.parametrize(
    ("text", "said"),
    [
        ("f(3,)", "has the argument ''"),
        ("f(,)", "has the argument ''"),
        ("f(a=1, 2)", "'f(a=1, 2)' has an argument without a name after one with it"),
        ("f(a=1,a=1)", "'f(a=1,a=1)' has 'a' twice"),
        ("f(", "a bracket that is never closed in 'f('"),
        ("f)", "a closing bracket too many at character 2"),
        ("f(1));g", "a closing bracket too many at character 5"),
        ("f(g(1))", "brackets in brackets at character 4"),
        ("f((1))", "brackets in brackets at character 3"),
        ("f;g('", "a quote ' that is never closed in \"f;g('\""),
        ('f(")', "a quote \" that is never closed in 'f(\")'"),
        ("f(3;4)", "has the argument '3;4'"),
        ("f()()", "malformed 'f()()'; a function is name(arguments)"),
        ("f(1)g", "malformed 'f(1)g'"),
        ("f g", "malformed 'f g'"),
        ("(3)", "malformed '(3)'"),
        ("'f'", "malformed \"'f'\""),
        ("é(3)", "malformed 'é(3)'"),
        ("\u212a", "malformed"),
        ("f\u200b", "malformed"),
        ("f\x00", "malformed"),
        ("f;g,h", "malformed 'g,h'"),
        ("f\uff1bg", "malformed"),
        ("3", "malformed '3'"),
        ("\ud800", "malformed"),
    ],
)
def test_a_malformed_text_is_told_of_with_its_place(text, said):
    assert said in refusal(text)


def test_a_text_may_be_long_but_not_longer():
    text = ";".join(["f(1)"] * 2000)
    assert len(calls_of(text)) == 2000
    at_most = "f" + " " * (MOST_CHARACTERS - 2) + "("
    assert "bracket" in refusal(at_most)
    assert refusal(at_most + ")") == "expression must have at most 10000 characters, got 10001"
    assert len(calls_of(" " * 10**6 + "f")) == 1
    assert read(f"f({'1,' * 4000}1)") == ("f", (1,) * 4001, {})


@pytest.mark.parametrize(
    "text",
    [
        "(" * 9999,
        ")" * 9999,
        "f(" * 3000,
        "'" * 9999,
        "f('" + "'" * 9000,
        "a" * 9999 + "!",
        "a" + " " * 9990 + "!",
        "f(" + "a=" * 4000 + ")",
        "f(" + "'a'" * 3000 + ")",
        ";" * 9999,
        "f(" + "," * 9000 + ")",
        "f(" + " " * 9000 + "x)",
    ],
)
def test_a_hostile_text_is_refused_at_once(text):
    before = time.process_time()
    refusal(text)
    assert time.process_time() - before < 1.0


@settings(max_examples=400, deadline=None, derandomize=True, database=None)
@given(st.text(CHARACTERS, max_size=30))
def test_any_text_is_read_or_refused_in_a_line(text):
    try:
        calls = calls_of(text)
    except ValueError:
        refusal(text)
        return
    for call in calls:
        values = [*call.positional, *call.keywords.values()]
        assert all(value is None or type(value) in (int, float, bool, str) for value in values)
        assert calls_of(call.text) == [call] or any(value != value for value in values)
