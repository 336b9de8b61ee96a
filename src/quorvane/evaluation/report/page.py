"""A report as one file of HTML that needs nothing else."""

from __future__ import annotations

from collections.abc import Hashable, Iterable, Mapping
from importlib import resources
from typing import TYPE_CHECKING, Any

from quorvane.counting import counted
from quorvane.evaluation.report import charts, figures
from quorvane.evaluation.report.document import document, escaped
from quorvane.evaluation.report.drawing import DayAxis, as_svg
from quorvane.evaluation.report.structures import Census, Parts, StructureFigures
from quorvane.evaluation.report.text import day_text, decimal, percent

if TYPE_CHECKING:
    from quorvane.evaluation import Evaluation

# Of a chart; narrow enough that its text can be read on a phone.
_WIDTH, _HEIGHT = 4.8, 2.8

_MAP_WIDTH = 9.6

Bar = tuple[Hashable, float, str]


def write_page(
    evaluation: Evaluation,
    structures: StructureFigures | None,
    title: str,
    groups: Mapping[Any, Any] | None = None,
    note: str = "",
) -> str:
    """The text of the page; the note, of what was assumed, stands at its end."""
    days = DayAxis(evaluation._index, evaluation._dates)
    cards = [
        _held(evaluation),
        _summary(evaluation),
        _growth(evaluation, days),
        _correlations(evaluation, days),
        _traded(evaluation, days),
    ]
    if structures is not None:
        cards += [_parts(structures.parts), _slots(structures, days)]
        groups = groups or structures.groups
    body = _BODY.format(
        title=escaped(title),
        subtitle=_subtitle(evaluation),
        cards="\n".join(filter(None, cards)),
        below=_heat_map(evaluation, days, groups),
        notes=_notes(evaluation, note),
    )
    style = resources.files(__package__).joinpath("style.css").read_text("utf-8")
    return document(title, style, body)


_BODY = """\
<header>
<h1>{title}</h1>
<p>{subtitle}</p>
</header>
<main>
<div class="columns">
{cards}
</div>
{below}
</main>
<footer>
{notes}
</footer>"""


def _card(heading: str, text: str, body: str) -> str:
    return f"<section>\n<h2>{escaped(heading)}</h2>\n<p>{text}</p>\n{body}\n</section>"


def _held(evaluation: Evaluation) -> str:
    held = figures.holdings(evaluation)
    if held.day < 0:
        return _card("What to hold", "No day has a signal.", "")
    day = day_text(evaluation._index[held.day])
    text = f"The largest weights of {escaped(day)}, of an absolute sum of 100 %."
    if not (held.longs or held.shorts):
        text = f"Nothing: all signals of {escaped(day)} are zero."
    if held.day < len(evaluation._index) - 1:
        last = day_text(evaluation._index[-1])
        text += f" <strong>The last day, {escaped(last)}, has no signal.</strong>"
    if held.others:
        text += f" {held.others:,} others are held besides."
    rows = [*held.longs, *reversed(held.shorts)]
    bars = _bars((name, weight, percent(weight)) for name, weight in rows)
    return _card("What to hold", text, bars)


# What the table of figures shows: a column of the summary, times how much, and digits.
_FIGURES = (
    ("IC", "ic_mean", 1.0, 3),
    ("its t-statistic", "ic_t", 1.0, 1),
    ("days above 0, %", "ic_positive", 100.0, 0),
    ("profit, %", "profit_mean", 100.0, 3),
    ("net, %", "net_mean", 100.0, 3),
    ("profit / deviation", "profit_ratio", 1.0, 3),
)


def _summary(evaluation: Evaluation) -> str:
    heads = "".join(f'<th scope="col">{horizon}</th>' for horizon in evaluation.horizons)
    lines = [f'<tr><th scope="row">days</th>{heads}</tr>']
    for label, column, times, digits in _FIGURES:
        numbers = evaluation.summary[column].to_numpy() * times
        cells = "".join(f"<td>{decimal(number, digits)}</td>" for number in numbers)
        lines.append(f'<tr><th scope="row">{label}</th>{cells}</tr>')
    body = f'<div class="wide"><table>{"".join(lines)}</table></div>'
    means = evaluation.summary.iloc[0]
    text = (
        "IC is Spearman's correlation of the signal with the returns that follow, by the number of "
        "days that they span, and its t-statistic has the correction of Newey and West. Profit is "
        "the mean of what the weights earn in so many days, net after a cost of "
        f"{100.0 * evaluation.cost:g} % of what is traded. "
        f"Turnover {decimal(100.0 * means['turnover'], 1)} % a day, coverage "
        f"{decimal(100.0 * means['coverage'], 1)} %."
    )
    return _card("Is it any good?", text, body)


