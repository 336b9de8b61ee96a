"""Stores of every kind, and processes that can be killed or confined."""

import importlib.util

import pytest

from quorvane.stores import MemoryStore
from stores.support.samples import DURABLE_KINDS, VERSIONED_KINDS, durable_store
from support.postgres import leave_address
from support.tasks import TaskServer

# The stores need MessagePack, an extra: without it nothing here can run.
collect_ignore_glob = [] if importlib.util.find_spec("msgpack") else ["test_*.py"]


@pytest.fixture(params=["memory", *DURABLE_KINDS])
def store(request, tmp_path):
    """A store of each kind."""
    if request.param == "memory":
        return MemoryStore()
    prepare(request, request.param)
    return durable_store(request.param, tmp_path)


@pytest.fixture(params=DURABLE_KINDS)
def durable_kind(request):
    """Each kind of store that outlives the process, at home in the test's folder."""
    prepare(request, request.param)
    return request.param


@pytest.fixture(params=VERSIONED_KINDS)
def versioned_kind(request):
    """Each kind of store that keeps versions, at home in the test's folder."""
    prepare(request, request.param)
    return request.param


@pytest.fixture(params=["directory", "sqlite"])
def kind_of_file(request):
    """Each kind of store that is files."""
    return request.param


@pytest.fixture
def durable(durable_kind, tmp_path):
    """A store of each kind that outlives the process."""
    return durable_store(durable_kind, tmp_path)


@pytest.fixture
def new_place(request):
    """Make a folder for a store of a kind, without a store in it."""

    def new_place(kind, folder):
        folder.mkdir()
        if kind == "postgres":
            server = request.getfixturevalue("postgres")
            leave_address(folder, server.dsn(server.new_database()))

    return new_place


@pytest.fixture
def database(postgres, tmp_path):
    """An empty database, which is the one of the test's folder; its name."""
    name = postgres.cleared_database()
    leave_address(tmp_path, postgres.dsn(name))
    return name


@pytest.fixture(scope="session")
def tasks():
    """Runs functions in processes of their own."""
    with TaskServer("stores.support.task_functions") as server:
        yield server


def prepare(request, kind):
    if kind == "postgres":
        request.getfixturevalue("database")
