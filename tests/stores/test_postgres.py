"""The store in a PostgreSQL database: its tables, who may do what, and damage to what it holds."""

import errno
import os
import random
import tracemalloc

import pytest

from quorvane.stores import (
    DamagedRecord,
    DamagedRecordWarning,
    PostgresStore,
    RecordDamagedError,
    StoreBusyError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)
from quorvane.stores import _postgres_records as records_module
from stores.support.samples import exactly_equal, rotation_state

pytest.importorskip("psycopg")

pytestmark = pytest.mark.plain_python


@pytest.fixture
def dsn(postgres, database):
    return postgres.dsn(database)


@pytest.fixture
def store(dsn):
    return PostgresStore(dsn)


@pytest.fixture
def sql(postgres, database):
    """Run a statement on the database behind the store's back."""

    def sql(statement, *values):
        return postgres.sql(statement, *values, database=database)

    return sql


def numbers(store):
    return [entry.version for entry in store.versions("rotation")]


def test_the_arguments_stand_in_the_order_of_the_documentation(dsn):
    store = PostgresStore(dsn, "one", 2)
    for number in range(3):
        store.write("rotation", number)
    assert numbers(store) == [3, 2]
    assert PostgresStore(dsn, keep=2, namespace="one").read("rotation") == 2


def test_everything_is_in_a_schema_of_its_own(store, sql):
    store.write("rotation", rotation_state(5))
    made = sql(
        "SELECT nspname, relname FROM pg_class JOIN pg_namespace ON relnamespace = "
        "pg_namespace.oid WHERE pg_class.oid >= 16384 AND nspname !~ '^pg_toast' AND relkind = 'r'"
    )
    assert sorted(made) == [("quorvane", "heads"), ("quorvane", "records"), ("quorvane", "store")]
    sql("DROP SCHEMA quorvane CASCADE")
    assert sql("SELECT FROM pg_class WHERE oid >= 16384") == []


def test_a_schema_that_somebody_has_made_before_is_used(postgres, database, sql):
    sql("CREATE SCHEMA quorvane")
    with postgres.user_with_password(database) as user:
        sql(f"REVOKE CREATE ON DATABASE {database} FROM {user}")
        sql(f"GRANT ALL ON SCHEMA quorvane TO {user}")
        store = PostgresStore(postgres.dsn(database, user))
        store.write("rotation", {"a": 1})
        assert store.read("rotation") == {"a": 1}


def test_who_may_not_make_the_tables_is_told(postgres, database, sql):
    with postgres.user_with_password(database) as user:
        sql(f"REVOKE CREATE ON DATABASE {database} FROM {user}")
        with pytest.raises(StoreWriteError, match="permission denied for database") as caught:
            PostgresStore(postgres.dsn(database, user))
        assert caught.value.errno == errno.EACCES
        sql("CREATE SCHEMA quorvane")
        with pytest.raises(StoreWriteError, match="permission denied for schema quorvane"):
            PostgresStore(postgres.dsn(database, user))


def test_who_may_only_read_reads(postgres, database, store, sql):
    store.write("rotation", {"a": 1})
    with postgres.user_with_password(database) as user:
        sql(f"GRANT USAGE ON SCHEMA quorvane TO {user}")
        reader_dsn = postgres.dsn(database, user)
        with pytest.raises(StoreWriteError, match="permission denied for table store"):
            PostgresStore(reader_dsn)
        sql(f"GRANT SELECT ON ALL TABLES IN SCHEMA quorvane TO {user}")
        reader = PostgresStore(reader_dsn)
        assert reader.read("rotation") == {"a": 1}
        with pytest.raises(StoreWriteError, match="permission denied for table records") as caught:
            reader.write("rotation", {"a": 2})
        assert caught.value.errno == errno.EACCES
        sql(f"REVOKE SELECT ON quorvane.records FROM {user}")
        with pytest.raises(StoreReadError, match="permission denied for table records"):
            reader.read("rotation")
    assert store.read("rotation") == {"a": 1}


def test_the_rights_of_the_documentation_are_enough_to_write(postgres, database, store, sql):
    with postgres.user_with_password(database) as user:
        sql(f"REVOKE CREATE ON DATABASE {database} FROM {user}")
        sql(f"GRANT USAGE ON SCHEMA quorvane TO {user}")
        sql(f"GRANT SELECT ON ALL TABLES IN SCHEMA quorvane TO {user}")
        sql(f"GRANT INSERT, UPDATE, DELETE ON quorvane.records, quorvane.heads TO {user}")
        writer = PostgresStore(postgres.dsn(database, user), keep=1)
        for number in range(3):
            writer.write("rotation", number)
        assert (writer.read("rotation"), numbers(store)) == (2, [3])


def test_rows_that_a_policy_hides_are_not_taken_for_none(postgres, database, store, sql):
    store.write("rotation", {"a": 1})
    with postgres.user_with_password(database) as user:
        sql(f"GRANT USAGE ON SCHEMA quorvane TO {user}")
        sql(f"GRANT SELECT ON ALL TABLES IN SCHEMA quorvane TO {user}")
        reader = PostgresStore(postgres.dsn(database, user))
        sql("ALTER TABLE quorvane.heads ENABLE ROW LEVEL SECURITY")
        with pytest.raises(StoreReadError, match="row-level security"):
            reader.read("rotation")