def _growth(evaluation: Evaluation, days: DayAxis) -> str:
    grown = figures.growth(evaluation)
    svg = as_svg(
        "growth",
        _WIDTH,
        _HEIGHT + 0.5,
        lambda figure: charts.growth(_axes(figure, top=0.8), grown, days),
    )
    text = (
        "What 1 has become, before costs, held in the instruments of one quantile of the signal in "
        f"equal parts, from one signal until the next ({evaluation.quantiles} quantiles, returns "
        f"from {_lag(evaluation)} on)."
    )
    return _card("Growth by quantile", text, _chart(svg, "Growth by quantile"))


def _correlations(evaluation: Evaluation, days: DayAxis) -> str:
    means, errors = figures.correlation_bars(evaluation)
    running = figures.smoothed(evaluation.ic)
    bars = as_svg(
        "ic-horizon",
        _WIDTH,
        _HEIGHT * 0.75,
        lambda figure: charts.correlation_by_horizon(
            _axes(figure), evaluation.horizons, means, errors
        ),
    )
    lines = as_svg(
        "ic-time",
        _WIDTH,
        _HEIGHT,
        lambda figure: charts.correlation_through_time(
            _axes(figure, top=0.85), evaluation.horizons, running, days
        ),
    )
    text = (
        "The mean IC by horizon, with two standard errors either way, and its mean over "
        f"{counted(figures.smoothing(len(evaluation.ic)), 'day')} through time."
    )
    body = _chart(bars, "IC by horizon") + _chart(lines, "IC through time")
    return _card("IC by horizon and through time", text, body)


def _traded(evaluation: Evaluation, days: DayAxis) -> str:
    running = [
        (figures.smoothed(evaluation.turnover.to_frame()), "turnover", 0.0),
        (figures.smoothed(evaluation.coverage.to_frame()), "coverage", 1.0),
    ]
    body = "".join(
        _chart(
            as_svg(
                what,
                _WIDTH,
                _HEIGHT * 0.75,
                lambda figure, smoothed=smoothed, what=what, most=most: charts.share(  # type: ignore[misc]
                    _axes(figure), smoothed, days, what, most
                ),
            ),
            f"{what} through time".capitalize(),
        )
        for smoothed, what, most in running
    )
    text = (
        "Turnover is the sum of the absolute changes of the weights from day to day, coverage the "
        "share of instruments with a signal; means over "
        f"{counted(figures.smoothing(len(evaluation.ic)), 'day')}."
    )
    return _card("Turnover and coverage", text, body)


def _parts(parts: Parts | None) -> str:
    if parts is None:
        return ""
    rows = [(name, value, f"{value:+.4g}") for name, value in parts.contributions]
    if parts.others[0]:
        number, value = parts.others
        rows.append((f"{number:,} others", value, f"{value:+.4g}"))
    text = (
        "The instrument of the largest weight, by structure: what each contributes to its signal "
        f"of {parts.signal:+.4g} on the last day."
    )
    if not parts.is_whole:
        text += (
            f" <strong>They add up to {parts.total:+.4g}: the signal that was judged is not what "
            "these structures gave.</strong>"
        )
    return _card(f"{parts.instrument}, taken apart", text, _bars(rows))


