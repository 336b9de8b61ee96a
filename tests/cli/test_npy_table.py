"""Plain arrays as tables."""

import numpy as np
import pytest

from quorvane.cli.errors import DataError
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import read_table, write_table

pytestmark = pytest.mark.plain_python


@pytest.fixture
def path(tmp_path):
    return tmp_path / "t.npy"


@pytest.mark.parametrize("dtype", ["float64", "float32", ">f8", "int16", "uint8"])
def test_columns_are_named_by_number(path, dtype):
    np.save(path, np.array([[1, 2, 3], [4, 5, 6]], dtype=dtype))
    table = read_table(path)
    assert table.instruments == ("0", "1", "2")
    assert table.dates is None
    assert table.values.dtype == np.float64
    assert table.values.tolist() == [[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]]


def test_the_numbers_alone_are_written(path):
    values = np.array([[1.0, np.nan], [-0.0, 2.0]])
    write_table(path, Table(values, ("A", "B"), Dates("Date", ("d1", "d2"))))
    back = np.load(path)
    assert back.view(np.int64).tolist() == values.view(np.int64).tolist()


@pytest.mark.parametrize(
    ("array", "message"),
    [
        (np.ones(3), "expected an array of days by instruments, got shape (3,)"),
        (np.ones((2, 2, 2)), "expected an array of days by instruments, got shape (2, 2, 2)"),
        (np.array([["a", "b"]]), "expected an array of numbers, got dtype <U1"),
        (np.array([[True]]), "expected an array of numbers, got dtype bool"),
        (np.array([[1j]]), "expected an array of numbers, got dtype complex128"),
        (np.ones((0, 2)), "empty table, expected a row for each day"),
        (np.ones((2, 0)), "no instrument columns, expected one or more"),
    ],
)
def test_other_arrays_are_refused(path, array, message):
    np.save(path, array)
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value) == f"{path}: {message}"


def test_pickled_objects_are_never_loaded(path):
    np.save(path, np.array([[{}]]), allow_pickle=True)
    with pytest.raises(DataError, match=r"not a readable \.npy array of numbers"):
        read_table(path)


def test_other_files_are_refused(path, tmp_path):
    path.write_bytes(b"not an array")
    with pytest.raises(DataError, match=r"not a readable \.npy array of numbers"):
        read_table(path)
    np.savez(tmp_path / "archive.npz", a=np.ones(2))
    (tmp_path / "archive.npz").rename(path)
    with pytest.raises(DataError, match="it is an archive"):
        read_table(path)
    path.write_bytes(b"")
    with pytest.raises(DataError, match=r"not a readable \.npy array of numbers"):
        read_table(path)


def test_an_array_beyond_the_limits_is_refused(path, monkeypatch):
    np.save(path, np.ones((2, 2)))
    monkeypatch.setattr("quorvane.cli.limits.MAX_CELLS", 3)
    with pytest.raises(DataError, match="at most 3 are allowed"):
        read_table(path)
