"""Several loads and writes of a store with versions as one."""

import functools
import signal
import sqlite3
import threading
import time

import pytest

from quorvane.stores import (
    RecordDamagedError,
    RecordNotFoundError,
    SqliteStore,
    StateEncodeError,
    StoreBusyError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
    pack,
)
from quorvane.stores._table_records import TableRecords
from stores.support.samples import durable_store, exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python


@pytest.fixture
def reopened(versioned_kind, tmp_path):
    """Open the test's store once more, as others do."""
    return functools.partial(durable_store, versioned_kind, tmp_path)


@pytest.fixture
def store(reopened):
    """A store with one version of the records "a" and "b"."""
    store = reopened()
    store.write("a", 1)
    store.write("b", 1)
    return store


def contents(store):
    return {name: store.load(name) for name in store.names()}


def database_error(kind):
    """The class of the errors that the database of a kind of store raises."""
    if kind == "sqlite":
        return sqlite3.OperationalError
    import psycopg

    return psycopg.OperationalError


def test_what_is_written_in_a_transaction_is_there_when_it_has_ended(store):
    with store.transaction() as records:
        records.write("a", rotation_state(4))
        records.write("c", 3)
        assert contents(store) == {"a": 1, "b": 1}
    assert exactly_equal(contents(store), {"a": rotation_state(4), "b": 1, "c": 3})
    assert [entry.version for entry in store.versions("a")] == [2, 1]


def test_a_transaction_loads_what_it_has_written_and_what_was_there(store):
    with store.transaction() as records:
        records.write("a", 2)
        assert (records.load("a"), records.load("a", 1), records.load("b")) == (2, 1, 1)
        with pytest.raises(RecordNotFoundError, match="holds no record named 'c'"):
            records.load("c")
        with pytest.raises(RecordNotFoundError, match="holds no version 7 of record 'a'"):
            records.load("a", 7)
        with pytest.raises(TypeError, match="version must be an int"):
            records.load("a", "1")
        with pytest.raises(ValueError, match="name must not be empty"):
            records.load("")
        with pytest.raises(ValueError, match="name must not be empty"):
            records.write("", 1)
    assert contents(store) == {"a": 2, "b": 1}


def test_a_packed_state_is_kept_like_the_state(store):
    packed = pack(rotation_state(4))
    with store.transaction() as records:
        records.write("a", packed)
        records.write("c", packed)
    assert exactly_equal(store.load("a"), rotation_state(4))
    assert exactly_equal(store.load("c"), rotation_state(4))


@pytest.mark.parametrize(
    "error",
    [OSError(28, "No space left"), sqlite3.OperationalError("locked"), KeyboardInterrupt()],
    ids=repr,
)
def test_a_block_that_raises_changes_nothing_and_its_error_comes_as_it_is(store, error):
    def write_half():
        with store.transaction() as records:
            records.write("a", 2)
            records.write("c", 2)
            raise error

    with pytest.raises(type(error)) as caught:
        write_half()
    assert caught.value is error
    assert contents(store) == {"a": 1, "b": 1}
    store.write("a", 3)
    assert contents(store) == {"a": 3, "b": 1}


def test_nobody_else_writes_during_a_transaction(reopened, store):
    hasty = reopened(busy_timeout=0.05)
    with store.transaction() as records:
        # From its first moment, not from its first write.
        with pytest.raises(StoreBusyError, match=r"write record 'a' .* held it for 0\.05 seconds"):
            hasty.write("a", 7)
        assert records.load("a") == 1
        records.write("a", 2)
        with (
            pytest.raises(StoreBusyError, match=r"cannot run a transaction on \w+Store\("),
            hasty.transaction(),
        ):
            pytest.fail("two transactions at once")
        assert contents(hasty) == {"a": 1, "b": 1}
    hasty.write("a", 3)
    assert contents(store) == {"a": 3, "b": 1}


def test_whoever_waits_can_be_interrupted(store):
    def interrupt():
        time.sleep(0.3)
        signal.raise_signal(signal.SIGINT)

    # What a shell starts in the background ignores interrupts.
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    sender = threading.Thread(target=interrupt)
    try:
        with store.transaction():
            start = time.monotonic()
            sender.start()
            with pytest.raises(KeyboardInterrupt):
                store.write("a", 2)
            # Of the 30 seconds that it would wait.
            assert time.monotonic() - start < 15
    finally:
        sender.join()
        signal.signal(signal.SIGINT, before)
    assert contents(store) == {"a": 1, "b": 1}


def test_others_write_while_a_state_is_packed(reopened, store, monkeypatch):
    hasty = reopened(busy_timeout=0.05)

    def pack_while_another_writes(state):
        monkeypatch.undo()
        hasty.write("b", 7)
        return pack(state)

    monkeypatch.setattr("quorvane.stores.versioned.pack", pack_while_another_writes)
    store.write("a", 2)
    assert contents(store) == {"a": 2, "b": 7}


