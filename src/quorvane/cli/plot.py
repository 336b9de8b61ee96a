"""The picture of a replay: what went in, some structures, what the children made, what came out."""

from __future__ import annotations

import io
import warnings
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

from quorvane.cli.drawn_text import drawable
from quorvane.cli.files import ending_of
from quorvane.cli.inputs import InputKind
from quorvane.cli.libraries import require_library
from quorvane.cli.structures import Structures
from quorvane.cli.table import Table
from quorvane.cli.time_axis import TimeAxis

PICTURE_ENDINGS = (".png", ".pdf", ".svg")

_INK, _MUTED, _FAINT, _EMPTY = "#22262b", "#6b7280", "#c9ced6", "#e3e6ea"
_PALE = {"#0063a6": "#7db5dc", "#d1495b": "#eba3ac", "#2e8b57": "#93cba9"}
_HIGHLIGHTS = tuple(_PALE)
_MAX_COLOURED_LEGS = 4
_MAX_LINES = 60
_MAX_LABELS = 26
_MAX_ROWS = 48
_BINS = 140
_WIDTH_INCHES = 11.5
_LINES_INCHES = 3.3
_ROW_INCHES = 0.135
_LABEL_INCHES = 0.122
_STYLE = {
    "font.family": "sans-serif",
    "font.size": 9.0,
    "text.color": _INK,
    "axes.labelcolor": _MUTED,
    "axes.edgecolor": _FAINT,
    "axes.linewidth": 0.8,
    "axes.spines.top": False,
    "axes.spines.right": False,
    "xtick.color": _MUTED,
    "ytick.color": _MUTED,
    "xtick.labelsize": 8.0,
    "ytick.labelsize": 8.0,
    "grid.color": _EMPTY,
    "grid.linewidth": 0.8,
    # Names are shown as they are, a dollar sign included.
    "text.parse_math": False,
    "svg.hashsalt": "quorvane",
}
# Beyond it the arithmetic of axes overflows, and no line would differ to the eye.
_LARGEST = 1e100


@dataclass(frozen=True)
class Picture:
    """What a picture shows; ``entered`` and ``left`` are days by ``shown_keys``."""

    title: str
    table: Table
    input_kind: InputKind
    expression: str
    policy: str
    structures: Structures
    shown_keys: Sequence[str]
    entered: NDArray[np.float64]
    left: NDArray[np.float64]
    output: NDArray[np.float64]


def choose_evenly(count: int, wanted: int) -> list[int]:
    """At most ``wanted`` of the positions 0 to ``count - 1``, evenly spread, ends included."""
    if count <= wanted:
        return list(range(count))
    return [int(i) for i in np.linspace(0, count - 1, wanted).round()]


def draw_picture(path: Path, picture: Picture) -> None:
    """Draw the picture in the format of the file's ending."""
    matplotlib = require_library("matplotlib", "drawing a picture")
    ending = ending_of(path, PICTURE_ENDINGS, "a picture")
    # Drawn in memory first: on a full disk some formats fail while they clean up.
    drawn = io.BytesIO()
    with matplotlib.rc_context(_STYLE), warnings.catch_warnings():
        # A name in a script that the font lacks is drawn as boxes; that is no fault of the run.
        warnings.filterwarnings("ignore", message="Glyph")
        figure = _Sheet(picture).figure
        # No creation date: the same replay gives the same bytes.
        metadata = {".png": {"Software": None}, ".pdf": {"CreationDate": None}}.get(
            ending, {"Date": None}
        )
        figure.savefig(drawn, format=ending[1:], dpi=150, metadata=metadata)
    path.write_bytes(drawn.getvalue())


