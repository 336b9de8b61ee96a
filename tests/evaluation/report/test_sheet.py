"""The charts on one sheet, whatever there is to draw."""

import io

import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")

from evaluation.report.judged import dated_pairs, judged, table  # noqa: E402
from quorvane.evaluation.report import draw_sheet, structure_figures  # noqa: E402
from quorvane.evaluation.report.drawing import style  # noqa: E402


def drawn(found, structures=None, title="t", groups=None):
    with style("sheet"):
        figure = draw_sheet(found, structures, title, "s", groups)
        figure.savefig(io.BytesIO(), format="png", dpi=20)
    return figure


def texts(figure):
    return [text.get_text() for text in figure.texts]


def test_a_sheet_has_every_chart():
    found, _ = judged()
    shown = texts(drawn(found))
    assert shown == [
        "t",
        "s",
        "What to hold on 2020-06-16",
        "What 1 has become, by quantile",
        "IC by horizon, with two standard errors",
        "IC through time",
        "Turnover",
        "Coverage",
        "The signal through time, the highest mean above",
    ]


def test_structures_that_change_take_the_place_of_the_coverage():
    returns = table()
    baskets = qv.Baskets.from_long(dated_pairs(returns), date="date", expression="ewma(5)")
    found = qv.evaluate(baskets.run(returns), returns)
    shown = texts(drawn(found, structure_figures(found, baskets)))
    assert "Coverage" not in shown
    assert "Structures listed; those that came and ended" in shown


@pytest.mark.parametrize("shape", [{"days": 1}, {"days": 400, "instruments": 90}], ids=str)
def test_any_shape_is_drawn(shape):
    found, _ = judged(**shape)
    drawn(found, title="a $ and \0 \N{CJK RADICAL SUN}")


def test_groups_are_named_before_their_instruments():
    found, _ = judged()
    groups = {name: "north" if name < "I5" else "south" for name in found._aligned.instruments}
    figure = drawn(found, groups=groups)
    labels = [label.get_text() for label in figure.axes[-1].get_yticklabels()]
    assert {label.split(" ")[0] for label in labels} == {"north", "south"}
