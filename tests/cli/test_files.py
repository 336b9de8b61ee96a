"""Outputs are whole or not there, and paths that cannot work are refused early."""

import os
from pathlib import Path

import pytest

from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.files import check_readable, check_writable, ending_of, whole_output

pytestmark = pytest.mark.plain_python

not_as_root = pytest.mark.skipif(
    not hasattr(os, "geteuid") or os.geteuid() == 0, reason="root may read and write anything"
)


def test_a_finished_output_takes_the_place_of_the_old_one(tmp_path):
    path = tmp_path / "out.csv"
    path.write_text("old")
    with whole_output(path, "the table") as part:
        assert part.parent == tmp_path
        assert part.name.endswith("out.csv")
        part.write_text("new")
        assert path.read_text() == "old"
    assert path.read_text() == "new"
    assert os.listdir(tmp_path) == ["out.csv"]


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
