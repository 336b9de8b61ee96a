"""`quorvane replay` where something is missing, odd or full: one line, and nothing half-written."""

import os
import resource
import sys

import numpy as np
import pytest

from cli.commands.replays import error_of
from quorvane.cli import csv_table
from quorvane.cli.commands import replay as replay_command


@pytest.mark.parametrize(
    ("options", "text"),
    [
        ({"expression": "foo"}, "--expression: there is no function 'foo'; known are ewma, "),
        (
            {"expression": "ewma"},
            "--expression: 'ewma': exactly one of window, span and halflife is wanted",
        ),
        ({"expression": "ewma(0)"}, "--expression: 'ewma(0)': "),
        ({"expression": " "}, "--expression must be 'none' or hold at least one"),
        ({"max_structures": 2}, "--max-structures 2: expected at least 3, the number of "),
        ({"max_structures": 1000001}, "--max-structures 1000001: expected at most 1000000"),
        ({"output": "o.xlsx"}, "o.xlsx: unsupported ending for a table, expected .csv, "),
        ({"table": "t.txt"}, "t.txt: unsupported ending for a table, expected .csv, .csv.gz, "),
        ({"structures": "s.yaml"}, "s.yaml: unsupported ending for a structures file, "),
        ({"plot": "p.gif"}, "p.gif: unsupported ending for a picture, expected .png, .pdf or "),
        ({"report": "r.pdf"}, "r.pdf: unsupported ending for a report, expected .html or .htm"),
        ({"trace": "t.csv"}, "t.csv: unsupported ending for a trace, expected .npz or .jsonl"),
        ({"stop_after": 2}, "--stop-after needs --checkpoint FILE"),
    ],
)
def test_options_that_make_no_sense_end_with_status_2(replay, options, text):
    assert error_of(replay(**options), 2).startswith(text)


@pytest.mark.parametrize("threads", ["1", "2", None])
def test_threads_change_no_number(replay, tmp_path, monkeypatch, threads):
    assert replay(expression="ewma(3);rank").status == 0
    if threads is None:
        monkeypatch.setenv("QUORVANE_NUM_THREADS", "3")
        options = {}
    else:
        options = {"threads": threads}
    output = tmp_path / "threads.csv"
    assert replay(expression="ewma(3);rank", output=output, **options).status == 0
    assert output.read_bytes() == (tmp_path / "output.csv").read_bytes()


def test_an_environment_with_no_number_of_threads_ends_with_status_2(replay, monkeypatch):
    monkeypatch.setenv("QUORVANE_NUM_THREADS", "many")
    expected = "QUORVANE_NUM_THREADS must be a whole number from 1 to 256, got 'many'"
    assert error_of(replay(), 2) == expected


def test_resume_needs_a_checkpoint(replay):
    assert error_of(replay("--resume"), 2) == "--resume needs --checkpoint FILE"


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ([], "the following arguments are required: COMMAND"),
        (["replay"], "the following arguments are required: TABLE, --structures, --output"),
        (["replay", "--max-structures", "x"], "expected a positive integer, got 'x'"),
        (["replay", "--checkpoint-every", "0"], "expected a positive integer, got '0'"),
        (["replay", "--threads", "0"], "expected a positive integer, got '0'"),
        (["replay", "--threads", "257"], "expected at most 256, got '257'"),
        (["replay", "--input", "prices"], "argument --input: invalid choice: 'prices'"),
        (["replay", "--policy", "half"], "argument --policy: invalid choice: 'half'"),
        (["walk"], "invalid choice: 'walk'"),
    ],
)
def test_a_command_line_that_cannot_be_read_ends_with_status_2(command, arguments, text):
    outcome = command(*arguments)
    assert outcome.status == 2
    assert text in outcome.err


def test_a_missing_table_ends_with_status_1(replay, tmp_path):
    path = tmp_path / "none.csv"
    expected = f"{path}: no such file, expected a table of days by instruments"
    assert error_of(replay(table=path), 1) == expected


def test_a_missing_structures_file_ends_with_status_1(replay, tmp_path):
    path = tmp_path / "none.toml"
    expected = f"{path}: no such file, expected a structures file"
    assert error_of(replay(structures=path), 1) == expected


def test_a_fault_in_the_table_ends_with_status_1(replay, write):
    path = write("bad.csv", "Date,KO,PEP,XOM,CVX\nd1,1,2,3,4\nd2,1,2,x,4\n")
    expected = f"{path}, line 3, column 'XOM': expected a number or an empty cell, got 'x'"
    assert error_of(replay(table=path), 1) == expected


