"""What `quorvane replay` can be told of the computation, and what a checkpoint needs of it."""

import sys

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.table_io import read_table
from quorvane.expressions import registered

MINE = """\
import quorvane as qv

@qv.register("halved")
def halved(values, state, times=1):
    return values / 2**times, state

@qv.register("forgetful")
class Forgetful:
    def __init__(self, N_alloc):
        pass

    def __call__(self, values, context=None):
        return values
"""


def error_of(outcome, status):
    assert (outcome.status, outcome.out, outcome.err.count("\n")) == (status, "", 1)
    return outcome.err.strip().removeprefix("quorvane replay: error: ")


@pytest.fixture
def levels(replay, tmp_path):
    """Replay the levels; the outcome and the output's numbers."""

    def levels(*flags, **options):
        outcome = replay(*flags, **{"input": "levels", **options})
        assert outcome.status == 0, outcome.err
        return outcome, read_table(tmp_path / "output.csv").values

    return levels


@pytest.fixture
def mine(tmp_path, monkeypatch):
    """A module with functions of one's own in the working folder."""
    (tmp_path / "my_functions.py").write_text(MINE)
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(sys, "path", [*sys.path])
    monkeypatch.delitem(sys.modules, "my_functions", raising=False)
    monkeypatch.setattr(registered, "FUNCTIONS", {**registered.FUNCTIONS})
    yield
    sys.modules.pop("my_functions", None)


def test_hold_says_for_how_long_a_structure_speaks_without_a_value(levels):
    # PEP has no price on the fourth day.
    _, ever = levels(expression="ewma(3)")
    forever, same = levels(expression="ewma(3)", hold="forever")
    none, dropped = levels(expression="ewma(3)", hold=0)
    _, held = levels(expression="ewma(3)", hold=1)
    assert np.array_equal(ever, same, equal_nan=True)
    assert np.array_equal(ever, held, equal_nan=True)
    assert np.isfinite(ever[3]).all()
    assert np.isnan(dropped[3]).tolist() == [True, True, False, False]
    assert "  hold            for ever\n" in forever.out
    assert "  hold            0 days\n" in none.out


@pytest.mark.parametrize("text", ["-1", "1.5", "x", "1_0", ""])
def test_a_hold_is_a_number_of_days(replay, text):
    outcome = replay(hold=text)
    assert outcome.status == 2
    assert "expected a number of days, 0 or more, or forever" in outcome.err


def test_a_checkpoint_of_another_hold_is_not_resumed(replay, tmp_path):
    pytest.importorskip("msgpack")
    options = {"checkpoint": tmp_path / "c.db"}
    assert replay(stop_after=3, **options).status == 0
    text = error_of(replay("--resume", hold=2, **options), 1)
    assert text.endswith("the checkpoint was made with --hold 'forever', not '2'")


def test_functions_of_ones_own_come_from_a_module(levels, mine):
    _, usual = levels(expression="ewma(3)")
    _, halved = levels(expression="ewma(3);halved(times=2)", functions="my_functions")
    assert np.array_equal(halved, usual / 4, equal_nan=True)


def test_a_module_that_cannot_be_imported_is_one_line(replay, mine, tmp_path):
    text = error_of(replay(functions="no_such_module"), 2)
    assert text.startswith("--functions no_such_module: cannot be imported: ModuleNotFoundError")
    (tmp_path / "broken.py").write_text("1 / 0\n")
    text = error_of(replay(functions="broken"), 2)
    assert text == "--functions broken: cannot be imported: ZeroDivisionError: division by zero"


def test_a_function_that_keeps_no_state_is_refused_before_the_first_day(replay, mine, tmp_path):
    pytest.importorskip("msgpack")
    options = {"expression": "forgetful", "functions": "my_functions"}
    text = error_of(replay(checkpoint=tmp_path / "c.db", **options), 2)
    assert text.startswith("--checkpoint: 'forgetful' of the expression has no get_state, set_st")
    assert not (tmp_path / "c.db").exists()
    assert replay(**options).status == 0


def test_own_functions_go_on_from_a_checkpoint(replay, mine, tmp_path):
    pytest.importorskip("msgpack")
    options = {"expression": "halved;ewma(3)", "functions": "my_functions"}
    assert replay(**options).status == 0
    whole = (tmp_path / "output.csv").read_bytes()
    options["checkpoint"] = tmp_path / "c.db"
    assert replay(stop_after=4, **options).status == 0
    assert replay("--resume", **options).status == 0
    assert (tmp_path / "output.csv").read_bytes() == whole


