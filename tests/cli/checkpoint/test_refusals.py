"""Checkpoints that do not fit the run, or are no checkpoints."""

import sqlite3
import sys

import numpy as np
import pytest

from cli.checkpoint.replays import outputs, stored, walk
from quorvane.cli.table_io import write_table

pytest.importorskip("msgpack")


@pytest.mark.parametrize(
    ("options", "text"),
    [
        ({"expression": "rank"}, "with --expression 'ewma(5);zscore', not 'rank'"),
        ({"policy": "equal_split"}, "with --policy 'proportional', not 'equal_split'"),
        ({"input": "levels"}, "with --input 'returns', not 'levels'"),
        ({"max_structures": 4}, "with --max-structures 3, not 4"),
        ({"trace": None}, "with --trace given, not absent"),
    ],
)
def test_other_options_are_refused(go, files, options, text):
    go("parts", checkpoint=files / "c.db", stop_after=9)
    refused = go("parts", "--resume", checkpoint=files / "c.db", **options)
    assert (refused.status, refused.out) == (1, "")
    start = f"quorvane replay: error: {files / 'c.db'}: the checkpoint was made "
    assert refused.err == f"{start}{text}\n"


@pytest.mark.parametrize(
    ("name", "old", "new", "text"),
    [
        ("structures.toml", "0.3", "0.30000000000000004", "other structures, or in another order"),
        ("structures.toml", "[mix]", "[mixed]", "other structures, or in another order"),
        ("prices.csv", "Date,A,B,C,D", "Date,B,A,C,D", "other instruments, or in another order"),
        ("prices.csv", "2020-01-03", "2020-01-03T01:00", "other dates before day 9"),
        ("prices.csv", "\n2020-01-03,", "\n2020-01-03,1", "other values before day 9"),
    ],
)
def test_other_files_are_refused(go, files, name, old, new, text):
    go("parts", checkpoint=files / "c.db", stop_after=9)
    content = (files / name).read_text()
    assert old in content
    (files / name).write_text(content.replace(old, new))
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert refused.status == 1
    assert refused.err.endswith(f"c.db: the checkpoint was made with {text}\n")


def test_a_table_that_has_become_shorter_is_refused(go, files):
    go("parts", checkpoint=files / "c.db", stop_after=20)
    write_table(files / "prices.csv", walk(days=19))
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert "the checkpoint was made after 20 days, the table has only 19" in refused.err


def empty_file(path):
    path.touch()


def store_without_tables(path):
    database = sqlite3.connect(path)
    assert database.execute("PRAGMA journal_mode = WAL").fetchone() == ("wal",)
    database.close()
    assert path.stat().st_size > 0


def store_without_a_run(path):
    from quorvane.stores import SqliteStore

    SqliteStore(path).write("else", {})


def run_without_a_head(path):
    from quorvane.stores import SqliteStore

    SqliteStore(path, namespace="quorvane replay").write("writer", "another")


NOT_BEGUN = [lambda path: None, empty_file, store_without_tables]


NOT_BEGUN += [store_without_a_run, run_without_a_head]


@pytest.mark.parametrize("make", NOT_BEGUN)
def test_a_run_that_had_not_begun_is_resumed_from_the_beginning(go, files, whole, make):
    make(files / "c.db")
    begun = go("parts", "--resume", checkpoint=files / "c.db", stop_after=9)
    assert (begun.status, begun.err) == (
        0,
        f"quorvane replay: {files / 'c.db'}: holds no run yet, beginning with day 0\n",
    )
    resumed = go("parts", "--resume", checkpoint=files / "c.db")
    assert (resumed.status, resumed.err) == (0, "")
    assert "resumed         before day 9" in resumed.out
    assert outputs(files, "parts") == whole


def test_a_quiet_run_begins_without_a_word(go, files, whole):
    begun = go("parts", "--resume", "--quiet", checkpoint=files / "c.db")
    assert (begun.status, begun.out, begun.err) == (0, "", "")
    assert outputs(files, "parts") == whole


def test_a_word_that_nobody_can_be_told_is_no_failure(go, files, whole, monkeypatch):
    with open("/dev/full", "w") as full:
        monkeypatch.setattr(sys, "stderr", full)
        assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    monkeypatch.setattr(sys, "stderr", None)
    (files / "c.db").unlink()
    assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    monkeypatch.undo()
    assert outputs(files, "parts") == whole


def test_a_word_about_a_path_is_one_line(go, files):
    begun = go("parts", "--resume", checkpoint=files / "a\nb.db")
    assert begun.status == 0
    assert begun.err.endswith("/a\\nb.db: holds no run yet, beginning with day 0\n")
    assert begun.err.count("\n") == 1


def test_records_of_others_in_the_file_stay(go, files):
    from quorvane.stores import SqliteStore

    SqliteStore(files / "c.db").write("else", {"a": 1})
    assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    assert SqliteStore(files / "c.db").load("else") == {"a": 1}


def text_file(path):
    path.write_text("this is no store\n" * 100)


def short_text_file(path):
    path.write_text("this is no store\n")


def another_database(path):
    with sqlite3.connect(path) as database:
        database.execute("CREATE TABLE mine (x)")
    database.close()


