"""A report is one file that holds all it shows, whatever stands in names, days and numbers."""

import re
from html.parser import HTMLParser

import numpy as np
import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")

from evaluation.report.judged import dated_pairs, judged, pairs_of, table  # noqa: E402
from quorvane.evaluation.report import structure_figures  # noqa: E402

VOID = {"meta", "link", "br", "img", "hr"}


class Outline(HTMLParser):
    """The elements of a page, its text, and everything that could be loaded."""

    def __init__(self, text):
        super().__init__()
        self.open, self.elements, self.text, self.references = [], [], [], []
        self.feed(text)
        self.close()
        assert self.open == []

    def handle_starttag(self, tag, attributes):
        self.elements.append(tag)
        if tag not in VOID:
            self.open.append(tag)
        for name, value in attributes:
            assert not name.startswith("on")
            if name in ("src", "href", "xlink:href", "data", "action", "srcset"):
                self.references.append(value)

    def handle_startendtag(self, tag, attributes):
        self.handle_starttag(tag, attributes)
        if tag not in VOID:
            self.handle_endtag(tag)

    def handle_endtag(self, tag):
        assert self.open.pop() == tag

    def handle_data(self, data):
        self.text.append(data)


def page(found, path, *arguments, **settings):
    found.to_html(path / "report.html", *arguments, **settings)
    return (path / "report.html").read_text("utf-8")


def headings(text):
    return re.findall(r"<h2>(.*?)</h2>", text)


def test_structures_appear_where_the_baskets_are_given(tmp_path):
    found, baskets = judged()
    without = headings(page(found, tmp_path))
    assert without == [
        "What to hold",
        "Is it any good?",
        "Growth by quantile",
        "IC by horizon and through time",
        "Turnover and coverage",
        "The signal through time",
    ]
    largest = found.weights.iloc[-1].abs().idxmax()
    more = [f"{largest}, taken apart", "Structures and slots"]
    assert headings(page(found, tmp_path, baskets)) == [*without[:5], *more, without[5]]


def test_births_are_drawn_where_baskets_change(tmp_path):
    returns = table()
    baskets = qv.Baskets.from_long(dated_pairs(returns), date="date", expression="ewma(5)")
    found = qv.evaluate(baskets.run(returns), returns)
    census = structure_figures(found, baskets).census
    text = page(found, tmp_path, baskets)
    came, ended = census.born.sum(), census.ended.sum()
    assert f"Structures are listed anew 6 times: {came} came and {ended} ended." in text


def test_nothing_is_loaded_from_anywhere(tmp_path):
    outline = Outline(page(*_with_path(judged(), tmp_path)))
    assert {"script", "iframe", "object", "embed"}.isdisjoint(outline.elements)
    outside = [one for one in outline.references if not one.startswith(("#", "data:"))]
    assert outside == []
    assert "svg" in outline.elements


def _with_path(both, path):
    found, baskets = both
    return found, path, baskets


def test_the_same_evaluation_gives_the_same_bytes(tmp_path):
    found, baskets = judged()
    assert page(found, tmp_path, baskets) == page(*_with_path(judged(), tmp_path))


HOSTILE = [
    "<script>alert(1)</script>",
    '"><img src=x onerror=alert(1)>',
    "</style></svg></title><b>",
    "a & b &lt; c $x$ {title} %s",
    "\0\x1b\udcff\uffff",
    "\N{CJK RADICAL SUN} \N{RIGHT-TO-LEFT OVERRIDE}x",
    "x" * 500,
]


@pytest.mark.parametrize("name", HOSTILE, ids=range(len(HOSTILE)))
def test_a_name_is_text_wherever_it_stands(tmp_path, name):
    plain = Outline(page(*_with_path(judged(), tmp_path)))
    returns = table()
    others = list(returns.columns[1:])
    returns.columns = pandas.Index([name, *others], dtype=object)
    # Every structure holds the odd one, so that it is the largest holding.
    star = {f"{name}/{other}": {name: 1.0, other: -1.0} for other in others}
    baskets = qv.Baskets(star, "ewma(5);rank")
    found = qv.evaluate(baskets.run(returns), returns)
    groups = dict.fromkeys(returns.columns, name)
    text = page(found, tmp_path, baskets, title=name, groups=groups)
    outline = Outline(text)
    assert set(outline.elements) <= set(plain.elements)
    shown = re.sub(r"[\0\x1b\udcff\uffff]", "\N{REPLACEMENT CHARACTER}", name)
    assert outline.text.count(shown) >= 2
    assert f"{shown}, taken apart" in outline.text


@pytest.mark.parametrize(
    "shape",
    [{"days": 1}, {"days": 2, "instruments": 2}, {"days": 700, "instruments": 150}],
    ids=str,
)
def test_any_shape_is_shown(tmp_path, shape):
    Outline(page(*_with_path(judged(**shape), tmp_path)))


