"""The store in one SQLite file."""

import os
import sqlite3
import tracemalloc

import pytest

from quorvane.stores import (
    DamagedRecord,
    DamagedRecordWarning,
    RecordDamagedError,
    SqliteStore,
    StoreBusyError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)
from stores.support.samples import exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python


@pytest.fixture
def path(tmp_path):
    return tmp_path / "states.db"


def numbers(store):
    return [entry.version for entry in store.versions("rotation")]


def sql(path, statement, *values):
    """Run a statement on the file behind the store's back."""
    database = sqlite3.connect(path)
    with database:
        rows = database.execute(statement, values).fetchall()
    database.close()
    return rows


def test_arguments_that_are_refused_make_no_file(path):
    with pytest.raises(ValueError, match="keep must be"):
        SqliteStore(path, keep=0)
    assert not path.exists()


@pytest.mark.parametrize("name", ["", ":memory:"])
def test_a_store_without_a_file_is_refused(name):
    with pytest.raises(ValueError, match="path must name a file"):
        SqliteStore(name)


def test_the_file_alone_holds_everything(path, tmp_path):
    SqliteStore(path).write("rotation", rotation_state(5))
    assert os.listdir(tmp_path) == [path.name]
    os.rename(path, tmp_path / "moved.db")
    assert exactly_equal(SqliteStore(tmp_path / "moved.db").read("rotation"), rotation_state(5))


def test_writes_go_through_the_log_and_are_flushed(path, monkeypatch):
    store = SqliteStore(path)
    assert sql(path, "PRAGMA journal_mode") == [("wal",)]
    with store._file.read_transaction() as database:
        assert database.execute("PRAGMA synchronous").fetchone() == (2,)


def test_a_file_that_is_no_database_is_refused_and_left(path):
    path.write_bytes(b"my notes, " * 1000)
    with pytest.raises(StoreFormatError, match=r"states.db' is not an SQLite database"):
        SqliteStore(path)
    assert path.read_bytes() == b"my notes, " * 1000


def test_another_programs_database_is_refused_and_left(path):
    sql(path, "CREATE TABLE mine (x)")
    before = path.read_bytes()
    with pytest.raises(StoreFormatError, match="is an SQLite database, and not a store"):
        SqliteStore(path)
    assert path.read_bytes() == before


def test_a_marked_database_of_another_program_is_refused(path):
    sql(path, "PRAGMA application_id = 77")
    with pytest.raises(StoreFormatError, match="not a store"):
        SqliteStore(path)


def test_a_store_of_a_newer_version_is_refused_and_left(path):
    SqliteStore(path).write("rotation", {"a": 1})
    sql(path, "PRAGMA user_version = 2")
    before = path.read_bytes()
    with pytest.raises(StoreFormatError, match=r"format 2, made by a newer version; .* up to 1"):
        SqliteStore(path)
    assert path.read_bytes() == before


def test_an_empty_file_becomes_a_store(path):
    path.touch()
    SqliteStore(path).write("rotation", {"a": 1})
    assert SqliteStore(path).read("rotation") == {"a": 1}


@pytest.mark.parametrize("name", ["a b.db", "100%.db", "what?.db", "a#b.db", "ä.db", "file:x.db"])
def test_any_file_name_will_do(tmp_path, monkeypatch, name):
    SqliteStore(tmp_path / name).write("rotation", {"a": 1})
    monkeypatch.chdir(tmp_path)
    assert SqliteStore(name).read("rotation") == {"a": 1}
    assert os.listdir(tmp_path) == [name]


def test_a_short_file_is_refused_and_left(path):
    path.write_bytes(b"note")
    with pytest.raises(StoreFormatError, match="too short to be an SQLite database"):
        SqliteStore(path)
    assert path.read_bytes() == b"note"


def test_a_folder_is_refused(tmp_path):
    with pytest.raises(StoreFormatError):
        SqliteStore(tmp_path)


@pytest.mark.parametrize("place", ["/proc/quorvane.db", "/nonexistent/folder/states.db"])
def test_a_file_that_cannot_be_made_is_said(place):
    with pytest.raises(StoreWriteError, match="unable to open database file"):
        SqliteStore(place)