def test_a_checkpoint_without_msgpack_is_refused_before_a_file_is_read(
    replay, tmp_path, monkeypatch
):
    for name in [name for name in sys.modules if name.partition(".")[0] == "msgpack"]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.setitem(sys.modules, "msgpack", None)
    text = error_of(replay(table=tmp_path / "none.csv", checkpoint=tmp_path / "c.db"), 1)
    assert text.startswith(f"{tmp_path / 'c.db'}: encoding a state needs the package msgpack")
    assert not (tmp_path / "c.db").exists()


@pytest.fixture
def labels(write):
    """The sector of each structure."""
    return write("labels.csv", "key;sector\nXOM/CVX;oil\nKO/PEP;drinks\ndrinks/oil;drinks\n")


def test_labels_make_groups(levels, labels, structures, prices):
    _, output = levels(expression='demean(by="sector")', labels=labels, hold=0)
    baskets = qv.Baskets(
        {
            "KO/PEP": {"KO": 1.0, "PEP": -1.0},
            "XOM/CVX": {"XOM": 1.0, "CVX": -1.0},
            "drinks/oil": {"KO": 0.5, "PEP": 0.5, "XOM": -1.0},
        },
        'demean(by="sector")',
        instruments=("KO", "PEP", "XOM", "CVX"),
        labels={"sector": {"KO/PEP": 1, "XOM/CVX": 2, "drinks/oil": 1}},
    )
    assert np.array_equal(output, baskets.run(read_table(prices).values), equal_nan=True)


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("key,sector\nKO/PEPP,x\n", "line 2: there is no structure 'KO/PEPP'; did you mean 'KO/P"),
        ("key,sector\nKO/PEP,x\nKO/PEP,y\n", "line 3: duplicate key 'KO/PEP', expected each key"),
        ("key\nKO/PEP\n", "line 1: expected a header of key and the names of labels"),
        ("key,a,a\n", "line 1: expected a header of key and the names of labels, each once"),
        ("key,sector\nKO/PEP\n", "line 2: 1 cells, expected 2 as in the header"),
    ],
)
def test_a_fault_in_the_labels_is_named_with_its_line(replay, write, text, message):
    path = write("labels.csv", text)
    assert error_of(replay(labels=path), 1).startswith(f"{path}, {message}")


def test_labels_of_dated_structures_may_be_of_some_that_are_still_to_come(replay, write, labels):
    dated = "date,key,instrument,weight\n2020-01-02,KO/PEP,KO,1\n"
    options = {"structures": write("dated.csv", dated), "expression": 'rank(by="sector")'}
    assert replay(labels=labels, **options).status == 0


def test_labels_that_are_needed_and_missing_are_named(replay, write, labels):
    expression = 'rank(by="sector")'
    text = error_of(replay(expression=expression), 2)
    assert text.endswith("labels: there is no 'sector'; none are given")
    path = write("labels.csv", "key,sector\nXOM/CVX,oil\nKO/PEP,\n")
    text = error_of(replay(expression=expression, labels=path), 2)
    assert text == "--labels: 'sector' has none for 'KO/PEP', 'drinks/oil'"


def test_other_labels_are_not_resumed(replay, tmp_path, labels):
    pytest.importorskip("msgpack")
    options = {"labels": labels, "checkpoint": tmp_path / "c.db", "expression": "rank"}
    assert replay(stop_after=3, **options).status == 0
    labels.write_text(labels.read_text().replace("XOM/CVX;oil", "XOM/CVX;drinks"))
    text = error_of(replay("--resume", **options), 1)
    assert text.endswith("the checkpoint was made with other labels")


def test_no_output_overwrites_the_labels(replay, labels):
    text = error_of(replay(labels=labels, output=labels), 2)
    assert text == f"{labels}: cannot be both labels and the table to write"


@pytest.mark.parametrize("subcommand", ["replay", "explain", "checkpoint", "checkpoint show"])
def test_every_subcommand_has_its_help(command, subcommand):
    assert subcommand.split()[0] in command("--help").out
    outcome = command(*subcommand.split(), "--help")
    assert outcome.status == 0
    assert outcome.out.startswith(f"usage: quorvane {subcommand} ")
