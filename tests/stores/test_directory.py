"""The store with one file per record."""

import errno
import os
import threading
import time
import tracemalloc

import pytest

from quorvane.stores import (
    DamagedRecord,
    DamagedRecordWarning,
    DirectoryStore,
    RecordDamagedError,
    StoreError,
    StoreFormatError,
    StoreReadError,
    StoreWriteError,
)
from stores.support.samples import exactly_equal, rotation_state

pytestmark = pytest.mark.plain_python


@pytest.fixture
def place(tmp_path):
    return DirectoryStore(tmp_path / "records")


def files(tmp_path):
    return sorted(os.listdir(tmp_path / "records"))


def test_a_record_is_one_file_with_a_readable_name(place, tmp_path):
    place.write("virtualization_base", {})
    DirectoryStore(tmp_path / "records", namespace="book 1").write("Base", {})
    assert files(tmp_path) == ["book%201@%42ase.qvstate", "virtualization_base.qvstate"]


@pytest.mark.parametrize("name", ["../../out", "/etc/out", "..", ".", "a/../../b", "\\..\\x", "~"])
def test_no_name_leaves_the_folder(place, tmp_path, name):
    place.write(name, {"name": name})
    assert len(files(tmp_path)) == 1
    assert os.listdir(tmp_path) == ["records"]
    assert place.read(name) == {"name": name}


def test_a_name_too_long_for_a_file_is_refused(place, tmp_path):
    place.write("x" * 200, {})
    with pytest.raises(ValueError, match="file name of 248 characters, allowed are 223"):
        place.write("é" * 40, {})
    assert len(files(tmp_path)) == 1


def test_other_files_in_the_folder_are_left_alone(place, tmp_path):
    strangers = ["notes.txt", "UPPER.qvstate", "%2.qvstate", ".hidden"]
    for stranger in strangers:
        (tmp_path / "records" / stranger).write_text("mine")
    place.write("a", {})
    assert place.names() == ["a"]
    assert files(tmp_path) == sorted([*strangers, "a.qvstate"])


def test_folders_on_the_way_are_made(tmp_path):
    DirectoryStore(tmp_path / "a" / "b" / "c").write("r", {})
    assert os.listdir(tmp_path / "a" / "b" / "c") == ["r.qvstate"]


def test_folders_on_the_way_are_flushed_into_those_above_them(tmp_path, monkeypatch):
    flushed, fsync = [], os.fsync

    def note_and_flush(descriptor):
        flushed.append(os.readlink(f"/proc/self/fd/{descriptor}"))
        fsync(descriptor)

    monkeypatch.setattr(os, "fsync", note_and_flush)
    DirectoryStore(tmp_path / "one" / "two" / "three")
    assert flushed == [str(tmp_path), str(tmp_path / "one"), str(tmp_path / "one" / "two")]
    flushed.clear()
    DirectoryStore(tmp_path / "one" / "two" / "three")
    assert flushed == []


def test_a_path_that_is_no_folder_is_refused(tmp_path):
    (tmp_path / "file").write_text("x")
    for path in (tmp_path / "file", tmp_path / "file" / "inside"):
        with pytest.raises(StoreFormatError, match="is not a folder"):
            DirectoryStore(path)


def test_a_folder_that_cannot_be_made_is_said():
    with pytest.raises(StoreWriteError, match="cannot make the folder '/proc/quorvane'"):
        DirectoryStore("/proc/quorvane")


def test_a_folder_that_went_away_is_said(place, tmp_path):
    (tmp_path / "records").rmdir()
    assert place.read("a") is None
    with pytest.raises(StoreWriteError, match=r"cannot write record 'a' of .*: No such file"):
        place.write("a", {})
    with pytest.raises(StoreReadError, match="cannot list"):
        place.names()


def test_a_record_that_cannot_be_read_is_not_taken_for_damage(place, tmp_path):
    (tmp_path / "records" / "a.qvstate").mkdir()
    for act in (place.read, place.load):
        with pytest.raises(StoreReadError, match="cannot read record 'a'") as caught:
            act("a")
        assert caught.value.errno == errno.EISDIR


def test_the_file_is_flushed_before_it_is_renamed_and_the_folder_after(place, monkeypatch):
    steps = []
    fsync, replace = os.fsync, os.replace

    def note_fsync(descriptor):
        path = os.readlink(f"/proc/self/fd/{descriptor}")
        steps.append("flush folder" if os.path.isdir(path) else "flush file")
        fsync(descriptor)

    def note_replace(source, target):
        steps.append("rename")
        replace(source, target)

    monkeypatch.setattr(os, "fsync", note_fsync)
    monkeypatch.setattr(os, "replace", note_replace)
    place.write("a", {})
    assert steps == ["flush file", "rename", "flush folder"]


