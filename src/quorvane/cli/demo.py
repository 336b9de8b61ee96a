"""``python -m quorvane.cli.demo``: decades of real daily prices through same-sector pairs."""

from __future__ import annotations

import argparse
import importlib.metadata
import time
from collections.abc import Iterator, Sequence
from itertools import combinations
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

import quorvane as qv
from quorvane.cli import INTERRUPTED, summary
from quorvane.cli.errors import CommandError
from quorvane.cli.files import WholeOutputs
from quorvane.cli.inputs import structure_input
from quorvane.cli.libraries import require_library
from quorvane.cli.picture import draw_picture
from quorvane.cli.saying import note, say
from quorvane.cli.table import Table
from quorvane.cli.table_io import read_table, write_table
from quorvane.evaluation.report import structure_figures

PACKAGE = "skfolio"
PRICES = "datasets/data/sp500_dataset.csv.gz"
EXPRESSION = "ewma(20);centered_rank"
TITLE = "Same-sector pairs of large US stocks"
COST = 0.0005
"""Of what is traded; half of a tenth of a percent."""

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
    """Run the demo; the exit status is 1 without the prices, or where a file cannot be written."""
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
        say(_WITHOUT_PRICES)
        return 1
    try:
        _run(prices, folder)
    except CommandError as error:
        note(f"demo: error: {error}")
        return error.exit_status
    except KeyboardInterrupt:
        return INTERRUPTED
    return 0


def _run(path: Path, folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    output, picture, report = (folder / f for f in ("output.csv", "picture.png", "report.html"))
    say(_introduction())
    prices = read_table(path)
    returns = structure_input(prices.values, "returns")
    dates = None if prices.dates is None else prices.dates.text
    pairs = qv.Baskets(pair_weights(), EXPRESSION, hold=0, instruments=prices.instruments)
    start = time.perf_counter()
    signal = pairs.run(returns, date=dates)
    seconds = time.perf_counter() - start
    result = Table(signal, prices.instruments, prices.dates)
    judged = qv.evaluate(_frame(signal, prices), _frame(returns, prices), cost=COST)
    groups = {stock: sector for sector, members in SECTORS.items() for stock in members}
    with WholeOutputs() as outputs:
        with outputs.making(output, "the table") as part:
            write_table(part, result)
        with outputs.making(picture, "the picture") as part:
            figures = structure_figures(judged, pairs)
            draw_picture(part, judged, figures, TITLE, summary.describe_table(prices), groups)
        with outputs.making(report, "the report") as part:
            judged.to_html(part, pairs, title=TITLE, groups=groups)
        outputs.take_places()
    rows = [
        ("table", summary.describe_table(prices)),
        ("baskets", summary.describe_structures(pair_weights())),
        ("expression", EXPRESSION),
        ("output", f"{output}: {summary.describe_output(result)}"),
        ("picture", str(picture)),
        ("report", str(report)),
        ("time", summary.describe_time(len(signal), seconds)),
    ]
    say(f"{summary.format_rows(rows)}\n\n{_last_day(pairs, result)}\n\n{_judgement(judged)}")


def _frame(values: NDArray[np.float64], prices: Table) -> Any:
    """A frame of pandas with the days and the names of the prices."""
    pandas = require_library("pandas", "judging the signal")
    days = None if prices.dates is None else pandas.DatetimeIndex(prices.dates.text)
    return pandas.DataFrame(values, index=days, columns=prices.instruments)


def pair_weights() -> dict[str, dict[str, float]]:
    """The pairs as baskets: one dollar in the first stock against one dollar in the second."""
    return {f"{a}/{b}": {a: 1.0, b: -1.0} for a, b in same_sector_pairs()}


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


def _judgement(judged: qv.Evaluation) -> str:
    """A line for each horizon."""
    return "\n".join(
        f"Over the next {_days(horizon):>7}: IC {row['ic_mean']:+.3f} (t {row['ic_t']:+.1f}), "
        f"profit {100.0 * row['profit_mean']:+.3f} %, {100.0 * row['net_mean']:+.3f} % after costs"
        for horizon, row in judged.summary.iterrows()
    )


def _days(number: int) -> str:
    return "day" if number == 1 else f"{number} days"


def _last_day(pairs: qv.Baskets, result: Table) -> str:
    """The ends of the last day's signal, and where the upper one comes from."""
    last = result.values[-1]
    highest, lowest = int(np.nanargmax(last)), int(np.nanargmin(last))
    names = result.instruments
    explained = pairs.explain(names[highest])
    columns = [str(name) for name in explained.dtype.names]
    lines = [columns, *([_text(row[name]) for name in columns] for row in explained)]
    widths = [max(map(len, column)) for column in zip(*lines, strict=True)]
    rows = (
        "  ".join(f"{text:>{width}}" for text, width in zip(line, widths, strict=True))
        for line in lines
    )
    day = result.label(len(result.values) - 1)
    return (
        f"On {day} the signal is highest for {names[highest]} ({last[highest]:+.2f}) and lowest "
        f"for {names[lowest]} ({last[lowest]:+.2f}).\n"
        f'The former, as pairs.explain("{names[highest]}") gives it:\n\n  ' + "\n  ".join(rows)
    )


def _text(value: object) -> str:
    return f"{value:.4f}" if isinstance(value, float) else str(value)


def _introduction() -> str:
    version = importlib.metadata.version(PACKAGE)
    return f"""\
Daily prices of 20 large US stocks, 1990 to 2022, go through all same-sector pairs. Each
day a pair's value is the difference of its two stocks' returns; {EXPRESSION}
smooths it over 20 days and gives each pair its place among the others, from -1 to 1; that
comes back onto the stocks: above zero where a stock has done better than its peers of late.

The prices are the file {PRICES}
of the installed package {PACKAGE} {version} (BSD 3-Clause License, copyright the skfolio
developers). Its authors provide them solely for testing and examples: stale, not
authoritative, not for investment, trading or commercial use.

Running: qv.Baskets(pairs, "{EXPRESSION}", hold=0).run(returns)
"""


_WITHOUT_PRICES = f"""\
The demo's prices are not here: they come with the Python package {PACKAGE}. Install it with
    python -m pip install --no-deps {PACKAGE}
and run the demo again, or run the same on a table of your own, with a column of dates and a
column of prices per instrument, and a file that says what to pair:
    quorvane replay prices.csv --structures pairs.toml --expression "ewma(20);zscore" \\
        --output output.csv --plot picture.png"""


if __name__ == "__main__":
    raise SystemExit(main())
