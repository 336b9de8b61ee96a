"""Signals are noted between days, and the handlers are put back."""

import os
import signal
import sys
import threading
from pathlib import Path

import pytest

from quorvane.cli import day_loop, day_table
from quorvane.cli.commands import replay as replay_command
from quorvane.cli.libraries import require_library
from quorvane.cli.recording import OutputRecorder
from quorvane.cli.stopping import StopRequest, Terminated, termination_raised


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_the_first_signal_is_noted_and_the_handlers_come_back(number):
    before = signal.getsignal(signal.SIGINT), signal.getsignal(signal.SIGTERM)
    with StopRequest() as stop:
        assert stop.signal_number is None
        os.kill(os.getpid(), number)
        assert stop.signal_number == number
        # A second signal would act at once.
        assert (signal.getsignal(signal.SIGINT), signal.getsignal(signal.SIGTERM)) == before
    assert (signal.getsignal(signal.SIGINT), signal.getsignal(signal.SIGTERM)) == before


def test_without_a_signal_the_handlers_come_back_too():
    before = signal.getsignal(signal.SIGINT)
    with StopRequest():
        assert signal.getsignal(signal.SIGINT) != before
    assert signal.getsignal(signal.SIGINT) == before


@pytest.fixture
def signalled_on_day_3(monkeypatch):
    """Send the given signal to this process while day 3 is recorded, alone or among others."""

    def signalled(number):
        record = OutputRecorder.record

        def signalling(self, day, output):
            if day <= 3 < day + len(output):
                os.kill(os.getpid(), number)
            record(self, day, output)

        monkeypatch.setattr(OutputRecorder, "record", signalling)
        monkeypatch.setattr(day_loop, "FIRST_DAYS", 2)

    return signalled


# A trace has each day computed by itself; without one, two days are followed by four.
ALONE = ({"trace": "t.npz"}, "day 4", "day 4 (2020-01-08)")
AMONG_OTHERS = ({}, "day 6", "day 6 (2020-01-10)")


@pytest.mark.parametrize("days", [ALONE, AMONG_OTHERS], ids=["alone", "among others"])
@pytest.mark.parametrize(("number", "status"), [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_a_run_without_a_checkpoint_stops_after_its_day_and_writes_nothing(
    replay, tmp_path, signalled_on_day_3, number, status, days
):
    options, _, shown_day = days
    signalled_on_day_3(number)
    outcome = replay(**{name: tmp_path / value for name, value in options.items()})
    assert (outcome.status, outcome.err) == (status, "")
    assert outcome.out == (
        f"quorvane replay: stopped before {shown_day}; nothing was written "
        "(with --checkpoint FILE it could be resumed)\n"
    )
    assert sorted(os.listdir(tmp_path)) == ["prices.csv", "structures.toml"]


@pytest.mark.parametrize("days", [ALONE, AMONG_OTHERS], ids=["alone", "among others"])
def test_a_run_with_a_checkpoint_keeps_its_day(
    replay, tmp_path, signalled_on_day_3, monkeypatch, days
):
    pytest.importorskip("msgpack")
    options, day, _ = days
    options = {name: tmp_path / value for name, value in options.items()}
    signalled_on_day_3(signal.SIGTERM)
    assert replay(checkpoint=tmp_path / "c.db", **options).status == 143
    monkeypatch.undo()
    resumed = replay("--resume", checkpoint=tmp_path / "c.db", **options)
    assert resumed.status == 0
    assert f"resumed         before {day}" in resumed.out


STATUS = [(signal.SIGINT, 130), (signal.SIGTERM, 143)]


@pytest.fixture
def signalled_in(monkeypatch):
    """Send the given signal to this process when the function of that name is called."""

    def signalled(number, function):
        def signalling(*arguments, **options):
            # Half of the output is there by now, wherever one is being written.
            for argument in arguments:
                if isinstance(argument, Path) and argument.parent.name.startswith(".part-"):
                    argument.write_text("half")
            os.kill(os.getpid(), number)
            pytest.fail("the signal was not acted upon")

        module = day_table if function == "read_table" else replay_command
        monkeypatch.setattr(module, function, signalling)

    # What a shell starts in the background ignores interrupts.
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield signalled
    signal.signal(signal.SIGINT, before)


@pytest.mark.parametrize(("number", "status"), STATUS)
@pytest.mark.parametrize("function", ["read_table", "prepare", "write_table", "write_trace"])
def test_a_signal_outside_the_days_ends_the_run_and_leaves_nothing_over(
    replay, tmp_path, signalled_in, number, status, function
):
    (tmp_path / "output.csv").write_text("old")
    before = signal.getsignal(signal.SIGINT), signal.getsignal(signal.SIGTERM)
    signalled_in(number, function)
    outcome = replay(trace=tmp_path / "t.jsonl")
    assert (outcome.status, outcome.out, outcome.err) == (status, "", "")
    assert (tmp_path / "output.csv").read_text() == "old"
    assert sorted(os.listdir(tmp_path)) == ["output.csv", "prices.csv", "structures.toml"]
    assert (signal.getsignal(signal.SIGINT), signal.getsignal(signal.SIGTERM)) == before


@pytest.mark.parametrize(("number", "status"), STATUS)
@pytest.mark.parametrize(("owner", "function"), [(Path, "replace"), (os, "rmdir")])
def test_a_signal_while_outputs_take_their_places_waits_until_all_have(
    replay, tmp_path, monkeypatch, number, status, owner, function
):
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    real, calls = getattr(owner, function), []

    def signalling(*arguments, **options):
        calls.append(None)
        if len(calls) == 1:
            os.kill(os.getpid(), number)
        return real(*arguments, **options)

    monkeypatch.setattr(owner, function, signalling)
    try:
        outcome = replay(trace=tmp_path / "t.jsonl")
    finally:
        signal.signal(signal.SIGINT, before)
    assert (outcome.status, outcome.out, outcome.err, len(calls)) == (status, "", "", 2)
    left = ["output.csv", "prices.csv", "structures.toml", "t.jsonl"]
    assert sorted(os.listdir(tmp_path)) == left


SLOW_LIBRARY = """
import os
try:
    os.kill(os.getpid(), {number:d})
    loaded = "whole"
except BaseException:
    loaded = "half"
"""


@pytest.mark.parametrize(
    ("number", "kind"), [(signal.SIGINT, KeyboardInterrupt), (signal.SIGTERM, Terminated)]
)
def test_a_signal_waits_until_a_library_is_loaded(tmp_path, monkeypatch, number, kind):
    name = f"library_that_takes_long_{number:d}"
    (tmp_path / f"{name}.py").write_text(SLOW_LIBRARY.format(number=number))
    monkeypatch.syspath_prepend(tmp_path)
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        with termination_raised(), pytest.raises(kind):
            require_library(name, "a test")
    finally:
        signal.signal(signal.SIGINT, before)
    assert sys.modules.pop(name).loaded == "whole"


def test_in_another_thread_no_handler_is_set(replay):
    statuses = []
    thread = threading.Thread(target=lambda: statuses.append(replay().status))
    thread.start()
    thread.join()
    assert statuses == [0]
