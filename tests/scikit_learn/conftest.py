"""Without scikit-learn nothing here can run, and says so."""

import pytest

import quorvane as qv
from support.tables_of_baskets import KINDS, NAMES, WEIGHTS, Kind, three_lists


@pytest.fixture(autouse=True)
def _scikit_learn():
    pytest.importorskip("sklearn", minversion="1.6")


@pytest.fixture
def make():
    """Makes transformers."""
    from quorvane.sklearn import StructureTransformer

    return StructureTransformer


@pytest.fixture(params=KINDS)
def kind(request):
    return Kind(request.param)


@pytest.fixture(params=["fixed", "columns", "dated", "running"])
def sort(request):
    """A sort of weights: the argument, other arguments, and the baskets that they make."""
    if request.param == "fixed":
        return WEIGHTS, {}, lambda *args, **options: qv.Baskets(WEIGHTS, *args, **options)
    if request.param == "columns":
        return None, {}, lambda *args, **options: qv.Baskets(None, *args, **options)
    legs = pytest.importorskip("pandas").DataFrame(three_lists())
    complete = request.param == "dated"

    def baskets(*args, **options):
        return qv.Baskets.from_long(legs, *args, complete=complete, **options)

    return legs, {"complete": complete}, baskets


@pytest.fixture
def frame():
    """A frame of pandas with the numbers, dated in its index."""
    from support.tables_of_baskets import numbers

    return Kind("pandas").table(numbers(), NAMES)