@pytest.mark.parametrize("flags", [[], ["--resume"]], ids=["start", "resume"])
@pytest.mark.parametrize("make", [text_file, short_text_file, another_database])
def test_a_file_of_something_else_is_refused_before_the_run(go, files, flags, make):
    make(files / "c.db")
    before = (files / "c.db").read_bytes()
    refused = go("parts", *flags, checkpoint=files / "c.db")
    assert (refused.status, refused.out) == (1, "")
    assert refused.err.startswith(f"quorvane replay: error: {files / 'c.db'}: ")
    assert refused.err.count("\n") == 1
    assert (files / "c.db").read_bytes() == before


def test_a_damaged_checkpoint_is_noticed(go, files):
    go("parts", checkpoint=files / "c.db", stop_after=9)
    with sqlite3.connect(files / "c.db") as database:
        (data,) = database.execute("SELECT data FROM records WHERE name = 'rows 0'").fetchone()
        changed = data[:-1] + bytes([data[-1] ^ 1])
        database.execute("UPDATE records SET data = ? WHERE name = 'rows 0'", (changed,))
    database.close()
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert refused.status == 1
    assert "damaged" in refused.err


def assert_makes_no_sense(go, files, text):
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert (refused.status, refused.out) == (1, "")
    start = f"quorvane replay: error: {files / 'c.db'}: "
    assert refused.err.startswith(start)
    assert text in refused.err
    assert refused.err.count("\n") == 1
    assert not (files / "parts.csv").exists()


def test_rows_of_another_run_are_not_taken(go, files):
    go("other", checkpoint=files / "c.db", checkpoint_every=5, stop_after=20)
    foreign = stored(files).load("rows 1")
    go("first", checkpoint=files / "c.db", checkpoint_every=5, stop_after=20)
    assert foreign["last"] == stored(files).load("rows 1")["last"]
    stored(files).write("rows 1", foreign)
    assert_makes_no_sense(go, files, "some of its rows are of another run")


HEADS = {
    "no dict": (lambda head: [1], "its head has no format"),
    "empty": (lambda head: {}, "its head has no format"),
    "a format that is no number": (lambda head: {**head, "format": "x"}, "has no format"),
    "an older format": (lambda head: {"format": 2}, "has format 2, expected 3: it was made by"),
    "a field too few": (lambda head: {"format": 3}, "its head has other fields"),
    "a run without token": (lambda head: {**head, "run": None}, "its run has no token"),
    "another run": (lambda head: {**head, "run": "x"}, "rows are of another run"),
    "a day that is text": (lambda head: {**head, "next_day": "a"}, "its day is no day number"),
    "a negative day": (lambda head: {**head, "next_day": -1}, "its day is no day number"),
    "a number of records that is text": (lambda head: {**head, "records": "2"}, "records is none"),
    "a record less": (lambda head: {**head, "records": 3}, "the rows of day 15 are not there"),
    "a record more": (lambda head: {**head, "records": 5}, "no record named 'rows 4'"),
    "no identity": (lambda head: {**head, "identity": 7}, "does not say what it was made with"),
    "options of an odd kind": (
        lambda head: {
            **head,
            "identity": {**head["identity"], "options": {"input": np.zeros(3)}},
        },
        "does not say what it was made with",
    ),
    "values of an odd kind": (
        lambda head: {**head, "identity": {**head["identity"], "values": np.zeros(3)}},
        "does not say what it was made with",
    ),
    "no state": (lambda head: {**head, "rotation": None}, "the rotation refuses its state"),
}


@pytest.mark.parametrize(("alter", "text"), HEADS.values(), ids=HEADS)
def test_a_head_that_makes_no_sense_is_refused(go, files, alter, text):
    go("first", checkpoint=files / "c.db", checkpoint_every=5, stop_after=20)
    stored(files).write("head", alter(stored(files).load("head")))
    assert_makes_no_sense(go, files, text)


ROWS = {
    "no dict": (lambda rows: 5, "its rows have other fields"),
    "a field too few": (lambda rows: {"run": rows["run"]}, "its rows have other fields"),
    "other days": (lambda rows: {**rows, "first": 0, "last": 5}, "rows of day 5 are not there"),
    "days beyond the head": (lambda rows: {**rows, "last": 21}, "rows of day 5 are not there"),
    "no days": (lambda rows: {**rows, "last": 5}, "rows of day 5 are not there"),
    "a day that is an array": (lambda rows: {**rows, "first": np.array([5, 5])}, "rows of day 5"),
    "an array missing": (lambda rows: {**rows, "arrays": {}}, "its rows are of other arrays"),
    "an array too short": (
        lambda rows: {**rows, "arrays": {k: v[1:] for k, v in rows["arrays"].items()}},
        "do not fit",
    ),
    "an array of text": (
        lambda rows: {
            **rows,
            "arrays": {k: np.full(v.shape, "x") for k, v in rows["arrays"].items()},
        },
        "do not fit",
    ),
    "a list": (
        lambda rows: {**rows, "arrays": {k: v.tolist() for k, v in rows["arrays"].items()}},
        "do not fit",
    ),
}


@pytest.mark.parametrize(("alter", "text"), ROWS.values(), ids=ROWS)
def test_rows_that_make_no_sense_are_refused(go, files, alter, text):
    go("first", checkpoint=files / "c.db", checkpoint_every=5, stop_after=20)
    stored(files).write("rows 1", alter(stored(files).load("rows 1")))
    assert_makes_no_sense(go, files, text)
