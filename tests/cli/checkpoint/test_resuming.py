"""Stopping a replay and going on gives the outputs of one that was not stopped."""

import signal
import time

import numpy as np
import pytest

from cli.checkpoint.replays import DAYS, EXPRESSION, outputs, walk
from quorvane.cli.run_identity import RunIdentity
from quorvane.cli.structures import fixed_book
from quorvane.cli.table_io import write_table

pytest.importorskip("msgpack")


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
