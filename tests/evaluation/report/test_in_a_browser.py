"""A report in a real browser: silent, self-contained, and no wider than a phone."""

import re

import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")
matplotlib_image = pytest.importorskip("matplotlib.image")

from evaluation.report.judged import dated_pairs, table  # noqa: E402
from support.browser import find_browser, visit  # noqa: E402

NAME = "<script>alert(1)</script>"

# A frame as wide as a phone, and beside it what lies in it.
PHONE = """<!DOCTYPE html><title>waiting</title>
<iframe src="report.html" style="width:390px;height:3000px;border:0"></iframe>
<script>
onload = () => {
  const page = document.querySelector("iframe").contentDocument;
  const cut = [...page.querySelectorAll("section, table.bars, h1, h2, p")].filter(
    one => one.getBoundingClientRect().right > 390);
  document.title = [page.documentElement.scrollWidth, cut.length,
    page.querySelectorAll("section").length, page.querySelectorAll("script").length].join(" ");
}
</script>
"""


@pytest.fixture(scope="module")
def report(tmp_path_factory):
    """A report of dated baskets, with an instrument whose name is a program."""
    find_browser()
    returns = table(days=300, instruments=30)
    returns.columns = [NAME, *returns.columns[1:]]
    baskets = qv.Baskets.from_long(dated_pairs(returns), date="date", expression="ewma(5);rank")
    found = qv.evaluate(baskets.run(returns), returns)
    path = tmp_path_factory.mktemp("report") / "report.html"
    found.to_html(path, baskets, title=NAME)
    return path


def test_a_page_that_complains_and_loads_is_seen(report, tmp_path):
    (tmp_path / "bad.html").write_text(
        "<!DOCTYPE html><script>console.error('bad')</script><img src='http://127.0.0.1:9/x.png'>"
    )
    seen = visit(tmp_path / "bad.html", tmp_path / "browser")
    assert (seen.requests, seen.complaints) == (["http://127.0.0.1:9/x.png"], ["bad"])


@pytest.mark.parametrize("width", [1280, 500])
def test_a_report_is_silent_and_loads_nothing(report, tmp_path, width):
    seen = visit(report, tmp_path / "browser", width=width, height=4000)
    assert (seen.requests, seen.complaints) == ([], [])
    # Nothing became of the name but text.
    assert "<script" not in seen.document
    assert seen.document.count("&lt;script&gt;alert(1)&lt;/script&gt;") >= 2
    picture = matplotlib_image.imread(seen.picture)
    assert picture.shape[:2] == (4000, width)
    # Drawn to the end of the page, and in more than the colours of text.
    assert len({tuple(pixel) for row in picture[::20, ::20] for pixel in row}) > 50


def test_a_report_is_no_wider_than_a_phone(report, tmp_path):
    (report.parent / "phone.html").write_text(PHONE)
    seen = visit(report.parent / "phone.html", tmp_path / "browser", width=500, height=3000)
    title = re.search("<title>(.*?)</title>", seen.document)[1]
    assert title == "390 0 8 0"
