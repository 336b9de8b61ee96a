"""A report's charts on one sheet, as a picture."""

from __future__ import annotations

from collections.abc import Mapping
from typing import TYPE_CHECKING, Any

from quorvane.evaluation.report import charts, figures
from quorvane.evaluation.report.drawing import INK, MUTED, DayAxis, new_figure
from quorvane.evaluation.report.structures import StructureFigures
from quorvane.evaluation.report.text import day_text, drawable

if TYPE_CHECKING:
    from quorvane.evaluation import Evaluation

_WIDTH = 12.0
_ROW, _GAP, _TOP, _BOTTOM = 2.9, 0.95, 1.5, 0.5
_COLUMNS = ((0.07, 0.42), (0.56, 0.42))
_MAP_ROW = 0.15


def draw_sheet(
    evaluation: Evaluation,
    structures: StructureFigures | None,
    title: str,
    subtitle: str,
    groups: Mapping[Any, Any] | None = None,
) -> Any:
    """A figure of matplotlib; to be called within `drawing.style`."""
    days = DayAxis(evaluation._index, evaluation._dates)
    cells = figures.heat_map(evaluation, groups)
    sheet = _Sheet(cells)
    sheet.write_title(title, subtitle)

    held = figures.holdings(evaluation)
    day = f" on {day_text(evaluation._index[held.day])}" if held.day >= 0 else ""
    charts.held(sheet.panel(0, 0, f"What to hold{day}"), held)
    charts.growth(
        sheet.panel(0, 1, "What 1 has become, by quantile", legend=True),
        figures.growth(evaluation),
        days,
    )
    charts.correlation_by_horizon(
        sheet.panel(1, 0, "IC by horizon, with two standard errors"),
        evaluation.horizons,
        *figures.correlation_bars(evaluation),
    )
    charts.correlation_through_time(
        sheet.panel(1, 1, "IC through time", legend=True),
        evaluation.horizons,
        figures.smoothed(evaluation.ic),
        days,
    )
    turnover = figures.smoothed(evaluation.turnover.to_frame())
    charts.share(sheet.panel(2, 0, "Turnover"), turnover, days, "turnover", 0.0)
    if structures is not None and structures.census is not None:
        above, below = sheet.halves(2, 1, "Structures listed; those that came and ended")
        charts.births_and_ends(above, below, structures.census, days)
    else:
        coverage = figures.smoothed(evaluation.coverage.to_frame())
        charts.share(sheet.panel(2, 1, "Coverage"), coverage, days, "coverage", 1.0)
    charts.heat_map(sheet.lowest("The signal through time, the highest mean above"), cells, days)
    return sheet.figure


class _Sheet:
    """Three rows of two panels, and one across the whole width below."""

    def __init__(self, cells: figures.HeatMap) -> None:
        self._map = max(_MAP_ROW * len(cells.names), 1.0)
        self._height = _TOP + 3 * (_ROW + _GAP) + self._map + _BOTTOM
        self.figure = new_figure(_WIDTH, self._height)
        self.figure.set_facecolor("white")

    def write_title(self, title: str, subtitle: str) -> None:
        for text, inches, size, weight, colour in [
            (title, 0.45, 17, "bold", INK),
            (subtitle, 0.8, 10, "normal", MUTED),
        ]:
            self.figure.text(
                0.03, 1 - inches / self._height, drawable(text), fontsize=size, weight=weight,
                color=colour, va="center",
            )  # fmt: skip

    def panel(self, row: int, column: int, heading: str, *, legend: bool = False) -> Any:
        """Axes in a row and a column, with room for a legend between them and the heading."""
        return self._headed(self._top(row), _ROW, _COLUMNS[column], heading, legend)

    def halves(self, row: int, column: int, heading: str) -> tuple[Any, Any]:
        """Axes above one another in the place of a panel."""
        top, part = self._top(row), _ROW * 0.46
        above = self._headed(top, part, _COLUMNS[column], heading, False)
        below = self._axes(top + _ROW - part, part, _COLUMNS[column])
        return above, below

    def lowest(self, heading: str) -> Any:
        return self._headed(self._top(3), self._map, (0.12, 0.81), heading, False)

    def _top(self, row: int) -> float:
        return _TOP + row * (_ROW + _GAP)

    def _headed(
        self, top: float, height: float, column: tuple[float, float], heading: str, legend: bool
    ) -> Any:
        self.figure.text(
            column[0] - 0.04, 1 - (top - 0.22) / self._height, drawable(heading), fontsize=11,
            weight="bold",
        )  # fmt: skip
        room = 0.42 if legend else 0.0
        return self._axes(top + room, height - room, column)

    def _axes(self, top: float, height: float, column: tuple[float, float]) -> Any:
        left, width = column
        bottom = 1 - (top + height) / self._height
        return self.figure.add_axes((left, bottom, width, height / self._height))
