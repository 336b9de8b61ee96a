"""`quorvane sweep` as a person meets it: the grid's file, the folder, the report, how it ends."""

import contextlib
import html.parser
import os
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

import quorvane as qv
from quorvane.cli.errors import DataError
from quorvane.cli.sweep_grid import read_grid
from quorvane.cli.sweep_report import report_of

pandas = pytest.importorskip("pandas")

GRID = """
expression = ["rank", "ewma(2);zscore", "emwa(2)"]
hold = [0, "forever"]

[weights]
file = "structures.toml"
single = "columns"

[weights.here.drinks]
KO = 0.5
PEP = 0.5

[evaluate]
horizons = [1]
"""


@pytest.fixture
def grid(write, structures):
    assert structures.name == "structures.toml"
    return write("grid.toml", GRID)


def tags(page):
    """The names of a page's tags, and what it refers to."""
    found, links = [], []

    class Parser(html.parser.HTMLParser):
        def handle_starttag(self, tag, attributes):
            found.append(tag)
            links.extend(value for name, value in attributes if name in ("src", "href"))

    Parser().feed(page)
    return found, links


def test_the_folder_has_a_result_each_the_table_and_the_report(command, grid, prices, tmp_path):
    out = tmp_path / "out"
    outcome = command("sweep", grid, prices, "--out", out, "--report")
    assert (outcome.status, outcome.err) == (0, "")
    assert "18 configurations, 6 failed" in outcome.out
    assert "did you mean 'ewma'?" in outcome.out
    table = pandas.read_csv(out / "table.csv")
    assert table["expression"].tolist()[:7] == ["rank"] * 6 + ["ewma(2);zscore"]
    assert table["weights"].tolist()[:3] == ["file", "single", "here"]
    assert table["error"].notna().sum() == 6
    page = (out / "report.html").read_text(encoding="utf-8")
    found, links = tags(page)
    assert found.count("tr") == 19
    assert links == ["data:,"]
    assert len(list(out.glob("*.json"))) == 12


def test_the_numbers_are_those_of_the_function(command, grid, prices, tmp_path):
    assert command("sweep", grid, prices, "--out", tmp_path / "out").status == 0
    table = pandas.read_csv(tmp_path / "out" / "table.csv")
    levels = pandas.read_csv(prices, index_col=0)
    chosen, score = read_grid(grid)
    with ThreadPoolExecutor(1) as executor:
        found = qv.sweep(levels.pct_change(fill_method=None), chosen, score, executor)
    for name in ("ic_mean_1", "turnover", "profit_mean_1"):
        pandas.testing.assert_series_equal(table[name], found[name], rtol=1e-12)


def test_the_same_command_again_computes_nothing(command, grid, prices, tmp_path, monkeypatch):
    grid.write_text(GRID.replace(', "emwa(2)"', ""))
    assert command("sweep", grid, prices, "--out", tmp_path / "out", "--quiet").status == 0
    before = pandas.read_csv(tmp_path / "out" / "table.csv")
    from quorvane.sweeping import processes

    monkeypatch.setattr(processes, "_Crew", None)
    outcome = command("sweep", grid, prices, "--out", tmp_path / "out", "--quiet")
    assert (outcome.status, outcome.out, outcome.err) == (0, "", "")
    # The seconds too are those of the first time.
    pandas.testing.assert_frame_equal(pandas.read_csv(tmp_path / "out" / "table.csv"), before)


def test_a_hold_for_ever_is_told_and_may_have_a_label(command, grid, prices, tmp_path):
    grid.write_text(
        'expression = ["ewma(2)"]\nhold = {short = 0, long = "forever"}\nweights.all = "columns"\n'
    )
    assert command("sweep", grid, prices, "--out", tmp_path / "out").status == 0
    assert pandas.read_csv(tmp_path / "out" / "table.csv")["error"].isna().all()
    grid.write_text(GRID)
    assert command("sweep", grid, prices, "--out", tmp_path / "two").status == 0
    assert set(pandas.read_csv(tmp_path / "two" / "table.csv")["hold"]) == {"0", "forever"}


