"""Servers that are killed, full or busy, and connections that are cut.

Whatever happens: the store has the last acknowledged state, or the one that was in flight, and what
went wrong is one line of one of the stores' own errors.
"""

import errno
import os
import random
import signal
import socket
import threading
import time

import pytest

from quorvane.stores import (
    PostgresStore,
    StoreBusyError,
    StoreReadError,
    StoreWriteError,
)
from stores.support.samples import exactly_equal, numbered_state
from support.postgres import PASSWORD
from support.proxy import Proxy

pytest.importorskip("psycopg")

pytestmark = pytest.mark.plain_python

LARGE = next(n for n in range(1000) if n * 7919 % 37_000 > 35_000)
SMALL = next(n for n in range(1, 1000) if n * 7919 % 37_000 < 2_000)
KILLS = 6


@pytest.fixture
def store(postgres, database):
    """A store with the first state of a record."""
    store = PostgresStore(postgres.dsn(database))
    store.write("rotation", numbered_state(1))
    return store


@pytest.fixture
def killable(postgres):
    """Kill the server; it runs again after the test, whatever has happened."""
    killed = []

    def kill():
        killed.append(True)
        postgres.kill()

    yield kill
    if killed:
        postgres.restart()


def one_line(caught, *words):
    text = str(caught.value)
    assert "\n" not in text
    assert all(word in text for word in words)
    return True


def outcome_of(action):
    """Whether what a store was asked for happened; a failure is one line of the store's own."""
    try:
        action()
    except (StoreReadError, StoreWriteError) as error:
        return "failed" if "\n" not in str(error) else str(error)
    return "acknowledged"


# ---- the server is killed


def test_a_server_that_is_killed_at_any_moment_keeps_what_it_acknowledged(
    postgres, tmp_path, database, tasks
):
    generator = random.Random(8)
    notes, stored, failures = tmp_path / "acknowledged", 0, []
    for _ in range(KILLS):
        notes.unlink(missing_ok=True)
        answer = tmp_path / "answer.json"
        writer = tasks.start(
            "write_until_it_fails",
            kind="postgres",
            folder=str(tmp_path),
            acknowledged=str(notes),
            first=stored + 1,
            answer=str(answer),
        )
        wait_for_size(notes, 8 * generator.randrange(4))
        time.sleep(generator.uniform(0.0, 0.05))
        postgres.kill()
        code, failure = tasks.outcome(writer, answer)
        postgres.start()
        assert code == 0
        failures.append(failure)
        acknowledged = stored
        if notes.exists() and notes.read_bytes():
            acknowledged = int.from_bytes(notes.read_bytes()[-8:], "little")
        state = PostgresStore(postgres.dsn(database)).read("rotation")
        found = 0 if state is None else state["number"]
        assert found in (acknowledged, acknowledged + 1)
        assert found == 0 or exactly_equal(state, numbered_state(found))
        stored = found
    assert {failure["error"] for failure in failures} == {"StoreWriteError"}
    assert not [failure for failure in failures if "\n" in failure["message"]]
    assert stored > 0


def wait_for_size(path, size):
    """Wait until a file has so many bytes."""
    deadline = time.monotonic() + 60
    while not path.exists() or path.stat().st_size < size:
        assert time.monotonic() < deadline
        time.sleep(0.001)


@pytest.mark.parametrize("writes", [0, 1, 2])
def test_a_server_that_is_killed_in_a_transaction_has_nothing_of_it(
    postgres, store, killable, writes
):
    def write_and_kill():
        with store.transaction() as records:
            for number in range(writes):
                records.write("rotation", numbered_state(2 + number))
            killable()

    with pytest.raises(StoreWriteError) as caught:
        write_and_kill()
    assert one_line(caught, "cannot run a transaction on PostgresStore(")
    assert caught.value.errno == errno.ECONNRESET
    for act in (lambda: store.read("rotation"), lambda: store.write("rotation", {})):
        with pytest.raises(OSError, match=r"connection is bad|No such file|refused") as caught:
            act()
        assert isinstance(caught.value, StoreReadError | StoreWriteError)
        assert one_line(caught)
    postgres.start()
    # The same object goes on, as it has no connection that could have been lost.
    assert exactly_equal(store.read("rotation"), numbered_state(1))
    store.write("rotation", numbered_state(5))
    assert [entry.version for entry in store.versions("rotation")] == [2, 1]


