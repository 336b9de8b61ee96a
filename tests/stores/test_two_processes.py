"""Several processes on one store at once."""

import os

import pytest

from stores.support.samples import VERSIONED_KINDS, durable_store, exactly_equal, numbered_state
from support.tasks import state_of

pytestmark = pytest.mark.plain_python

WRITES = 40


def running(processes):
    """Tell whether any of the processes has not ended yet."""
    return any(state_of(process) != "Z" for process in processes)


@pytest.fixture
def two_writers(durable_kind, tmp_path, tasks):
    """Two processes that write different numbers under one name."""
    options = {"keep": 3 * WRITES} if durable_kind in VERSIONED_KINDS else {}
    return [
        tasks.start(
            "write_many",
            kind=durable_kind,
            folder=str(tmp_path),
            first=first,
            last=first + WRITES - 1,
            **options,
        )
        for first in (1, 1001)
    ]


def test_a_reader_sees_whole_states_in_each_writers_order(
    durable_kind, tmp_path, tasks, two_writers
):
    store = durable_store(durable_kind, tmp_path)
    seen = []
    while running(two_writers):
        state = store.read("rotation")
        if state is not None:
            assert exactly_equal(state, numbered_state(state["number"]))
            seen.append(state["number"])
    assert [tasks.wait(writer) for writer in two_writers] == [0, 0]
    assert store.read("rotation")["number"] in (WRITES, 1000 + WRITES)
    for own in ([n for n in seen if n < 1000], [n for n in seen if n > 1000]):
        assert own == sorted(own)
    assert len(set(seen)) > 5


@pytest.mark.parametrize("durable_kind", VERSIONED_KINDS, indirect=True)
def test_no_version_is_lost_or_overwritten(durable_kind, tmp_path, tasks, two_writers):
    assert [tasks.wait(writer) for writer in two_writers] == [0, 0]
    store = durable_store(durable_kind, tmp_path, keep=3 * WRITES)
    versions = [entry.version for entry in store.versions("rotation")]
    assert versions == list(range(2 * WRITES, 0, -1))
    numbers = [store.load("rotation", version)["number"] for version in reversed(versions)]
    assert [n for n in numbers if n < 1000] == list(range(1, WRITES + 1))
    assert [n for n in numbers if n > 1000] == list(range(1001, 1001 + WRITES))


def test_several_processes_may_make_a_store_at_once(durable_kind, tmp_path, new_place, tasks):
    # A place on a server takes longer to make.
    for attempt in range(5 if durable_kind == "postgres" else 15):
        folder = tmp_path / str(attempt)
        new_place(durable_kind, folder)
        makers = [
            tasks.start(
                "write_many",
                kind=durable_kind,
                folder=str(folder),
                first=1,
                last=1,
                namespace=str(maker),
            )
            for maker in range(4)
        ]
        assert [tasks.wait(maker) for maker in makers] == [0, 0, 0, 0]
        for maker in range(4):
            store = durable_store(durable_kind, folder, namespace=str(maker))
            assert exactly_equal(store.read("rotation"), numbered_state(1))


@pytest.mark.filterwarnings("ignore:.*multi-threaded.*fork:DeprecationWarning")
def test_a_store_may_be_used_on_both_sides_of_a_fork(durable):
    durable.write("rotation", numbered_state(1))
    child = os.fork()
    if child == 0:
        status = 1
        try:
            # The parent may have been quicker.
            assert durable.read("rotation")["number"] in (1, 3)
            durable.write("child", numbered_state(2))
            status = 0
        finally:
            os._exit(status)
    durable.write("rotation", numbered_state(3))
    _, status = os.waitpid(child, 0)
    assert os.waitstatus_to_exitcode(status) == 0
    assert exactly_equal(durable.read("child"), numbered_state(2))
    assert exactly_equal(durable.read("rotation"), numbered_state(3))