@dataclass
class _Sheet:
    """Four panels under one another over the same days."""

    picture: Picture
    figure: Any = field(init=False)

    def __post_init__(self) -> None:
        picture = self.picture
        self.time = TimeAxis(picture.table)
        self.instrument_rows = choose_evenly(len(picture.table.instruments), _MAX_ROWS)
        chosen = choose_evenly(len(picture.shown_keys), len(_HIGHLIGHTS))
        self.highlights = dict(zip(chosen, _HIGHLIGHTS, strict=False))
        heights = [
            _LINES_INCHES,
            _LINES_INCHES * 0.8,
            _map_inches(len(picture.shown_keys)),
            _map_inches(len(self.instrument_rows)),
        ]
        panels = self._lay_out(heights)
        self._what_went_in(panels[0])
        self._some_structures(panels[1])
        self._what_children_made(panels[2])
        self._what_came_out(panels[3])
        for panel in panels:
            self.time.format(panel)

    def _lay_out(self, heights: list[float]) -> list[Any]:
        """Axes of the given heights in inches, below a title."""
        figure_module = require_library("matplotlib.figure", "drawing a picture")
        top, gap, bottom = 1.35, 0.85, 0.45
        total = top + sum(heights) + gap * (len(heights) - 1) + bottom
        self.figure = figure_module.Figure(figsize=(_WIDTH_INCHES, total), facecolor="white")
        panels, y = [], total - top
        for height in heights:
            y -= height
            panels.append(self.figure.add_axes((0.105, y / total, 0.785, height / total)))
            y -= gap
        self.figure.text(
            0.03,
            1 - 0.42 / total,
            drawable(self.picture.title),
            fontsize=16,
            weight="bold",
            va="center",
        )
        self.figure.text(
            0.03,
            1 - 0.72 / total,
            drawable(self._subtitle()),
            fontsize=9.5,
            color=_MUTED,
            va="center",
        )
        return panels

    def _subtitle(self) -> str:
        table, picture = self.picture.table, self.picture
        days, instruments = table.values.shape
        span = f", {table.label(0)} to {table.label(days - 1)}" if table.dates else ""
        return (
            f"{days:,} days{span}  ·  {instruments:,} instruments  ·  "
            f"{len(picture.structures):,} structures of {picture.input_kind}  ·  "
            f"{picture.expression}  ·  {picture.policy.replace('_', ' ')}"
        )

    def _what_went_in(self, axes: Any) -> None:
        """The table's columns, the highlighted structures' instruments in their colours."""
        table = self.picture.table
        values, is_price = _rebased(table.values)
        if is_price:
            _log_scale(axes, values)
            what = "price, as a multiple of its first; log scale"
        else:
            what = "the table's values"
        colours = self._instrument_colours()
        if colours:
            what += "; in colour the legs of the structures below, pale those of negative weight"
        _heading(axes, "What went in", what)
        lines = sorted({*choose_evenly(values.shape[1], _MAX_LINES), *colours})
        series = {column: _bounded(values[:, column]) for column in lines}
        for column in sorted(lines, key=lambda column: column in colours):
            shown = colours.get(column)
            axes.plot(
                self.time.positions,
                series[column],
                color=shown or _FAINT,
                linewidth=1.1 if shown else 0.7,
                zorder=3 if shown else 2,
            )
        labelled = lines if len(lines) <= _MAX_LABELS else sorted(colours)
        _label_ends(
            axes,
            [(table.instruments[c], series[c], colours.get(c, _MUTED)) for c in labelled],
        )
        axes.grid(axis="y")

    def _instrument_colours(self) -> dict[int, str]:
        """Column to colour, for the legs of the highlighted structures that have few of them."""
        columns = {name: column for column, name in enumerate(self.picture.table.instruments)}
        colours: dict[int, str] = {}
        for position, colour in self.highlights.items():
            legs = self.picture.structures[self.picture.shown_keys[position]]
            if len(legs) <= _MAX_COLOURED_LEGS:
                for name, weight in legs.items():
                    shade = colour if weight >= 0.0 else _PALE[colour]
                    colours.setdefault(columns[name], shade)
        return colours

    def _some_structures(self, axes: Any) -> None:
        """The highlighted structures as they entered the children."""
        lines = []
        for position, colour in self.highlights.items():
            series = _bounded(self.picture.entered[:, position])
            if self.picture.input_kind == "returns":
                series = _running_sum(series) * 100.0
            axes.plot(self.time.positions, series, color=colour, linewidth=1.1)
            lines.append((self.picture.shown_keys[position], series, colour))
        what = (
            "running sum of the daily value, in %"
            if self.picture.input_kind == "returns"
            else "daily value, in the table's units"
        )
        count = len(self.highlights)
        _heading(axes, "Some structures", f"{count} of {len(self.picture.structures):,}: {what}")
        axes.axhline(0.0, color=_MUTED, linewidth=0.7, zorder=1)
        axes.yaxis.set_major_formatter(lambda y, _: f"{y:,g}".replace("-", "\N{MINUS SIGN}"))
        _label_ends(axes, lines)
        axes.grid(axis="y")

    def _what_children_made(self, axes: Any) -> None:
        keys = self.picture.shown_keys
        what = (
            "each structure"
            if len(keys) == len(self.picture.structures)
            else (f"{len(keys)} of {len(self.picture.structures):,} structures")
        )
        _heading(axes, f"After {self.picture.expression}", f"{what}{self._binning()}")
        self._heat_map(axes, self.picture.left, keys, self.highlights)

    def _what_came_out(self, axes: Any) -> None:
        instruments = self.picture.table.instruments
        rows = self.instrument_rows
        what = (
            "each instrument"
            if len(rows) == len(instruments)
            else (f"{len(rows)} of {len(instruments):,} instruments")
        )
        _heading(
            axes,
            "What came out",
            f"{what}, the sum over its structures{self._binning()}; grey where nothing reached it",
        )
        names = [instruments[row] for row in rows]
        self._heat_map(axes, self.picture.output[:, rows], names, {})

    def _binning(self) -> str:
        size = _bin_size(len(self.time.positions))
        return f", mean over {size} days" if size > 1 else ""

    def _heat_map(
        self,
        axes: Any,
        values: NDArray[np.float64],
        names: Sequence[str],
        colours: dict[int, str],
    ) -> None:
        """Rows by time, coloured from the middle outwards when the values have both signs."""
        means, starts = _binned(values)
        edges = np.append(self.time.positions[starts], _after_last(self.time.positions))
        colour_map, low, high = _colour_range(means)
        matplotlib = require_library("matplotlib", "drawing a picture")
        palette = matplotlib.colormaps[colour_map].with_extremes(bad=_EMPTY)
        mesh = axes.pcolormesh(
            edges,
            np.arange(len(names) + 1),
            np.ma.masked_invalid(means.T),
            cmap=palette,
            vmin=low,
            vmax=high,
            rasterized=True,
        )
        axes.invert_yaxis()
        self._row_labels(axes, names, colours)
        axes.spines[["left", "bottom"]].set_visible(False)
        self._colour_bar(axes, mesh)

    def _row_labels(self, axes: Any, names: Sequence[str], colours: dict[int, str]) -> None:
        axes.set_yticks(np.arange(len(names)) + 0.5, [_short(name) for name in names], fontsize=7.0)
        axes.tick_params(axis="y", length=0, pad=3)
        for row, label in enumerate(axes.get_yticklabels()):
            if row in colours:
                label.set_color(colours[row])
                label.set_fontweight("bold")

    def _colour_bar(self, axes: Any, mesh: Any) -> None:
        box = axes.get_position()
        place = self.figure.add_axes((box.x1 + 0.012, box.y0, 0.011, box.height))
        bar = self.figure.colorbar(mesh, cax=place, extend="neither")
        bar.outline.set_visible(False)
        place.tick_params(length=0, labelsize=7.5)
        place.yaxis.set_major_formatter(lambda y, _: f"{y:g}".replace("-", "\N{MINUS SIGN}"))


