"""A database in which another program or another version has been, and others who use it."""

import os

import pytest

from quorvane.stores import PostgresStore, StoreBusyError, StoreFormatError, StoreWriteError
from quorvane.stores import _postgres_records as records_module
from stores.postgres.databases import assert_damaged

pytest.importorskip("psycopg")
pytestmark = pytest.mark.plain_python


# ---- what is there is another's, or a newer version's


def test_a_store_of_a_newer_version_is_refused_and_left(dsn, store, sql):
    store.write("rotation", {"a": 1})
    sql("ALTER TABLE quorvane.heads ADD COLUMN kind text")
    sql("ALTER TABLE quorvane.store ADD COLUMN since text DEFAULT 'now'")
    sql("UPDATE quorvane.store SET format = 2")
    everything = "SELECT * FROM quorvane.records, quorvane.heads, quorvane.store"
    before = sql(everything)
    text = r"holds a store of format 2, made by a newer version; this one knows up to 1"
    for act in (
        lambda: PostgresStore(dsn),
        lambda: store.write("rotation", {"a": 2}),
        lambda: store.load("rotation"),
        lambda: store.names(),
        lambda: store.transaction().__enter__(),
    ):
        with pytest.raises(StoreFormatError, match=text) as caught:
            act()
        assert "\n" not in str(caught.value)
    assert sql(everything) == before


OTHERS = {
    "another program's table": "CREATE SCHEMA quorvane; CREATE TABLE quorvane.mine (x int)",
    "another program's table of that name": (
        "CREATE SCHEMA quorvane; CREATE TABLE quorvane.store (x int)"
    ),
    "a view in place of the mark": (
        "CREATE SCHEMA quorvane; CREATE VIEW quorvane.store AS SELECT 1 AS format"
    ),
}


@pytest.mark.parametrize("script", OTHERS.values(), ids=OTHERS)
def test_a_schema_of_another_program_is_refused_and_left(dsn, sql, script):
    sql(script)
    with pytest.raises(StoreFormatError, match="holds other tables than a store's"):
        PostgresStore(dsn)
    assert len(sql("SELECT FROM pg_class WHERE relnamespace = 'quorvane'::regnamespace")) == 1


DEFINE = "CREATE FUNCTION quorvane.f() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RETURN NEW; END';"
SCHEMAS = {
    "a trigger": f"{DEFINE} CREATE TRIGGER t BEFORE INSERT ON quorvane.records FOR EACH ROW "
    "EXECUTE FUNCTION quorvane.f()",
    "a rule": "CREATE RULE r AS ON INSERT TO quorvane.heads DO NOTHING",
    "a default": "ALTER TABLE quorvane.heads ALTER seal SET DEFAULT now()::text::bytea",
    "a check": "ALTER TABLE quorvane.records ADD CHECK (length(data) > 0)",
    "an index over a function": "CREATE INDEX i ON quorvane.records ((lower(name)))",
    "another column": "ALTER TABLE quorvane.heads ADD COLUMN more int",
    "a column of another type": "ALTER TABLE quorvane.heads ALTER version TYPE numeric",
    "a table that forgets": "ALTER TABLE quorvane.records SET UNLOGGED",
    "a table that inherits": "CREATE TABLE public.child () INHERITS (quorvane.records)",
    "a view in place of a table": "DROP TABLE quorvane.heads; CREATE VIEW quorvane.heads AS "
    "SELECT ''::text AS namespace, ''::text AS name, 1::bigint AS version, ''::bytea AS seal",
    "a table lost": "DROP TABLE quorvane.records",
    "two marks": "INSERT INTO quorvane.store VALUES (1)",
    "no mark": "DELETE FROM quorvane.store",
    "an older mark": "UPDATE quorvane.store SET format = 0",
}


@pytest.mark.parametrize("script", SCHEMAS.values(), ids=SCHEMAS)
def test_a_schema_that_a_store_does_not_make_is_refused(dsn, store, sql, script):
    store.write("rotation", {"number": 1})
    sql(script)
    with pytest.raises(StoreFormatError, match="holds other tables than a store's"):
        PostgresStore(dsn)
    with pytest.raises(StoreFormatError):
        store.write("rotation", {"number": 2})
    assert_damaged(store)
    sql("DROP TABLE IF EXISTS public.child")


