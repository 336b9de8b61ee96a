"""Full disks and places that cannot be written to: a clear error, the old record intact."""

import contextlib
import errno
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

from quorvane.stores import StoreWriteError
from stores.support.samples import durable_store, exactly_equal, numbered_state

pytestmark = pytest.mark.plain_python

# A file may grow to this: far enough for a small state, not for a large one.
LIMIT = 200_000
LARGE = next(n for n in range(1000) if n * 7919 % 37_000 > 35_000)
SMALL = next(n for n in range(1, 1000) if n * 7919 % 37_000 < 2_000)


def test_a_file_that_may_not_grow_is_an_error_that_leaves_the_record(kind_of_file, tmp_path, tasks):
    store = durable_store(kind_of_file, tmp_path)
    store.write("rotation", numbered_state(SMALL))
    answer = tasks.result(
        "write_with_file_limit",
        tmp_path,
        kind=kind_of_file,
        folder=str(tmp_path),
        limit=LIMIT,
        number=LARGE,
    )
    assert answer["error"] == "StoreWriteError"
    assert "cannot write record 'rotation'" in answer["message"]
    assert answer["number"] in (errno.EFBIG, errno.ENOSPC, errno.EIO)
    assert exactly_equal(store.read("rotation"), numbered_state(SMALL))
    store.write("rotation", numbered_state(LARGE))
    assert exactly_equal(store.read("rotation"), numbered_state(LARGE))


@pytest.fixture
def small_disk(tmp_path):
    """A file system of one megabyte."""
    place = tmp_path / "disk"
    place.mkdir()
    mounting = ["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(place)]
    if shutil.which("mount") is None or subprocess.run(mounting, capture_output=True).returncode:
        pytest.skip("mounting a small file system needs the rights of the superuser")
    yield place
    subprocess.run(["umount", str(place)], check=True)


def fill_disk(path):
    with contextlib.suppress(OSError), open(path, "wb", buffering=0) as file:
        while file.write(bytes(4096)):
            pass
    free = os.statvfs(path.parent)
    assert free.f_bavail == 0


def test_a_full_disk_is_an_error_that_leaves_the_record(kind_of_file, small_disk):
    store = durable_store(kind_of_file, small_disk)
    store.write("rotation", numbered_state(SMALL))
    filler = small_disk / "filler"
    fill_disk(filler)
    with pytest.raises(StoreWriteError, match="cannot write record 'rotation'"):
        store.write("rotation", numbered_state(LARGE))
    # Even reading needs a little room with SQLite, for the table of its log.
    os.truncate(filler, 600_000)
    assert exactly_equal(store.read("rotation"), numbered_state(SMALL))
    filler.unlink()
    store.write("rotation", numbered_state(LARGE))
    assert exactly_equal(store.read("rotation"), numbered_state(LARGE))


def test_a_transaction_that_fills_the_disk_leaves_all_records(small_disk):
    store = durable_store("sqlite", small_disk)
    for name in ("a", "b"):
        store.write(name, numbered_state(SMALL))

    def write_until_full():
        with store.transaction() as records:
            records.write("a", numbered_state(SMALL + 1))
            for _ in range(1000):
                records.write("b", numbered_state(LARGE))

    with pytest.raises(StoreWriteError) as caught:
        write_until_full()
    assert caught.value.errno == errno.ENOSPC
    for name in ("a", "b"):
        assert exactly_equal(store.read(name), numbered_state(SMALL))
        assert [entry.version for entry in store.versions(name)] == [1]


def test_a_transaction_whose_write_filled_the_disk_cannot_go_on(small_disk):
    store = durable_store("sqlite", small_disk)
    store.write("a", numbered_state(SMALL))

    def write_until_full(records):
        for number in range(1000):
            records.write(f"b {number}", numbered_state(LARGE))

    def go_on_when_full():
        with store.transaction() as records:
            records.write("a", numbered_state(SMALL + 1))
            with pytest.raises(StoreWriteError, match="cannot write record 'b "):
                write_until_full(records)
            with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
                records.write("c", {})

    with pytest.raises(StoreWriteError, match="an earlier write of the transaction failed"):
        go_on_when_full()
    assert store.names() == ["a"]
    assert exactly_equal(store.read("a"), numbered_state(SMALL))


def test_writing_until_the_disk_is_full_keeps_the_last_state(kind_of_file, small_disk):
    store = durable_store(kind_of_file, small_disk)
    written = 0

    def write_on():
        nonlocal written
        for number in range(1, 1000):
            store.write(f"rotation {number}", numbered_state(number))
            written = number

    with pytest.raises(StoreWriteError) as caught:
        write_on()
    assert caught.value.errno == errno.ENOSPC
    assert written >= 1
    for number in range(1, written + 1):
        assert exactly_equal(store.read(f"rotation {number}"), numbered_state(number))
    assert store.read(f"rotation {written + 1}") is None


@pytest.fixture
def open_folder():
    """A folder that users without rights can reach, unlike those that pytest makes."""
    folder = Path(tempfile.mkdtemp())
    folder.chmod(0o755)
    yield folder
    folder.chmod(0o755)
    shutil.rmtree(folder)


@pytest.mark.parametrize("exists", [False, True], ids=["new store", "old store"])
def test_an_unwritable_folder_is_an_error_that_leaves_the_record(
    kind_of_file, open_folder, tmp_path, tasks, exists
):
    if exists:
        durable_store(kind_of_file, open_folder).write("rotation", numbered_state(SMALL))
    for path in (open_folder, *open_folder.rglob("*")):
        path.chmod(0o555 if path.is_dir() else 0o444)
    answer = tasks.result(
        "write_as_nobody",
        tmp_path,
        kind=kind_of_file,
        folder=str(open_folder),
        number=LARGE,
    )
    assert answer["error"] == "StoreWriteError"
    assert answer["number"] in (errno.EACCES, errno.EROFS)
    assert str(open_folder) in answer["message"]
    for path in (open_folder, *open_folder.rglob("*")):
        path.chmod(0o755 if path.is_dir() else 0o644)
    stored = durable_store(kind_of_file, open_folder).read("rotation")
    assert exactly_equal(stored, numbered_state(SMALL)) if exists else stored is None


def test_a_folder_that_may_not_be_entered_is_an_error(kind_of_file, open_folder, tmp_path, tasks):
    closed = open_folder / "closed"
    closed.mkdir()
    closed.chmod(0)
    answer = tasks.result(
        "write_as_nobody", tmp_path, kind=kind_of_file, folder=str(closed), number=SMALL
    )
    closed.chmod(0o755)
    assert answer["error"] == "StoreWriteError"
    assert answer["number"] == errno.EACCES
    assert str(closed) in answer["message"]
    assert list(closed.iterdir()) == []