def _log_scale(axes: Any, values: NDArray[np.float64]) -> None:
    """A logarithmic axis with plain numbers; within a decade or two its ticks are round steps."""
    ticker = require_library("matplotlib.ticker", "drawing a picture")
    axes.set_yscale("log")
    if np.nanmax(values) < 30.0 * np.nanmin(values):
        axes.yaxis.set_major_locator(ticker.MaxNLocator(7, steps=[1, 2, 2.5, 5, 10]))
    axes.yaxis.set_major_formatter(lambda y, _: f"{y:,g}")
    axes.yaxis.set_minor_formatter(ticker.NullFormatter())


def _map_inches(rows: int) -> float:
    return max(rows * _ROW_INCHES, min(rows * 2 * _ROW_INCHES, 1.6))


def _heading(axes: Any, name: str, detail: str) -> None:
    """A bold name with its explanation in grey after it, flush with the sheet's margin."""
    text = axes.annotate(
        name,
        (0, 1),
        xytext=(-62, 12),
        xycoords="axes fraction",
        textcoords="offset points",
        fontsize=11.5,
        weight="bold",
        annotation_clip=False,
    )
    axes.annotate(
        detail,
        (1, 0),
        xytext=(8, 1),
        xycoords=text,
        textcoords="offset points",
        fontsize=9,
        color=_MUTED,
        annotation_clip=False,
    )