@pytest.mark.parametrize(("name", "what"), [("table.csv", "table read"), ("grid.toml", "grid")])
def test_no_output_overwrites_an_input(command, grid, prices, tmp_path, name, what):
    out = tmp_path / "out"
    out.mkdir()
    (prices if name == "table.csv" else grid).rename(out / name)
    if name == "grid.toml":
        (out / "report.html").symlink_to(out / name)
    read = [out / "grid.toml", prices] if name == "grid.toml" else [grid, out / name]
    before = (out / name).read_bytes()
    outcome = command("sweep", *read, "--out", out, "--report")
    assert outcome.status == 2
    assert f"cannot be both the {what}" in outcome.err
    assert (out / name).read_bytes() == before


@pytest.mark.parametrize("form", ["{0}-{1}-{2}", "{0}{1}{2}"])
def test_days_that_are_in_no_order_are_refused_or_sorted(command, grid, prices, tmp_path, form):
    header, *rows = prices.read_text().splitlines()
    rows = [form.format(*row[:10].split("-")) + row[10:] for row in rows]
    prices.write_text("\n".join([header, *rows]) + "\n")
    assert command("sweep", grid, prices, "--out", tmp_path / "a").status == 0
    prices.write_text("\n".join([header, *rows[3:], *rows[:3]]) + "\n")
    outcome = command("sweep", grid, prices, "--out", tmp_path / "b")
    assert outcome.status == 1
    assert f"{prices}, line " in outcome.err
    assert "expected dates that ascend; --sort sorts the days" in outcome.err
    assert command("sweep", grid, prices, "--out", tmp_path / "b", "--sort").status == 0
    tables = [pandas.read_csv(tmp_path / name / "table.csv") for name in "ab"]
    pandas.testing.assert_frame_equal(*[table.drop(columns="seconds") for table in tables])


def test_prices_are_no_returns_to_judge_by(command, grid, prices, tmp_path):
    outcome = command("sweep", grid, prices, "--out", tmp_path / "out", "--input", "levels")
    assert outcome.status == 1
    assert "a sweep with --input levels needs daily returns as fractions" in outcome.err


def test_where_all_fail_the_status_says_so(command, grid, prices, tmp_path):
    grid.write_text('expression = ["emwa(2)"]\nweights.all = "columns"\n')
    outcome = command("sweep", grid, prices, "--out", tmp_path / "out", "--report")
    assert outcome.status == 1
    assert "1 configuration, 1 failed" in outcome.out
    assert "The highest" not in outcome.out


@pytest.mark.parametrize(
    ("text", "said"),
    [
        ("hodl = [0]\nexpression = ['rank']\nweights.a = 'columns'", "did you mean 'hold'?"),
        ("expression = ['rank']", "grid has no 'weights'"),
        ("expression = 'rank'\nweights.a = 'columns'", "must be a list of values"),
        ("expression = ['rank']\nweights = 3", "[weights] must be a table of labels, got 3"),
        ("expression = ['rank']\nweights.a = 'x.csv'", 'must be "columns", a .toml file of'),
        ("expression = ['rank']\nweights.a = 'missing.toml'", "missing.toml: no such file"),
        ("expression = ['rank']\nweights.a = 'columns'\nevaluate = 3", "must be a table, got 3"),
        (
            "expression = ['rank']\nweights.a = 'columns'\n[evaluate]\nhorizon = [1]",
            "did you mean 'horizons'?",
        ),
        ("expression = [", "not readable as TOML"),
    ],
)
def test_a_grid_that_is_none_is_one_line(command, write, prices, tmp_path, text, said):
    outcome = command("sweep", write("grid.toml", text), prices, "--out", tmp_path / "out")
    assert outcome.status == 1
    assert outcome.out == ""
    assert outcome.err.startswith("quorvane sweep: error: ")
    assert outcome.err.count("\n") == 1
    assert said in outcome.err


def test_dates_that_are_not_in_order_are_one_line(command, grid, write, tmp_path):
    lines = ["Date,KO,PEP", "2020-01-03,1,2", "2020-01-02,2,3", "2020-01-06,3,4"]
    table = write("table.csv", "\n".join(lines) + "\n")
    outcome = command("sweep", grid, table, "--out", tmp_path / "out")
    assert outcome.status == 1
    assert "line 3: the date '2020-01-02' comes after '2020-01-03'" in outcome.err