def test_a_file_that_went_away_is_said_by_reads_and_made_again_by_writes(path):
    store = SqliteStore(path)
    store.write("rotation", {"a": 1})
    path.unlink()
    with pytest.raises(StoreReadError, match="unable to open database file"):
        store.read("rotation")
    assert not path.exists()
    store.write("rotation", {"a": 2})
    assert store.read("rotation") == {"a": 2}


def test_a_store_held_too_long_by_another_is_busy(path):
    store = SqliteStore(path, busy_timeout=0.05)
    store.write("rotation", {"a": 1})
    holder = sqlite3.connect(path, isolation_level=None)
    holder.execute("BEGIN IMMEDIATE")
    with pytest.raises(StoreBusyError, match=r"held it for 0\.05 seconds") as caught:
        store.write("rotation", {"a": 2})
    assert isinstance(caught.value, TimeoutError)
    # Readers do not wait for a writer.
    assert store.read("rotation") == {"a": 1}
    holder.execute("ROLLBACK")
    holder.close()
    store.write("rotation", {"a": 2})
    assert store.read("rotation") == {"a": 2}


def assert_damaged(store, name="rotation"):
    with pytest.warns(DamagedRecordWarning):
        assert isinstance(store.read(name), DamagedRecord)
    with pytest.raises((RecordDamagedError, StoreFormatError)):
        store.load(name)


DAMAGE = {
    "a flipped bit": "UPDATE records SET data = substr(data, 1, 99) || x'00' || substr(data, 101) "
    "WHERE version = 2",
    "cut short": "UPDATE records SET data = substr(data, 1, length(data) - 1) WHERE version = 2",
    "empty": "UPDATE records SET data = x'' WHERE version = 2",
    "text": "UPDATE records SET data = 'text' WHERE version = 2",
    "a number": "UPDATE records SET data = 5 WHERE version = 2",
    "the newest version lost": "DELETE FROM records WHERE version = 2",
    "the head lost": "DELETE FROM heads",
    "the head set back": "UPDATE heads SET version = 1",
    "the head set on": "UPDATE heads SET version = 3",
    "the head not a number": "UPDATE heads SET version = 'x'",
    "the seal altered": "UPDATE heads SET seal = x'00'",
    "the seal text": "UPDATE heads SET seal = 'x'",
    "the older version in its place": "UPDATE records SET data = "
    "(SELECT data FROM records WHERE version = 1) WHERE version = 2",
    "both versions renumbered": "UPDATE records SET version = 5 - version",
    "a table lost": "DROP TABLE records",
    "the other table lost": "DROP TABLE heads",
}


@pytest.mark.parametrize("statement", DAMAGE.values(), ids=DAMAGE)
def test_damage_to_the_newest_version_is_noticed_and_no_older_one_is_read(path, statement):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    store.write("rotation", {"number": 2, "padding": b"x" * 100})
    sql(path, statement)
    assert_damaged(store)


SCHEMAS = {
    "a view in place of a table": "DROP TABLE heads; CREATE VIEW heads(namespace, name, version, "
    "seal) AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) "
    "SELECT '', 'a' || x, x, x'00' FROM c",
    "a trigger": "CREATE TRIGGER t AFTER INSERT ON records BEGIN DELETE FROM heads; END",
    "an index": "CREATE INDEX i ON records (version)",
    "one table more": "CREATE TABLE more (x)",
    "another column": "ALTER TABLE heads ADD COLUMN more",
}


@pytest.mark.parametrize("script", SCHEMAS.values(), ids=SCHEMAS)
def test_a_schema_that_a_store_does_not_make_is_refused(path, script):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    database = sqlite3.connect(path)
    database.executescript(script)
    database.close()
    with pytest.raises(StoreFormatError, match="holds other tables than a store's"):
        SqliteStore(path)
    with pytest.raises(StoreFormatError):
        store.write("rotation", {"number": 2})
    assert_damaged(store)


