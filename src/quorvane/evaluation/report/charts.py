"""The charts of a report, each drawn into axes of matplotlib."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.counting import counted
from quorvane.evaluation.report import drawing
from quorvane.evaluation.report.drawing import (
    EMPTY,
    FAINT,
    INK,
    LINES,
    LONG,
    MIDDLE,
    MUTED,
    SHORT,
    DayAxis,
)
from quorvane.evaluation.report.figures import Growth, HeatMap, Holdings, chosen_evenly
from quorvane.evaluation.report.structures import Census
from quorvane.evaluation.report.text import short

Floats = NDArray[np.float64]

_NOT_JUDGED = "no day has a signal and returns that follow"
# Of lines with a name in a legend, and of names on an axis.
_MOST_NAMED = 6
_MOST_TICKS = 8


def held(axes: Any, holdings: Holdings) -> None:
    """The largest long and short weights as bars, the largest long above."""
    rows = [*holdings.longs, *reversed(holdings.shorts)]
    if not rows:
        _nothing(axes, "no signal")
        return
    weights = [100.0 * weight for _, weight in rows]
    axes.barh(range(len(rows)), weights, color=[LONG if w > 0 else SHORT for w in weights])
    axes.set_yticks(range(len(rows)), [short(name) for name, _ in rows])
    axes.invert_yaxis()
    axes.axvline(0.0, color=FAINT, linewidth=0.8)
    axes.set_xlabel("weight, %")
    axes.grid(axis="x")
    axes.set_axisbelow(True)


def growth(axes: Any, grown: Growth, days: DayAxis) -> None:
    """What 1 has become, by quantile, and the highest less the lowest."""
    everything = np.column_stack([grown.quantiles, grown.spread])
    if not np.isfinite(everything).any():
        _nothing(axes, _NOT_JUDGED)
        return
    count = grown.quantiles.shape[1]
    colours = drawing.colours_between(SHORT, MIDDLE, LONG, count)
    positions = days.positions[grown.days]
    for number in range(count):
        name = {0: "lowest", count - 1: "highest"}.get(number)
        label = f"quantile {number + 1}" + (f", {name}" if name else "")
        if name is None and count > _MOST_NAMED:
            label = "_unnamed"
        width = 1.6 if name else 1.0
        axes.plot(
            positions, grown.quantiles[:, number], color=colours[number], linewidth=width,
            label=label,
        )  # fmt: skip
    axes.plot(
        positions, grown.spread, color=INK, linewidth=1.3, linestyle="--", label="highest - lowest"
    )
    _log_scale(axes, everything[np.isfinite(everything)])
    axes.axhline(1.0, color=FAINT, linewidth=0.8)
    _legend(axes)
    axes.grid(axis="y")
    days.format(axes)


def correlation_by_horizon(
    axes: Any, horizons: Sequence[int], means: Floats, errors: Floats
) -> None:
    """The mean correlation of each horizon, with two standard errors either way."""
    if not np.isfinite(means).any():
        _nothing(axes, _NOT_JUDGED)
        return
    places = np.arange(len(horizons))
    axes.bar(places, np.nan_to_num(means), width=0.55, color=LINES[0], alpha=0.85)
    whiskers = 2.0 * np.nan_to_num(errors)
    axes.errorbar(
        places, np.nan_to_num(means), yerr=whiskers, fmt="none", ecolor=INK, elinewidth=1, capsize=4
    )
    named = chosen_evenly(len(horizons), _MOST_TICKS)
    axes.set_xticks(named, [counted(horizons[place], "day") for place in named])
    axes.axhline(0.0, color=FAINT, linewidth=0.8)
    axes.grid(axis="y")
    axes.set_axisbelow(True)


def correlation_through_time(
    axes: Any, horizons: Sequence[int], smoothed: tuple[NDArray[np.intp], Floats], days: DayAxis
) -> None:
    """Running means of the correlations."""
    chosen, means = smoothed
    if not np.isfinite(means).any():
        _nothing(axes, _NOT_JUDGED)
        return
    named = set(chosen_evenly(len(horizons), _MOST_NAMED).tolist())
    for number, horizon in enumerate(horizons):
        colour = LINES[number % len(LINES)]
        axes.plot(
            days.positions[chosen], means[:, number], color=colour, linewidth=1.2,
            label=counted(horizon, "day") if number in named else "_unnamed",
        )  # fmt: skip
    axes.axhline(0.0, color=FAINT, linewidth=0.8)
    _legend(axes)
    axes.grid(axis="y")
    days.format(axes)


def share(
    axes: Any, smoothed: tuple[NDArray[np.intp], Floats], days: DayAxis, what: str, most: float
) -> None:
    """One line from 0 up, such as the turnover's, in percent."""
    chosen, means = smoothed
    if not np.isfinite(means).any():
        _nothing(axes, f"no {what} is known")
        return
    line = 100.0 * means[:, 0]
    axes.plot(days.positions[chosen], line, color=LONG, linewidth=1.2)
    axes.fill_between(days.positions[chosen], 0.0, line, color=LONG, alpha=0.12, linewidth=0)
    axes.set_ylim(0.0, max(float(np.nanmax(line)) * 1.1, 100.0 * most, 1e-9))
    axes.set_ylabel(f"{what}, %")
    axes.grid(axis="y")
    days.format(axes)


