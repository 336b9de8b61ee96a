"""Where a PostgreSQL server is and how to log in, without ever showing the passwords."""

from __future__ import annotations

import math
import os
import re
from typing import TYPE_CHECKING, Any
from urllib.parse import quote

from quorvane.hints import did_you_mean
from quorvane.stores.errors import StoreDependencyError

if TYPE_CHECKING:
    import psycopg

# What is never shown, and does not travel with a pickle.
_SECRETS = frozenset(
    {"password", "sslpassword", "oauth_client_secret", "scram_client_key", "scram_server_key"}
)
# What libpq takes from the environment where the text says nothing.
_FROM_ENVIRONMENT = {
    "host": "PGHOST",
    "hostaddr": "PGHOSTADDR",
    "port": "PGPORT",
    "dbname": "PGDATABASE",
    "user": "PGUSER",
}
# A machine that has gone without a word is noticed after about a minute, not after hours.
_DEFAULTS = {
    "keepalives_idle": "30",
    "keepalives_interval": "10",
    "keepalives_count": "3",
    "tcp_user_timeout": "60000",
    "fallback_application_name": "quorvane",
}
# libpq takes 1 for 2.
_SHORTEST_CONNECT_SECONDS = 2
_ALLOWED = (
    "'postgresql://user@host:5432/database' or 'host=... dbname=... user=...'; in the first every "
    "special character of a password is percent-encoded, in the second it stands in single quotes"
)


def import_psycopg() -> Any:
    """Return the module psycopg, imported when a server is first used.

    Raises
    ------
    StoreDependencyError
        It is not installed, or cannot find libpq; the message says what to install.
    """
    try:
        import psycopg
    except ImportError as error:
        raise StoreDependencyError(
            "a PostgresStore needs the package psycopg, which cannot be imported "
            f"({' '.join(str(error).split())}): pip install 'quorvane[postgres]'"
        ) from error
    return psycopg


class PostgresAddress:
    """A server, a database on it, and how to log in.

    What is shown of it is a URL without any password. A pickle has no password either: where it
    is unpickled, libpq looks for one in ``PGPASSWORD`` and in the password file, as it always does.

    Parameters
    ----------
    dsn : str
        A URL or ``key=value`` text, as libpq takes them. Host, port, database and user that it
        does not say are those of the environment at this moment.

    Raises
    ------
    TypeError
        `dsn` is no str.
    ValueError
        libpq cannot read it, or it was not meant as libpq would read it. Nothing of it is quoted,
        as libpq may take any part of a password for something else.
    StoreDependencyError
        psycopg is not installed.
    """

    def __init__(self, dsn: str) -> None:
        if not isinstance(dsn, str):
            raise TypeError(f"dsn must be a str, got {type(dsn).__name__}")
        self._given = _parsed(str.__str__(dsn))
        self._without_secrets = False
        _add_environment(self._given)
        ports = self._given.get("port", "").split(",")
        if not all(port == "" or (port.isascii() and port.isdigit()) for port in ports):
            raise _refusal("its port is no number")

    def __str__(self) -> str:
        shown = {name: self._given.get(name, "") for name in (*_FROM_ENVIRONMENT, "service")}
        user = quote(shown.pop("user"), safe="")
        database = quote(shown.pop("dbname"), safe="")
        host, port = shown["host"], shown["port"]
        place = ""
        # A list of hosts and a folder with a socket do not stand well before the first slash.
        if host and not re.search("[,/]", host + port):
            name = f"[{host}]" if ":" in host else quote(host, safe="")
            place = name + (f":{port}" if port else "")
            del shown["host"], shown["port"]
        more = "&".join(f"{name}={quote(text, safe='/,:')}" for name, text in shown.items() if text)
        return (
            f"postgresql://{user}{'@' if user else ''}{place}/{database}{'?' if more else ''}{more}"
        )

    def __repr__(self) -> str:
        return f"PostgresAddress({str(self)!r})"

    def __getstate__(self) -> dict[str, Any]:
        kept = {name: text for name, text in self._given.items() if name not in _SECRETS}
        is_less = self._without_secrets or len(kept) < len(self._given)
        return {"_given": kept, "_without_secrets": is_less}

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)

    @property
    def without_secrets(self) -> bool:
        """Whether this came from a pickle and once had a password."""
        return self._without_secrets

    def open(self, seconds: float) -> psycopg.Connection[Any]:
        """Connect, in at most so many seconds unless the address says how many.

        Raises
        ------
        psycopg.Error
            The server cannot be reached, or refuses.
        """
        connection: psycopg.Connection[Any] = import_psycopg().connect(
            **self._parameters(seconds), autocommit=True, prepare_threshold=None
        )
        return connection

    def _parameters(self, seconds: float) -> dict[str, str]:
        patience = str(max(math.ceil(seconds), _SHORTEST_CONNECT_SECONDS))
        # Names are text of any language, whatever the server or the address would rather have.
        return {
            **_DEFAULTS,
            "connect_timeout": patience,
            **self._given,
            "client_encoding": "utf8",
        }


def _parsed(dsn: str) -> dict[str, str]:
    psycopg = import_psycopg()
    if not dsn.strip():
        raise _refusal("it is empty")
    if "\0" in dsn:
        # libpq would take it for the end.
        raise _refusal("it holds a NUL")
    if dsn.startswith(("postgresql://", "postgres://")):
        _refuse_odd_url(dsn)
    try:
        parsed = psycopg.conninfo.conninfo_to_dict(dsn)
        return {name: str(value) for name, value in parsed.items()}
    except (psycopg.Error, UnicodeError) as error:
        named = re.search(r'"(\w+)"$', str(error).strip())
        known = [option.keyword.decode() for option in psycopg.pq.Conninfo.get_defaults()]
        hint = did_you_mean(named[1], known) if named else ""
    # Not inside the block: libpq's own error may quote a password, and would come with this one.
    raise _refusal(f"libpq cannot read it{'; ' + hint if hint else ''}")


def _refuse_odd_url(dsn: str) -> None:
    """Refuse a URL of whose password libpq would take a part for a host, a port or a database."""
    place, _, path = dsn.partition("://")[2].partition("/")
    in_place, in_path = place.count("@"), path.partition("?")[0].count("@")
    if in_place > 1 or (in_place == 0 and ":" in place and in_path > 0):
        raise _refusal("its user or password holds an '@' or a '/' that is not percent-encoded")


def _add_environment(given: dict[str, str]) -> None:
    """Add what libpq would take from the environment later, whatever that is then."""
    service = given.get("service") or os.environ.get("PGSERVICE")
    if service:
        # What a service's file says comes before the other variables, so they must not be added.
        given["service"] = service
        return
    for name, variable in _FROM_ENVIRONMENT.items():
        if name not in given and os.environ.get(variable):
            given[name] = os.environ[variable]


def _refusal(fault: str) -> ValueError:
    return ValueError(f"dsn must name a PostgreSQL server, and {fault}; allowed is {_ALLOWED}")
