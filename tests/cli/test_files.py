"""Outputs are whole or not there, and paths that cannot work are refused early."""

import os
import stat
from contextlib import contextmanager
from pathlib import Path

import pytest

from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.files import WholeOutputs, check_readable, check_writable, ending_of

pytestmark = pytest.mark.plain_python

not_as_root = pytest.mark.skipif(
    not hasattr(os, "geteuid") or os.geteuid() == 0, reason="root may read and write anything"
)


@contextmanager
def whole_output(path, what):
    """Make one output, which takes its place at the end."""
    with WholeOutputs() as outputs:
        with outputs.making(path, what) as part:
            yield part
        outputs.take_places()


def test_a_finished_output_takes_the_place_of_the_old_one(tmp_path):
    path = tmp_path / "out.csv"
    path.write_text("old")
    with whole_output(path, "the table") as part:
        assert part.parent.parent == tmp_path
        assert part.name == "out.csv"
        part.write_text("new")
        assert path.read_text() == "old"
    assert path.read_text() == "new"
    assert os.listdir(tmp_path) == ["out.csv"]


def test_nobody_else_can_reach_what_is_being_written(tmp_path):
    with whole_output(tmp_path / "out.csv", "the table") as part:
        assert stat.S_IMODE(part.parent.stat().st_mode) == 0o700
        part.write_text("new")


def test_a_name_as_long_as_names_may_be_is_written(tmp_path):
    path = tmp_path / ("x" * 251 + ".csv")
    with whole_output(path, "the table") as part:
        part.write_text("new")
    assert path.read_text() == "new"
    assert os.listdir(tmp_path) == [path.name]


@pytest.fixture
def umask():
    """Let new files be read by their owner and group alone."""
    before = os.umask(0o027)
    yield
    os.umask(before)


@pytest.mark.parametrize("permissions", [0o600, 0o644, 0o444])
def test_an_output_keeps_the_permissions_of_the_file_it_replaces(tmp_path, umask, permissions):
    path = tmp_path / "out.csv"
    path.write_text("old")
    path.chmod(permissions)
    with whole_output(path, "the table") as part:
        part.write_text("new")
    assert path.read_text() == "new"
    assert stat.S_IMODE(path.stat().st_mode) == permissions


def test_a_new_output_has_the_permissions_of_any_new_file(tmp_path, umask):
    with whole_output(tmp_path / "out.csv", "the table") as part:
        part.write_text("new")
    assert stat.S_IMODE((tmp_path / "out.csv").stat().st_mode) == 0o640


@pytest.mark.parametrize("target", ["there", "not there"])
def test_a_link_is_replaced_and_what_it_leads_to_is_left_alone(tmp_path, target):
    (tmp_path / "there").write_text("old")
    path = tmp_path / "out.csv"
    path.symlink_to(target)
    check_writable(path, "the table")
    with whole_output(path, "the table") as part:
        part.write_text("new")
    assert not path.is_symlink()
    assert path.read_text() == "new"
    assert (tmp_path / "there").read_text() == "old"


@pytest.fixture
def flushes(monkeypatch):
    """What is flushed, and what the folders of it hold at that moment."""
    seen, flush = [], os.fsync

    def flush_noted(descriptor):
        place = Path(os.readlink(f"/proc/self/fd/{descriptor}"))
        seen.append((place.name, sorted(os.listdir(place)) if place.is_dir() else None))
        flush(descriptor)

    monkeypatch.setattr(os, "fsync", flush_noted)
    return seen


def test_files_are_flushed_before_they_take_their_places_and_folders_after(tmp_path, flushes):
    folders = [tmp_path / "one", tmp_path / "two"]
    for folder in folders:
        folder.mkdir()
    with WholeOutputs() as outputs:
        for folder in folders:
            with outputs.making(folder / "out.csv", "the table") as part:
                part.write_text("new")
        assert flushes == [("out.csv", None)] * 2
        outputs.take_places()
    after = [(name, files) for name, files in flushes[2:] if "out.csv" in files]
    assert sorted(name for name, _ in after) == ["one", "two"]


def test_a_folder_that_cannot_be_flushed_is_said(tmp_path, monkeypatch):
    def fail(folder):
        raise OSError(5, "Input/output error")

    monkeypatch.setattr("quorvane.cli.files.flush_folder", fail)
    with (
        pytest.raises(DataError, match=r"out\.csv: cannot write the table: Input/output error"),
        whole_output(tmp_path / "out.csv", "the table") as part,
    ):
        part.write_text("new")
    assert os.listdir(tmp_path) == ["out.csv"]


def test_a_folder_that_may_not_be_read_is_flushed_with_everything_else(tmp_path, monkeypatch):
    synced, open_file = [], os.open

    def open_no_folder(path, *arguments, **keywords):
        if os.fspath(path) == os.fspath(tmp_path):
            raise PermissionError(13, "Permission denied")
        return open_file(path, *arguments, **keywords)

    with monkeypatch.context() as patched, whole_output(tmp_path / "out.csv", "the table") as part:
        part.write_text("new")
        patched.setattr(os, "open", open_no_folder)
        patched.setattr(os, "sync", lambda: synced.append(os.listdir(tmp_path)))
    assert len(synced) == 1
    assert "out.csv" in synced[0]


