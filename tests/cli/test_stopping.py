"""Signals are noted between days, and the handlers are put back."""

import os
import signal

import pytest

from quorvane.cli.recording import OutputRecorder
from quorvane.cli.stopping import StopRequest


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
    """Send the given signal to this process while day 3 is recorded."""

    def signalled(number):
        record = OutputRecorder.record

        def signalling(self, day, output):
            if day == 3:
                os.kill(os.getpid(), number)
            record(self, day, output)

        monkeypatch.setattr(OutputRecorder, "record", signalling)

    return signalled


@pytest.mark.parametrize(("number", "status"), [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_a_run_without_a_checkpoint_stops_after_its_day_and_writes_nothing(
    replay, tmp_path, signalled_on_day_3, number, status
):
    signalled_on_day_3(number)
    outcome = replay()
    assert (outcome.status, outcome.err) == (status, "")
    assert outcome.out == (
        "quorvane replay: stopped before day 4 (2020-01-08); nothing was written "
        "(with --checkpoint FILE it could be resumed)\n"
    )
    assert sorted(os.listdir(tmp_path)) == ["prices.csv", "structures.toml"]


def test_a_run_with_a_checkpoint_keeps_its_day(replay, tmp_path, signalled_on_day_3, monkeypatch):
    pytest.importorskip("msgpack")
    signalled_on_day_3(signal.SIGTERM)
    assert replay(checkpoint=tmp_path / "c.db").status == 143
    monkeypatch.undo()
    resumed = replay("--resume", checkpoint=tmp_path / "c.db")
    assert resumed.status == 0
    assert "resumed         before day 4" in resumed.out
