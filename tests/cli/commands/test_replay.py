"""`quorvane replay` as a person meets it: what it writes, what it says, how it ends."""

import io
import os
import re
import resource
import sys

import numpy as np
import pytest

from quorvane.cli import csv_table
from quorvane.cli.commands import replay as replay_command
from quorvane.cli.table_io import read_table


def error_of(outcome, status):
    """The one line of an error; anything else said, or another status, fails the test."""
    assert outcome.status == status, outcome.err
    assert outcome.out == ""
    start, *rest = outcome.err.splitlines()
    assert rest == []
    assert start.startswith("quorvane replay: error: ")
    return start.removeprefix("quorvane replay: error: ")


def test_the_output_is_the_sum_over_the_structures_of_each_instrument(replay, tmp_path):
    assert replay(input="levels").status == 0
    table = read_table(tmp_path / "output.csv")
    ko, pep, xom, cvx = 54.0, 136.0, 70.0, 121.0
    drinks = ko * 0.5 + pep * 0.5 - xom
    assert table.values[0].tolist() == pytest.approx(
        [
            (ko - pep) + 0.5 * drinks,
            -(ko - pep) + 0.5 * drinks,
            (xom - cvx) - drinks,
            -(xom - cvx),
        ],
        rel=1e-15,
    )
    # The day without PEP still has the pair of oil companies, and nothing else.
    assert np.isnan(table.values[3]).tolist() == [True, True, False, False]
    assert table.values[3, 2:].tolist() == [69.75 - 118.5, 118.5 - 69.75]


def test_returns_are_what_structures_see_by_default(replay, tmp_path):
    assert replay().status == 0
    output = read_table(tmp_path / "output.csv").values
    assert np.isnan(output[0]).all()
    assert output[1, 3] == -((69.5 / 70.0 - 1.0) - (120.5 / 121.0 - 1.0))
    # A missing price takes two returns with it.
    assert np.isnan(output[3:5, :2]).all()
    assert np.isfinite(output[5:]).all()


def test_names_and_dates_are_kept(replay, tmp_path):
    replay()
    lines = (tmp_path / "output.csv").read_text().splitlines()
    assert lines[0] == "Date,KO,PEP,XOM,CVX"
    assert lines[1] == "2020-01-02,,,,"
    assert [line[:10] for line in lines[1:]][-1] == "2020-01-10"


def test_the_policy_reaches_the_rotation(replay, tmp_path):
    assert replay(input="levels", policy="equal_split").status == 0
    first = read_table(tmp_path / "output.csv").values[0]
    drinks = 54.0 * 0.5 + 136.0 * 0.5 - 70.0
    assert first[0] == pytest.approx((54.0 - 136.0) / 2 + drinks / 3, rel=1e-15)


@pytest.mark.parametrize("name", ["o.csv", "o.csv.gz", "o.npy", "o.parquet"])
def test_every_format_holds_the_same_numbers(replay, tmp_path, name):
    if name.endswith(".parquet"):
        pytest.importorskip("pyarrow")
    assert replay(expression="ewma(3);rank").status == 0
    assert replay(expression="ewma(3);rank", output=tmp_path / name).status == 0
    one, other = read_table(tmp_path / "output.csv"), read_table(tmp_path / name)
    assert np.array_equal(one.values, other.values, equal_nan=True)


def test_the_summary_says_what_was_done(replay, tmp_path, prices, structures):
    outcome = replay(expression="rank", trace=tmp_path / "t.npz")
    assert outcome.err == ""
    rows = dict(line.strip().split("  ", 1) for line in outcome.out.splitlines()[1:])
    shown = {label: text.strip() for label, text in rows.items()}
    assert shown["table"] == (
        f"{prices}: 7 days x 4 instruments, 2020-01-02 to 2020-01-10, 1 of 28 cells (3.6 %) missing"
    )
    assert shown["structures"] == f"{structures}: 3 structures, 7 legs"
    assert shown["structures see"] == "daily returns"
    assert shown["expression"] == "rank"
    assert shown["unmap policy"] == "proportional"
    assert shown["output"] == f"{tmp_path / 'output.csv'}: 20 of 28 cells (71.4 %) hold a value"
    assert shown["trace"] == f"{tmp_path / 't.npz'}"
    assert shown["hold"] == "for ever"
    seconds = r"\d+\.\d\d s"
    assert re.fullmatch(
        rf"{seconds}: {seconds} reading, {seconds} for 7 days, \S+ .?s per day, "
        rf"{seconds} writing",
        shown["time"],
    )


def test_quiet_says_nothing(replay):
    outcome = replay("--quiet")
    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")


def test_a_picture_is_drawn(replay, tmp_path):
    pytest.importorskip("matplotlib")
    outcome = replay(expression="rank", plot=tmp_path / "p.png", title="Drinks & oil")
    assert outcome.status == 0, outcome.err
    assert (tmp_path / "p.png").read_bytes().startswith(b"\x89PNG")
    assert f"picture         {tmp_path / 'p.png'}" in outcome.out


def test_a_report_tells_of_the_run(replay, tmp_path):
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    path = tmp_path / "r.html"
    outcome = replay(expression="rank", report=path, title="Drinks & <oil>")
    assert outcome.status == 0, outcome.err
    text = path.read_text("utf-8")
    assert "<h1>Drinks &amp; &lt;oil&gt;</h1>" in text
    assert "taken apart" in text
    assert "Returns are those of the table&#x27;s prices from row to row." in text
    assert f"report          {path}" in outcome.out


def test_prices_taken_as_levels_have_a_picture_but_no_report(replay, tmp_path):
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    path = tmp_path / "r.html"
    text = error_of(replay(input="levels", report=path), 1)
    assert text.endswith("half of them within 0.5; for a table of prices leave --input levels out")
    assert not path.exists()
    assert replay(input="levels", plot=tmp_path / "p.png").status == 0


def test_returns_taken_as_prices_have_no_report(replay, tmp_path, prices):
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    header, *rows = prices.read_text().splitlines()
    cells = [row.split(",") for row in rows]
    moved = [[day, *(f"{float(c) / 100 - 1:.6f}" if c else "" for c in row)] for day, *row in cells]
    prices.write_text("\n".join([header, *map(",".join, moved)]) + "\n")
    text = error_of(replay(report=tmp_path / "r.html"), 1)
    assert text.endswith("are zero or less; for a table of daily returns say --input levels")


def test_a_picture_changes_no_number(replay, tmp_path):
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    assert replay(output=tmp_path / "a.npy", plot=tmp_path / "p.png").status == 0
    assert replay(output=tmp_path / "b.npy").status == 0
    assert (tmp_path / "a.npy").read_bytes() == (tmp_path / "b.npy").read_bytes()


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
