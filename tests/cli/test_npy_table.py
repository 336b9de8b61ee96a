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


def forged(header, version=1):
    """A file with this text for a header."""
    data = header.encode("latin1")
    return b"\x93NUMPY" + bytes([version, 0]) + len(data).to_bytes(2, "little") + data


def described(shape, kind="'<f8'"):
    return f"{{'descr': {kind}, 'fortran_order': False, 'shape': {shape}}}\n"


@pytest.mark.parametrize(
    "data",
    [
        b"PK\x03\x04garbage",
        forged("'''"),
        forged("(1,\n"),
        forged("(" * 5000),
        forged("-" * 9000 + "1"),
        forged(described(f"({10**30}, 3)")),
        forged(described("(True, 3)")),
        forged(described(f"({2**32}, {2**32})")),
        forged(described(f"({2**32}, {2**32 + 1})")),
        forged(described("(1, 1)", "[('a',)]")),
        forged(described("(1, 1)"), version=9),
        forged("{'shape': (" + "9" * 5000 + ", 3), 'descr': '<f8', 'fortran_order': False}"),
    ],
    ids=lambda data: repr(data[-36:]),
)
def test_a_forged_header_is_refused_in_one_line(path, data):
    path.write_bytes(data)
    with pytest.raises(DataError, match=r"t\.npy: not a readable \.npy array of numbers") as raised:
        read_table(path)
    assert len(str(raised.value)) < 1000


def test_a_header_of_python_2_and_numbers_beyond_the_range_are_read_in_silence(path):
    path.write_bytes(forged(described("(1L, 1L)")) + np.float64(1.5).tobytes())
    assert read_table(path).values.tolist() == [[1.5]]
    np.save(path, np.array([[np.finfo(np.longdouble).max]], dtype=np.longdouble))
    assert read_table(path).values[0, 0] >= np.finfo(np.float64).max
