"""Every kind of table, and every way to say what the baskets are."""

import pytest

import quorvane as qv
from quorvane.stores import MemoryStore
from support.tables_of_baskets import KINDS, NAMES, WEIGHTS, Kind, three_lists


@pytest.fixture(params=KINDS)
def kind(request):
    return Kind(request.param)


@pytest.fixture(params=[name for name in KINDS if name != "array"])
def frames(request):
    return Kind(request.param)


@pytest.fixture(params=["fixed", "dated", "running"])
def make(request):
    """Makes fixed baskets, or dated ones of which each date lists all, or only what changes."""
    pandas = pytest.importorskip("pandas")

    def make(expression, **options):
        options.setdefault("instruments", NAMES)
        if request.param == "fixed":
            return qv.Baskets(WEIGHTS, expression, **options)
        table = pandas.DataFrame(three_lists())
        return qv.Baskets.from_long(table, expression, complete=request.param == "dated", **options)

    return make


@pytest.fixture
def store():
    pytest.importorskip("msgpack")
    return MemoryStore()
