"""What expressions know, as a table."""

import functools
import inspect

import numpy as np
import pytest

import quorvane as qv
from quorvane.expressions import Catalogue, calls_of
from quorvane.expressions.ready_made import READY_MADE


def test_every_ready_made_function_is_there_with_a_line_of_its_own():
    found = qv.catalogue()
    assert [entry.name for entry in found][: len(READY_MADE)] == list(READY_MADE)
    for entry in found[: len(READY_MADE)]:
        assert entry.signature.startswith(f"{entry.name}(")
        assert "places" not in entry.signature
        assert entry.summary == (inspect.getdoc(READY_MADE[entry.name]) or "").split("\n")[0]
        assert entry.summary.endswith((".", ")"))
        assert len(entry.summary) < 90


def test_every_example_of_a_name_is_one_that_expressions_read():
    for entry in qv.catalogue():
        assert calls_of(entry.name.upper())[0].name == entry.name


def test_a_catalogue_is_a_sequence():
    found = qv.catalogue()
    assert isinstance(found, Catalogue)
    assert len(found) == len(list(found)) >= len(READY_MADE)
    assert found[0].name == "ewma"
    assert found[0] in found
    assert [entry.name for entry in found[1:3]] == ["ewm_std", "rolling_mean"]
    with pytest.raises(IndexError):
        found[len(found)]


def test_it_is_shown_as_a_table_in_line():
    lines = repr(qv.catalogue()).splitlines()
    assert len(lines) == len(qv.catalogue())
    assert lines[0].startswith("ewma(window=None, *, span=None, halflife=None) ")
    ends = {line.index(entry.summary) for line, entry in zip(lines, qv.catalogue(), strict=True)}
    assert len(ends) == 1
    assert repr(Catalogue([])) == ""


def test_what_is_registered_comes_last_as_expressions_call_it(register):
    @register("Zweite")
    def zweite(values: np.ndarray, state: dict, times: int = 2, *args, name="<b>", **more):
        """Second & last.

        More of it.
        """

    @register("erste")
    class Erste:
        def __init__(self, window, *, N_alloc):
            pass

        def __call__(self, values, context=None):
            return values

    first, last = qv.catalogue()[-2:]
    assert (first.signature, first.summary) == (
        "zweite(times=2, *, name='<b>', **more)",
        "Second & last.",
    )
    assert (last.signature, last.summary) == ("erste(window)", "")
    html = qv.catalogue()._repr_html_()
    assert "Second &amp; last." in html
    assert "&#x27;&lt;b&gt;&#x27;" in html
    register("erste", zweite)
    assert [entry.name for entry in qv.catalogue()][-2:] == ["zweite", "erste"]


@pytest.mark.parametrize("function", [max, functools.partial(max, 1), np.add, np.vectorize(max)])
def test_a_function_whose_parameters_python_does_not_know_is_listed_too(register, function):
    register("own", function)
    assert qv.catalogue()[-1].name == "own"
    assert qv.catalogue()[-1].signature.startswith("own(")
    assert len(repr(qv.catalogue()).splitlines()) == len(qv.catalogue())
