"""The tables of a store in a PostgreSQL database: making them, and telling them from others."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from quorvane.stores.errors import StoreFormatError

if TYPE_CHECKING:
    import psycopg

FORMAT = 1

_COLUMNS = {
    "store": ["format integer"],
    "records": [
        "namespace text",
        "name text",
        "version bigint",
        "written_at double precision",
        "data bytea",
    ],
    "heads": ["namespace text", "name text", "version bigint", "seal bytea"],
}
# Every record has a row in heads that says which version is the newest. Its seal covers the
# version's own checksum, so losing or altering either row shows, whatever else is still there.
# Names are compared byte by byte, in whatever language the database sorts. What is packed already
# is not to be compressed again, and then its beginning can be read without the rest.
_SCHEMA = (
    "CREATE TABLE quorvane.store (format integer NOT NULL)",
    f"INSERT INTO quorvane.store VALUES ({FORMAT})",
    """CREATE TABLE quorvane.records (
        namespace text COLLATE "C" NOT NULL,
        name text COLLATE "C" NOT NULL,
        version bigint NOT NULL,
        written_at double precision NOT NULL,
        data bytea NOT NULL,
        PRIMARY KEY (namespace, name, version)
    )""",
    "ALTER TABLE quorvane.records ALTER COLUMN data SET STORAGE EXTERNAL",
    """CREATE TABLE quorvane.heads (
        namespace text COLLATE "C" NOT NULL,
        name text COLLATE "C" NOT NULL,
        version bigint NOT NULL,
        seal bytea NOT NULL,
        PRIMARY KEY (namespace, name)
    )""",
)
# What is in the schema. A table acts when it is a view, or has a rule, a trigger, a default, or a
# constraint or an index that calls a function; it forgets when it is unlogged; it holds other
# rows than its own when others inherit from it.
_LOOK = """
    SELECT
        relname,
        (SELECT array_agg(attname || ' ' || format_type(atttypid, atttypmod) ORDER BY attnum)
            FROM pg_attribute
            WHERE attrelid = pg_class.oid AND attnum > 0 AND NOT attisdropped),
        relkind = 'r' AND NOT EXISTS (SELECT FROM pg_rewrite WHERE ev_class = pg_class.oid),
        relpersistence = 'p'
            AND NOT EXISTS (SELECT FROM pg_inherits WHERE pg_class.oid IN (inhrelid, inhparent))
            AND NOT EXISTS (SELECT FROM pg_trigger WHERE tgrelid = pg_class.oid)
            AND NOT EXISTS (SELECT FROM pg_attrdef WHERE adrelid = pg_class.oid)
            AND NOT EXISTS (SELECT FROM pg_constraint
                WHERE conrelid = pg_class.oid AND contype NOT IN ('n', 'p', 'u'))
            AND NOT EXISTS (SELECT FROM pg_index
                WHERE indrelid = pg_class.oid AND (indexprs IS NOT NULL OR indpred IS NOT NULL))
    FROM pg_class
    WHERE relnamespace = (SELECT oid FROM pg_namespace WHERE nspname = 'quorvane')
        AND relkind NOT IN ('i', 'I')
"""


def are_missing(connection: psycopg.Connection[Any], place: str) -> bool:
    """Tell whether the tables are still to be made.

    Parameters
    ----------
    connection : psycopg.Connection
        The connection, inside a transaction.
    place : str
        How errors call the database.

    Raises
    ------
    StoreFormatError
        Something is there that is not a store, or is a newer one.
    """
    found = {name: seen for name, *seen in connection.execute(_LOOK)}
    if not found:
        return True
    columns, is_table, _ = found.get("store", ([], False, False))
    # A view would run whatever its owner likes.
    if not is_table or "format integer" not in columns:
        raise StoreFormatError(f"the schema quorvane of {place} holds other tables than a store's")
    formats = [number for (number,) in connection.execute("SELECT format FROM quorvane.store")]
    if len(formats) == 1 and formats[0] > FORMAT:
        raise StoreFormatError(
            f"{place} holds a store of format {formats[0]}, made by a newer version; "
            f"this one knows up to {FORMAT}"
        )
    is_own = all(found.get(name) == [own, True, True] for name, own in _COLUMNS.items())
    if formats != [FORMAT] or not is_own:
        raise StoreFormatError(
            f"the schema quorvane of {place} is marked as a store and holds other tables than a "
            "store's"
        )
    return False


def make(connection: psycopg.Connection[Any]) -> None:
    """Make the tables, and the schema unless somebody with more rights has made it before."""
    schema = "SELECT 1 FROM pg_namespace WHERE nspname = 'quorvane'"
    if connection.execute(schema).fetchone() is None:
        connection.execute("CREATE SCHEMA quorvane")
    for statement in _SCHEMA:
        connection.execute(statement)