def test_what_an_administrator_adds_beside_the_tables_does_not_matter(dsn, store, sql):
    store.write("rotation", {"number": 1})
    sql("CREATE INDEX i ON quorvane.records (written_at)")
    sql("CREATE VIEW quorvane.overview AS SELECT name FROM quorvane.heads")
    assert PostgresStore(dsn).read("rotation") == {"number": 1}


def test_tables_that_went_away_are_said_by_reads_and_made_again_by_writes(store, sql):
    store.write("rotation", {"a": 1})
    sql("DROP SCHEMA quorvane CASCADE")
    with pytest.raises(StoreFormatError, match="holds no store: its tables are not there"):
        store.load("rotation")
    assert_damaged(store)
    assert sql("SELECT FROM pg_namespace WHERE nspname = 'quorvane'") == []
    store.write("rotation", {"a": 2})
    assert store.read("rotation") == {"a": 2}


# ---- others


def test_a_namespace_held_too_long_by_another_is_busy_and_others_are_not(dsn, store):
    store.write("rotation", {"a": 1})
    hasty = PostgresStore(dsn, busy_timeout=0.05)
    elsewhere = PostgresStore(dsn, "elsewhere", busy_timeout=0.05)
    with store.transaction() as records:
        records.write("rotation", {"a": 2})
        with pytest.raises(StoreBusyError, match=r"held it for 0\.05 seconds") as caught:
            hasty.write("rotation", {"a": 3})
        assert isinstance(caught.value, TimeoutError)
        # Readers do not wait for a writer, nor does a writer of another namespace.
        assert hasty.read("rotation") == {"a": 1}
        elsewhere.write("rotation", {"a": 4})
    assert (store.read("rotation"), elsewhere.read("rotation")) == ({"a": 2}, {"a": 4})


def test_a_store_that_does_not_wait_at_all_is_busy_at_once(dsn, store):
    with store.transaction(), pytest.raises(StoreBusyError):
        PostgresStore(dsn, busy_timeout=0).write("rotation", {})
    PostgresStore(dsn, busy_timeout=0).write("rotation", {"a": 1})
    assert store.read("rotation") == {"a": 1}


def test_an_administrator_who_alters_a_table_keeps_all_waiting_only_so_long(store, dsn, sql):
    import psycopg

    store.write("rotation", {"a": 1})
    hasty = PostgresStore(dsn, busy_timeout=0.1)
    with psycopg.connect(dsn) as administrator:
        administrator.execute("LOCK TABLE quorvane.heads IN ACCESS EXCLUSIVE MODE")
        for act in (lambda: hasty.read("rotation"), lambda: hasty.write("rotation", {"a": 2})):
            with pytest.raises(StoreBusyError, match=r"held it for 0\.1 seconds"):
                act()
    assert hasty.read("rotation") == {"a": 1}


def test_a_reader_sees_one_moment(dsn, store, monkeypatch):
    # The head and the version that it names belong together, also when a writer comes between.
    store = PostgresStore(dsn, keep=1)
    store.write("rotation", {"number": 1})
    glimpse = records_module.PostgresRecords._glimpse

    def glimpse_after_a_write(self, *arguments):
        monkeypatch.undo()
        PostgresStore(dsn, keep=1).write("rotation", {"number": 2})
        return glimpse(self, *arguments)

    monkeypatch.setattr(records_module.PostgresRecords, "_glimpse", glimpse_after_a_write)
    assert store.read("rotation") == {"number": 1}
    assert store.read("rotation") == {"number": 2}


def test_no_connection_is_left_open(store, sql, database):
    store.write("rotation", {"a": 1})
    store.read("rotation")
    with pytest.raises(StoreWriteError), store.transaction() as records:
        records._records._connection.close()
    # The server takes a moment to notice that a connection was closed.
    for _ in range(100):
        others = sql(
            "SELECT application_name FROM pg_stat_activity "
            "WHERE datname = %s AND pid <> pg_backend_pid() AND backend_type = 'client backend'",
            database,
        )
        if not others:
            break
        os.sched_yield()
    assert others == []
