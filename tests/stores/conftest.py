"""Stores of every kind, and processes that can be killed or confined."""

import importlib.util

import pytest

from quorvane.stores import MemoryStore
from stores.support.samples import durable_store
from support.tasks import TaskServer

# The stores need MessagePack, an extra: without it nothing here can run.
collect_ignore_glob = [] if importlib.util.find_spec("msgpack") else ["test_*.py"]


@pytest.fixture(params=["memory", "directory", "sqlite"])
def store(request, tmp_path):
    """A store of each kind."""
    return MemoryStore() if request.param == "memory" else durable_store(request.param, tmp_path)


@pytest.fixture(params=["directory", "sqlite"])
def durable_kind(request):
    """Each kind of store that outlives the process."""
    return request.param


@pytest.fixture
def durable(durable_kind, tmp_path):
    """A store of each kind that outlives the process."""
    return durable_store(durable_kind, tmp_path)


@pytest.fixture(scope="session")
def tasks():
    """Runs functions in processes of their own."""
    with TaskServer("stores.support.task_functions") as server:
        yield server
