"""How a PostgresStore finds its server, and that no password is shown on the way."""

import copy
import errno
import logging
import os
import pickle
import subprocess
import sys
import traceback
from pathlib import Path

import pytest

import quorvane
from quorvane.stores import PostgresStore, StoreWriteError
from support.postgres import PASSWORD

pytest.importorskip("psycopg")

from quorvane.stores._postgres_address import PostgresAddress

pytestmark = pytest.mark.plain_python

# A part of the password that stands in none of its encodings otherwise than in clear.
PART = "pass-w"
SHOWN = {
    "postgresql://me:pass-w@db:5433/states": "postgresql://me@db:5433/states",
    "postgres://db/states": "postgresql://db/states",
    "host=db user=me password=pass-w dbname=states": "postgresql://me@db/states",
    "host=db password='pass-w of \\'mine\\'' user=me": "postgresql://me@db/",
    "postgresql://me@/states?host=/run/pg&password=pass-w": (
        "postgresql://me@/states?host=/run/pg"
    ),
    "host=/run/pg port=5433": "postgresql:///?host=/run/pg&port=5433",
    "postgresql://a:1,b:2/states": "postgresql:///states?host=a,b&port=1,2",
    "postgresql://[::1]:5433/states": "postgresql://[::1]:5433/states",
    "postgresql://me%40home:pass-w%40x@db/a%20b": "postgresql://me%40home@db/a%20b",
    "hostaddr=127.0.0.1 dbname=states": "postgresql:///states?hostaddr=127.0.0.1",
    "service=mine sslpassword=pass-w": "postgresql:///?service=mine",
    "host=db options='-c geqo=off' sslmode=require": "postgresql://db/",
}


@pytest.fixture(autouse=True)
def _no_environment(monkeypatch):
    for name in list(os.environ):
        if name.startswith("PG"):
            monkeypatch.delenv(name)


@pytest.mark.parametrize(("dsn", "shown"), SHOWN.items())
def test_what_is_shown_leads_to_the_same_place_and_holds_no_password(dsn, shown):
    address = PostgresAddress(dsn)
    assert (str(address), repr(address)) == (shown, f"PostgresAddress({shown!r})")
    names = ("host", "hostaddr", "port", "dbname", "user", "service")
    again = PostgresAddress(shown)
    assert [address._given.get(name) or None for name in names] == [
        again._given.get(name) or None for name in names
    ]
    assert PART not in shown


UNREADABLE = {
    "nothing": ("", "it is empty"),
    "blanks": ("  ", "it is empty"),
    "a name alone": ("pass-w", "libpq cannot read it"),
    "a path": ("/tmp/pass-w", "libpq cannot read it"),
    "another scheme": ("mysql://me:pass-w@db/states", "libpq cannot read it"),
    "a blank in an unquoted password": ("host=db password=my pass-w", "libpq cannot read it"),
    "a percent sign": ("postgresql://me:pass-w%zz@db/states", "libpq cannot read it"),
    "an @": ("postgresql://me:my@pass-w@db/states", "an '@' or a '/'"),
    "a slash": ("postgresql://me:my/pass-w@db/states", "an '@' or a '/'"),
    "a slash and a question mark": ("postgresql://me:my?/pass-w@db/states", "an '@' or a '/'"),
    "a question mark after a slash": ("postgresql://me:1/my?pass-w@db/x", "libpq cannot read it"),
    "a port that is text": ("postgresql://me@db:pass-w/states", "its port is no number"),
    "a NUL": ("host=db password=pass-w\0", "it holds a NUL"),
    "a surrogate": ("host=db password=pass-w\ud800", "libpq cannot read it"),
    "a misspelt word": ("host=db pasword=pass-w", "did you mean 'password'"),
    "another misspelt word": ("postgresql://db/x?sslmod=pass-w", "did you mean 'sslmode'"),
}


@pytest.mark.parametrize(("dsn", "text"), UNREADABLE.values(), ids=UNREADABLE)
def test_a_text_that_cannot_be_read_is_refused_without_a_part_of_it(dsn, text):
    with pytest.raises(ValueError, match=f"dsn must name .*{text}.*; allowed is") as caught:
        PostgresStore(dsn)
    assert "\n" not in str(caught.value)
    assert PART not in "".join(everything_said_by(caught.value))
    assert PART not in repr(pickle.dumps(caught.value))


@pytest.mark.parametrize("dsn", [None, 5, b"host=db", Path("states.db")])
def test_a_dsn_is_text(dsn):
    with pytest.raises(TypeError, match="dsn must be a str, got"):
        PostgresStore(dsn)


def everything_said_by(error):
    """All errors of the chain as a traceback shows them, and what they hold."""
    seen = []
    while error is not None and error not in seen:
        seen.append(error)
        yield from traceback.format_exception_only(error)
        yield repr(vars(error))
        error = error.__cause__ or error.__context__


def frames_of(error):
    """The variables of all frames in the package and in psycopg that the chain keeps alive."""
    seen = []
    while error is not None and error not in seen:
        seen.append(error)
        for frame, _ in traceback.walk_tb(error.__traceback__):
            if Path(frame.f_code.co_filename).is_relative_to(Path(__file__).parent):
                continue
            yield repr(frame.f_locals)
        error = error.__cause__ or error.__context__


@pytest.fixture
def user(postgres, database):
    with postgres.user_with_password(database) as name:
        yield name


def forms_of(postgres, database, user, password):
    """The same login as a URL and as key=value text."""
    escaped = password.replace("\\", "\\\\").replace("'", "\\'")
    return {
        "url": postgres.url(database, user, password),
        "key=value": f"host=127.0.0.1 port={postgres.port} user={user} dbname={database} "
        f"password='{escaped}'",
    }


