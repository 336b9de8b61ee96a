"""What the processes of the tests do."""

import contextlib
import os
import resource
import signal
import tempfile
from itertools import count

from quorvane.stores import RecordNotFoundError, StoreError, StoreWriteError, pack
from stores.support.samples import durable_store, numbered_state

NOBODY = 65534


def warm_up():
    """Use the stores that are files once, and load what the other one needs."""
    with contextlib.suppress(ImportError):
        import psycopg  # noqa: F401
    with tempfile.TemporaryDirectory() as folder:
        for kind in ("directory", "sqlite"):
            store = durable_store(kind, folder)
            store.write("rotation", numbered_state(1))
            store.read("rotation")


def write_until_killed(kind, folder, acknowledged, first):
    """Write states first, first + 1, ..., noting the number of each once it is acknowledged."""
    store = durable_store(kind, folder)
    notes = os.open(acknowledged, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    for number in count(first):
        store.write("rotation", numbered_state(number))
        os.write(notes, number.to_bytes(8, "little"))


def write_many(kind, folder, first, last, **options):
    """Write states first to last, all under one name."""
    store = durable_store(kind, folder, **options)
    for number in range(first, last + 1):
        store.write("rotation", numbered_state(number))


def write_noted(kind, folder, acknowledged, first, last, **options):
    """Write states first to last under one name, noting each once it is acknowledged."""
    store = durable_store(kind, folder, **options)
    notes = os.open(acknowledged, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    for number in range(first, last + 1):
        store.write("rotation", numbered_state(number))
        os.write(notes, b"x")


def count_together(kind, folder, acknowledged, times):
    """Add one to both of two records in one transaction, again and again, noting each time."""
    store = durable_store(kind, folder)
    notes = os.open(acknowledged, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    padding = pack(numbered_state(times))
    for _ in range(times):
        with store.transaction() as records:
            number = _number(records, "left") + 1
            records.write("left", number)
            records.write("padding", padding)
            records.write("right", number)
        os.write(notes, b"x")


def die_in_a_transaction(kind, folder):
    """Write in a transaction and be killed before its end."""
    with durable_store(kind, folder).transaction() as records:
        records.write("left", 2)
        records.write("right", numbered_state(500))
        os.kill(os.getpid(), signal.SIGKILL)


def fork_in_a_transaction(kind, folder):
    """Fork in a block, which the child leaves first; what it met, and what was there after it."""
    store, child = durable_store(kind, folder), None
    try:
        with store.transaction() as records:
            records.write("left", 2)
            child = os.fork()
            if child != 0:
                _, status = os.waitpid(child, 0)
                return os.waitstatus_to_exitcode(status), store.names()
    except StoreWriteError as error:
        os._exit(3 if child == 0 and "the process it began in" in str(error) else 4)
    finally:
        if child == 0:
            os._exit(0)


def _number(records, name):
    try:
        return records.load(name)
    except RecordNotFoundError:
        return 0


def write_with_file_limit(kind, folder, limit, number):
    """Write one state while no file may grow beyond `limit` bytes, and say how that went."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (limit, resource.RLIM_INFINITY))
    answer = _attempt(lambda: durable_store(kind, folder).write("rotation", numbered_state(number)))
    resource.setrlimit(resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    return answer


def write_as_nobody(kind, folder, number):
    """Write one state without the rights of the superuser, and say how that went."""
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)
    return _attempt(lambda: durable_store(kind, folder).write("rotation", numbered_state(number)))


def _attempt(action):
    try:
        action()
    except StoreError as error:
        return {"error": type(error).__name__, "message": str(error), "number": error.errno}
    return None


def write_until_it_fails(kind, folder, acknowledged, first):
    """Write states first, first + 1, ..., noting each, until one fails; say how it did."""
    notes = os.open(acknowledged, os.O_WRONLY | os.O_CREAT | os.O_APPEND)

    def write_on():
        store = durable_store(kind, folder, busy_timeout=1.0)
        for number in count(first):
            store.write("rotation", numbered_state(number))
            os.write(notes, number.to_bytes(8, "little"))

    return _attempt(write_on)
