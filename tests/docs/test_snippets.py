"""Every snippet of the pages for users runs as written, and prints what the page says it prints."""

import contextlib
import io
import os
import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

from quorvane.expressions import registered

ROOT = Path(__file__).parents[2]

# What each page's snippets import, or need without saying so.
NEEDS = {
    "README.md": ("pandas", "msgpack"),
    "docs/reference/functions.md": ("pandas",),
    "docs/how_to/reading_a_report.md": ("pandas", "matplotlib"),
    "docs/how_to/sweeps_on_a_cluster.md": ("pandas", "distributed"),
    "docs/how_to/scikit_learn.md": ("pandas", "sklearn"),
    "docs/how_to/labelled_tables.md": ("pandas", "polars", "narwhals", "msgpack"),
}

_SNIPPET = re.compile(r"^```python\n(.*?)^```\n(?:\n```text\n(.*?)^```\n)?", re.M | re.S)


@dataclass(frozen=True)
class Snippet:
    """A block of Python, and the text block that follows it at once: what it prints."""

    line: int
    code: str
    prints: str | None


def snippets_of(page):
    """The blocks of Python of a page in order."""
    text = (ROOT / page).read_text(encoding="utf-8")
    return [
        Snippet(text.count("\n", 0, found.start(1)) + 1, found[1], found[2])
        for found in _SNIPPET.finditer(text)
    ]


def run_snippet(page, snippet, namespace):
    """Run a snippet; what it prints. Its lines in a traceback are those of the page."""
    code = compile("\n" * (snippet.line - 1) + snippet.code, str(ROOT / page), "exec")
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        exec(code, namespace)
    return printed.getvalue()


@pytest.fixture(params=NEEDS)
def page(request):
    """A page whose libraries are all there."""
    for library in NEEDS[request.param]:
        pytest.importorskip(library)
    return request.param


@pytest.fixture
def as_in_the_root(tmp_path, monkeypatch):
    """A folder with the repository's folders in it, as the root has them, to write files to."""
    for path in ROOT.iterdir():
        if path.is_dir() and not path.name.startswith("."):
            (tmp_path / path.name).symlink_to(path)
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.fixture
def no_registered_functions(monkeypatch):
    """What a page registers is forgotten, and what others have registered is not there."""
    monkeypatch.setattr(registered, "FUNCTIONS", {})


@pytest.mark.usefixtures("as_in_the_root", "no_registered_functions")
def test_the_snippets_of_a_page_run_in_order(page):
    namespace = {"__name__": "page"}
    snippets = snippets_of(page)
    assert len(snippets) >= 3
    for snippet in snippets:
        printed = run_snippet(page, snippet, namespace)
        assert _lines(printed) == _lines(snippet.prints or ""), f"{page}, line {snippet.line}"


@pytest.mark.parametrize("page", NEEDS)
def test_no_snippet_is_left_out(page):
    text = (ROOT / page).read_text(encoding="utf-8")
    openings = [line for line in text.splitlines() if line.startswith("```") and line != "```"]
    snippets = snippets_of(page)
    assert openings.count("```python") == len(snippets)
    assert openings.count("```text") == sum(snippet.prints is not None for snippet in snippets)
    assert set(openings) <= {"```python", "```text"}
    indented = [line.strip() for line in text.splitlines() if line.startswith("    ")]
    in_blocks = {line.strip() for snippet in snippets for line in snippet.code.splitlines()}
    assert not [
        line for line in indented if line.startswith(("import ", "from ")) and line not in in_blocks
    ]


def test_the_programs_of_the_readme_pass_mypy_strict(tmp_path):
    pytest.importorskip("mypy")
    program = tmp_path / "readme.py"
    program.write_text("\n".join(snippet.code for snippet in snippets_of("README.md")))
    # As whoever tries it out has it: no settings but the strict ones, and pandas without stubs.
    done = subprocess.run(
        [
            *(sys.executable, "-m", "mypy", "--strict", "--config-file", os.devnull),
            *("--ignore-missing-imports", "--cache-dir", str(tmp_path / "cache"), str(program)),
        ],
        env={**os.environ, "MYPYPATH": str(ROOT / "src")},
        cwd=tmp_path,
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr


def _lines(text):
    """The lines without the blanks that pandas writes at their ends."""
    return [line.rstrip() for line in text.splitlines()]