def test_threads_take_turns(store):
    def add(times):
        for _ in range(times):
            with store.transaction() as records:
                records.write("a", records.load("a") + 1)

    threads = [threading.Thread(target=add, args=(10,)) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert contents(store) == {"a": 41, "b": 1}


def test_a_refused_state_leaves_the_transaction_as_it_was(store):
    with store.transaction() as records:
        records.write("a", 2)
        with pytest.raises(StateEncodeError):
            records.write("b", {1, 2})
        records.write("c", 2)
    assert contents(store) == {"a": 2, "b": 1, "c": 2}


def test_after_a_failed_write_nothing_of_the_transaction_happens(
    versioned_kind, store, monkeypatch
):
    def fail(*_):
        raise database_error(versioned_kind)("disk I/O error")

    def go_on():
        with store.transaction() as records:
            records.write("a", 2)
            # Half of the record is in place by then.
            monkeypatch.setattr(TableRecords, "_seal_of_head", fail)
            with pytest.raises(StoreWriteError, match=r"cannot write record 'b' .* disk I/O error"):
                records.write("b", 2)
            monkeypatch.undo()
            with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
                records.write("c", 2)

    with pytest.raises(StoreWriteError, match=r"cannot run a transaction on .* an earlier write"):
        go_on()
    assert contents(store) == {"a": 1, "b": 1}


def test_after_a_load_that_made_the_database_undo_the_transaction_nothing_of_it_happens(
    versioned_kind, reopened, store, monkeypatch
):
    def undo(records, *_):
        # As both do when a page cannot be read.
        connection = "_database" if versioned_kind == "sqlite" else "_connection"
        getattr(records, connection).execute("ROLLBACK")
        raise database_error(versioned_kind)("disk I/O error")

    def go_on():
        with store.transaction() as records:
            records.write("a", 2)
            with monkeypatch.context() as patched:
                patched.setattr(TableRecords, "find", undo)
                with pytest.raises(StoreReadError, match="disk I/O error"):
                    records.load("b")
            reopened().write("b", 7)
            with pytest.raises(StoreReadError, match="has undone the transaction"):
                records.load("b")
            with pytest.raises(StoreWriteError, match="has undone the transaction"):
                records.write("b", 2)

    with pytest.raises(StoreWriteError, match=r"cannot run a transaction on "):
        go_on()
    assert contents(store) == {"a": 1, "b": 7}


def test_what_a_transaction_gave_is_of_no_use_after_it(store):
    with store.transaction() as records:
        pass
    with pytest.raises(StoreReadError, match=r"closed database|connection is closed"):
        records.load("a")
    with pytest.raises(StoreWriteError, match=r"closed database|connection is closed"):
        records.write("a", 2)
    assert contents(store) == {"a": 1, "b": 1}


def test_a_child_that_is_forked_in_a_transaction_changes_nothing(
    versioned_kind, tmp_path, store, tasks
):
    met = tasks.result("fork_in_a_transaction", tmp_path, kind=versioned_kind, folder=str(tmp_path))
    assert met == [3, ["a", "b"]]
    assert contents(store) == {"a": 1, "b": 1, "left": 2}


def test_a_process_that_is_killed_in_a_transaction_leaves_nothing_of_it(
    versioned_kind, tmp_path, store, tasks
):
    store.write("left", 1)
    process = tasks.start("die_in_a_transaction", kind=versioned_kind, folder=str(tmp_path))
    assert tasks.wait(process) == -signal.SIGKILL
    assert contents(store) == {"a": 1, "b": 1, "left": 1}
    with store.transaction() as records:
        records.write("left", 3)
    assert contents(store) == {"a": 1, "b": 1, "left": 3}


def test_another_thread_has_no_part_in_a_transaction(store):
    met = []

    def write(records):
        try:
            records.write("a", 7)
        except StoreWriteError as error:
            met.append(str(error))

    def share():
        with store.transaction() as records:
            records.write("a", 2)
            other = threading.Thread(target=write, args=(records,))
            other.start()
            other.join()

    # What a thread of its own failed to write is missing from the whole.
    with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
        share()
    assert len(met) == 1
    assert "thread" in met[0]
    assert contents(store) == {"a": 1, "b": 1}


def test_damage_is_noticed_in_a_transaction(tmp_path):
    store = SqliteStore(tmp_path / "states.db")
    store.write("a", 1)
    with sqlite3.connect(tmp_path / "states.db") as database:
        database.execute("UPDATE records SET data = x'00' WHERE name = 'a'")
    database.close()
    with store.transaction() as records:
        with pytest.raises(RecordDamagedError, match="record 'a' of SqliteStore"):
            records.load("a")
        records.write("a", 2)
    assert contents(store) == {"a": 2}


def test_a_file_that_is_no_store_any_more_is_left_alone(tmp_path):
    path = tmp_path / "states.db"
    store = SqliteStore(path)
    store.write("a", 1)
    path.write_bytes(b"something else " * 1000)
    with pytest.raises(StoreFormatError), store.transaction():
        pytest.fail("a transaction on something else")
    assert path.read_bytes() == b"something else " * 1000
