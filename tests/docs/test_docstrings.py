"""The examples in docstrings give what they say."""

import doctest
import importlib

import pytest

from quorvane.expressions import registered

# Module, and what its examples need.
EXAMPLES = {
    "quorvane.evaluation.evaluation": ("pandas",),
    "quorvane.expressions.catalogue": (),
    "quorvane.expressions.registered": (),
    "quorvane.functions.rotations.own_state": (),
    "quorvane.sweeping.front": ("pandas",),
    "quorvane.sklearn.transformer": ("sklearn",),
}


@pytest.mark.parametrize("name", EXAMPLES)
def test_the_examples_of_a_module_run(name, monkeypatch):
    for library in EXAMPLES[name]:
        pytest.importorskip(library)
    monkeypatch.setattr(registered, "FUNCTIONS", {})
    failed, tried = doctest.testmod(importlib.import_module(name))
    assert failed == 0
    assert tried >= 2
