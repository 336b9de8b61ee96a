"""Functions of one's own travel by their import path, and are checked where they arrive."""

import functools
import os
import sys

import numpy as np
import pytest

import quorvane as qv
from quorvane.expressions import registered
from quorvane.sweeping.own_functions import OwnFunction, imported, own_function, registered_here
from support import sweeping
from support.sweeping import PAIRS, returns


@pytest.fixture
def module(tmp_path, monkeypatch):
    """Write a module of one's own, and import it."""
    monkeypatch.syspath_prepend(tmp_path)

    def write(text, name="own_module_of_a_test"):
        (tmp_path / f"{name}.py").write_text(text)
        sys.modules.pop(name, None)
        return __import__(name)

    yield write
    sys.modules.pop("own_module_of_a_test", None)


def test_functions_and_classes_work_in_processes_and_here(register):
    pytest.importorskip("pandas")
    register("halved_in_a_test", sweeping.halved)
    register("doubled_in_a_test", sweeping.Doubled)
    grid = {
        "weights": {"pairs": PAIRS},
        "expression": ["halved_in_a_test(times=2);doubled_in_a_test", "rank"],
    }
    found = qv.sweep(returns(), grid, score=sweeping.mean_of_signal)
    assert found["error"].tolist() == ["", ""]
    signal = qv.Baskets(PAIRS, grid["expression"][0]).run(returns()).to_numpy()
    assert found["mean"].tolist()[0] == signal[~np.isnan(signal)].mean()


def test_one_that_cannot_be_imported_is_its_row_s_error(register):
    pytest.importorskip("pandas")
    register("inside_in_a_test", sweeping.made())
    grid = {"weights": [None], "expression": ["inside_in_a_test", "rank"]}
    found = qv.sweep(returns(), grid)
    assert found["error"].tolist()[0].startswith("ImportError: 'support.sweeping:made.<locals>.")
    assert found["error"].tolist()[1] == ""


def test_a_module_that_fails_where_it_arrives_is_its_row_s_error(register, module, tmp_path):
    pytest.importorskip("pandas")
    text = "import os\nif os.getpid() != {}:\n    raise OSError('only at home')\n"
    text += "def own(values, state):\n    return values, state\n"
    register("own_in_a_test", module(text.format(os.getpid())).own)
    grid = {"weights": [None], "expression": ["own_in_a_test", "rank"]}
    found = qv.sweep(returns(), grid)
    assert "cannot be imported: OSError: only at home" in found["error"].tolist()[0]
    assert found["error"].tolist()[1] == ""


def test_another_object_of_the_same_path_is_not_taken(module):
    before = module("def own():\n    return 1\n").own
    assert not own_function(before).fault
    module("def own():\n    return 2\n")
    assert "is another object" in own_function(before).fault
    assert "has no import path" in own_function(functools.partial(abs)).fault


def test_another_file_is_another_function(module):
    function = own_function(module("def own():\n    return 1\n").own)
    assert imported(function)() == 1
    other = own_function(module("def own():\n    return 2\n").own)
    assert other.source != function.source
    with pytest.raises(ImportError, match="is of another file here"):
        imported(function)


def test_a_file_that_is_changed_is_not_what_was_loaded(module, tmp_path):
    own = module("def own():\n    return 1\n").own
    before = own_function(own)
    (tmp_path / "own_module_of_a_test.py").write_text("def own():\n    return 2\n")
    assert own_function(own) == before


def test_names_are_known_for_a_while_only(register):
    register("kept_in_a_test", sweeping.halved)
    before = dict(registered.FUNCTIONS)
    given = {
        "kept_in_a_test": own_function(sweeping.Doubled),
        "new_in_a_test": own_function(sweeping.halved),
    }
    with registered_here(given):
        assert registered.FUNCTIONS["kept_in_a_test"] is sweeping.Doubled
        assert registered.FUNCTIONS["new_in_a_test"] is sweeping.halved
    assert registered.FUNCTIONS == before
    with pytest.raises(ImportError, match="'no_such_module:x' cannot be imported"):
        imported(OwnFunction("no_such_module:x", ""))