def test_an_unknown_instrument_ends_with_status_1(replay, write, tmp_path):
    path = write("bad.toml", "[pair]\nKO = 1\nPEPP = -1\n")
    text = error_of(replay(structures=path), 1)
    assert text.startswith(f"{path}, structure 'pair': unknown instrument 'PEPP', expected one")
    assert "did you mean 'PEP'" in text
    assert not (tmp_path / "output.csv").exists()


def test_a_folder_that_is_not_there_is_noticed_before_the_run(replay, tmp_path):
    path = tmp_path / "none" / "o.csv"
    expected = f"{path}: cannot write the table: there is no folder {path.parent}"
    assert error_of(replay(output=path), 1) == expected


@pytest.mark.parametrize("option", ["output", "trace", "plot", "report", "checkpoint"])
def test_no_output_overwrites_an_input(replay, prices, tmp_path, option):
    names = {"trace": "t.npz", "plot": "p.png", "report": "r.html"}
    path = names.get(option, "prices.csv")
    prices.rename(tmp_path / "moved.csv")
    (tmp_path / path).symlink_to(tmp_path / "moved.csv")
    if option in ("plot", "report"):
        pytest.importorskip("matplotlib")
    before = (tmp_path / "moved.csv").read_text()
    outcome = replay(table=tmp_path / "moved.csv", **{option: tmp_path / path})
    assert error_of(outcome, 2).startswith(f"{tmp_path / path}: cannot be both the table read and")
    assert (tmp_path / "moved.csv").read_text() == before


def test_two_outputs_need_two_files(replay, tmp_path):
    path = tmp_path / "o.csv"
    expected = f"{path}: cannot be both the table and the checkpoint to write"
    assert error_of(replay(output=path, checkpoint=path), 2) == expected


@pytest.mark.parametrize(
    ("library", "options", "purpose"),
    [
        ("pyarrow", {"output": "o.parquet"}, "writing a Parquet table"),
        ("pyarrow", {"table": "t.parquet"}, "reading a Parquet table"),
        ("matplotlib", {"plot": "p.png"}, "drawing a picture"),
        ("pandas", {"plot": "p.png"}, "drawing a picture"),
        ("matplotlib", {"report": "r.html"}, "making a report"),
    ],
)
def test_a_library_that_is_absent_is_named_with_its_extra(
    replay, tmp_path, monkeypatch, library, options, purpose
):
    for name in [name for name in sys.modules if name.partition(".")[0] == library]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.setitem(sys.modules, library, None)
    (tmp_path / "t.parquet").write_bytes(b"PAR1")
    options = {option: tmp_path / name for option, name in options.items()}
    text = error_of(replay(**options), 1)
    assert text.startswith(f"{purpose} needs the library {library}, which cannot be imported")
    assert text.endswith('install it with: pip install "quorvane[cli]"')


def forget(monkeypatch, library):
    for name in [name for name in sys.modules if name.partition(".")[0] == library]:
        monkeypatch.delitem(sys.modules, name)


def test_csv_and_npy_need_no_library(replay, tmp_path, monkeypatch):
    for library in ("pyarrow", "matplotlib", "pandas", "tqdm", "msgpack"):
        forget(monkeypatch, library)
        monkeypatch.setitem(sys.modules, library, None)
    assert not csv_table.has_library("pyarrow")
    assert replay(trace=tmp_path / "t.jsonl").status == 0
    assert replay(output=tmp_path / "o.npy").status == 0


def test_a_library_that_wants_a_newer_numpy_is_done_without(replay, tmp_path, monkeypatch):
    libraries = tmp_path / "libraries"
    libraries.mkdir()
    (libraries / "pyarrow.py").write_text("raise ImportError('pyarrow wants a newer NumPy')")
    forget(monkeypatch, "pyarrow")
    monkeypatch.syspath_prepend(libraries)
    assert not csv_table.has_library("pyarrow")
    assert replay().status == 0


def test_too_little_memory_is_one_line(replay, monkeypatch):
    def exhausted(path):
        raise MemoryError

    monkeypatch.setattr("quorvane.cli.day_table.read_table", exhausted)
    assert error_of(replay(), 1) == "not enough memory for these tables"


