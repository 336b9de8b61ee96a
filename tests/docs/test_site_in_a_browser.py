"""The site in a real browser: silent, loads nothing from outside, no wider than a phone."""

import json
import re

import pytest

from support.browser import find_browser, visit

# Every page in a frame as wide as a phone; the title tells which are wider than that, and which
# have no heading, since they were not there.
PHONES = """<!DOCTYPE html><meta charset="utf-8"><title>waiting</title>
%s
<script>
onload = () => {
  const found = {wide: [], empty: []};
  for (const frame of document.querySelectorAll("iframe")) {
    const page = frame.contentDocument;
    if (page.documentElement.scrollWidth > 390) found.wide.push(frame.name);
    if (!page.querySelector("h1")) found.empty.push(frame.name);
  }
  document.title = JSON.stringify(found);
}
</script>
"""


def complaints_of(seen):
    """What a page says to the console, but for what the theme tells of itself."""
    return [each for each in seen.complaints if not each.startswith("[PST]: ")]


def in_phones(folder, pages, scratch):
    """Open pages of a folder at once, each as on a phone: what the title tells, and the visit."""
    frames = "\n".join(
        f'<iframe name="{page}" src="{(folder / page).as_uri()}" width="390" height="800" '
        'style="border:0"></iframe>'
        for page in pages
    )
    (scratch / "phones.html").write_text(PHONES % frames, encoding="utf-8")
    seen = visit(scratch / "phones.html", scratch / "browser", width=900, height=800)
    return json.loads(re.search("<title>(.*?)</title>", seen.document)[1]), seen


@pytest.fixture(scope="module")
def pages(site):
    find_browser()
    paths = [path.relative_to(site.folder) for path in sorted(site.folder.rglob("*.html"))]
    found = [path.as_posix() for path in paths if "_static" not in path.parts]
    assert len(found) > 30
    return found


def test_a_page_that_is_too_wide_or_empty_is_seen(tmp_path):
    find_browser()
    (tmp_path / "wide.html").write_text("<!DOCTYPE html><h1 style='width:500px'>wide</h1>")
    (tmp_path / "good.html").write_text("<!DOCTYPE html><h1>good</h1>")
    (tmp_path / "bad.html").write_text("<!DOCTYPE html><script>console.error('bad')</script>")
    found, seen = in_phones(tmp_path, ["wide.html", "good.html", "bad.html"], tmp_path)
    assert found == {"wide": ["wide.html"], "empty": ["bad.html"]}
    assert complaints_of(seen) == ["bad"]


def test_every_page_is_silent_loads_nothing_and_fits_a_phone(site, pages, tmp_path):
    found, seen = in_phones(site.folder, pages, tmp_path)
    assert (seen.requests, complaints_of(seen)) == ([], [])
    assert found == {"wide": [], "empty": []}


@pytest.mark.parametrize("page", ["index.html", "reference/catalogue.html"])
def test_a_page_is_drawn_on_a_wide_screen(site, page, tmp_path):
    find_browser()
    image = pytest.importorskip("matplotlib.image")
    seen = visit(site.folder / page, tmp_path / "browser", width=1280, height=1000)
    assert (seen.requests, complaints_of(seen)) == ([], [])
    picture = image.imread(seen.picture)
    assert len({tuple(pixel) for row in picture[::10, ::10] for pixel in row}) > 20
