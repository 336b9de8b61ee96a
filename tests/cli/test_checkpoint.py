"""Stopping a replay and going on: the outputs of both ways are the same bytes."""

import signal
import sqlite3
import sys
import time

import numpy as np
import pytest

from quorvane.cli.checkpoint import Checkpoint
from quorvane.cli.commands import replay as replay_command
from quorvane.cli.files import WholeOutputs
from quorvane.cli.run_identity import RunIdentity
from quorvane.cli.structures import fixed_book
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import write_table
from quorvane.cli.trace import write_trace

pytest.importorskip("msgpack")

EXPRESSION = "ewma(5);zscore"
STRUCTURES = '["A/B"]\nA = 1.0\nB = -1.0\n[mix]\nA = 0.3\nC = 0.7\n[late]\nD = 1.0\n'
DAYS = 40


def walk(days=DAYS, seed=11):
    """Prices of four instruments; some missing, the last one not there at first."""
    rng = np.random.default_rng(seed)
    values = 100.0 * np.exp(rng.normal(0.0, 0.02, size=(DAYS, 4)).cumsum(axis=0))
    values[rng.random(values.shape) < 0.05] = np.nan
    values[:9, 3] = np.nan
    labels = np.datetime_as_string(np.datetime64("2020-01-01") + np.arange(DAYS))
    return Table(values[:days], tuple("ABCD"), Dates("Date", tuple(labels[:days])))


@pytest.fixture
def files(tmp_path, write):
    """Paths of the table, the structures and the checkpoint."""
    write_table(tmp_path / "prices.csv", walk())
    write("structures.toml", STRUCTURES)
    return tmp_path


@pytest.fixture
def go(replay, files):
    """Run the replay with an output and a trace of the given name."""

    def go(name, *flags, **options):
        return replay(
            *flags,
            **{
                "table": files / "prices.csv",
                "structures": files / "structures.toml",
                "expression": EXPRESSION,
                "output": files / f"{name}.csv",
                "trace": files / f"{name}.npz",
                **options,
            },
        )

    return go


@pytest.fixture
def whole(go, files):
    """The outputs' bytes of a replay that was never stopped."""
    assert go("whole").status == 0
    return outputs(files, "whole")


def outputs(folder, name):
    return (folder / f"{name}.csv").read_bytes(), (folder / f"{name}.npz").read_bytes()


@pytest.mark.parametrize("stop_after", [1, 2, 9, 20, DAYS - 1])
def test_stopped_and_resumed_gives_the_same_bytes(go, files, whole, stop_after):
    store = files / "c.db"
    stopped = go("parts", checkpoint=store, stop_after=stop_after)
    assert stopped.status == 0
    label = walk().dates.text[stop_after]
    assert stopped.out == (
        f"quorvane replay: stopped before day {stop_after} ({label}); "
        f"go on with --checkpoint {store} --resume\n"
    )
    assert not (files / "parts.csv").exists()
    resumed = go("parts", "--resume", checkpoint=store)
    assert resumed.status == 0, resumed.err
    assert f"resumed         before day {stop_after}" in resumed.out
    assert outputs(files, "parts") == whole