def test_nothing_half_written_stays_behind(replay, tmp_path, monkeypatch):
    def write(path, table):
        path.write_text("half")
        raise OSError(28, "No space left on device")

    (tmp_path / "output.csv").write_text("old")
    monkeypatch.setattr(csv_table, "write", write)
    expected = f"{tmp_path / 'output.csv'}: cannot write the table: No space left on device"
    assert error_of(replay(), 1) == expected
    assert (tmp_path / "output.csv").read_text() == "old"
    assert sorted(os.listdir(tmp_path)) == ["output.csv", "prices.csv", "structures.toml"]


def test_a_link_at_a_name_that_can_be_guessed_is_not_written_through(replay, write, tmp_path):
    victim = write("victim", "precious")
    for name in (f".part-{os.getpid()}-output.csv", ".part-output.csv"):
        (tmp_path / name).symlink_to(victim)
    assert replay().status == 0
    assert victim.read_text() == "precious"
    assert not (tmp_path / "output.csv").is_symlink()


@pytest.mark.parametrize(
    ("option", "name"),
    [
        ("output", "O.CSV"),
        ("output", "O.CSV.GZ"),
        ("output", "O.NPY"),
        ("output", "O.Parquet"),
        ("trace", "T.NPZ"),
        ("trace", "T.JSONL"),
        ("plot", "P.PNG"),
        ("report", "R.HTML"),
    ],
)
def test_an_ending_in_capitals_is_the_same_format(replay, tmp_path, option, name):
    needed = {"plot": "matplotlib", "report": "matplotlib", "O.Parquet": "pyarrow"}
    for library in {option, name} & needed.keys():
        pytest.importorskip(needed[library])
    before = {*os.listdir(tmp_path), "output.csv"}
    for written in (name.lower(), name):
        outcome = replay(**{option: tmp_path / written})
        assert outcome.status == 0, outcome.err
    assert (tmp_path / name).read_bytes() == (tmp_path / name.lower()).read_bytes()
    assert {*os.listdir(tmp_path), "output.csv"} == before | {name, name.lower()}


@pytest.fixture
def full_disk(monkeypatch):
    """Let no file grow beyond 150 bytes, less than any output, while the outputs are written."""
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    write = replay_command._write

    def write_on_a_full_disk(*arguments):
        resource.setrlimit(resource.RLIMIT_FSIZE, (150, limits[1]))
        try:
            write(*arguments)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)

    monkeypatch.setattr(replay_command, "_write", write_on_a_full_disk)


@pytest.mark.parametrize(
    ("option", "name", "library"),
    [
        ("output", "o.csv", "numpy"),
        ("output", "o.csv.gz", "numpy"),
        ("output", "o.npy", "numpy"),
        ("output", "o.parquet", "pyarrow"),
        ("trace", "t.npz", "numpy"),
        ("trace", "t.jsonl", "numpy"),
        ("plot", "p.png", "matplotlib"),
        ("plot", "p.pdf", "matplotlib"),
        ("plot", "p.svg", "matplotlib"),
        ("report", "r.html", "matplotlib"),
    ],
)
def test_a_full_disk_says_so_and_leaves_all_outputs_as_they_were(
    replay, tmp_path, full_disk, monkeypatch, option, name, library
):
    pytest.importorskip(library)
    if option != "output":
        # The table is made, and stays beside its place because the other output fails.
        monkeypatch.setattr(replay_command, "write_table", lambda path, table: path.touch())
    for old in ("output.csv", name):
        (tmp_path / old).write_text("old")
    before = sorted(os.listdir(tmp_path))
    path, what = tmp_path / name, {"output": "table", "plot": "picture"}.get(option, option)
    expected = f"{path}: cannot write the {what}: File too large"
    assert error_of(replay(**{option: path}), 1) == expected
    assert sorted(os.listdir(tmp_path)) == before
    assert (tmp_path / "output.csv").read_text() == (tmp_path / name).read_text() == "old"


def test_an_output_that_needs_too_much_memory_leaves_the_others_as_they_were(
    replay, tmp_path, monkeypatch
):
    def exhausted(*_, **__):
        raise MemoryError

    monkeypatch.setattr(np.lib.format, "write_array", exhausted)
    (tmp_path / "output.csv").write_text("old")
    assert error_of(replay(trace=tmp_path / "t.npz"), 1) == "not enough memory for these tables"
    assert (tmp_path / "output.csv").read_text() == "old"
    assert sorted(os.listdir(tmp_path)) == ["output.csv", "prices.csv", "structures.toml"]
