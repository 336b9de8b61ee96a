"""What all stores promise."""

import subprocess
import sys
import threading
from enum import StrEnum
from pathlib import Path

import numpy as np
import pytest

import quorvane
from quorvane import stores
from quorvane.stores import (
    DamagedRecord,
    DamagedRecordWarning,
    DirectoryStore,
    MemoryStore,
    RecordDamagedError,
    RecordNotFoundError,
    SqliteStore,
    StateEncodeError,
    StateVersionError,
)
from stores.support.samples import durable_store, exactly_equal, rotation_state


def test_what_was_written_is_read(store):
    state = rotation_state(30)
    assert store.write("rotation", state) is None
    assert exactly_equal(store.read("rotation"), state)
    assert exactly_equal(store.load("rotation"), state)


def test_nothing_stored_reads_as_none_and_does_not_load(store):
    assert store.read("rotation") is None
    with pytest.raises(RecordNotFoundError, match="holds no record named 'rotation'"):
        store.load("rotation")
    assert store.names() == []


def test_the_newest_state_is_read(store):
    for number in range(4):
        store.write("rotation", {"number": number})
        assert store.read("rotation") == {"number": number}


def test_names_do_not_meet(store):
    names = ["a", "A", "a.b", "a/b", "a%2fb", "../a", "..", ".", " ", "ä", "con", "a@b", "*?\n"]
    for name in names:
        store.write(name, {"name": name})
    assert [store.read(name) for name in names] == [{"name": name} for name in names]
    assert store.names() == sorted(names)


def test_a_record_does_not_follow_the_live_state(store):
    state = rotation_state(5)
    store.write("rotation", state)
    state["structure_metadata_by_slot"][0].clear()
    state["child_states"][0]["mean"][:] = 7.0
    assert exactly_equal(store.read("rotation"), rotation_state(5))


def test_what_was_read_is_independent_of_the_record(store):
    store.write("rotation", rotation_state(5))
    store.read("rotation")["slot_by_key"].clear()
    assert exactly_equal(store.read("rotation"), rotation_state(5))


def test_any_kept_value_can_be_stored(store):
    for value in (None, [], (1, 2), "text", np.arange(3.0)):
        store.write("value", value)
        assert exactly_equal(store.load("value"), value)


def test_a_refused_state_leaves_the_record(store):
    store.write("rotation", {"number": 1})
    with pytest.raises(StateEncodeError, match=r'state\["a"\]\[1\] is a'):
        store.write("rotation", {"a": [1, {2}]})
    assert store.read("rotation") == {"number": 1}


@pytest.mark.parametrize(
    ("name", "error"),
    [("", ValueError), ("a\0b", ValueError), ("\ud800", ValueError), (None, TypeError),
     (b"a", TypeError), (1, TypeError)],
)  # fmt: skip
def test_a_name_is_text(store, name, error):
    for act in (lambda: store.write(name, {}), lambda: store.read(name), lambda: store.load(name)):
        with pytest.raises(error, match="name must"):
            act()


class Name(StrEnum):
    BOOK = "book 1"


class Shown(str):
    """Text that shows itself as something else."""

    __slots__ = ()

    def __str__(self):
        return "other"

    def __format__(self, spec):
        return "other"


@pytest.mark.parametrize("name", [Name.BOOK, Shown("book 1"), np.str_("book 1")], ids=type)
def test_a_kind_of_text_names_the_same_as_plain_text(store, name):
    store.write(name, {"a": 1})
    assert store.read("book 1") == store.read(name) == {"a": 1}
    assert store.names() == ["book 1"]
    assert type(store.names()[0]) is str


@pytest.mark.parametrize("namespace", [Name.BOOK, Shown("book 1"), np.str_("book 1")], ids=type)
def test_a_kind_of_text_is_the_same_namespace_as_plain_text(durable_kind, tmp_path, namespace):
    durable_store(durable_kind, tmp_path, namespace=namespace).write("a", {"b": 1})
    assert durable_store(durable_kind, tmp_path, namespace="book 1").read("a") == {"b": 1}


def test_namespaces_keep_instances_apart(durable_kind, tmp_path):
    spaces = ["", "one", "One", "one@two", "a/b"]
    opened = [durable_store(durable_kind, tmp_path, namespace=space) for space in spaces]
    for space, place in zip(spaces, opened, strict=True):
        assert place.read("rotation") is None
        place.write("rotation", {"space": space})
        place.write(f"only {space}", {})
    for space, place in zip(spaces, opened, strict=True):
        assert place.read("rotation") == {"space": space}
        assert place.names() == sorted(["rotation", f"only {space}"])


@pytest.mark.parametrize("namespace", ["a\0b", "\ud800"])
def test_a_namespace_is_text(durable_kind, tmp_path, namespace):
    with pytest.raises(ValueError, match="namespace must hold no NUL"):
        durable_store(durable_kind, tmp_path, namespace=namespace)
    with pytest.raises(TypeError, match="namespace must be a str, got int"):
        durable_store(durable_kind, tmp_path, namespace=3)