def births_and_ends(above: Any, below: Any, census: Census, days: DayAxis) -> None:
    """How many structures are listed, and under it how many came and went."""
    if days.is_calendar:
        positions = np.array([days.position_of(date) for date in census.dates])
    else:
        positions = np.arange(len(census.dates), dtype=np.float64)
    # The last list holds to the last day.
    until = max(positions[-1], days.positions[-1]) if days.is_calendar else positions[-1] + 1.0
    above.step(
        np.append(positions, until), np.append(census.listed, census.listed[-1]), where="post",
        color=INK, linewidth=1.3,
    )  # fmt: skip
    above.set_ylim(0, max(int(census.listed.max()) * 1.15, 1))
    above.set_ylabel("listed")
    above.tick_params(labelbottom=False)
    below.vlines(positions, 0, census.born, color=LONG, linewidth=1.4, label="came")
    below.vlines(positions, -census.ended, 0, color=SHORT, linewidth=1.4, label="ended")
    below.axhline(0.0, color=FAINT, linewidth=0.8)
    _legend(below)
    for axes in (above, below):
        axes.grid(axis="y")
        if days.is_calendar:
            days.format(axes)
            first, last = days.positions[0], days.positions[-1]
            first, last = min(first, positions[0]), max(last, positions[-1] + 1.0)
            # Room for what comes on the first day.
            axes.set_xlim(first - 0.01 * (last - first), last)
    above.tick_params(labelbottom=False)


def heat_map(axes: Any, cells: HeatMap, days: DayAxis) -> None:
    """The signal by instrument and run of days, red below zero and blue above."""
    if not len(cells.names) or not np.isfinite(cells.means).any():
        _nothing(axes, "no signal")
        return
    finite = cells.means[np.isfinite(cells.means)]
    # Leaving out the extreme hundredth, so that one outlier does not pale all else.
    reach = float(np.percentile(np.abs(finite), 99.0)) or 1.0
    edges = np.append(days.positions[cells.starts], days.positions[-1])
    if edges[-1] <= edges[-2]:
        edges[-1] = edges[-2] + 1.0
    mesh = axes.pcolormesh(
        edges, np.arange(len(cells.names) + 1), cells.means, cmap="RdBu", vmin=-reach, vmax=reach,
        rasterized=True,
    )  # fmt: skip
    axes.set_facecolor(EMPTY)
    axes.set_yticks(np.arange(len(cells.names)) + 0.5, _row_labels(cells), fontsize=7.5)
    axes.tick_params(axis="y", length=0)
    axes.invert_yaxis()
    for row in _group_ends(cells):
        axes.axhline(row, color=INK, linewidth=0.8)
    days.format(axes)
    axes.set_xlim(edges[0], edges[-1])
    bar = axes.figure.colorbar(mesh, cax=axes.inset_axes((1.012, 0.0, 0.014, 1.0)))
    bar.outline.set_visible(False)
    bar.ax.tick_params(labelsize=7.5, color=FAINT)
    bar.ax.yaxis.set_major_formatter(lambda number, _: f"{number:.2g}")


def _row_labels(cells: HeatMap) -> list[str]:
    if cells.groups is None:
        return [short(name) for name in cells.names]
    return [
        f"{short(group, 20)} \N{MIDDLE DOT} {short(name, 12)}"
        for group, name in zip(cells.groups, cells.names, strict=True)
    ]


def _group_ends(cells: HeatMap) -> list[int]:
    groups = cells.groups or []
    return [row for row in range(1, len(groups)) if groups[row] != groups[row - 1]]


def _nothing(axes: Any, text: str) -> None:
    axes.set_xticks([])
    axes.set_yticks([])
    axes.text(0.5, 0.5, text, ha="center", va="center", transform=axes.transAxes, color=MUTED)


def _log_scale(axes: Any, values: Floats) -> None:
    """A logarithmic axis with plain numbers, where the values span more than a few times."""
    lowest, highest = float(values.min()), float(values.max())
    if lowest <= 0.0 or highest / lowest < 4.0:
        return
    ticker = drawing.matplotlib("matplotlib.ticker")
    axes.set_yscale("log")
    steps = (1.0, 2.0, 5.0) if highest / lowest < 100.0 else (1.0,)
    axes.yaxis.set_major_locator(ticker.LogLocator(subs=steps))
    axes.yaxis.set_major_formatter(ticker.FuncFormatter(lambda number, _: f"{number:,g}"))
    axes.yaxis.set_minor_locator(ticker.NullLocator())


def _legend(axes: Any) -> None:
    """Above the axes, where no line runs."""
    axes.legend(
        loc="lower left", bbox_to_anchor=(-0.01, 1.0), ncols=3, handlelength=1.4,
        columnspacing=1.2, borderaxespad=0.2,
    )  # fmt: skip