@pytest.mark.parametrize("fill", [np.nan, 0.0, 1.0, -1.0, np.inf])
def test_empty_constant_and_infinite_signals_are_shown(tmp_path, fill):
    signal = table()
    signal[:] = fill
    text = page(qv.evaluate(signal, table()), tmp_path)
    assert ("No day has a signal." in text) == (not np.isfinite(fill))
    Outline(text)


@pytest.mark.parametrize("size", [5e-324, 1e-300, 1e300, 1.7e308])
def test_the_largest_and_the_smallest_numbers_are_shown(tmp_path, size):
    Outline(page(qv.evaluate(size * table(scale=0.1), table(seed=1)), tmp_path))
    with np.errstate(over="ignore"):
        returns = np.abs(size * table(seed=1, scale=0.1))
        Outline(page(qv.evaluate(table(), returns), tmp_path))


def test_without_returns_all_else_is_shown(tmp_path):
    returns = table()
    returns[:] = np.nan
    text = page(qv.evaluate(table(seed=1), returns), tmp_path)
    assert text.count("no day has a signal and returns that follow") == 3
    assert "The largest weights of 2020-06-16" in text


def test_a_last_day_without_a_signal_is_told(tmp_path):
    signal = table(seed=1)
    signal.iloc[-1] = np.nan
    text = page(qv.evaluate(signal, table()), tmp_path)
    assert "The largest weights of 2020-06-15" in text
    assert "The last day, 2020-06-16, has no signal." in text


def test_a_last_day_of_zeros_holds_nothing(tmp_path):
    signal = table(seed=1)
    signal.iloc[-1] = 0.0
    text = page(qv.evaluate(signal, table()), tmp_path)
    assert "Nothing: all signals of 2020-06-16 are zero." in text


def test_each_name_of_an_element_is_there_once(tmp_path):
    text = page(*_with_path(judged(), tmp_path))
    names = re.findall(r'<[^>]* id="([^"]*)"', text)
    assert len(names) == len(set(names)) > 50
    for reference in re.findall(r'url\(#([^)]*)\)|href="#([^"]*)"', text):
        assert "".join(reference) in names


def test_baskets_that_did_not_give_the_signal_are_told(tmp_path):
    _, baskets = judged()
    returns = table()
    other = qv.evaluate(baskets.run(returns) + 1.0, returns)
    assert "the signal that was judged is not what these" in page(other, tmp_path, baskets)


@pytest.mark.parametrize(
    "index",
    [
        None,
        [f"<b>{n}" for n in range(120)],
        pandas.date_range("2020-01-01", periods=120, tz="Europe/Berlin"),
        pandas.date_range("1700-01-01", periods=120),
        pandas.period_range("2020-01", periods=120, freq="M"),
    ],
    ids=["numbers", "text", "zone", "long ago", "periods"],
)
def test_days_of_any_sort_are_shown(tmp_path, index):
    signal, returns = table(seed=1), table()
    for each in (signal, returns):
        each.index = pandas.RangeIndex(120) if index is None else pandas.Index(index)
    Outline(page(qv.evaluate(signal, returns), tmp_path))


def test_tables_of_polars_are_shown(tmp_path):
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    returns = polars.from_pandas(table().reset_index())
    baskets = qv.Baskets(pairs_of([f"I{i}" for i in range(12)]), "ewma(5);rank")
    text = page(qv.evaluate(baskets.run(returns), returns), tmp_path, baskets)
    assert "2020-06-16" in text
    assert "taken apart" in text


def test_an_instrument_without_a_group_is_refused(tmp_path):
    found, _ = judged()
    with pytest.raises(ValueError, match="groups: instruments without one: 'I1'"):
        found.to_html(tmp_path / "r.html", groups={"I0": "a"})
    with pytest.raises(TypeError, match="groups must be a mapping"):
        found.to_html(tmp_path / "r.html", groups=["a"])
    with pytest.raises(TypeError, match=r"groups: that of 'I0' must be hashable, got \['a'\]"):
        found.to_html(tmp_path / "r.html", groups={name: ["a"] for name in found.weights.columns})
    with pytest.raises(ValueError, match="path must name a file"):
        found.to_html("")
    assert list(tmp_path.iterdir()) == []


def test_a_file_is_replaced_as_a_whole_or_not_at_all(tmp_path):
    found, baskets = judged()
    (tmp_path / "report.html").write_text("old")
    baskets.run(table().iloc[:-1])
    with pytest.raises(ValueError, match="baskets"):
        found.to_html(tmp_path / "report.html", baskets)
    assert (tmp_path / "report.html").read_text() == "old"
    with pytest.raises(FileNotFoundError):
        found.to_html(tmp_path / "no" / "report.html")
    found.to_html(str(tmp_path / "report.html"))
    assert [path.name for path in tmp_path.iterdir()] == ["report.html"]
