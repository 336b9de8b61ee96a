"""``python -m quorvane.cli.demo``: decades of real daily prices through same-sector pairs."""

from __future__ import annotations

import argparse
import importlib.metadata
from collections.abc import Iterator, Sequence
from itertools import combinations
from pathlib import Path

from quorvane.cli import main as quorvane

PACKAGE = "skfolio"
PRICES = "datasets/data/sp500_dataset.csv.gz"
EXPRESSION = "ewma(20);rank"

SECTORS = {
    "Information technology": ("AAPL", "AMD", "MSFT"),
    "Financials": ("BAC", "JPM"),
    "Consumer discretionary": ("BBY", "HD"),
    "Energy": ("CVX", "RRC", "XOM"),
    "Industrials": ("GE",),
    "Health care": ("JNJ", "LLY", "MRK", "PFE", "UNH"),
    "Consumer staples": ("KO", "PEP", "PG", "WMT"),
}
"""The sectors of the demo's 20 stocks; the only industrial has no partner."""


def main(argv: Sequence[str] | None = None) -> int:
    """Run the demo; the exit status is that of ``quorvane replay``, or 1 without the prices."""
    parser = argparse.ArgumentParser(prog="python -m quorvane.cli.demo", description=__doc__)
    parser.add_argument(
        "--output-dir",
        type=Path,
        default=Path("build/demo"),
        metavar="FOLDER",
        help="where the results go (default: %(default)s)",
    )
    folder: Path = parser.parse_args(argv).output_dir
    prices = find_prices()
    if prices is None:
        print(_WITHOUT_PRICES)
        return 1
    folder.mkdir(parents=True, exist_ok=True)
    structures = folder / "same-sector-pairs.toml"
    structures.write_text(pairs_as_toml(), encoding="utf-8")
    command = _command(prices, structures, folder)
    print(_introduction(command))
    status = quorvane(command)
    if status == 0:
        print(f"\nLook at {folder / 'picture.png'}; the numbers are in {folder / 'output.csv'}.")
    return status


def find_prices() -> Path | None:
    """The file of prices inside the installed package, which is not imported; None without it."""
    try:
        files = importlib.metadata.files(PACKAGE) or []
    except importlib.metadata.PackageNotFoundError:
        return None
    found = (Path(str(file.locate())) for file in files if file.as_posix().endswith(PRICES))
    return next((path for path in found if path.is_file()), None)


def same_sector_pairs() -> Iterator[tuple[str, str]]:
    """All pairs of stocks of one sector, in alphabetical order within each sector."""
    for members in SECTORS.values():
        yield from combinations(members, 2)


def pairs_as_toml() -> str:
    """The pairs as a structures file: the first stock against the second."""
    pairs = (f'["{a}/{b}"]\n{a} = 1.0\n{b} = -1.0\n' for a, b in same_sector_pairs())
    return "# One dollar in the first stock against one dollar in the second.\n\n" + "\n".join(
        pairs
    )


def _command(prices: Path, structures: Path, folder: Path) -> list[str]:
    return [
        "replay",
        str(prices),
        *("--structures", str(structures)),
        *("--expression", EXPRESSION),
        *("--output", str(folder / "output.csv")),
        *("--plot", str(folder / "picture.png")),
        *("--title", "Same-sector pairs of large US stocks"),
    ]


def _introduction(command: Sequence[str]) -> str:
    version = importlib.metadata.version(PACKAGE)
    shown = " ".join(f'"{part}"' if set(part) & set(" ;()") else part for part in command)
    return f"""\
Daily prices of 20 large US stocks, 1990 to 2022, go through all same-sector pairs:
each day a pair's value is the difference of its two stocks' returns; {EXPRESSION}
smooths it over 20 days and ranks the pairs; the ranks come back onto the stocks.

The prices are the file {PRICES}
of the installed package {PACKAGE} {version} (BSD 3-Clause License, copyright the skfolio
developers). Its authors provide them solely for testing and examples: stale, not
authoritative, not for investment, trading or commercial use.

Running: quorvane {shown}
"""


_WITHOUT_PRICES = f"""\
The demo's prices are not here: they come with the Python package {PACKAGE}. Install it with
    python -m pip install --no-deps {PACKAGE}
and run the demo again, or run the same on a table of your own, with a column of dates and a
column of prices per instrument, and a file that says what to pair:
    quorvane replay prices.csv --structures pairs.toml --expression "{EXPRESSION}" \\
        --output output.csv --plot picture.png"""


if __name__ == "__main__":
    raise SystemExit(main())