def test_a_server_that_is_killed_between_load_and_write_is_said_by_the_write(store, killable):
    def load_kill_and_write():
        with store.transaction() as records:
            assert records.load("rotation")["number"] == 1
            killable()
            with pytest.raises(StoreReadError):
                records.load("rotation")
            with pytest.raises(StoreWriteError, match="cannot write record 'rotation'"):
                records.write("rotation", numbered_state(2))

    with pytest.raises(StoreWriteError, match="cannot run a transaction on"):
        load_kill_and_write()


# ---- a connection is cut


@pytest.fixture
def terminate(postgres, database):
    """End all connections to the test's database, as an administrator does."""

    def terminate():
        postgres.sql(
            "SELECT pg_terminate_backend(pid, 5000) FROM pg_stat_activity WHERE datname = %s",
            database,
        )

    return terminate


def test_a_connection_that_is_terminated_undoes_its_transaction(store, terminate):
    def write_twice():
        with store.transaction() as records:
            records.write("rotation", numbered_state(2))
            terminate()
            with pytest.raises(StoreWriteError, match="administrator command") as caught:
                records.write("rotation", numbered_state(3))
            assert one_line(caught, "cannot write record 'rotation'")
            assert caught.value.errno == errno.ECONNRESET

    with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
        write_twice()
    assert exactly_equal(store.read("rotation"), numbered_state(1))


def test_a_connection_that_is_terminated_before_the_end_undoes_its_transaction(store, terminate):
    def write_and_terminate():
        with store.transaction() as records:
            records.write("rotation", numbered_state(2))
            terminate()

    # Sometimes libpq has the server's last words, sometimes it finds the line dead.
    with pytest.raises(StoreWriteError, match=r"administrator command|lost at its end") as caught:
        write_and_terminate()
    assert one_line(caught, "cannot run a transaction on")
    assert exactly_equal(store.read("rotation"), numbered_state(1))
    store.write("rotation", numbered_state(4))
    assert exactly_equal(store.read("rotation"), numbered_state(4))


@pytest.fixture
def proxy(postgres):
    with Proxy(postgres.port) as proxy:
        yield proxy


@pytest.fixture
def far(postgres, database, proxy):
    """The store behind the proxy, with a password."""
    with postgres.user_with_password(database) as user:
        far = PostgresStore(postgres.url(database, user, PASSWORD, proxy.port))
        far.write("rotation", numbered_state(1))
        yield far


