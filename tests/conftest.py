"""Fixtures that run one test on both the native module and its plain-Python twin."""

import gc

import pytest

from support.postgres import postgres  # noqa: F401 # a fixture
from support.siblings import Siblings, installed_base, installed_real_base


def pytest_collection_modifyitems(items):
    """Mark what runs on the twin alone, so that some runs can leave it out."""
    for item in items:
        parameters = getattr(item, "callspec", None)
        if parameters is not None and parameters.params.get("kind") == "twin":
            item.add_marker("plain_python")
            item.add_marker("on_twin")


def pytest_collection_finish():
    """Keep the tests and their libraries out of the collections that tests ask for.

    Looking through all of them takes a tenth of a second each time.
    """
    gc.collect()
    gc.freeze()


@pytest.fixture(scope="module")
def quick_collections():
    """What there was before the module's first test stays out of its collections, too."""
    gc.collect()
    gc.freeze()


@pytest.fixture(scope="module")
def all_collected():
    """The collector sees everything, also what there was before the first test."""
    gc.unfreeze()
    yield
    gc.collect()
    gc.freeze()


@pytest.fixture(params=["native", "twin"])
def kind(request):
    """Which of the two modules the test runs on."""
    return request.param


@pytest.fixture
def siblings():
    """The recording stand-in siblings that `base` is built on."""
    return Siblings()


@pytest.fixture
def base(kind, siblings):
    """A fresh base module on stand-in siblings, all of them importable during the test."""
    with installed_base(kind, siblings) as module:
        yield module


@pytest.fixture
def real_base(kind):
    """The base module on the package's real siblings, importable during the test."""
    with installed_real_base(kind) as module:
        yield module


@pytest.fixture
def register():
    """`quorvane.register`, whose names are gone after the test."""
    from quorvane.expressions import registered

    before = dict(registered.FUNCTIONS)
    yield registered.register
    registered.FUNCTIONS.clear()
    registered.FUNCTIONS.update(before)