def _slots(structures: StructureFigures, days: DayAxis) -> str:
    slots = structures.slots
    share = [100.0 * part / max(slots.capacity, 1) for part in (slots.speaking, slots.known)]
    gauge = (
        '<div class="gauge" role="img" aria-label="Slots">'
        f'<span class="known" style="width:{share[1]:.2f}%"></span>'
        f'<span class="speaking" style="width:{share[0]:.2f}%"></span></div>\n'
        f"<p>Speaking on the last day: {slots.speaking:,}. With a slot: {slots.known:,}, of "
        f"{slots.capacity:,}.</p>"
    )
    census = structures.census
    if census is None:
        return _card("Structures and slots", "The structures are the same on all days.", gauge)
    text = (
        f"Structures are listed anew {_times(len(census.dates))}: {int(census.born.sum()):,} came "
        f"and {int(census.ended.sum()):,} ended."
    )
    return _card("Structures and slots", text, _births(census, days) + gauge)


def _births(census: Census, days: DayAxis) -> str:
    def draw(figure: Any) -> None:
        above = _axes(figure, bottom=0.6, top=0.97)
        below = _axes(figure, bottom=0.16, top=0.44)
        charts.births_and_ends(above, below, census, days)

    return _chart(as_svg("births", _WIDTH, _HEIGHT * 1.1, draw), "Births and ends of structures")


def _heat_map(evaluation: Evaluation, days: DayAxis, groups: Mapping[Any, Any] | None) -> str:
    cells = figures.heat_map(evaluation, groups)
    height = 0.9 + 0.16 * max(len(cells.names), 4)
    left = 0.13 if cells.groups is None else 0.2
    svg = as_svg(
        "heat-map",
        _MAP_WIDTH,
        height,
        lambda figure: charts.heat_map(
            _axes(figure, left=left, bottom=0.45 / height, top=1 - 0.1 / height, right=0.94),
            cells,
            days,
        ),
    )
    order = "the highest mean of all days above"
    text = (
        f"By group, and within each {order}."
        if cells.groups is not None
        else order.capitalize() + "."
    )
    if cells.left_out:
        text += f" {cells.left_out:,} others lie evenly between those that are shown."
    if cells.silent:
        text += f" Without any signal: {cells.silent:,}."
    body = f'<div class="wide">{_chart(svg, "The signal of each instrument through time")}</div>'
    return _card("The signal through time", text, body)


def _bars(rows: Iterable[Bar]) -> str:
    """Bars to either side of a middle line, as a table that can be read without seeing them."""
    shown = list(rows)
    widest = max((abs(value) for _, value, _ in shown), default=0.0) or 1.0
    lines = []
    for name, value, text in shown:
        width = 50.0 * abs(value) / widest
        side = "long" if value >= 0.0 else "short"
        lines.append(
            f'<tr><th scope="row">{escaped(name)}</th>'
            f'<td class="track"><span class="{side}" style="width:{width:.2f}%"></span></td>'
            f"<td>{escaped(text)}</td></tr>"
        )
    return f'<table class="bars">{"".join(lines)}</table>'


def _chart(svg: str, label: str) -> str:
    return f'<figure role="img" aria-label="{escaped(label)}">{svg}</figure>\n'


def _axes(
    figure: Any,
    left: float = 0.14,
    bottom: float | None = None,
    top: float = 0.95,
    right: float = 0.98,
) -> Any:
    # Below the axis lie the days, and what they have in common.
    low = 0.5 / figure.get_figheight() if bottom is None else bottom
    return figure.add_axes((left, low, right - left, top - low))


def _subtitle(evaluation: Evaluation) -> str:
    days, instruments = evaluation._aligned.signal.shape
    span = ""
    if days:
        first, last = (day_text(evaluation._index[place]) for place in (0, -1))
        span = f", {escaped(first)} to {escaped(last)}"
    return f"{counted(days, 'day')}{span} &middot; {counted(instruments, 'instrument')}"


def _notes(evaluation: Evaluation, note: str) -> str:
    from quorvane import __version__

    assumed = f"<p>{escaped(note)}</p>\n" if note else ""
    return (
        f"{assumed}<p>The signal of a day meets returns from {_lag(evaluation)} on. Weights are "
        "the signal with an absolute sum of 1 on each day. What is earned is before costs but for "
        "what is called net, and nothing is annualised. The past says little of what comes.</p>\n"
        f"<p>quorvane {escaped(__version__)}</p>"
    )


def _lag(evaluation: Evaluation) -> str:
    return "the next day" if evaluation.lag == 1 else f"{evaluation.lag} days later"


def _times(number: int) -> str:
    return "once" if number == 1 else f"{number:,} times"
