"""A replay that a power cut ended is resumed, and its outputs are those of one that was not."""

import contextlib
import io
import os
import re

import pytest

from powercut import writers
from powercut.calls import Kind
from powercut.exploring import Findings, explore, outcome_of, some_images
from powercut.recording import record
from quorvane.cli import main

LONG = bool(os.environ.get("QUORVANE_LONG"))
SHARE = {"points": None, "images": 25} if LONG else {"points": 50, "images": 3}
CUT_TWICE = 8 if LONG else 1
CUT_AGAIN = {"points": 60, "images": 3} if LONG else {"points": 10, "images": 1}

TABLE = """\
Date,KO,PEP,XOM
2020-01-02,54.0,136.0,70.0
2020-01-03,53.5,135.5,69.5
2020-01-06,53.25,136.25,70.25
2020-01-07,52.75,,69.75
2020-01-08,53.0,134.75,68.5
2020-01-09,54.0,136.5,69.0
2020-01-10,54.25,136.0,68.5
"""
STRUCTURES = "key,instrument,weight\nKO/PEP,KO,1.0\nKO/PEP,PEP,-1.0\noil,XOM,0.5\n"
OUTPUTS = ("output.csv", "trace.npz")


@pytest.fixture
def inputs(tmp_path):
    """The paths of a table and of structures, on another disk than what is written."""
    (tmp_path / "prices.csv").write_text(TABLE)
    (tmp_path / "structures.csv").write_text(STRUCTURES)
    return tmp_path / "prices.csv", tmp_path / "structures.csv"


@pytest.fixture
def whole(inputs, tmp_path):
    """The outputs of a replay that nothing disturbed."""
    assert run(tmp_path, inputs)[0] == 0
    return outputs_in(tmp_path)


def run(folder, inputs, *flags):
    """Run the command in this process; return its status and all that it said."""
    said = io.StringIO()
    with contextlib.redirect_stdout(said), contextlib.redirect_stderr(said):
        status = main([*writers.replay_arguments(folder, *inputs), *flags])
    return status, said.getvalue()


def outputs_in(folder):
    """What each output holds that is there."""
    paths = [folder / name for name in OUTPUTS]
    return {path.name: path.read_bytes() for path in paths if path.exists()}


@pytest.fixture
def resume(inputs, whole):
    """Resume on the disk of an image; return the day it went on with, and the outputs before."""

    def resume(folder):
        found = outputs_in(folder)
        assert found.items() <= whole.items(), "an output is not whole"
        status, said = run(folder, inputs, "--resume")
        assert status == 0, said
        assert outputs_in(folder) == whole, "the outputs differ"
        resumed = re.search(r"resumed +before day (\d+)", said)
        return int(resumed[1]) if resumed else 0, sorted(found)

    return resume


def as_the_replay_said(recording, first_day=0):
    """Tell of what a replay resumes to whether it was saved last, or being saved."""
    days = [first_day, *saved_days(recording)]

    def allowed(said, outcome):
        if said == len(days):
            return outcome == (days[-1], sorted(OUTPUTS))
        return outcome[0] in days[said : said + 2]

    return allowed


def saved_days(recording):
    """The days that a replay said it had saved, before it said that the outputs are there."""
    *days, outputs = [call.data for call in recording.calls if call.kind is Kind.SAY]
    assert outputs == b"outputs\n"
    return [int(day) for day in days]


def test_a_resumed_replay_gives_the_same_bytes(preloaded, work, inputs, resume):
    recording = record(preloaded, work, "replay", *inputs)
    assert saved_days(recording) == [2, 4, 6, 7]
    findings = explore(recording, work, resume, as_the_replay_said(recording), **SHARE)
    assert not findings.faults, findings.faults[:5]
    print(f"replay: {findings}")


def test_the_power_may_fail_again_while_a_replay_is_resumed(preloaded, work, inputs, resume):
    recording = record(preloaded, work / "first", "replay", *inputs)
    findings = Findings()
    for number, image in enumerate(some_images(recording, CUT_TWICE)):
        day, _ = outcome_of(image, work, resume)
        again = record(
            preloaded, work / f"again {number}", "replay", *inputs, "--resume", before=image
        )
        allowed = as_the_replay_said(again, day)
        findings.add(explore(again, work, resume, allowed, **CUT_AGAIN))
    assert not findings.faults, findings.faults[:5]
    print(f"replay, cut twice: {findings}")


def test_an_output_renamed_before_it_is_flushed_is_seen_broken(preloaded, work, inputs, resume):
    recording = record(preloaded, work, "replay_with_unflushed_outputs", *inputs)
    allowed = as_the_replay_said(recording)
    faults = explore(recording, work, resume, allowed, points=5, images=3).faults
    assert any("an output is not whole" in fault for fault in faults)