def test_the_first_output_takes_its_place_last(tmp_path, monkeypatch):
    replace, placed = Path.replace, []

    def replace_noted(part, path):
        placed.append(path.name)
        return replace(part, path)

    monkeypatch.setattr(Path, "replace", replace_noted)
    with WholeOutputs() as outputs:
        for name in ("table.csv", "trace.npz"):
            with outputs.making(tmp_path / name, name) as part:
                part.write_text("new")
        assert placed == []
        outputs.take_places()
    assert placed == ["trace.npz", "table.csv"]
    assert sorted(os.listdir(tmp_path)) == ["table.csv", "trace.npz"]


@pytest.mark.parametrize("error", [ValueError, KeyboardInterrupt, MemoryError])
def test_a_failed_output_leaves_the_old_one_and_nothing_else(tmp_path, error):
    path = tmp_path / "out.csv"
    path.write_text("old")

    def fail_half_way():
        with whole_output(path, "the table") as part:
            part.write_text("half")
            raise error

    with pytest.raises(error):
        fail_half_way()
    assert path.read_text() == "old"
    assert os.listdir(tmp_path) == ["out.csv"]


def test_a_failure_of_the_disk_names_the_file(tmp_path):
    path = tmp_path / "out.csv"
    with (
        pytest.raises(DataError, match=r"out\.csv: cannot write the table: No space left"),
        whole_output(path, "the table"),
    ):
        raise OSError(28, "No space left on device")


@pytest.mark.parametrize(
    ("name", "ending"), [("a.csv", ".csv"), ("a.CSV", ".csv"), ("a.b.csv.gz", ".csv.gz")]
)
def test_the_ending_is_found_in_any_case(name, ending):
    assert ending_of(Path(name), (".csv", ".csv.gz"), "a table") == ending


@pytest.mark.parametrize("name", ["a.xlsx", "a", ".csv", "a.csv.bz2"])
def test_another_ending_is_refused(name):
    with pytest.raises(UsageError) as raised:
        ending_of(Path(name), (".csv", ".csv.gz", ".npy"), "a table")
    assert str(raised.value) == (
        f"{name}: unsupported ending for a table, expected .csv, .csv.gz or .npy"
    )


def test_a_file_that_is_not_there_or_is_a_folder_is_refused(tmp_path):
    with pytest.raises(DataError, match=r"none\.csv: no such file, expected a table"):
        check_readable(tmp_path / "none.csv", "a table")
    with pytest.raises(DataError, match="is a folder, expected a table"):
        check_readable(tmp_path, "a table")


def test_a_place_without_a_folder_is_refused(tmp_path):
    with pytest.raises(DataError, match=r"cannot write the table: there is no folder .*none"):
        check_writable(tmp_path / "none" / "out.csv", "the table")
    with pytest.raises(DataError, match="cannot write the table: it is a folder"):
        check_writable(tmp_path, "the table")


def test_what_is_no_file_is_not_replaced(tmp_path):
    os.mkfifo(tmp_path / "pipe.csv")
    (tmp_path / "null.csv").symlink_to(os.devnull)
    for name in ("pipe.csv", "null.csv"):
        with pytest.raises(DataError, match="cannot write the table: it is no regular file"):
            check_writable(tmp_path / name, "the table")


@pytest.fixture
def closed(tmp_path):
    """A folder that may not be entered, the superuser's rights put aside."""
    folder = tmp_path / "closed"
    folder.mkdir(mode=0)
    before = os.geteuid()
    if before == 0:
        os.seteuid(65534)
    yield folder
    if before == 0:
        os.seteuid(0)
    folder.chmod(0o700)


@pytest.mark.parametrize("place", ["out.csv", "folder/out.csv"])
def test_a_folder_that_may_not_be_entered_is_refused(closed, place):
    with pytest.raises(DataError, match=r"out\.csv: cannot write the table: Permission denied"):
        check_writable(closed / place, "the table")


def test_a_path_that_leads_nowhere_is_refused(tmp_path):
    (tmp_path / "loop.csv").symlink_to("loop.csv")
    for name, why in [("loop.csv", "Too many levels of symbolic"), ("x" * 300, "File name too")]:
        with pytest.raises(DataError, match=f"cannot write the table: {why}"):
            check_writable(tmp_path / name, "the table")


@not_as_root
def test_permissions_are_named(tmp_path):
    secret = tmp_path / "secret.csv"
    secret.write_text("Date,A\n")
    secret.chmod(0)
    with pytest.raises(DataError, match="cannot read a table: Permission denied"):
        check_readable(secret, "a table")
    closed = tmp_path / "closed"
    closed.mkdir(mode=0o500)
    with pytest.raises(DataError, match=r"folder .*closed is not writable"):
        check_writable(closed / "out.csv", "the table")


@pytest.mark.parametrize("make", [os.mkfifo, lambda path: path.symlink_to("/dev/zero")])
def test_what_is_not_a_file_is_refused_without_waiting(tmp_path, make):
    path = tmp_path / "t.csv"
    make(path)
    with pytest.raises(DataError, match=r"t\.csv: is no regular file, expected a table"):
        check_readable(path, "a table")


def test_an_input_whose_path_leads_nowhere_is_refused(tmp_path):
    loop = tmp_path / "loop.csv"
    loop.symlink_to(loop)
    with pytest.raises(DataError, match="cannot read a table: Too many levels of symbolic links"):
        check_readable(loop, "a table")
    with pytest.raises(DataError, match="cannot read a table: File name too long"):
        check_readable(tmp_path / ("a" * 300 + ".csv"), "a table")


@not_as_root
def test_a_file_in_a_closed_folder_is_refused(tmp_path):
    closed = tmp_path / "closed"
    closed.mkdir(mode=0)
    with pytest.raises(DataError, match="cannot read a table: Permission denied"):
        check_readable(closed / "t.csv", "a table")
