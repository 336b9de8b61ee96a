"""Damage to what the database holds, and what the server's own states mean."""

import errno
import tracemalloc

import pytest

from quorvane.stores import (
    RecordDamagedError,
    StoreBusyError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)
from stores.postgres.databases import assert_damaged, numbers

pytest.importorskip("psycopg")
pytestmark = pytest.mark.plain_python


DAMAGE = {
    "a flipped bit": "UPDATE quorvane.records SET data = set_bit(data, 801, 1 - get_bit(data, 801))"
    " WHERE version = 2",
    "cut short": "UPDATE quorvane.records SET data = substr(data, 1, length(data) - 1) "
    "WHERE version = 2",
    "empty": "UPDATE quorvane.records SET data = '' WHERE version = 2",
    "the newest version lost": "DELETE FROM quorvane.records WHERE version = 2",
    "the head lost": "DELETE FROM quorvane.heads",
    "the head set back": "UPDATE quorvane.heads SET version = 1",
    "the head set on": "UPDATE quorvane.heads SET version = 3",
    "the seal altered": r"UPDATE quorvane.heads SET seal = '\x00'",
    "the older version in its place": "UPDATE quorvane.records SET data = "
    "(SELECT data FROM quorvane.records WHERE version = 1) WHERE version = 2",
    "both versions renumbered": "UPDATE quorvane.records SET version = 15 - version; "
    "UPDATE quorvane.records SET version = version - 12",
}


@pytest.mark.parametrize("statement", DAMAGE.values(), ids=DAMAGE)
def test_damage_to_the_newest_version_is_noticed_and_no_older_one_is_read(store, sql, statement):
    store.write("rotation", {"number": 1})
    store.write("rotation", {"number": 2, "padding": b"x" * 100})
    sql(statement)
    assert_damaged(store)


def test_a_large_value_that_is_no_record_is_not_read_into_memory(store, sql):
    store.write("rotation", {"number": 1})
    sql("UPDATE quorvane.records SET data = decode(repeat('00', 50000000), 'hex')")
    tracemalloc.start()
    try:
        with pytest.raises(RecordDamagedError, match="it begins with"):
            store.load("rotation")
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < 1_000_000


def test_after_damage_older_versions_load_and_the_next_write_is_read(store, sql):
    for number in (1, 2):
        store.write("rotation", {"number": number})
    sql(r"UPDATE quorvane.records SET data = '\x00' WHERE version = 2")
    assert_damaged(store)
    assert store.load("rotation", 1) == {"number": 1}
    store.write("rotation", {"number": 3})
    assert store.read("rotation") == {"number": 3}
    assert numbers(store) == [3, 2, 1]


@pytest.mark.parametrize("table", ["records", "heads"])
def test_numbers_of_lost_versions_are_not_used_again(store, sql, table):
    for number in (1, 2):
        store.write("rotation", {"number": number})
    sql(f"DELETE FROM quorvane.{table}")
    store.write("rotation", {"number": 3})
    assert numbers(store)[0] == 3
    assert store.read("rotation") == {"number": 3}


def test_damage_to_one_name_leaves_the_others(store, sql):
    for name in ("a", "b"):
        store.write(name, {"name": name})
    sql(r"UPDATE quorvane.records SET data = '\x00' WHERE name = 'a'")
    assert_damaged(store, "a")
    assert store.read("b") == {"name": "b"}


def test_a_time_that_is_none_is_noticed(store, sql):
    store.write("rotation", {"a": 1})
    sql("UPDATE quorvane.records SET written_at = 'infinity'")
    with pytest.raises(RecordDamagedError, match=r"the versions of record .* are damaged"):
        store.versions("rotation")


# By the server's own SQLSTATE: what happened, and what it is for a reader.
STATES = {
    "XX001": RecordDamagedError,
    "XX002": RecordDamagedError,
    "42P01": StoreFormatError,
    "55P03": StoreBusyError,
    "58030": StoreReadError,
    "53200": StoreReadError,
    "57014": StoreReadError,
    "XX000": StoreReadError,
    "58P01": StoreReadError,
}


NUMBERS = {
    "0A000": errno.EROFS,  # a server that only follows another one, asked for a write
    "25006": errno.EROFS,
    "28P01": errno.EACCES,
    "42501": errno.EACCES,
    "53100": errno.ENOSPC,
    "53200": errno.ENOMEM,
    "57P02": errno.ECONNRESET,
    "58030": errno.EIO,
}


@pytest.mark.parametrize(("state", "number"), NUMBERS.items())
def test_a_write_that_fails_has_the_number_of_the_system_for_it(store, state, number):
    import psycopg

    with pytest.raises(StoreWriteError) as caught, store._server.writing("write a record"):
        raise psycopg.errors.lookup(state)("something\nin two lines")
    assert caught.value.errno == number
    assert caught.value.strerror == "cannot write a record: something in two lines"


@pytest.mark.parametrize(("state", "kind"), STATES.items())
def test_only_what_says_so_is_taken_for_damage(store, state, kind):
    import psycopg

    with pytest.raises(kind) as caught, store._server.reading("a record"):
        raise psycopg.errors.lookup(state)("something")
    assert "cannot read a record" in str(caught.value)