@pytest.mark.parametrize("direction", ["to_server", "to_client"])
def test_a_line_that_is_cut_at_any_byte_of_a_write_leaves_a_whole_state(far, proxy, direction):
    proxy.reset()
    far.write("rotation", numbered_state(1))
    # The last bytes of a write say good-bye, when everything is done.
    total = getattr(proxy, direction)
    last, outcomes = 1, set()
    for part in range(1, 24):
        number = 1 + part
        proxy.reset()
        setattr(proxy, f"cut_{direction}", total * part // 24)
        outcome = outcome_of(lambda n=number: far.write("rotation", numbered_state(n)))
        proxy.reset()
        found = far.read("rotation")["number"]
        assert exactly_equal(far.read("rotation"), numbered_state(found))
        assert found in {"acknowledged": {number}, "failed": {last, number}}[outcome]
        outcomes.add((outcome, found == number))
        last = found
    assert ("failed", False) in outcomes


def test_an_answer_that_is_lost_says_that_the_write_may_have_happened(far, proxy):
    def lose_the_answer():
        with far.transaction() as records:
            records.write("rotation", numbered_state(2))
            proxy.cut_to_client = proxy.to_client + 1

    with pytest.raises(StoreWriteError, match="may have happened all the same") as caught:
        lose_the_answer()
    assert one_line(caught)
    assert caught.value.errno == errno.ECONNRESET
    # The server has got all of it.
    assert exactly_equal(far.read("rotation"), numbered_state(2))


@pytest.mark.parametrize("direction", ["to_server", "to_client"])
def test_a_line_that_is_cut_while_reading_is_said_and_not_taken_for_damage(far, proxy, direction):
    proxy.reset()
    far.read("rotation")
    total = getattr(proxy, direction)
    failed = 0
    for part in range(1, 12):
        proxy.reset()
        setattr(proxy, f"cut_{direction}", total * part // 13)
        read = []
        if outcome_of(lambda read=read: read.append(far.read("rotation"))) == "failed":
            failed += 1
        else:
            assert exactly_equal(read, [numbered_state(1)])
    assert failed > 8


def test_nobody_waits_long_for_a_writer_whose_line_was_cut(postgres, database, far, proxy):
    near = PostgresStore(postgres.dsn(database), busy_timeout=10.0)

    def cut_in_a_transaction():
        with far.transaction() as records:
            records.write("rotation", numbered_state(2))
            proxy.cut()
            near.write("rotation", numbered_state(3))

    with pytest.raises(StoreWriteError):
        cut_in_a_transaction()
    assert [near.load("rotation", version)["number"] for version in (1, 2)] == [1, 3]


def test_both_sides_look_after_a_line_on_which_nothing_comes(far):
    with far._server.write_transaction("look") as connection:
        shown = [
            connection.execute(f"SHOW tcp_keepalives_{name}").fetchone()
            for name in ("idle", "interval", "count")
        ]
        line = socket.socket(fileno=os.dup(connection.fileno()))
        with line:
            own = [
                line.getsockopt(socket.IPPROTO_TCP, option)
                for option in (socket.TCP_KEEPIDLE, socket.TCP_KEEPINTVL, socket.TCP_KEEPCNT)
            ]
    assert shown == [("30",), ("10",), ("3",)]
    assert own == [30, 10, 3]


# ---- the server has no room, or no time


def test_a_disk_that_is_really_full_leaves_the_records(postgres):
    with postgres.small_tablespace() as tablespace:
        if tablespace is None:
            pytest.skip("mounting a small file system needs the rights of the superuser")
        name = postgres.new_database()
        store = PostgresStore(postgres.dsn(name))
        postgres.sql(f"ALTER TABLE quorvane.records SET TABLESPACE {tablespace}", database=name)
        store.write("rotation", numbered_state(SMALL))
        written = fill(store)
        assert exactly_equal(store.read("rotation"), numbered_state(SMALL))
        assert store.names() == sorted(["rotation", *(f"more {n}" for n in range(written))])
        for number in range(written):
            assert exactly_equal(store.read(f"more {number}"), numbered_state(LARGE))
        postgres.sql("ALTER TABLE quorvane.records SET TABLESPACE pg_default", database=name)
        store.write("rotation", numbered_state(LARGE))
        assert exactly_equal(store.read("rotation"), numbered_state(LARGE))
        postgres.drop_database(name)


def fill(store):
    """Write until the disk is full; how many records were acknowledged."""
    written = 0

    def write_on():
        nonlocal written
        for number in range(100):
            store.write(f"more {number}", numbered_state(LARGE))
            written = number + 1

    with pytest.raises(StoreWriteError, match="No space left on device") as caught:
        write_on()
    assert one_line(caught, "cannot write record 'more ")
    assert caught.value.errno == errno.ENOSPC
    assert written >= 1
    return written


# Where no disk can be filled: the server is made to say what it says of a full one.
FULL_DISK = """
    CREATE FUNCTION public.refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN
        RAISE EXCEPTION 'could not extend file: No space left on device' USING ERRCODE = '53100';
    END $$;
    CREATE TRIGGER refuse BEFORE INSERT ON quorvane.heads
        FOR EACH ROW EXECUTE FUNCTION public.refuse()
"""


def test_a_server_that_says_its_disk_is_full_undoes_all_of_the_transaction(
    postgres, database, store
):
    def write_until_full():
        with store.transaction() as records:
            # Before, the store would have refused tables that have a trigger.
            postgres.sql(FULL_DISK, database=database)
            with pytest.raises(StoreWriteError, match="No space left on device") as caught:
                records.write("full", numbered_state(3))
            assert caught.value.errno == errno.ENOSPC
            assert one_line(caught, "cannot write record 'full' of PostgresStore(")
            records.write("more", {})

    with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
        write_until_full()
    postgres.sql("DROP FUNCTION public.refuse() CASCADE", database=database)
    assert store.names() == ["rotation"]
    assert exactly_equal(store.read("rotation"), numbered_state(1))


def test_a_server_with_too_many_connections_is_busy(postgres, database):
    with postgres.user_with_password(database) as user:
        store = PostgresStore(postgres.dsn(database, user), busy_timeout=0.2)
        store.write("rotation", {"a": 1})
        postgres.sql(f"ALTER ROLE {user} CONNECTION LIMIT 0")
        start = time.monotonic()
        for act in (lambda: store.write("rotation", {"a": 2}), lambda: store.read("rotation")):
            with pytest.raises(StoreBusyError, match="too many connections for role") as caught:
                act()
            assert one_line(caught)
        assert time.monotonic() - start >= 0.4
        store._server._busy_timeout = 30.0
        lifting = threading.Timer(0.3, postgres.sql, [f"ALTER ROLE {user} CONNECTION LIMIT -1"])
        lifting.start()
        store.write("rotation", {"a": 3})
        lifting.join()
        assert store.read("rotation") == {"a": 3}


def test_a_server_that_is_about_to_start_is_waited_for(far, proxy):
    proxy.refusals = 6
    assert exactly_equal(far.read("rotation"), numbered_state(1))
    assert proxy.refusals == 0


def test_a_server_that_does_not_come_to_its_start_is_said(far, proxy):
    far._server._busy_timeout = 0.2
    proxy.refusals = 10_000
    with pytest.raises(StoreWriteError, match="the database system is starting up") as caught:
        far.write("rotation", numbered_state(2))
    assert one_line(caught)
    proxy.reset()
    assert exactly_equal(far.read("rotation"), numbered_state(1))


def test_an_interrupt_during_the_end_of_a_transaction_waits_for_it(postgres, database, store):
    # A deferred check makes the commit itself take its time.
    postgres.sql(
        "CREATE FUNCTION public.slow() RETURNS trigger LANGUAGE plpgsql AS "
        "$$ BEGIN PERFORM pg_sleep(0.6); RETURN NULL; END $$",
        database=database,
    )
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    sender = threading.Timer(0.2, signal.raise_signal, [signal.SIGINT])

    def write_slowly():
        with store.transaction() as records:
            records.write("rotation", numbered_state(2))
            records._records._connection.execute(
                "CREATE TEMP TABLE slow (x int); "
                "CREATE CONSTRAINT TRIGGER slow AFTER INSERT ON slow DEFERRABLE INITIALLY DEFERRED "
                "FOR EACH ROW EXECUTE FUNCTION public.slow(); INSERT INTO slow VALUES (1)"
            )
            sender.start()

    try:
        with pytest.raises(KeyboardInterrupt):
            write_slowly()
    finally:
        sender.join()
        signal.signal(signal.SIGINT, before)
        postgres.sql("DROP FUNCTION public.slow() CASCADE", database=database)
    assert exactly_equal(store.read("rotation"), numbered_state(2))
