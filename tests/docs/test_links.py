"""Links between the pages lead to files and headings that are there."""

import re
from pathlib import PurePosixPath

import pytest

from docs.pages import ROOT, pages, text_of, without_fences

PAGES = [*pages(), "benchmarks/README.md"]

_LINK = re.compile(r"\[(?:[^\[\]]|\[[^\]]*\])*\]\(\s*<?([^)>\s]+)>?(?:\s+\"[^\"]*\")?\s*\)")
_DEFINITION = re.compile(r"^\[[^\]]+\]:\s*(\S+)", re.M)
_HEADING = re.compile(r"^#{1,6} +(.*?) *#*$", re.M)
_OUTSIDE = re.compile(r"[a-z][a-z0-9+.-]*:", re.I)


def links_of(text):
    """The targets of the links of a page, what stands as code left out."""
    prose = re.sub(r"(`+)(?!`).+?(?<!`)\1(?!`)", "code", without_fences(text))
    return [*_LINK.findall(prose), *_DEFINITION.findall(prose)]


def anchors_of(text):
    """The anchors of a page: its headings as GitHub and the site name them, and own labels."""
    prose = without_fences(text)
    found = []
    for heading in _HEADING.findall(prose):
        words = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()
        name = re.sub(r"[^\w\- ]", "", words).strip().replace(" ", "-")
        found.append(f"{name}-{found.count(name)}" if name in found else name)
    return {*found, *re.findall(r"^\(([\w-]+)\)=$", prose, re.M)}


def broken_links(page, text):
    """What is wrong with each internal link that leads nowhere."""
    here = PurePosixPath(page)
    wrong = []
    for target in links_of(text):
        if _OUTSIDE.match(target):
            continue
        path, _, anchor = target.partition("#")
        file = (ROOT / here.parent / path).resolve() if path else ROOT / here
        if not file.exists() or not file.is_relative_to(ROOT):
            wrong.append(f"{target}: no such file")
        elif anchor and file.suffix == ".md":
            there = text if file == ROOT / here else file.read_text(encoding="utf-8")
            if anchor not in anchors_of(there):
                wrong.append(f"{target}: no such heading")
    return wrong


@pytest.mark.parametrize("page", PAGES)
def test_every_link_of_a_page_leads_somewhere(page):
    assert broken_links(page, text_of(page)) == []


def test_links_are_found():
    assert sum(len(links_of(text_of(page))) for page in PAGES) > 50


def test_a_link_that_leads_nowhere_is_seen():
    text = """
# What *is* `this`, then?

[a](nowhere.md), [b](docs/index.md#nothing), [c](#what-is-this-then), [d](#that), `[e](code.md)`,
[f](https://example.org/x), [`g`](README.md), [h](../outside.md)

```text
[i](fenced.md)
```

[j]: missing.md
"""
    assert broken_links("README.md", text) == [
        "nowhere.md: no such file",
        "docs/index.md#nothing: no such heading",
        "#that: no such heading",
        "../outside.md: no such file",
        "missing.md: no such file",
    ]


def test_headings_of_the_same_words_are_told_apart():
    assert anchors_of("# A b\n\n## A b\n\n(own)=\n") == {"a-b", "a-b-1", "own"}
