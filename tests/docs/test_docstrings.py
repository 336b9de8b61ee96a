"""The examples in docstrings give what they say."""

import doctest
import importlib

import pytest

from docs.pages import ROOT, require_libraries
from quorvane.expressions import registered

SOURCES = ROOT / "src"

WITH_EXAMPLES = {
    ".".join(path.relative_to(SOURCES).with_suffix("").parts): text
    for path in sorted(SOURCES.rglob("*.py"))
    if ">>> " in (text := path.read_text(encoding="utf-8"))
}


def test_the_examples_are_found():
    assert {"quorvane.baskets.front", "quorvane.sweeping.front"} <= WITH_EXAMPLES.keys()


@pytest.mark.parametrize("name", WITH_EXAMPLES)
def test_the_examples_of_a_module_run(name, monkeypatch):
    examples = doctest.DocTestParser().get_examples(WITH_EXAMPLES[name])
    require_libraries(example.source for example in examples)
    monkeypatch.setattr(registered, "FUNCTIONS", {})
    failed, tried = doctest.testmod(importlib.import_module(name))
    assert failed == 0
    assert tried == len(examples) > 0