def test_a_database_that_is_not_there_is_said(postgres):
    with pytest.raises(StoreWriteError, match='database "nowhere" does not exist') as caught:
        PostgresStore(postgres.dsn("nowhere"))
    assert "\n" not in str(caught.value)


def test_a_server_that_is_not_there_is_said(tmp_path):
    with pytest.raises(StoreWriteError, match=r"cannot open PostgresStore.*No such file") as caught:
        PostgresStore(f"host={tmp_path} port=5999")
    assert "\n" not in str(caught.value)


WEAK = {
    "synchronous_commit": "off",
    "search_path": "public",
    "default_transaction_isolation": "serializable",
    "default_transaction_read_only": "on",
    "bytea_output": "escape",
}
STRONG = {"synchronous_commit": "remote_apply"}


@pytest.mark.parametrize(("settings", "kept"), [(WEAK, "on"), (STRONG, "remote_apply")])
def test_weak_settings_of_the_database_do_not_weaken_a_write(postgres, settings, kept):
    name = postgres.new_database()
    store = PostgresStore(postgres.dsn(name))
    for setting, value in settings.items():
        postgres.sql(f"ALTER DATABASE {name} SET {setting} = '{value}'")
    expected = {
        "synchronous_commit": kept,
        "search_path": '""',
        "transaction_isolation": "read committed",
    }
    with store._server.write_transaction("look") as connection:
        shown = {
            setting: connection.execute(f"SHOW {setting}").fetchone()[0] for setting in expected
        }
    assert shown == expected
    store.write("rotation", rotation_state(5))
    assert exactly_equal(store.read("rotation"), rotation_state(5))
    postgres.drop_database(name)


def test_functions_of_others_are_not_found(postgres, database, sql):
    with postgres.user_with_password(database) as user:
        sql("CREATE TABLE public.called (x int); GRANT ALL ON public.called TO PUBLIC")
        sql("CREATE FUNCTION public.octet_length(bytea) RETURNS int LANGUAGE sql AS "
            "'INSERT INTO public.called VALUES (1) RETURNING 1'")  # fmt: skip
        sql(f"ALTER ROLE {user} SET search_path = public, pg_catalog")
        store = PostgresStore(postgres.dsn(database, user))
        store.write("rotation", {"a": 1})
        assert store.read("rotation") == {"a": 1}
        assert [entry.version for entry in store.versions("rotation")] == [1]
        assert sql("SELECT * FROM public.called") == []
        sql("DROP FUNCTION public.octet_length(bytea); DROP TABLE public.called")


def test_a_database_of_another_encoding_is_refused(postgres):
    name = postgres.new_database("TEMPLATE template0 ENCODING 'LATIN1'")
    with pytest.raises(StoreFormatError, match="encoding LATIN1, a store needs UTF8"):
        PostgresStore(postgres.dsn(name))
    postgres.drop_database(name)


def test_a_database_without_encoding_keeps_names_of_any_language(postgres):
    name = postgres.new_database("TEMPLATE template0 ENCODING 'SQL_ASCII'")
    store = PostgresStore(postgres.dsn(name), "Größe")
    names = ["Zürich", "東京", "\N{ROCKET}"]
    for each in names:
        store.write(each, {"name": each})
    assert [store.read(each) for each in names] == [{"name": each} for each in names]
    assert store.names() == sorted(names)
    postgres.drop_database(name)


def test_names_are_sorted_and_told_apart_in_any_language_of_the_database(postgres):
    name = postgres.new_database(
        "TEMPLATE template0 LOCALE_PROVIDER icu ICU_LOCALE 'de-u-ks-level1' LOCALE 'C'"
    )
    store = PostgresStore(postgres.dsn(name))
    names = ["a", "B", "A", "ä", "Z", "z", "ae"]
    for each in names:
        store.write(each, {"name": each})
    assert store.names() == sorted(names)
    postgres.drop_database(name)


def test_a_name_may_be_long_and_one_that_is_too_long_is_refused(store):
    generator = random.Random(1)
    name = "".join(chr(generator.randrange(33, 127)) for _ in range(2500))
    store.write(name, {"a": 1})
    assert store.read(name) == {"a": 1}
    for longer in (name + "x", name[:2499] + "ä"):
        with pytest.raises(ValueError, match=r"make a key of 2,501 bytes, allowed are 2,500"):
            store.write(longer, {"a": 1})
        assert store.read(longer) is None
    assert store.names() == [name]


def test_a_record_larger_than_the_server_keeps_is_said(store, monkeypatch):
    store.write("rotation", {"a": 1})
    monkeypatch.setattr(records_module, "_LARGEST_RECORD", 10_000)
    with pytest.raises(StoreWriteError, match=r"too big with 20,\d+ bytes") as caught:
        store.write("rotation", {"a": b"x" * 20_000})
    assert caught.value.errno == errno.EFBIG
    assert store.read("rotation") == {"a": 1}


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


# ---- damage


def assert_damaged(store, name="rotation"):
    with pytest.warns(DamagedRecordWarning):
        assert isinstance(store.read(name), DamagedRecord)
    with pytest.raises((RecordDamagedError, StoreFormatError)):
        store.load(name)


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
