"""`quorvane checkpoint show` says what a checkpoint holds, and changes nothing."""

import re

import pytest

pytest.importorskip("msgpack")


@pytest.fixture
def kept(replay, tmp_path):
    """The path of a checkpoint after three of seven days."""
    path = tmp_path / "c.db"
    assert replay(expression="ewma(3)", checkpoint=path, stop_after=3).status == 0
    return path


def test_it_says_what_run_it_is_how_far_and_when(command, kept, prices, structures, tmp_path):
    outcome = command("checkpoint", "show", kept)
    assert (outcome.status, outcome.err) == (0, "")
    head, *rows = outcome.out.splitlines()
    assert head == str(kept)
    shown = dict(re.split(r"  +", row.strip(), maxsplit=1) for row in rows)
    assert re.fullmatch(r"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\+00:00", shown.pop("kept"))
    assert re.fullmatch(r"[\d,]+ bytes", shown.pop("size"))
    assert shown == {
        "table": str(prices),
        "structures file": str(structures),
        "output": str(tmp_path / "output.csv"),
        "input": "returns",
        "expression": "ewma(3)",
        "policy": "proportional",
        "hold": "forever",
        "changes-only": "no",
        "max-structures": "3",
        "plot": "no",
        "trace": "no",
        "computed": "3 of 7 days, the last one 2020-01-06",
    }


def test_looking_changes_nothing(command, replay, kept, tmp_path):
    before = kept.read_bytes()
    command("checkpoint", "show", kept)
    assert kept.read_bytes() == before
    assert replay("--resume", expression="ewma(3)", checkpoint=kept).status == 0
    assert "7 of 7 days, the last one 2020-01-10" in command("checkpoint", "show", kept).out


def error_of(command, path):
    outcome = command("checkpoint", "show", path)
    assert (outcome.status, outcome.out, outcome.err.count("\n")) == (1, "", 1)
    start = f"quorvane checkpoint: error: {path}: "
    assert outcome.err.startswith(start)
    return outcome.err.strip().removeprefix(start)


def test_what_is_not_there_is_not_made(command, tmp_path):
    assert error_of(command, tmp_path / "c.db") == "no such file, expected a checkpoint"
    assert not (tmp_path / "c.db").exists()


def test_another_file_is_no_checkpoint(command, prices):
    before = prices.read_bytes()
    assert "SQLite" in error_of(command, prices)
    assert prices.read_bytes() == before


def test_a_store_without_a_run_says_so(command, tmp_path):
    from quorvane.stores import SqliteStore

    SqliteStore(tmp_path / "c.db").write("else", {})
    assert error_of(command, tmp_path / "c.db") == "holds no run of a replay"


@pytest.mark.parametrize(
    ("alter", "message"),
    [
        (lambda head: {**head, "format": 2}, "has format 2, expected 3: it was made by another "
         "version and cannot be resumed"),
        (lambda head: {**head, "about": 5}, "makes no sense: it does not say what run it is of"),
        (lambda head: {**head, "about": {"table": []}}, "makes no sense: its run has odd words"),
        (lambda head: 5, "makes no sense: its head has no format"),
    ],
)  # fmt: skip
def test_what_cannot_be_shown_is_one_line(command, kept, alter, message):
    from quorvane.stores import SqliteStore

    store = SqliteStore(kept, namespace="quorvane replay", keep=1)
    store.write("head", alter(store.load("head")))
    assert error_of(command, kept) == f"the checkpoint {message}"


def test_a_name_of_odd_bytes_is_shown_with_escapes(command, replay, tmp_path):
    options = {"output": tmp_path / "o\udcff.csv", "checkpoint": tmp_path / "c\udcff.db"}
    assert replay(stop_after=3, **options).status == 0
    shown = command("checkpoint", "show", options["checkpoint"])
    assert shown.status == 0, shown.err
    assert "o\\udcff.csv" in shown.out


def test_an_action_is_needed(command):
    outcome = command("checkpoint")
    assert outcome.status == 2
    assert "the following arguments are required: ACTION" in outcome.err
