"""How each kind of store recovers from an image, and what it may recover to."""

import numpy as np

from powercut import writers
from quorvane.stores import DirectoryStore, SqliteStore

NAMES = ("rotation", "other")
_LATER = 1000
_LEFT_IN_MEMORY = np.random.default_rng(5).bytes(32768)


def newest(writes):
    """The number of the newest state of each name after so many writes, 0 for none."""
    numbers = _numbers(writes)
    return tuple(max((0, *numbers[name])) for name in NAMES)


def is_acknowledged_or_in_flight(said, outcome):
    """Tell whether an outcome is the last acknowledged state or the one that is being written."""
    return outcome in (newest(said), newest(said + 1))


def recover_directory(folder):
    """Recover both names, then write again; return the numbers of the recovered states."""
    # The folder itself is made by the store, and may be missing.
    store = DirectoryStore(folder / "deep" / "records")
    found = tuple(_number(store.read(name)) for name in NAMES)
    _require_going_on(store)
    return found


def recover_sqlite(folder):
    """The same; the older versions must be there as well."""
    # What stands in the file for shared memory after a crash is anything at all.
    (folder / "states.db-shm").write_bytes(_LEFT_IN_MEMORY)
    store = SqliteStore(folder / "states.db", keep=writers.KEEP)
    found = tuple(_number(store.read(name)) for name in NAMES)
    for name in NAMES:
        versions = [entry.version for entry in store.versions(name)]
        older = [_number(store.load(name, version)) for version in versions[1:]]
        assert older == _numbers(max(found))[name][-2 : -writers.KEEP - 1 : -1], older
    _require_going_on(store)
    return found


def _numbers(writes):
    """The numbers of all states of each name, the oldest first."""
    return {
        name: [number for number in range(1, writes + 1) if writers.name_of(number) == name]
        for name in NAMES
    }


def _number(state):
    """The number of a state that is exactly as it was written, 0 for none."""
    if state is None:
        return 0
    expected = writers.state(state["number"], state["numbers"].size)
    assert state["numbers"].tobytes() == expected["numbers"].tobytes()
    return state["number"]


def _require_going_on(store):
    store.write("rotation", writers.state(_LATER, 10))
    assert _number(store.read("rotation")) == _LATER