def _label_ends(axes: Any, lines: Sequence[tuple[str, NDArray[np.float64], str]]) -> None:
    """Names at the right, each at the height of its line's last value, moved apart when close."""
    transform = axes.transData
    axes.autoscale_view()
    box = axes.get_window_extent()
    ends = []
    for name, series, colour in lines:
        finite = np.flatnonzero(np.isfinite(series))
        if finite.size:
            y = transform.transform((0.0, float(series[finite[-1]])))[1]
            ends.append((float((y - box.y0) / box.height), name, colour))
    ends.sort()
    inches = box.height / axes.figure.dpi
    heights = _spread([height for height, _, _ in ends], _LABEL_INCHES / inches)
    for (end, name, colour), height in zip(ends, heights, strict=True):
        axes.annotate(
            _short(name),
            (1, end),
            xytext=(15, (height - end) * inches * 72),
            xycoords="axes fraction",
            textcoords="offset points",
            fontsize=7.5,
            color=colour,
            va="center",
            annotation_clip=False,
            arrowprops={
                "arrowstyle": "-",
                "color": colour,
                "linewidth": 0.5,
                "relpos": (0.0, 0.5),
                "shrinkA": 1.0,
                "shrinkB": 1.0,
            },
        )


def _spread(heights: list[float], spacing: float) -> list[float]:
    """Rising heights moved as little as keeps them ``spacing`` apart.

    Heights that would collide form a group that is centred on the mean of where they belong.
    """
    groups: list[list[float]] = []
    for height in heights:
        groups.append([height])
        while len(groups) > 1 and _bottom(groups[-1], spacing) < _top(groups[-2], spacing):
            last = groups.pop()
            groups[-1] += last
    return [
        _bottom(group, spacing) + (i + 0.5) * spacing for group in groups for i in range(len(group))
    ]


def _bottom(group: list[float], spacing: float) -> float:
    return sum(group) / len(group) - spacing * len(group) / 2


def _top(group: list[float], spacing: float) -> float:
    return sum(group) / len(group) + spacing * len(group) / 2


def _rebased(values: NDArray[np.float64]) -> tuple[NDArray[np.float64], bool]:
    """Columns as multiples of their first value when all are positive, else as they are."""
    finite = np.isfinite(values)
    if not finite.any() or np.any(values[finite] <= 0.0):
        return values, False
    first = values[finite.argmax(axis=0), np.arange(values.shape[1])]
    # A column without a finite value is divided by one that is not; it stays undrawn.
    with np.errstate(over="ignore", invalid="ignore"):
        multiples = values / first
    np.clip(multiples, 1.0 / _LARGEST, _LARGEST, out=multiples, where=finite)
    return multiples, True


def _bounded(values: NDArray[np.float64]) -> NDArray[np.float64]:
    """The values, finite ones no larger than an axis can span."""
    return np.where(np.isfinite(values), np.clip(values, -_LARGEST, _LARGEST), values)


def _running_sum(series: NDArray[np.float64]) -> NDArray[np.float64]:
    """Sum so far, a missing day adding nothing, NaN before the first value."""
    finite = np.isfinite(series)
    total = np.cumsum(np.where(finite, series, 0.0))
    return np.where(np.cumsum(finite) > 0, total, np.nan)


def _bin_size(days: int) -> int:
    return -(-days // _BINS)


def _binned(values: NDArray[np.float64]) -> tuple[NDArray[np.float64], NDArray[np.intp]]:
    """Means over runs of days, ignoring what is not finite, and the runs' first days."""
    starts = np.arange(0, values.shape[0], _bin_size(values.shape[0]))
    finite = np.isfinite(values)
    sums = np.add.reduceat(np.where(finite, _bounded(values), 0.0), starts, axis=0)
    counts = np.add.reduceat(finite, starts, axis=0, dtype=np.int64)
    means = np.divide(sums, counts, out=np.full_like(sums, np.nan), where=counts > 0)
    return means, starts


def _after_last(positions: NDArray[np.float64]) -> float:
    step = float(positions[-1] - positions[-2]) if positions.size > 1 else 1.0
    return float(positions[-1]) + step


def _colour_range(values: NDArray[np.float64]) -> tuple[str, float, float]:
    """Colour map and limits; the limits leave out the extreme hundredth on either side."""
    finite = values[np.isfinite(values)]
    if finite.size == 0:
        return "viridis", 0.0, 1.0
    low, high = (float(limit) for limit in np.percentile(finite, (1.0, 99.0)))
    if low < 0.0 < high:
        reach = max(-low, high)
        return "RdBu_r", -reach, reach
    return "viridis", low, high if high > low else low + 1.0


def _short(name: str, length: int = 14) -> str:
    shown = name if len(name) <= length else name[: length - 1] + "\N{HORIZONTAL ELLIPSIS}"
    return drawable(shown)
