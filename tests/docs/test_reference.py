"""The reference has every public name, and every function of expressions."""

import importlib
import inspect
import pkgutil
import re
from functools import cache

import pytest

import quorvane as qv
from docs.pages import ROOT, snippets_of, text_of, thing_called
from quorvane.functions.rotations._boilerplate import RotationBase

REFERENCE = sorted((ROOT / "docs/reference").glob("*.md"))
CATALOGUE = "docs/reference/catalogue.md"

_ENTRY = re.compile(
    r"^\.\. (?:auto(?:class|function|exception|method)|py:data|currentmodule)::.*$", re.M
)


@cache
def entries():
    """The dotted names of all entries, whole."""
    names = []
    for page in REFERENCE:
        module = ""
        for line in _ENTRY.findall(page.read_text(encoding="utf-8")):
            kind, name = re.sub(r"\(.*", "", line).removeprefix(".. ").split(":: ")
            if kind == "currentmodule":
                module = f"{name}."
            else:
                names.append(name if name.startswith("quorvane.") else module + name)
    return names


def public_names():
    """Names that the package, its parts and the modules of its rotations say are for all."""
    for module in ("quorvane", "quorvane.stores", "quorvane.evaluation", "quorvane.baskets"):
        for name in importlib.import_module(module).__all__:
            yield f"{module}.{name}"
    yield "quorvane.sklearn.StructureTransformer"
    rotations = importlib.import_module("quorvane.functions.rotations")
    for found in pkgutil.walk_packages(rotations.__path__, f"{rotations.__name__}."):
        if not found.name.rpartition(".")[2].startswith("_"):
            for name, thing in vars(importlib.import_module(found.name)).items():
                own = inspect.isclass(thing) and thing.__module__ == found.name
                if own and issubclass(thing, RotationBase) and not name.startswith("_"):
                    yield f"{found.name}.{name}"


@pytest.mark.parametrize("name", list(public_names()))
def test_a_public_name_is_in_the_reference(name):
    if name.startswith("quorvane.sklearn"):
        pytest.importorskip("sklearn")
    if name.rpartition(".")[2] == "__version__":
        assert f"`{name}`" in text_of("docs/reference/index.md")
        return
    wanted, last = thing_called(name), name.rpartition(".")[2]
    # A name may stand in several modules, and one of them in the reference.
    same = [each for each in entries() if each.rpartition(".")[2] == last]
    assert any(thing_called(each) is wanted for each in same)


def test_an_entry_is_there_once():
    assert sorted(set(entries())) == sorted(entries())
    assert len(entries()) > 60


def test_there_are_many_public_names():
    assert len(list(public_names())) > 70


def test_each_step_of_a_day_is_in_the_reference():
    steps = {
        name
        for name, value in vars(qv.VirtualizationBase).items()
        if name.startswith("_") and not name.startswith("__") and callable(value)
    }
    steps.add("_validate_constructor")
    assert {f"quorvane.VirtualizationBase.{name}" for name in steps} <= set(entries())


def test_the_catalogue_page_has_each_function_once():
    headings = re.findall(r"^### `(\w+)`$", text_of(CATALOGUE), re.M)
    assert sorted(headings) == sorted(entry.name for entry in qv.catalogue())


@pytest.mark.parametrize("entry", qv.catalogue(), ids=lambda entry: entry.name)
def test_a_function_has_its_signature_formula_and_peer(entry):
    sections = re.split(r"^### ", text_of(CATALOGUE), flags=re.M)[1:]
    section = next(each for each in sections if each.startswith(f"`{entry.name}`\n"))
    signature, words = re.match(r"`\w+`\n\n    (.*)\n\n(.*)", section).groups()
    assert signature == entry.signature
    first = re.split(r"(?<=\.) ", entry.summary)[0].rstrip(".")
    assert words.startswith(first)
    assert "```{math}" in section
    assert re.search(r"^(?:.* )?Peer: ", section, re.M)
    code = section.split("```python\n")[1].split("```")[0]
    assert f'"{entry.name}' in code or f";{entry.name}" in code
    assert any(code == snippet.code for snippet in snippets_of(CATALOGUE))
