"""Error texts: one line, short, with a name that may have been meant."""

import pytest

from quorvane.cli.errors import DataError, did_you_mean, reason, shown

pytestmark = pytest.mark.plain_python


def test_an_error_is_one_line_whatever_it_names():
    assert str(DataError("a\nb\x1b[31m\u2028é.csv: no")) == "a\\nb\\x1b[31m\\u2028é.csv: no"


@pytest.mark.parametrize("value", ["KO", "", 3, -1.5, True, [1, "a"], {"a": {"b": 1}}, None])
def test_a_short_value_is_shown_whole(value):
    assert shown(value) == repr(value)


@pytest.mark.parametrize(
    "value",
    ["x" * 10**6, list(range(10**5)), 16**9000, {"a": "\n" * 10**5}],
    ids=["text", "list", "integer", "table"],
)
def test_a_long_value_is_shown_in_part(value):
    assert len(shown(value)) < 500


def test_a_long_reason_keeps_its_two_ends():
    assert reason(ValueError("short")) == "short"
    assert reason(ValueError()) == "ValueError"
    text = reason(ValueError("begin " + "x" * 10**6 + " end"))
    assert text.startswith("begin x")
    assert text.endswith("x end")
    assert len(text) < 500


def test_a_near_name_is_offered_among_few_names_only():
    names = ["NASDAQ:AAPL", *map(str, range(4999))]
    assert did_you_mean("NASDAQ:APPL", names) == "; did you mean 'NASDAQ:AAPL'?"
    assert did_you_mean("NASDAQ:APPL", [*names, "one more"]) == ""
    assert did_you_mean("KO", names) == ""