def test_stopped_every_seven_days_gives_the_same_bytes(go, files, whole):
    options = {"checkpoint": files / "c.db", "stop_after": 7, "checkpoint_every": 3}
    assert go("parts", **options).status == 0
    for _ in range(DAYS // 7):
        assert go("parts", "--resume", **options).status == 0
    assert outputs(files, "parts") == whole


def test_rows_are_split_into_records_of_moderate_size(go, files, whole, monkeypatch):
    monkeypatch.setattr("quorvane.cli.checkpoint._RECORD_BYTES", 400)
    go("parts", checkpoint=files / "c.db", stop_after=23)
    assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    assert outputs(files, "parts") == whole


def test_a_finished_replay_is_resumed_when_the_table_has_grown(go, files, whole):
    grown = (files / "prices.csv").read_bytes()
    write_table(files / "prices.csv", walk(days=25))
    assert go("short", checkpoint=files / "c.db").status == 0
    (files / "prices.csv").write_bytes(grown)
    resumed = go("parts", "--resume", checkpoint=files / "c.db")
    assert "s for 15 days" in resumed.out
    assert outputs(files, "parts") == whole


def test_resuming_a_finished_replay_computes_nothing_and_writes_it_again(go, files, whole):
    go("first", checkpoint=files / "c.db")
    again = go("again", "--resume", checkpoint=files / "c.db")
    assert "no day left to compute" in again.out
    assert outputs(files, "again") == whole


def test_a_picture_can_be_drawn_after_resuming(go, files):
    pytest.importorskip("matplotlib")
    options = {"checkpoint": files / "c.db", "plot": files / "p.png"}
    go("parts", stop_after=9, **options)
    assert go("parts", "--resume", **options).status == 0
    resumed = (files / "p.png").read_bytes()
    assert go("whole", plot=files / "p.png").status == 0
    assert (files / "p.png").read_bytes() == resumed


def test_starting_anew_forgets_the_run_before(go, files, whole):
    go("other", checkpoint=files / "c.db", expression="rank", stop_after=30)
    go("parts", checkpoint=files / "c.db", stop_after=5)
    assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    assert outputs(files, "parts") == whole


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


def stored(files):
    """The checkpoint's records, to be read and altered."""
    from quorvane.stores import SqliteStore

    return SqliteStore(files / "c.db", namespace="quorvane replay", keep=1)


def assert_makes_no_sense(go, files, text):
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert (refused.status, refused.out) == (1, "")
    start = f"quorvane replay: error: {files / 'c.db'}: "
    assert refused.err.startswith(start)
    assert text in refused.err
    assert refused.err.count("\n") == 1
    assert not (files / "parts.csv").exists()


def test_a_replay_that_another_has_taken_over_from_writes_no_more(go, files, monkeypatch):
    options = {"checkpoint": files / "c.db", "checkpoint_every": 7, "stop_after": 35}
    save, answers = Checkpoint.save, []

    def save_with_another_run_between(self, day):
        if day == 21 and not answers:
            answers.append(None)
            answers[0] = go("other", **{**options, "checkpoint_every": 10, "stop_after": 12})
        save(self, day)

    monkeypatch.setattr(Checkpoint, "save", save_with_another_run_between)
    first = go("first", **options)
    assert (first.status, answers[0].status) == (1, 0)
    assert first.err.endswith("c.db: another replay has taken the checkpoint over\n")
    assert go("parts", "--resume", checkpoint=files / "c.db").status == 0
    assert go("whole").status == 0
    assert outputs(files, "parts") == outputs(files, "whole")


def test_a_replay_resumed_twice_at_once_is_written_by_the_later_one(go, files, whole, monkeypatch):
    options = {"checkpoint": files / "c.db", "checkpoint_every": 5}
    assert go("parts", stop_after=10, **options).status == 0
    save, answers = Checkpoint.save, []

    def save_with_another_run_between(self, day):
        if not answers:
            answers.append(None)
            answers[0] = go("parts", "--resume", **options)
        save(self, day)

    monkeypatch.setattr(Checkpoint, "save", save_with_another_run_between)
    assert go("first", "--resume", **options).status == 1
    assert answers[0].status == 0
    assert outputs(files, "parts") == whole


def test_a_run_that_cannot_be_resumed_is_not_taken_over(go, files, monkeypatch):
    options = {"checkpoint": files / "c.db", "checkpoint_every": 5}
    save, answers = Checkpoint.save, []

    def save_with_another_run_between(self, day):
        if day == 10:
            answers.append(go("other", "--resume", **{**options, "expression": "rank"}))
        save(self, day)

    monkeypatch.setattr(Checkpoint, "save", save_with_another_run_between)
    assert go("first", **options).status == 0
    assert [answer.status for answer in answers] == [1]


def test_a_checkpoint_that_has_been_removed_is_missed_by_its_run(go, files, monkeypatch):
    save = Checkpoint.save

    def save_after_a_removal(self, day):
        (files / "c.db").unlink()
        save(self, day)

    monkeypatch.setattr(Checkpoint, "save", save_after_a_removal)
    missed = go("first", checkpoint=files / "c.db")
    assert (missed.status, missed.out) == (1, "")
    assert missed.err.endswith("c.db: the checkpoint of this run has been removed\n")


@pytest.fixture
def hasty(monkeypatch):
    """Nobody waits long for another who has the checkpoint."""
    from quorvane.stores import SqliteStore

    monkeypatch.setitem(SqliteStore.__init__.__kwdefaults__, "busy_timeout", 0.05)


@pytest.fixture
def interrupted_check(monkeypatch):
    """Call a function just after a run has found, for the given time, that the file is its own."""

    def interrupted(time, function):
        check, calls = Checkpoint._require_own, []

        def check_and_call(self, records):
            check(self, records)
            calls.append(None)
            if len(calls) == time:
                function()

        monkeypatch.setattr(Checkpoint, "_require_own", check_and_call)

    return interrupted


@pytest.mark.parametrize("flags", [[], ["--resume"]], ids=["start", "resume"])
def test_nobody_takes_over_between_a_check_and_its_write(
    go, files, whole, hasty, interrupted_check, flags
):
    options = {"checkpoint": files / "c.db", "checkpoint_every": 7}
    answers = []
    interrupted_check(2, lambda: answers.append(go("other", *flags, **options)))
    assert go("first", **options).status == 0
    (answer,) = answers
    assert (answer.status, answer.out) == (1, "")
    assert answer.err.startswith(f"quorvane replay: error: {files / 'c.db'}: ")
    assert answer.err.endswith("another process held it for 0.05 seconds\n")
    assert not (files / "other.csv").exists()
    assert outputs(files, "first") == whole
    assert go("again", "--resume", **options).status == 0
    assert outputs(files, "again") == whole


def test_outputs_take_their_places_only_while_the_run_has_the_checkpoint(go, files, monkeypatch):
    options = {"checkpoint": files / "c.db"}
    (files / "first.csv").write_text("old")
    answers = []

    def make_with_another_run_between(*arguments):
        monkeypatch.undo()
        answers.append(go("other", **options))
        write_trace(*arguments)

    monkeypatch.setattr(replay_command, "write_trace", make_with_another_run_between)
    first = go("first", **options)
    assert (first.status, first.out, answers[0].status) == (1, "", 0)
    assert first.err.endswith("c.db: another replay has taken the checkpoint over\n")
    assert (files / "first.csv").read_text() == "old"
    assert not (files / "first.npz").exists()
    assert [path for path in files.iterdir() if path.name.startswith(".part-")] == []


def test_nobody_takes_over_while_the_outputs_take_their_places(
    go, files, whole, hasty, monkeypatch
):
    options = {"checkpoint": files / "c.db"}
    take_places, answers = WholeOutputs.take_places, []

    def take_places_with_another_run_between(self):
        monkeypatch.setattr(WholeOutputs, "take_places", take_places)
        answers.append(go("other", **options))
        take_places(self)

    monkeypatch.setattr(WholeOutputs, "take_places", take_places_with_another_run_between)
    assert go("first", **options).status == 0
    assert answers[0].status == 1
    assert answers[0].err.endswith("another process held it for 0.05 seconds\n")
    assert outputs(files, "first") == whole


def test_others_need_not_wait_while_the_state_of_the_rotation_is_packed(
    go, files, hasty, monkeypatch
):
    from quorvane import stores

    pack, packed = stores.pack, []

    def pack_while_another_writes(state):
        stores.SqliteStore(files / "c.db").write("else", len(packed))
        packed.append(state.get("next_day"))
        return pack(state)

    monkeypatch.setattr(stores, "pack", pack_while_another_writes)
    assert go("first", checkpoint=files / "c.db", checkpoint_every=15).status == 0
    assert packed == [None, 0, 15, 30, DAYS]


def test_a_save_that_fails_half_way_leaves_the_one_before(go, files, whole, monkeypatch):
    options = {"checkpoint": files / "c.db", "checkpoint_every": 7}
    rows, calls = Checkpoint._rows, []
    monkeypatch.setattr("quorvane.cli.checkpoint._RECORD_BYTES", 400)

    def fail_on_a_later_record(self, first, last):
        calls.append(None)
        if len(calls) == 12:
            raise KeyboardInterrupt
        return rows(self, first, last)

    monkeypatch.setattr(Checkpoint, "_rows", fail_on_a_later_record)
    assert go("parts", **options).status == 130
    monkeypatch.undo()
    head = stored(files).load("head")
    assert f"rows {head['records']}" not in stored(files).names()
    assert 0 < head["next_day"] == stored(files).load(f"rows {head['records'] - 1}")["last"]
    assert go("parts", "--resume", **options).status == 0
    assert outputs(files, "parts") == whole


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


def test_the_identity_does_not_depend_on_where_a_run_was_stopped():
    def identity():
        return RunIdentity(walk(), fixed_book({"x": {"A": 1.0}}, "ABCD"), {})

    stepwise = identity()
    for day in (0, 3, 4, 17):
        last = stepwise.upto(day)
    assert last == identity().upto(17)
    assert last != identity().upto(16)


@pytest.fixture
def long_run(files):
    """Arguments of a replay that takes some seconds, with the outputs given by name."""
    rng = np.random.default_rng(2)
    np.save(files / "long.npy", 100.0 + rng.normal(size=(40_000, 4)).cumsum(axis=0) * 0.01)
    (files / "long.toml").write_text("[a]\n0 = 1.0\n1 = -1.0\n[b]\n2 = 1.0\n3 = -1.0\n")

    def long_run(output, *more):
        return [
            "replay", "long.npy", "--structures", "long.toml", "--expression", EXPRESSION,
            "--output", output, *more,
        ]  # fmt: skip

    return long_run


def saved_days(path):
    """How far the checkpoint has come, 0 while there is none."""
    from quorvane.stores import SqliteStore

    try:
        return SqliteStore(path, namespace="quorvane replay").load("head")["next_day"]
    except LookupError:
        return 0


def wait_for_days(running, path):
    for _ in range(600):
        if path.exists() and saved_days(path) > 0:
            return
        assert running.poll() is None, running.communicate()
        time.sleep(0.02)
    pytest.fail("no checkpoint within twelve seconds")


@pytest.mark.parametrize(
    ("number", "status"), [(signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGKILL, -9)]
)
def test_a_signal_loses_nothing(start, process, files, long_run, number, status):
    checkpoint = ["--checkpoint", "c.db", "--checkpoint-every", "20"]
    running = start(*long_run("parts.npy", *checkpoint))
    wait_for_days(running, files / "c.db")
    running.send_signal(number)
    out, err = running.communicate(timeout=60)
    assert running.returncode == status, err
    assert not (files / "parts.npy").exists()
    if number != signal.SIGKILL:
        assert "go on with --checkpoint c.db --resume" in out
        assert err == ""
    done = process(*long_run("parts.npy", *checkpoint[:2], "--resume"))
    assert done.returncode == 0, done.stderr
    assert process(*long_run("whole.npy")).returncode == 0
    assert (files / "parts.npy").read_bytes() == (files / "whole.npy").read_bytes()