ERRORS = {
    sqlite3.OperationalError("locking protocol"): StoreBusyError,
    sqlite3.OperationalError("database schema has changed"): StoreReadError,
    sqlite3.OperationalError("interrupted"): StoreReadError,
    sqlite3.OperationalError("large file support is disabled"): StoreReadError,
    sqlite3.OperationalError("cannot start a transaction within a transaction"): StoreReadError,
    sqlite3.ProgrammingError("malformed statement"): StoreReadError,
    sqlite3.InterfaceError("malformed parameter"): StoreReadError,
    sqlite3.InternalError("malformed something"): StoreReadError,
    sqlite3.DatabaseError("database disk image is malformed"): RecordDamagedError,
    sqlite3.OperationalError("unsupported file format"): RecordDamagedError,
}


@pytest.mark.parametrize(("error", "kind"), ERRORS.items(), ids=map(str, ERRORS))
def test_only_what_says_so_is_taken_for_damage(path, error, kind):
    store = SqliteStore(path)
    with pytest.raises(kind), store._file.reading("a record"):
        raise error


def test_a_large_blob_that_is_no_record_is_not_read_into_memory(path):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    sql(path, "UPDATE records SET data = zeroblob(50000000)")
    tracemalloc.start()
    try:
        with pytest.raises(RecordDamagedError, match="it begins with"):
            store.load("rotation")
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < 1_000_000


def test_after_damage_older_versions_load_and_the_next_write_is_read(path):
    store = SqliteStore(path)
    for number in (1, 2):
        store.write("rotation", {"number": number})
    sql(path, "UPDATE records SET data = x'00' WHERE version = 2")
    assert_damaged(store)
    assert store.load("rotation", 1) == {"number": 1}
    store.write("rotation", {"number": 3})
    assert store.read("rotation") == {"number": 3}
    assert numbers(store) == [3, 2, 1]


def test_versions_that_changed_places_are_noticed(path):
    store = SqliteStore(path)
    for number in (1, 2, 3):
        store.write("rotation", {"number": number})
    sql(path, "UPDATE records SET version = 9 WHERE version = 1")
    sql(path, "UPDATE records SET version = 1 WHERE version = 2")
    sql(path, "UPDATE records SET version = 2 WHERE version = 9")
    for version in (1, 2):
        with pytest.raises(RecordDamagedError, match=f"version {version} of record"):
            store.load("rotation", version)
    assert store.read("rotation") == {"number": 3}


@pytest.mark.parametrize("table", ["records", "heads"])
def test_numbers_of_lost_versions_are_not_used_again(path, table):
    store = SqliteStore(path)
    for number in (1, 2):
        store.write("rotation", {"number": number})
    sql(path, f"DELETE FROM {table}")
    store.write("rotation", {"number": 3})
    assert numbers(store)[0] == 3
    assert store.read("rotation") == {"number": 3}


def test_damage_to_one_name_leaves_the_others(path):
    store = SqliteStore(path)
    for name in ("a", "b"):
        store.write(name, {"name": name})
    sql(path, "UPDATE records SET data = x'00' WHERE name = 'a'")
    assert_damaged(store, "a")
    assert store.read("b") == {"name": "b"}


def test_a_store_overwritten_with_something_else_reads_as_damaged(path):
    store = SqliteStore(path)
    store.write("rotation", {})
    path.write_bytes(b"something else " * 1000)
    assert_damaged(store)


@pytest.mark.filterwarnings("ignore::quorvane.stores.DamagedRecordWarning")
def test_every_byte_of_the_file_is_guarded(path):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    store.write("rotation", {"number": 2, "padding": "x" * 50})
    state = store.load("rotation")
    intact = path.read_bytes()
    outcomes = {"same": 0, "noticed": 0}
    for position in range(len(intact)):
        # Most of the pages is unused space, of which every 32nd byte is enough.
        if intact[position] == 0 and position % 32:
            continue
        changed = bytearray(intact)
        changed[position] ^= 1 << position % 8
        path.write_bytes(changed)
        found = store.read("rotation")
        assert isinstance(found, DamagedRecord) or exactly_equal(found, state), (position, found)
        outcomes["noticed" if isinstance(found, DamagedRecord) else "same"] += 1
        for leftover in (f"{path}-wal", f"{path}-shm", f"{path}-journal"):
            if os.path.exists(leftover):
                os.unlink(leftover)
    assert outcomes["noticed"] > 500
    path.write_bytes(intact)
    assert exactly_equal(store.read("rotation"), state)


