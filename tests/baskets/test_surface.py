"""What whoever imports it sees, and what that costs."""

import doctest
import inspect
import io
import pydoc
import subprocess
import sys

import numpy as np
import pytest

import quorvane as qv
from quorvane.baskets import front
from support.tables_of_baskets import NAMES, START, WEIGHTS, long_columns, numbers, same_bits

SOURCE = qv.__file__.rpartition("/quorvane/")[0]


def run(code):
    """Run code in an interpreter of its own; what it prints."""
    code = f"import sys; sys.path.insert(0, {SOURCE!r})\n{code}"
    return subprocess.run(
        [sys.executable, "-c", code], capture_output=True, text=True, check=True
    ).stdout


@pytest.mark.plain_python
def test_importing_the_package_imports_nothing_else():
    run(
        "import quorvane as qv\n"
        "assert not {'numpy', 'pandas', 'quorvane.baskets', 'quorvane.functions'} & "
        "set(sys.modules), sys.modules\n"
        "assert 'Baskets' in dir(qv)\n"
        "assert 'numpy' not in sys.modules"
    )


def test_arrays_need_numpy_alone():
    run(
        "import quorvane as qv\n"
        "made = qv.Baskets({'p': {'A': 1.0}}, 'ewma(3);rank')\n"
        "made.run([[1.0]]), made.step({'A': 1.0}), made.step([1.0]), made.explain('A')\n"
        "foreign = {'pandas', 'polars', 'pyarrow', 'narwhals', 'tqdm', 'msgpack'}\n"
        "assert not foreign & set(sys.modules), foreign & set(sys.modules)"
    )


def test_all_public_names_are_there():
    assert set(qv.__all__) <= set(dir(qv))
    for name in qv.__all__:
        assert getattr(qv, name) is getattr(qv, name)
    with pytest.raises(AttributeError, match="has no attribute 'Basket'"):
        qv.Basket  # noqa: B018


def test_public_members_complete():
    made = qv.Baskets(WEIGHTS, "none")
    members = {name for name in dir(made) if not name.startswith("_")}
    assert members >= {
        *("run", "update", "step", "reset", "slots", "explain", "save", "load", "grow", "extend"),
        *("from_long", "baskets", "instruments", "expression", "last_date"),
    }


def test_the_docstrings_examples_are_true():
    failed, tried = doctest.testmod(front)
    assert (failed, tried > 0) == (0, True)


@pytest.mark.parametrize("name", ["Baskets", "SlotUsage", "StateMismatch", "run"])
def test_help_reads(name):
    assert len(pydoc.render_doc(getattr(qv, name))) > 100


def test_every_public_method_says_what_it_does():
    for name, member in inspect.getmembers(qv.Baskets):
        if not name.startswith("_"):
            assert inspect.getdoc(member), name


def test_signatures_name_every_argument():
    names = ["policy", "hold", "instruments", "labels", "capacity", "reclaim", "threads"]
    assert [*inspect.signature(qv.Baskets).parameters][:9] == ["weights", "expression", *names]
    of_long = [*inspect.signature(qv.Baskets.from_long).parameters]
    long_names = ["date", "basket", "instrument", "weight", "complete", *names]
    assert of_long[: len(long_names) + 2] == ["table", "expression", *long_names]
    assert list(inspect.signature(qv.Baskets.explain).parameters) == [
        *("self", "instrument", "date", "returns")
    ]


def test_the_text_shows_expression_baskets_slots_and_the_last_day():
    made = qv.Baskets(WEIGHTS, "ewma(3);rank", instruments=NAMES, capacity=9)
    assert repr(made) == (
        "<Baskets 'ewma(3);rank': baskets 4 of 5 instruments, "
        "slots 0 speaking, 0 known, 9 in all, last day none yet>"
    )
    made.run(numbers(5, missing=0), date=START + np.arange(5))
    text = repr(made)
    for part in ("'ewma(3);rank'", "4 of 5", "9 in all", "2024-01-05"):
        assert part in text
    made.step(np.ones(5))
    assert "6 days" in repr(made)
    assert "column" in repr(qv.Baskets(None, "none"))


def test_notebooks_see_a_table_without_anything_to_run():
    made = qv.Baskets(WEIGHTS, "ewma(3);rank")
    shown = made._repr_html_()
    for part in ("<table>", "ewma(3);rank", "4 of 5 instruments", "4 in all", "none yet"):
        assert part in shown


def test_slot_usage_is_a_value():
    usage = qv.SlotUsage(speaking=1, known=2, capacity=3)
    assert usage == qv.SlotUsage(1, 2, 3)
    assert repr(usage) == "SlotUsage(speaking=1, known=2, capacity=3)"


class Terminal(io.StringIO):
    def isatty(self):
        return True


@pytest.mark.parametrize("is_dated", [False, True])
def test_whoever_watches_a_long_run_sees_a_bar(monkeypatch, is_dated):
    pytest.importorskip("tqdm")
    pandas = pytest.importorskip("pandas")
    from quorvane.baskets import progress

    monkeypatch.setattr(progress, "PATIENCE", 0.0)
    screen = Terminal()
    monkeypatch.setattr(sys, "stderr", screen)
    rows = [(0, "a", "A", 1.0), (100, "b", "B", 1.0), (200, "c", "C", 1.0)]
    if is_dated:
        table = pandas.DataFrame(long_columns(rows))
        made = qv.Baskets.from_long(table, "ewma(3)", instruments=NAMES, capacity=1, reclaim=True)
    else:
        made = qv.Baskets(WEIGHTS, "ewma(3)", instruments=NAMES)
    values, days = numbers(300), START + np.arange(300)
    found = made.run(values, date=days)
    assert "300" in screen.getvalue()
    monkeypatch.undo()
    same_bits(found, made.run(values, date=days))
