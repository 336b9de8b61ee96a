"""`quorvane replay` as a person meets it: what it writes and says."""

import re

import numpy as np
import pytest

from cli.commands.replays import error_of
from quorvane.cli.table_io import read_table


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