@pytest.mark.parametrize("step", ["open", "write", "fsync", "close", "replace"])
@pytest.mark.parametrize("number", [errno.ENOSPC, errno.EDQUOT, errno.EIO, errno.EROFS])
def test_a_step_that_fails_leaves_the_old_record_and_no_litter(
    place, tmp_path, monkeypatch, step, number
):
    place.write("a", rotation_state(3))
    before = files(tmp_path)
    original = getattr(os, step)

    def fail(*arguments):
        if step == "close":
            original(*arguments)
        raise OSError(number, os.strerror(number))

    with monkeypatch.context() as patched:
        patched.setattr(os, step, fail)
        with pytest.raises(StoreWriteError, match=os.strerror(number)) as caught:
            place.write("a", {"new": 1})
    assert caught.value.errno == number
    assert isinstance(caught.value, StoreError)
    assert isinstance(caught.value, OSError)
    assert files(tmp_path) == before
    assert exactly_equal(place.read("a"), rotation_state(3))


def test_a_write_in_pieces_is_put_together(place, monkeypatch):
    write = os.write
    monkeypatch.setattr(os, "write", lambda descriptor, data: write(descriptor, data[:100]))
    place.write("a", rotation_state(30))
    assert exactly_equal(place.read("a"), rotation_state(30))


def test_a_folder_that_has_nothing_to_flush_is_accepted(place, monkeypatch):
    fsync = os.fsync

    def refuse_folders(descriptor):
        if os.path.isdir(os.readlink(f"/proc/self/fd/{descriptor}")):
            raise OSError(errno.EINVAL, "Invalid argument")
        fsync(descriptor)

    monkeypatch.setattr(os, "fsync", refuse_folders)
    place.write("a", {"b": 1})
    assert place.read("a") == {"b": 1}


def test_a_record_replaced_while_it_is_opened_is_read_again(place, monkeypatch):
    place.write("a", {"b": 1})
    failures = [OSError(errno.ESTALE, "Stale file handle") for _ in range(2)]
    fstat = os.fstat

    def lose_the_file(descriptor):
        if failures:
            raise failures.pop()
        return fstat(descriptor)

    # The test's own tidying up looks at files as well.
    with monkeypatch.context() as patched:
        patched.setattr(os, "fstat", lose_the_file)
        assert place.read("a") == {"b": 1}
        failures += [OSError(errno.ESTALE, "Stale file handle") for _ in range(99)]
        with pytest.raises(StoreReadError, match="Stale file handle"):
            place.read("a")


def test_only_old_temporary_files_of_the_record_are_removed(place, tmp_path):
    old, young, other = (".a.qvstate.1.tmp", ".a.qvstate.2.tmp", ".b.qvstate.1.tmp")
    for name in (old, young, other):
        (tmp_path / "records" / name).write_text("left by a killed writer")
    long_ago = time.time() - 7200
    for name in (old, other):
        os.utime(tmp_path / "records" / name, (long_ago, long_ago))
    place.write("a", {})
    assert files(tmp_path) == sorted([young, other, "a.qvstate"])
    assert place.names() == ["a"]


def test_every_byte_of_a_record_is_guarded(place, tmp_path):
    place.write("a", {"slot_by_key": {("x", "y"): 0}, "limit": 3})
    file = tmp_path / "records" / "a.qvstate"
    intact = file.read_bytes()
    for position in range(len(intact)):
        changed = bytearray(intact)
        changed[position] ^= 1 << position % 8
        for damaged in (bytes(changed), intact[:position]):
            file.write_bytes(damaged)
            with pytest.warns(DamagedRecordWarning):
                assert isinstance(place.read("a"), DamagedRecord)


def test_a_record_under_another_name_is_noticed(place, tmp_path):
    place.write("a", {})
    folder = tmp_path / "records"
    os.rename(folder / "a.qvstate", folder / "b.qvstate")
    with pytest.raises(RecordDamagedError, match="belongs to another name"):
        place.load("b")


def test_a_file_larger_than_any_record_is_not_read_into_memory(place, tmp_path):
    place.write("a", {})
    with open(tmp_path / "records" / "a.qvstate", "r+b") as file:
        file.seek(16)
        file.write((2**33).to_bytes(8, "little"))
        file.truncate(64 + 2**33)
    with pytest.raises(
        RecordDamagedError, match=r"claims 8589934592 bytes, allowed are 4294967295"
    ):
        place.load("a")


@pytest.mark.parametrize("first", [b"", b"\x8dQVS\r\n\x1a\n"])
def test_a_large_file_that_is_no_record_is_not_read_into_memory(place, tmp_path, first):
    with open(tmp_path / "records" / "a.qvstate", "wb") as file:
        file.write(first)
        file.truncate(500_000_000)
    tracemalloc.start()
    try:
        with pytest.raises(RecordDamagedError, match=r"it begins with|which claims 0"):
            place.load("a")
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < 1_000_000


def test_a_pipe_in_place_of_a_record_is_not_waited_for(place, tmp_path):
    os.mkfifo(tmp_path / "records" / "a.qvstate")
    # Whoever waits for the pipe is released by this, and then finds no error.
    releasing = threading.Timer(5.0, os.open, (tmp_path / "records" / "a.qvstate", os.O_RDWR))
    releasing.start()
    try:
        with pytest.raises(RecordDamagedError, match="no regular file"):
            place.load("a")
        assert releasing.is_alive()
    finally:
        releasing.cancel()


def test_a_device_in_place_of_a_record_is_not_read(place, tmp_path):
    (tmp_path / "records" / "a.qvstate").symlink_to("/dev/null")
    with pytest.raises(RecordDamagedError, match="no regular file"):
        place.load("a")
