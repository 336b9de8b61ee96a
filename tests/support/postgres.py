"""A real PostgreSQL server for the tests of one process, and what is done to it."""

import contextlib
import importlib.util
import itertools
import os
import shutil
from pathlib import Path
from urllib.parse import quote

import pytest

from support.server_process import TESTS, ServerProcess

# Where the tests find the server of a folder, in this process or in one of its own.
ADDRESS_FILE = "dsn"
PASSWORD = "pass-w'rd \\ of/the:tests@%"


def find_programs():
    """The folder with the server's programs, None where there is none."""
    on_path = shutil.which("initdb")
    if on_path is not None:
        return Path(on_path).resolve().parent
    # Debian has them beside each other by version, and not on the path.
    installed = Path("/usr/lib/postgresql").glob("[0-9]*/bin/initdb")
    newest = max(installed, key=lambda path: int(path.parts[-3]), default=None)
    return None if newest is None else newest.parent


class PostgresServer(ServerProcess):
    """A server that ends, and whose folder goes, when this process does or leaves the block."""

    def __init__(self, programs):
        keeper = str(TESTS / "support" / "postgres_keeper.py")
        super().__init__(keeper, str(programs), env={**os.environ, "LC_ALL": "C"})
        self._numbers = itertools.count()
        self._cleared = None

    def __enter__(self):
        super().__enter__()
        self.start()
        return self

    def start(self):
        """Start the server, for the first time or after it was killed."""
        place = self.ask("start")
        self.folder, self.port, self.user = place["folder"], place["port"], place["user"]

    def kill(self):
        """Kill the server with all its processes."""
        self.ask("kill")

    def restart(self):
        """Kill the server and start it again."""
        self.kill()
        self.start()

    def dsn(self, database="postgres", user=None):
        """How to log in without a password."""
        return f"host={self.folder} port={self.port} user={user or self.user} dbname={database}"

    def url(self, database, user, password, port=None):
        """How to log in with a password, through the port or another one."""
        login = f"{quote(user)}:{quote(password, safe='')}"
        return f"postgresql://{login}@127.0.0.1:{port or self.port}/{database}"

    def sql(self, statement, *values, database="postgres"):
        """Run a statement behind the store's back; its rows, if it has any."""
        import psycopg

        with psycopg.connect(self.dsn(database), autocommit=True) as connection:
            cursor = connection.execute(statement, values or None)
            return [] if cursor.description is None else cursor.fetchall()

    def new_database(self, options=""):
        """Make an empty database and return its name."""
        name = f"d{next(self._numbers)}"
        self.sql(f"CREATE DATABASE {name} {options}")
        return name

    def cleared_database(self):
        """The name of one database that is the same each time, without what was made in it."""
        if self._cleared is None:
            self._cleared = self.new_database()
        self.sql(
            "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
            "WHERE datname = %s AND pid <> pg_backend_pid()",
            self._cleared,
        )
        self.sql("DROP SCHEMA IF EXISTS quorvane CASCADE", database=self._cleared)
        return self._cleared

    def drop_database(self, name):
        """Drop a database, whoever is connected to it."""
        self.sql(f"DROP DATABASE {name} WITH (FORCE)")

    @contextlib.contextmanager
    def user_with_password(self, database):
        """A user who may make a store in a database, and must say `PASSWORD` at the port."""
        from psycopg import sql

        name = f"u{next(self._numbers)}"
        password = sql.Literal(PASSWORD)
        self.sql(sql.SQL("CREATE ROLE {} LOGIN PASSWORD {}").format(sql.Identifier(name), password))
        self.sql(f"GRANT CREATE ON DATABASE {database} TO {name}")
        yield name
        self.sql(f"DROP OWNED BY {name} CASCADE", database=database)
        self.sql(f"DROP ROLE {name}")

    @contextlib.contextmanager
    def small_tablespace(self):
        """A tablespace of two megabytes, whose disk can really be full; None without the rights."""
        folder = self.ask("mount_small_disk")
        if folder is None:
            yield None
            return
        self.sql(f"CREATE TABLESPACE small LOCATION '{folder}'")
        yield "small"
        self.sql("DROP TABLESPACE small")
        self.ask("unmount_small_disk")


@pytest.fixture(scope="session")
def postgres():
    """A server, started when the first test of this process asks for it."""
    programs = find_programs()
    if programs is None:
        pytest.skip("no PostgreSQL server is installed here (Debian: apt install postgresql)")
    if importlib.util.find_spec("psycopg") is None:
        pytest.skip("psycopg is not installed here")
    with PostgresServer(programs) as server:
        yield server


def leave_address(folder, dsn):
    """Say in a folder which database is the one of the tests that use it."""
    (Path(folder) / ADDRESS_FILE).write_text(dsn)


def address_in(folder):
    """The database of the tests that use a folder."""
    return (Path(folder) / ADDRESS_FILE).read_text()