def acted(action, *arguments):
    """What an action gave on a file that may be damaged, or the class of its error."""
    try:
        return action(*arguments)
    except (RecordDamagedError, StoreFormatError, StoreWriteError) as error:
        return type(error)


@pytest.mark.filterwarnings("ignore::quorvane.stores.DamagedRecordWarning")
def test_a_damaged_file_opens_and_is_reported_by_what_is_asked_of_it(path):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    store.write("rotation", {"number": 2, "padding": "x" * 50})
    intact = path.read_bytes()
    outcomes = {"taken for another's": 0, "unreadable as a whole": 0}
    # Of the header every byte, of the schema and the tables some.
    for position in [*range(112), *range(3400, 4200, 7), *range(8192, len(intact), 256)]:
        changed = bytearray(intact)
        changed[position] ^= 1 << position % 8
        path.write_bytes(changed)
        opened = acted(SqliteStore, path)
        if opened is StoreFormatError:
            outcomes["taken for another's"] += 1
            continue
        found, loaded = opened.read("rotation"), acted(opened.load, "rotation")
        if loaded in (RecordDamagedError, StoreFormatError):
            assert isinstance(found, DamagedRecord), position
        else:
            assert found == loaded == {"number": 2, "padding": "x" * 50}, position
        others = [acted(opened.versions, "rotation"), acted(opened.names)]
        others.append(acted(opened.write, "rotation", {"number": 3}))
        outcomes["unreadable as a whole"] += others == [RecordDamagedError] * 3
        for leftover in (f"{path}-wal", f"{path}-shm", f"{path}-journal"):
            if os.path.exists(leftover):
                os.unlink(leftover)
    assert outcomes["taken for another's"] > 20
    assert outcomes["unreadable as a whole"] > 30


def test_a_name_that_is_no_text_any_more_is_noticed(path):
    store = SqliteStore(path)
    store.write("rotation", {"number": 1})
    sql(path, "UPDATE heads SET name = CAST(name AS BLOB)")
    with pytest.raises(RecordDamagedError, match=r"the names of SqliteStore.* are damaged"):
        store.names()


def test_a_file_that_is_damaged_as_a_whole_opens_and_does_not_recover(path):
    SqliteStore(path).write("rotation", {"number": 1})
    intact = path.read_bytes()
    assert intact.count(b"CREATE TABLE records") == 1
    path.write_bytes(intact.replace(b"CREATE TABLE records", b"CREATE TXBLE records"))
    store = SqliteStore(path)
    assert_damaged(store)
    for act in (store.names, lambda: store.versions("rotation"), lambda: store.write("a", {})):
        with pytest.raises(RecordDamagedError, match="the file is damaged"):
            act()


@pytest.mark.filterwarnings("ignore::quorvane.stores.DamagedRecordWarning")
def test_every_truncation_of_the_file_is_noticed(path):
    store = SqliteStore(path)
    store.write("rotation", rotation_state(3))
    intact = path.read_bytes()
    for length in range(0, len(intact), 97):
        path.write_bytes(intact[:length])
        assert isinstance(store.read("rotation"), DamagedRecord), length


def test_a_record_larger_than_sqlite_keeps_is_said(path, monkeypatch):
    store = SqliteStore(path)
    store.write("rotation", {"a": 1})
    connect = sqlite3.connect

    def connect_with_limit(*arguments, **options):
        database = connect(*arguments, **options)
        database.setlimit(sqlite3.SQLITE_LIMIT_LENGTH, 10_000)
        return database

    if not hasattr(sqlite3.Connection, "setlimit"):
        pytest.skip("this Python cannot set SQLite's limits")
    monkeypatch.setattr(sqlite3, "connect", connect_with_limit)
    with pytest.raises(StoreWriteError, match="too big"):
        store.write("rotation", {"a": b"x" * 20_000})
    assert store.read("rotation") == {"a": 1}


def test_a_file_cut_to_nothing_is_noticed_by_a_store_that_is_open(path):
    store = SqliteStore(path)
    store.write("rotation", {"a": 1})
    os.truncate(path, 0)
    with pytest.raises(StoreFormatError, match="was a store and is now empty"):
        store.load("rotation")
    assert SqliteStore(path).read("rotation") is None
