"""`quorvane replay` as a process with a terminal, a pipe or nobody who reads."""

import io
import os
import sys

import pytest

from cli.commands.replays import error_of


def test_a_reader_that_has_gone_away_is_no_failure(replay, tmp_path, monkeypatch):
    reading, writing = os.pipe()
    os.close(reading)
    with os.fdopen(writing, "w") as gone:
        monkeypatch.setattr(sys, "stdout", gone)
        outcome = replay()
    assert (outcome.status, outcome.err) == (0, "")
    assert (tmp_path / "output.csv").exists()


def test_a_standard_output_that_is_full_is_one_line(replay, tmp_path, monkeypatch):
    with open("/dev/full", "w") as full:
        monkeypatch.setattr(sys, "stdout", full)
        text = error_of(replay(), 1)
    assert text == "cannot write to standard output: No space left on device"
    assert (tmp_path / "output.csv").exists()


def test_an_error_that_nobody_can_be_told_keeps_its_status(replay, monkeypatch):
    with open("/dev/full", "w") as full:
        monkeypatch.setattr(sys, "stderr", full)
        assert replay("--resume").status == 2
    monkeypatch.setattr(sys, "stderr", None)
    refused = replay("--resume")
    assert (refused.status, refused.out) == (2, "")


def test_no_standard_output_is_no_failure(replay, monkeypatch):
    monkeypatch.setattr(sys, "stdout", None)
    assert replay().status == 0


def test_what_the_output_cannot_show_is_escaped(replay, tmp_path, monkeypatch):
    pure = io.TextIOWrapper(io.BytesIO(), encoding="ascii")
    monkeypatch.setattr(sys, "stdout", pure)
    path = tmp_path / "Zürich\udcff.csv"
    assert replay(output=path).status == 0
    assert path.exists()
    shown = pure.buffer.getvalue().decode("ascii")
    assert "Z\\xfcrich\\udcff.csv: 20 of 28 cells" in shown
    assert "\\xb5s per day" in shown or "ms per day" in shown


def test_the_module_runs_as_a_process(process, prices, structures, tmp_path):
    done = process(
        "replay", prices, "--structures", structures, "--output", "o.csv", "--expression", "rank"
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("quorvane replay\n  table ")
    assert (tmp_path / "o.csv").exists()


@pytest.mark.parametrize(
    ("extra", "status"), [(["--expression", "foo"], 2), (["--trace", "none/t.npz"], 1)]
)
def test_a_process_shows_no_traceback(process, prices, structures, extra, status):
    done = process("replay", prices, "--structures", structures, "--output", "o.csv", *extra)
    assert done.returncode == status
    assert done.stdout == ""
    assert done.stderr.startswith("quorvane replay: error: ")
    assert done.stderr.count("\n") == 1


def test_help_and_version_are_there(process):
    assert "--checkpoint-every" in process("replay", "--help").stdout
    assert process("--version").stdout.startswith("quorvane ")


def test_a_terminal_shows_a_progress_bar(replay, monkeypatch):
    pytest.importorskip("tqdm")
    monkeypatch.setattr(sys.stderr, "isatty", lambda: True, raising=False)
    outcome = replay()
    assert outcome.status == 0
    assert "replay: " in outcome.err
    assert "/7 [" in outcome.err
    assert replay("--quiet").err == ""


def test_a_terminal_without_tqdm_shows_none(replay, monkeypatch):
    monkeypatch.setattr(sys.stderr, "isatty", lambda: True, raising=False)
    monkeypatch.setitem(sys.modules, "tqdm", None)
    outcome = replay()
    assert (outcome.status, outcome.err) == (0, "")


def test_an_error_about_a_file_of_two_lines_is_one_line(replay, tmp_path):
    outcome = replay(table=tmp_path / "a\nb.csv")
    assert outcome.status == 1
    assert "a\\nb.csv: no such file" in outcome.err
    assert outcome.err.count("\n") == 1


@pytest.mark.parametrize("role", ["table", "structures"])
def test_a_link_to_itself_is_an_error_of_one_line(replay, tmp_path, role):
    path = tmp_path / "loop.csv"
    path.symlink_to(path)
    outcome = replay(**{role: path})
    assert outcome.status == 1
    assert "loop.csv: cannot read" in outcome.err
    assert outcome.err.count("\n") == 1
