"""The store in a PostgreSQL database: its tables, its settings, and who may do what."""

import errno
import random

import pytest

from quorvane.stores import PostgresStore, StoreFormatError, StoreReadError, StoreWriteError
from quorvane.stores import _postgres_records as records_module
from stores.postgres.databases import numbers
from stores.support.samples import exactly_equal, rotation_state

pytest.importorskip("psycopg")
pytestmark = pytest.mark.plain_python


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