def test_another_object_reads_what_one_wrote(durable_kind, tmp_path):
    durable_store(durable_kind, tmp_path).write("rotation", rotation_state(9))
    assert exactly_equal(durable_store(durable_kind, tmp_path).read("rotation"), rotation_state(9))


def test_threads_may_share_a_store(store):
    failures = []

    def work(thread):
        try:
            for number in range(15):
                store.write(f"rotation {thread}", {"number": number})
                assert store.read(f"rotation {thread}") == {"number": number}
        except BaseException as error:
            failures.append(error)

    threads = [threading.Thread(target=work, args=(thread,)) for thread in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_a_damaged_record_reads_as_an_object_that_is_no_dict(tmp_path):
    place = DirectoryStore(tmp_path)
    place.write("rotation", rotation_state(3))
    (file,) = tmp_path.iterdir()
    file.write_bytes(file.read_bytes()[:-1])
    with pytest.warns(DamagedRecordWarning, match="record 'rotation' of DirectoryStore") as caught:
        found = place.read("rotation")
    assert caught[0].filename == __file__
    assert isinstance(found, DamagedRecord)
    assert not isinstance(found, dict)
    assert (found.store, found.name) == (repr(place), "rotation")
    assert "is damaged: encoded state has" in found.fault
    with pytest.raises(RecordDamagedError, match="is damaged"):
        place.load("rotation")


def test_an_intact_record_of_a_newer_version_is_not_taken_for_damage(tmp_path, monkeypatch):
    # Going on without it would overwrite what the newer version can still read.
    place = MemoryStore()
    place.write("rotation", {"a": 1})
    from quorvane.stores.encoding import _envelope

    monkeypatch.setattr(_envelope, "FORMAT_VERSION", 2)
    place.write("rotation", {"a": 1})
    monkeypatch.undo()
    for act in (place.read, place.load):
        with pytest.raises(StateVersionError, match="format version 2"):
            act("rotation")


def test_the_shown_form_says_which_store_it_is(tmp_path):
    assert repr(MemoryStore()) == "MemoryStore()"
    folder, file = str(tmp_path / "d"), str(tmp_path / "f")
    assert (
        repr(DirectoryStore(folder, namespace="n")) == f"DirectoryStore({folder!r}, namespace='n')"
    )
    assert repr(SqliteStore(file)) == f"SqliteStore({file!r}, namespace='')"


def run_python(code):
    place = str(Path(quorvane.__file__).parents[1])
    return subprocess.run(
        [sys.executable, "-c", code], env={"PYTHONPATH": place}, capture_output=True, text=True
    )


def test_importing_the_package_needs_numpy_only():
    code = (
        "import sys, quorvane.stores as s; "
        "from quorvane.stores import MemoryStore, RecordDamagedError; m = MemoryStore(); "
        "assert not {'msgpack', 'sqlite3', 'psycopg'} & set(sys.modules); "
        "m.write('a', {}); assert 'msgpack' in sys.modules"
    )
    ended = run_python(code)
    assert (ended.returncode, ended.stderr) == (0, "")


def test_all_public_names_are_there():
    assert set(stores.__all__) <= set(dir(stores))
    for name in stores.__all__:
        assert getattr(stores, name).__module__.startswith("quorvane.stores")
    with pytest.raises(AttributeError, match="has no attribute 'Nothing'"):
        getattr(stores, "Nothing")  # noqa: B009


def test_too_little_memory_is_not_taken_for_damage(store, monkeypatch):
    store.write("rotation", rotation_state(3))

    def exhausted(*_):
        raise MemoryError

    monkeypatch.setattr("quorvane.stores.encoding._reader.arrays_from_parts", exhausted)
    with pytest.raises(MemoryError):
        store.read("rotation")
    monkeypatch.undo()
    assert exactly_equal(store.read("rotation"), rotation_state(3))


def test_too_little_stack_is_not_taken_for_damage(store):
    state = {"a": 1}
    for _ in range(30):
        state = {"k": (state,)}
    store.write("rotation", state)

    def read_below(frames):
        return read_below(frames - 1) if frames else store.read("rotation")

    outcomes = set()
    # In steps smaller than reading needs, so that some depth is too deep for it alone.
    for frames in range(0, sys.getrecursionlimit(), 50):
        try:
            assert exactly_equal(read_below(frames), state)
            outcomes.add("read")
        except RecursionError:
            outcomes.add("too deep")
    assert outcomes == {"read", "too deep"}


def test_a_store_stays_where_it_was_opened(durable_kind, tmp_path, new_place, monkeypatch):
    home, elsewhere = tmp_path / "home", tmp_path / "elsewhere"
    new_place(durable_kind, home)
    elsewhere.mkdir()
    monkeypatch.chdir(home)
    store = durable_store(durable_kind, "")
    store.write("rotation", {"number": 1})
    monkeypatch.chdir(elsewhere)
    store.write("rotation", {"number": 2})
    assert store.read("rotation") == {"number": 2}
    assert list(elsewhere.iterdir()) == []
    assert durable_store(durable_kind, home).read("rotation") == {"number": 2}
