"""The pages of the documentation: which there are, their blocks of code, and what these need."""

import ast
import importlib
import re
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

from quorvane.cli.demo import find_prices

ROOT = Path(__file__).parents[2]

# Where the gallery's pages are made, of programs that stand elsewhere.
MADE = ROOT / "docs/examples"

_SNIPPET = re.compile(r"^```python\n(.*?)^```\n(?:\n```text\n(.*?)^```\n)?", re.M | re.S)
_FENCED = re.compile(r"^( *)(```+).*?^\1\2$", re.M | re.S)

# What a library or a name of ours needs besides itself.
_ALSO = {
    "polars": {"narwhals"},
    "pyarrow": {"narwhals"},
    "DirectoryStore": {"msgpack"},
    "MemoryStore": {"msgpack"},
    "SqliteStore": {"msgpack"},
    "PostgresStore": {"msgpack", "psycopg"},
    "StructureTransformer": {"sklearn"},
    "evaluate": {"pandas"},
    "sweep": {"pandas"},
    "to_html": {"matplotlib"},
}


def pages():
    """The pages of the root and of the site, by their paths from the root."""
    found = [*ROOT.glob("*.md"), *(ROOT / "docs").rglob("*.md")]
    return sorted(path.relative_to(ROOT).as_posix() for path in found if MADE not in path.parents)


def text_of(page):
    return (ROOT / page).read_text(encoding="utf-8")


def without_fences(text):
    """The same lines with nothing in those of fenced blocks."""
    return _FENCED.sub(lambda block: "\n" * block[0].count("\n"), text)


@dataclass(frozen=True)
class Snippet:
    """A block of Python, and the text block that follows it at once: what it prints."""

    line: int
    code: str
    prints: str | None


def snippets_of(page):
    """The blocks of Python of a page in order."""
    text = text_of(page)
    return [
        Snippet(text.count("\n", 0, found.start(1)) + 1, found[1], found[2])
        for found in _SNIPPET.finditer(text)
    ]


def names_in(code):
    """Every name, attribute and imported module of a program, and the modules alone."""
    names, modules = set(), set()
    for node in ast.walk(ast.parse(code)):
        match node:
            case ast.Import():
                modules |= {each.name.partition(".")[0] for each in node.names}
            case ast.ImportFrom(module=str(module)):
                modules.add(module.partition(".")[0])
                names |= {each.name for each in node.names}
            case ast.Name():
                names.add(node.id)
            case ast.Attribute():
                names.add(node.attr)
    return names | modules, modules


def libraries_of(programs):
    """The libraries besides the package and Python's own that programs need, by their imports."""
    found = set()
    for code in programs:
        names, modules = names_in(code)
        found |= modules - set(sys.stdlib_module_names) - {"quorvane", "__future__"}
        found = found.union(*(_ALSO.get(name, ()) for name in names))
    return found


def require_libraries(programs):
    """Skip where a library is missing that the programs need, or the prices of the demo."""
    programs = list(programs)
    for library in sorted(libraries_of(programs)):
        pytest.importorskip(library)
    if any("find_prices" in code for code in programs) and find_prices() is None:
        pytest.skip("the demo's prices are not installed (pip install --no-deps skfolio)")


def thing_called(dotted):
    """The object that a dotted name leads to, through modules and classes."""
    parts = dotted.split(".")
    for size in range(len(parts), 0, -1):
        try:
            thing = importlib.import_module(".".join(parts[:size]))
        except ModuleNotFoundError:
            continue
        for name in parts[size:]:
            thing = getattr(thing, name)
        return thing
    raise AssertionError(dotted)
