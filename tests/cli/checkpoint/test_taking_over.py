"""Replays that share a checkpoint: one of them has it."""

import pytest

from cli.checkpoint.replays import DAYS, outputs, stored
from quorvane.cli.checkpoint import Checkpoint
from quorvane.cli.commands import replay as replay_command
from quorvane.cli.files import WholeOutputs
from quorvane.cli.trace import write_trace

pytest.importorskip("msgpack")


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