def test_days_may_be_other_than_dates(command, grid, write, tmp_path, prices):
    lines = prices.read_text().splitlines()
    named = [lines[0], *(f"day {i},{line.partition(',')[2]}" for i, line in enumerate(lines[1:]))]
    table = write("named.csv", "\n".join(named) + "\n")
    for name, path in (("a", table), ("b", prices)):
        assert command("sweep", grid, path, "--out", tmp_path / name).status == 0
    one, other = (pandas.read_csv(tmp_path / name / "table.csv") for name in "ab")
    pandas.testing.assert_frame_equal(
        one.drop(columns="seconds"), other.drop(columns="seconds"), check_exact=True
    )


def test_options_that_make_no_sense_are_one_line(command, grid, prices, tmp_path):
    for arguments, said in (
        ((prices, prices, "--out", tmp_path), "unsupported ending for a grid"),
        ((grid, grid, "--out", tmp_path), "unsupported ending for a table"),
    ):
        outcome = command("sweep", *arguments)
        assert outcome.status == 2
        assert said in outcome.err
    outcome = command("sweep", grid, prices, "--out", prices)
    assert outcome.status == 1
    assert "is not a folder" in outcome.err


def test_a_cluster_that_is_not_there_is_one_line(command, grid, prices, tmp_path):
    pytest.importorskip("distributed")
    outcome = command("sweep", grid, prices, "--out", tmp_path, "--cluster", "nowhere")
    assert outcome.status == 2
    assert "--cluster nowhere: no cluster answers" in outcome.err
    assert outcome.err.count("\n") == 1


def started(action):
    """What a function gives; on a busy machine dask may fail to begin, which it only asserts."""
    for _ in range(2):
        with contextlib.suppress(AssertionError):
            return action()
    return action()


def test_a_cluster_computes_the_same(command, grid, prices, tmp_path):
    distributed = pytest.importorskip("distributed")

    def swept():
        with distributed.LocalCluster(
            n_workers=1, threads_per_worker=1, processes=False, dashboard_address=":0"
        ) as cluster:
            address = cluster.scheduler_address
            return command("sweep", grid, prices, "--out", tmp_path / "a", "--cluster", address)

    outcome = started(swept)
    assert outcome.status == 0, outcome.err
    assert command("sweep", grid, prices, "--out", tmp_path / "b").status == 0
    one, other = (pandas.read_csv(tmp_path / name / "table.csv") for name in "ab")
    pandas.testing.assert_frame_equal(
        one.drop(columns="seconds"), other.drop(columns="seconds"), check_exact=True
    )


def test_sigterm_ends_it_without_a_word_and_leaves_what_is_done(grid, prices, tmp_path):
    grid.write_text(
        "hold = [" + ", ".join(map(str, range(400))) + "]\n"
        'expression = ["ewma(2);zscore"]\nweights.all = "columns"\n'
    )
    root = qv.__file__.rpartition("/quorvane/")[0]
    out = tmp_path / "out"
    running = subprocess.Popen(
        [sys.executable, "-m", "quorvane", "sweep", *map(str, (grid, prices)), "--out", str(out)],
        env={**os.environ, "PYTHONPATH": root, "TMPDIR": str(tmp_path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )
    end = time.monotonic() + 30.0
    while len(list(out.glob("*.json"))) < 3 and time.monotonic() < end:
        time.sleep(0.01)
    running.send_signal(signal.SIGTERM)
    said = running.communicate(timeout=30)
    assert (running.returncode, said) == (143, ("", ""))
    assert 3 <= len(list(out.glob("*.json"))) < 400
    assert not list(out.glob("*.csv"))
    assert not list(tmp_path.glob("quorvane-sweep-*"))


def test_names_are_text_in_the_report():
    found = pandas.DataFrame(
        {
            "weights": ["<script>alert(1)</script>"],
            "</td>": [1.5],
            "error": ["<img src=x onerror=alert(1)>"],
        }
    )
    page = report_of(found, "<b>title</b>")
    assert {"script", "img", "b"}.isdisjoint(tags(page)[0])
    assert "&lt;script&gt;alert(1)&lt;/script&gt;" in page


def test_what_toml_has_no_word_for(grid):
    chosen, score = read_grid(grid)
    assert chosen["hold"] == [0, None]
    assert chosen["weights"]["single"] is None
    assert chosen["weights"]["file"]["KO/PEP"] == {"KO": 1.0, "PEP": -1.0}
    assert list(chosen) == ["expression", "hold", "weights"]
    assert score == {"horizons": [1]}


def test_a_grid_file_that_is_not_there(tmp_path):
    with pytest.raises(DataError, match="no such file, expected a grid"):
        read_grid(tmp_path / "grid.toml")
