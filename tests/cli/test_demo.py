"""The demo: its pairs, what it says without its prices, and its numbers against pandas."""

import importlib.metadata

import numpy as np
import pytest

from quorvane.cli import demo
from quorvane.cli.structures import read_structures
from quorvane.cli.table_io import read_table


def test_the_pairs_are_all_those_within_a_sector():
    pairs = list(demo.same_sector_pairs())
    assert len(pairs) == 3 + 1 + 1 + 3 + 0 + 10 + 6
    assert ("KO", "PEP") in pairs
    assert ("KO", "XOM") not in pairs
    stocks = [stock for members in demo.SECTORS.values() for stock in members]
    assert len(stocks) == len(set(stocks)) == 20


def test_the_pairs_are_a_structures_file(write):
    stocks = [stock for members in demo.SECTORS.values() for stock in members]
    structures = read_structures(write("pairs.toml", demo.pairs_as_toml()), stocks)
    assert structures["KO/PEP"] == {"KO": 1.0, "PEP": -1.0}
    assert list(structures) == [f"{a}/{b}" for a, b in demo.same_sector_pairs()]


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
    """Run the whole demo once; its folder."""
    if demo.find_prices() is None:
        pytest.skip("the demo's prices are not installed")
    pytest.importorskip("matplotlib")
    folder = tmp_path_factory.mktemp("demo")
    assert demo.main(["--output-dir", str(folder)]) == 0
    return folder


def test_it_leaves_the_output_the_picture_and_the_pairs(run):
    names = sorted(path.name for path in run.iterdir())
    assert names == ["output.csv", "picture.png", "same-sector-pairs.toml"]
    output = read_table(run / "output.csv")
    assert output.values.shape == (8313, 20)
    assert output.dates.text[0] == "1990-01-02"
    assert output.dates.text[-1] == "2022-12-28"


def test_its_numbers_are_those_of_pandas(run):
    pandas = pytest.importorskip("pandas")
    prices = pandas.read_csv(demo.find_prices(), index_col=0)
    returns = prices.pct_change(fill_method=None)
    pairs = list(demo.same_sector_pairs())
    values = pandas.DataFrame({pair: returns[pair[0]] - returns[pair[1]] for pair in pairs})
    smooth = values.ewm(span=20, adjust=True, ignore_na=False, min_periods=1).mean()
    ranks = smooth.rank(axis=1, method="average", na_option="keep", pct=True)
    expected = pandas.DataFrame(np.nan, index=prices.index, columns=prices.columns)
    for a, b in pairs:
        expected[a] = expected[a].add(ranks[(a, b)], fill_value=0.0)
        expected[b] = expected[b].sub(ranks[(a, b)], fill_value=0.0)
    output = read_table(run / "output.csv").values
    assert np.array_equal(np.isnan(output), expected.isna().to_numpy())
    np.testing.assert_allclose(output, expected.to_numpy(), rtol=0.0, atol=1e-13)
