"""The sweep's own processes: one thread each, data from a file, and what if one ends."""

import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

import quorvane as qv
from quorvane.sweeping import processes
from support import sweeping
from support.sweeping import PAIRS, returns

pytest.importorskip("pandas")

ONE = {"weights": {"pairs": PAIRS}, "expression": ["rank"], "hold": [0]}


@pytest.fixture
def folder(tmp_path, monkeypatch):
    """Where files of the data are for a while."""
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    return tmp_path


def test_as_many_processes_as_cores_of_one_thread_each(monkeypatch):
    monkeypatch.setattr(processes, "cores", lambda: 2)
    found = qv.sweep(returns(), {**ONE, "hold": list(range(8))}, score=sweeping.process)
    assert len(set(found["process"])) in (1, 2)
    assert os.getpid() not in set(found["process"])
    assert found["threads"].tolist() == [1] * 8


def test_the_data_is_mapped_from_a_file_that_is_gone_at_the_end(folder):
    found = qv.sweep(returns(), ONE, score=sweeping.memory)
    assert found["error"].tolist() == [""]
    assert found["is_mapped"].tolist() == [1]
    assert list(folder.iterdir()) == []


def test_a_process_that_ends_is_replaced_and_its_configuration_tried_again(folder):
    grid = {**ONE, "expression": ["rank", "zscore"]}
    found = qv.sweep(returns(), grid, score=sweeping.ends_the_process)
    text = "WorkerEnded: 3 processes ended in this configuration, by signal 9"
    assert found["error"].tolist() == [text] * 2
    assert list(folder.iterdir()) == []


def test_what_functions_print_is_no_outcome(capfd):
    found = qv.sweep(returns(), ONE, score=sweeping.talks)
    assert found["one"].tolist() == [1.0]
    said = capfd.readouterr()
    assert said.out == ""
    assert "and another" in said.err


def test_workers_that_cannot_begin_end_the_sweep(monkeypatch, folder, capfd):
    monkeypatch.setattr(processes, "_PROGRAM", "raise SystemExit('no such thing')")
    with pytest.raises(RuntimeError, match=r"a worker process could not begin.* status 1"):
        qv.sweep(returns(), ONE)
    assert "no such thing" in capfd.readouterr().err
    assert list(folder.iterdir()) == []


PROGRAM = """
import os, sys
import quorvane as qv
from support import sweeping
print("ready", flush=True)
grid = {"weights": {"pairs": sweeping.PAIRS}, "expression": ["rank"] * 4}
qv.sweep(sweeping.returns(), grid, score=sweeping.sleeps)
"""


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_a_program_that_is_stopped_leaves_nothing_behind(tmp_path, number):
    root = qv.__file__.rpartition("/quorvane/")[0]
    tests = str(Path(__file__).parents[1])
    program = subprocess.Popen(
        [sys.executable, "-c", PROGRAM],
        env={**os.environ, "PYTHONPATH": f"{root}:{tests}", "TMPDIR": str(tmp_path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )
    try:
        workers = min(4, processes.cores())
        assert wait_for(lambda: len(processes_in(tmp_path)) == 1 + workers)
        assert list(tmp_path.iterdir()) == []
        # While they compute, not only while they begin.
        time.sleep(1.0)
        program.send_signal(number)
        _, said = program.communicate(timeout=30)
    finally:
        program.kill()
        program.communicate()
    assert wait_for(lambda: not processes_in(tmp_path))
    assert list(tmp_path.iterdir()) == []
    if number == signal.SIGINT:
        assert said.rstrip().endswith("KeyboardInterrupt")
        assert said.count("Traceback") == 1


def processes_in(folder):
    """The processes whose temporary files would be in a folder."""
    found = []
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                variables = (entry / "environ").read_bytes().split(b"\0")
            except OSError:
                continue
            # That of a process that has ended and is not waited for is empty.
            if f"TMPDIR={folder}".encode() in variables:
                found.append(int(entry.name))
    return found


def wait_for(condition, seconds=30.0):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.05)
    return True
