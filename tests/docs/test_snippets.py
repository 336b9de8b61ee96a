"""Every snippet of the pages runs as written, and prints what the page says it prints.

A page is one test: its snippets go on from one another, and workers would share them out.
"""

import contextlib
import io
import os
import re
import subprocess
import sys

import pytest

from docs.pages import (
    ROOT,
    libraries_of,
    pages,
    require_libraries,
    snippets_of,
    text_of,
    without_fences,
)
from quorvane.expressions import registered

WITH_SNIPPETS = [page for page in pages() if "```python" in text_of(page)]

# What may stand in a block: what is run, and what is looked at, which is no program of Python.
RUN = {"```python", "```text", "```console"}
LOOKED_AT = {"```sh", "```toml"}
# Files of a worked example, which has a test of its own.
FILES = {"CONTRIBUTING.md": {"```cmake", "```cpp", "```py", "```pyi"}}


def run_snippet(page, snippet, namespace):
    """Run a snippet; what it prints. Its lines in a traceback are those of the page."""
    code = compile("\n" * (snippet.line - 1) + snippet.code, str(ROOT / page), "exec")
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        exec(code, namespace)
    return printed.getvalue()


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
@pytest.mark.parametrize("page", WITH_SNIPPETS)
def test_the_snippets_of_a_page_run_in_order(page):
    snippets = snippets_of(page)
    require_libraries(snippet.code for snippet in snippets)
    namespace = {"__name__": "page"}
    for snippet in snippets:
        printed = run_snippet(page, snippet, namespace)
        assert _lines(printed) == _lines(snippet.prints or ""), f"{page}, line {snippet.line}"


def test_the_pages_are_found():
    assert {"README.md", "docs/index.md", "docs/reference/catalogue.md"} <= set(WITH_SNIPPETS)


@pytest.mark.parametrize("page", pages())
def test_no_snippet_is_left_out(page):
    text, snippets = text_of(page), snippets_of(page)
    openings = [line for line in text.splitlines() if line.startswith("```") and line != "```"]
    assert openings.count("```python") == len(snippets)
    assert openings.count("```text") == sum(snippet.prints is not None for snippet in snippets)
    kinds = {each for each in openings if not each.startswith("```{")}
    assert kinds <= RUN | LOOKED_AT | FILES.get(page, set())
    # A block within a list, of another kind of fence, or with other words for Python.
    assert not re.search(r"^ +```|^ *~~~|^```\{code|^```.*\{doctest", text, re.M)
    indented = [line.strip() for line in without_fences(text).splitlines() if line[:4] == "    "]
    assert [line for line in indented if line.startswith(("import ", "from ", ">>> "))] == []


def test_what_a_page_needs_follows_from_its_imports():
    assert libraries_of(["import os.path, pandas as pd", "from scipy.stats import norm"]) == {
        "pandas",
        "scipy",
    }
    assert libraries_of(["import polars\nqv.SqliteStore('x')"]) == {"polars", "narwhals", "msgpack"}
    assert libraries_of(["import quorvane as qv\njudged.to_html('x')"]) == {"matplotlib"}
    assert libraries_of(["from quorvane.sklearn import StructureTransformer"]) == {"sklearn"}


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