@pytest.fixture(params=["url", "key=value"])
def form(request):
    return request.param


def test_a_password_of_odd_characters_logs_in(postgres, database, user, form):
    store = PostgresStore(forms_of(postgres, database, user, PASSWORD)[form])
    store.write("rotation", {"a": 1})
    assert store.read("rotation") == {"a": 1}
    assert repr(store) == (
        f"PostgresStore('postgresql://{user}@127.0.0.1:{postgres.port}/{database}', namespace='')"
    )


def test_a_wrong_password_is_one_clear_line_without_it(postgres, database, user, form, caplog):
    wrong = PASSWORD + "no"
    dsn = forms_of(postgres, database, user, wrong)[form]
    with (
        caplog.at_level(logging.DEBUG),
        pytest.raises(StoreWriteError, match="password authentication failed") as caught,
    ):
        PostgresStore(dsn)
    error = caught.value
    assert "\n" not in str(error)
    assert str(error).count("cannot open PostgresStore('postgresql://") == 1
    assert error.errno == errno.EACCES
    said = [*everything_said_by(error), *frames_of(error), repr(pickle.dumps(error)), caplog.text]
    assert PART not in "".join(said)


def test_a_password_that_has_changed_is_said_by_reads_and_writes(postgres, database, user, form):
    store = PostgresStore(forms_of(postgres, database, user, PASSWORD)[form])
    store.write("rotation", {"a": 1})
    postgres.sql(f"ALTER ROLE {user} PASSWORD 'other'")
    for act in (lambda: store.read("rotation"), lambda: store.write("rotation", {})):
        with pytest.raises(OSError, match="password authentication failed") as caught:
            act()
        assert PART not in "".join([*everything_said_by(caught.value), *frames_of(caught.value)])


def test_no_password_at_all_is_said(postgres, database, user):
    with pytest.raises(StoreWriteError, match="no password supplied") as caught:
        PostgresStore(f"postgresql://{user}@127.0.0.1:{postgres.port}/{database}")
    assert caught.value.errno == errno.EACCES


def test_a_pickled_store_has_no_password_and_asks_for_it(
    postgres, database, user, form, monkeypatch
):
    store = PostgresStore(forms_of(postgres, database, user, PASSWORD)[form], "n", 2)
    store.write("rotation", {"a": 1})
    pickled = pickle.dumps(store)
    assert PART not in repr(pickled)
    other = pickle.loads(pickled)
    assert repr(other) == repr(store)
    with pytest.raises(OSError, match=r"left out when the store was pickled.* PGPASSWORD"):
        other.read("rotation")
    again = pickle.loads(pickle.dumps(other))
    with pytest.raises(OSError, match="left out when the store was pickled"):
        again.read("rotation")
    monkeypatch.setenv("PGPASSWORD", PASSWORD)
    assert other.read("rotation") == {"a": 1}
    for _ in range(3):
        other.write("rotation", {"a": 2})
    assert len(store.versions("rotation")) == 2


def test_a_copied_store_keeps_its_password(postgres, database, user):
    store = PostgresStore(postgres.url(database, user, PASSWORD))
    store.write("rotation", {"a": 1})
    for copied in (copy.copy(store), copy.deepcopy({"store": store})["store"]):
        assert copied.read("rotation") == {"a": 1}


def test_a_store_without_a_password_works_as_a_pickle(postgres, database):
    store = PostgresStore(postgres.dsn(database), namespace="n")
    store.write("rotation", {"a": 1})
    assert pickle.loads(pickle.dumps(store)).read("rotation") == {"a": 1}


def test_what_the_environment_said_when_it_was_opened_holds(postgres, database, monkeypatch):
    monkeypatch.setenv("PGHOST", postgres.folder)
    monkeypatch.setenv("PGPORT", str(postgres.port))
    monkeypatch.setenv("PGUSER", postgres.user)
    store = PostgresStore(f"dbname={database}")
    for name in ("PGHOST", "PGUSER", "PGDATABASE"):
        monkeypatch.setenv(name, "elsewhere")
    monkeypatch.delenv("PGPORT")
    store.write("rotation", {"a": 1})
    assert PostgresStore(postgres.dsn(database)).read("rotation") == {"a": 1}
    assert postgres.folder in repr(store)


def test_a_service_comes_before_the_other_variables(postgres, database, tmp_path, monkeypatch):
    file = tmp_path / "services"
    file.write_text(
        f"[mine]\nhost={postgres.folder}\nport={postgres.port}\nuser={postgres.user}\n"
        f"dbname={database}\n"
    )
    monkeypatch.setenv("PGSERVICEFILE", str(file))
    monkeypatch.setenv("PGSERVICE", "mine")
    monkeypatch.setenv("PGUSER", "elsewhere")
    store = PostgresStore("application_name=tests")
    monkeypatch.setenv("PGSERVICE", "another")
    store.write("rotation", {"a": 1})
    assert repr(store) == "PostgresStore('postgresql:///?service=mine', namespace='')"


def test_without_psycopg_the_store_says_what_to_install():
    code = (
        "import sys; sys.modules['psycopg'] = None\n"
        "import quorvane as qv\n"
        "from quorvane.stores import StoreDependencyError\n"
        "try:\n"
        "    qv.PostgresStore('postgresql://me:secret@db/states')\n"
        "except StoreDependencyError as error:\n"
        "    print(error)\n"
    )
    place = str(Path(quorvane.__file__).absolute().parents[1])
    ended = subprocess.run(
        [sys.executable, "-c", code], env={"PYTHONPATH": place}, capture_output=True, text=True
    )
    assert (ended.returncode, ended.stderr) == (0, "")
    assert ended.stdout.startswith("a PostgresStore needs the package psycopg")
    assert ended.stdout.endswith("pip install 'quorvane[postgres]'\n")
