"""The demo: its pairs, what it says without its prices, and its numbers against pandas."""

import contextlib
import importlib.metadata
import io

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli import demo
from quorvane.cli.table_io import read_table


def test_the_pairs_are_all_those_within_a_sector():
    pairs = list(demo.same_sector_pairs())
    assert len(pairs) == 3 + 1 + 1 + 3 + 0 + 10 + 6
    assert ("KO", "PEP") in pairs
    assert ("KO", "XOM") not in pairs
    stocks = [stock for members in demo.SECTORS.values() for stock in members]
    assert len(stocks) == len(set(stocks)) == 20


def test_a_pair_is_the_first_stock_against_the_second():
    weights = demo.pair_weights()
    assert weights["KO/PEP"] == {"KO": 1.0, "PEP": -1.0}
    assert list(weights) == [f"{a}/{b}" for a, b in demo.same_sector_pairs()]


def test_without_the_prices_it_says_how_to_go_on(monkeypatch, capsys, tmp_path):
    def absent(name):
        raise importlib.metadata.PackageNotFoundError(name)

    monkeypatch.setattr(importlib.metadata, "files", absent)
    assert demo.main(["--output-dir", str(tmp_path / "demo")]) == 1
    said = capsys.readouterr().out
    assert "python -m pip install --no-deps skfolio" in said
    assert "quorvane replay prices.csv --structures pairs.toml" in said
    assert not (tmp_path / "demo").exists()


@pytest.fixture(scope="module")
def run(tmp_path_factory):
    """Run the whole demo once; its folder, and what it said."""
    if demo.find_prices() is None:
        pytest.skip("the demo's prices are not installed")
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    folder = tmp_path_factory.mktemp("demo")
    said = io.StringIO()
    with contextlib.redirect_stdout(said):
        assert demo.main(["--output-dir", str(folder)]) == 0
    return folder, said.getvalue()


@pytest.fixture(scope="module")
def expected(run):
    """The same by hand in pandas: the stocks' signal, and the pairs' values by stage."""
    pandas = pytest.importorskip("pandas")
    prices = pandas.read_csv(demo.find_prices(), index_col=0)
    returns = prices.pct_change(fill_method=None)
    pairs = list(demo.same_sector_pairs())
    values = pandas.DataFrame({pair: returns[pair[0]] - returns[pair[1]] for pair in pairs})
    smooth = values.ewm(span=20, adjust=True, ignore_na=False, min_periods=1).mean()
    ranks = smooth.where(values.notna()).rank(axis=1)
    count = values.notna().sum(axis=1)
    scores = ranks.mul(2.0).sub(count + 1, axis=0).div(count, axis=0)
    signal = pandas.DataFrame(np.nan, index=prices.index, columns=prices.columns)
    for a, b in pairs:
        signal[a] = signal[a].add(scores[(a, b)], fill_value=0.0)
        signal[b] = signal[b].sub(scores[(a, b)], fill_value=0.0)
    return signal


def test_no_stock_is_long_or_short_because_of_its_name(run):
    output = read_table(run[0] / "output.csv").values
    paired = output[:, ~np.isnan(output).all(axis=0)]
    days_long = np.count_nonzero(paired > 0.0, axis=0) / np.count_nonzero(~np.isnan(paired), axis=0)
    assert np.all((days_long > 0.4) & (days_long < 0.6))


def test_it_leaves_the_output_the_picture_and_the_report(run):
    folder, said = run
    names = ["output.csv", "picture.png", "report.html"]
    assert sorted(path.name for path in folder.iterdir()) == names
    assert (folder / "picture.png").read_bytes().startswith(b"\x89PNG")
    assert f"{folder / 'output.csv'}: " in said
    assert str(folder / "picture.png") in said
    assert str(folder / "report.html") in said
    assert "Health care" in (folder / "report.html").read_text("utf-8")
    output = read_table(folder / "output.csv")
    assert output.values.shape == (8313, 20)
    assert output.dates.text[0] == "1990-01-02"
    assert output.dates.text[-1] == "2022-12-28"


def test_its_numbers_are_those_of_pandas(run, expected):
    output = read_table(run[0] / "output.csv").values
    assert np.array_equal(np.isnan(output), expected.isna().to_numpy())
    np.testing.assert_allclose(output, expected.to_numpy(), rtol=0.0, atol=1e-11)


def test_every_stock_with_a_partner_is_on_either_side_at_times(run):
    output = read_table(run[0] / "output.csv")
    for stock, series in zip(output.instruments, output.values.T, strict=True):
        if stock != "GE":
            assert 0.3 < np.mean(series[1:] > 0.0) < 0.7, stock


def test_it_says_where_the_highest_signal_of_the_last_day_comes_from(run, expected):
    said = run[1]
    last = expected.iloc[-1]
    highest, lowest = last.idxmax(), last.idxmin()
    assert f"On 2022-12-28 the signal is highest for {highest} ({last[highest]:+.2f})" in said
    assert f"lowest for {lowest} ({last[lowest]:+.2f})" in said
    names = {f"{a}/{b}" for a, b in demo.same_sector_pairs() if highest in (a, b)}
    rows = [line.split() for line in said.splitlines() if line.strip().split(" ")[0] in names]
    assert {row[0] for row in rows} == names
    assert abs(sum(float(row[-1]) for row in rows) - last[highest]) < 1e-3


def test_it_ends_with_three_lines_that_judge_the_signal(run, expected):
    pandas = pytest.importorskip("pandas")
    returns = pandas.read_csv(demo.find_prices(), index_col=0).pct_change(fill_method=None)
    judged = qv.evaluate(expected, returns).summary
    lines = run[1].splitlines()[-3:]
    for line, days in zip(lines, [" ", " 5 ", "20 "], strict=True):
        horizon = int(days.strip() or 1)
        assert line.startswith("Over the next ")
        assert f"{days}day" in line
        row = judged.loc[horizon]
        assert f"IC {row['ic_mean']:+.3f} (t {row['ic_t']:+.1f})" in line
        assert f"profit {100.0 * row['profit_mean']:+.3f} %" in line


def test_a_place_that_cannot_be_written_is_one_line(tmp_path, capsys):
    if demo.find_prices() is None:
        pytest.skip("the demo's prices are not installed")
    pytest.importorskip("matplotlib")
    pytest.importorskip("pandas")
    (tmp_path / "output.csv").mkdir()
    assert demo.main(["--output-dir", str(tmp_path)]) == 1
    said = capsys.readouterr().err
    assert said.startswith("demo: error: ")
    assert said.count("\n") == 1
