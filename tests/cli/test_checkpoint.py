"""Stopping a replay and going on: the outputs of both ways are the same bytes."""

import signal
import sqlite3
import time

import numpy as np
import pytest

from quorvane.cli.checkpoint import RunIdentity
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import write_table

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
        ("prices.csv", "2020-01-03", "2020-01-03x", "other dates before day 9"),
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


def test_there_must_be_a_checkpoint_to_resume_from(go, files):
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert refused.status == 1
    assert "c.db: no such file, expected a checkpoint to resume from" in refused.err
    assert not (files / "c.db").exists()
    from quorvane.stores import SqliteStore

    SqliteStore(files / "c.db").write("else", {})
    refused = go("parts", "--resume", checkpoint=files / "c.db")
    assert "c.db: holds no checkpoint of a replay" in refused.err


def test_a_file_of_something_else_is_refused_before_the_run(go, files):
    (files / "c.db").write_text("this is no store\n" * 100)
    refused = go("parts", checkpoint=files / "c.db")
    assert (refused.status, refused.out) == (1, "")
    assert str(files / "c.db") in refused.err
    assert (files / "c.db").read_text().startswith("this is no store")


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


def test_the_identity_does_not_depend_on_where_a_run_was_stopped():
    def identity():
        return RunIdentity(walk(), {"x": {"A": 1.0}}, {})

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
