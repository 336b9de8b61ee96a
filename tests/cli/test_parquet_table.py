"""Parquet tables: dates keep their type, and what does not hold numbers is refused."""

import datetime
import os

import numpy as np
import pytest

from quorvane.cli.errors import DataError
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import read_table, write_table

pyarrow = pytest.importorskip("pyarrow")
parquet = pytest.importorskip("pyarrow.parquet")

pytestmark = pytest.mark.plain_python

DAYS = [datetime.date(2020, 1, 2), datetime.date(2020, 1, 3)]


@pytest.fixture
def path(tmp_path):
    return tmp_path / "t.parquet"


def stored(path, **columns):
    parquet.write_table(pyarrow.table(columns), path)


def test_numbers_of_any_width_are_read_and_null_is_nan(path):
    stored(
        path,
        Date=DAYS,
        A=pyarrow.array([1, None], pyarrow.int64()),
        B=pyarrow.array([0.5, 2.0], pyarrow.float32()),
        C=pyarrow.nulls(2),
    )
    table = read_table(path)
    assert table.instruments == ("A", "B", "C")
    assert np.isnan(table.values).tolist() == [[False, False, True], [True, False, True]]
    assert table.values[0, :2].tolist() == [1.0, 0.5]


@pytest.mark.parametrize(
    "kind", [pyarrow.date32(), pyarrow.timestamp("us"), pyarrow.timestamp("ns", "UTC")]
)
def test_dates_keep_their_type_from_file_to_file(path, tmp_path, kind):
    days = pyarrow.array(DAYS).cast(pyarrow.timestamp("us")).cast(kind)
    stored(path, Date=days, A=[1.0, 2.0])
    table = read_table(path)
    write_table(tmp_path / "out.parquet", table)
    back = parquet.read_table(tmp_path / "out.parquet")
    assert back.schema.names == ["Date", "A"]
    assert back.schema.field("Date").type == kind
    assert back.column("Date").combine_chunks().equals(days)
    assert table.dates.text[0].startswith("2020-01-02")


def test_dates_from_text_are_written_as_text(path):
    write_table(path, Table(np.ones((1, 1)), ("A",), Dates("Date", ("3 Jan 2020",))))
    assert parquet.read_table(path).to_pydict() == {"Date": ["3 Jan 2020"], "A": [1.0]}


def test_a_first_column_that_holds_no_numbers_is_dates(path):
    stored(path, when=["a", "b"], A=[1.0, 2.0])
    assert read_table(path).dates == Dates("when", ("a", "b"), read_table(path).dates.arrow)


def test_a_table_of_numbers_alone_has_no_dates(path):
    stored(path, A=[1.0], B=[2.0])
    table = read_table(path)
    assert table.dates is None
    assert table.instruments == ("A", "B")


@pytest.mark.parametrize("name", ["Date", None])
def test_the_index_that_pandas_puts_last_is_the_dates(path, name):
    pandas = pytest.importorskip("pandas")
    index = pandas.DatetimeIndex(DAYS, name=name)
    pandas.DataFrame({"A": [1.0, 2.0]}, index=index).to_parquet(path)
    table = read_table(path)
    assert table.instruments == ("A",)
    assert table.dates.name == (name or "")
    assert [text[:10] for text in table.dates.text] == ["2020-01-02", "2020-01-03"]


def test_a_column_of_text_is_refused_by_name(path):
    stored(path, Date=DAYS, A=[1.0, 2.0], B=["x", "y"])
    with pytest.raises(DataError, match=r"t\.parquet, column 'B': expected numbers, got string"):
        read_table(path)


def test_names_that_stand_twice_are_refused(path):
    columns = [pyarrow.array([1.0]), pyarrow.array([2.0])]
    parquet.write_table(pyarrow.Table.from_arrays(columns, names=["A", "A"]), path)
    with pytest.raises(DataError, match="instrument 'A' names columns 1 and 2"):
        read_table(path)


def test_an_empty_table_is_refused(path):
    stored(path, Date=pyarrow.array([], pyarrow.date32()), A=pyarrow.array([], pyarrow.float64()))
    with pytest.raises(DataError, match=r"t\.parquet: empty table, expected a row for each day"):
        read_table(path)


def test_a_file_of_something_else_is_refused(path):
    path.write_bytes(b"PAR1 and then nothing of the kind")
    with pytest.raises(DataError, match=r"t\.parquet: not a readable Parquet file"):
        read_table(path)


def test_a_table_beyond_the_limits_is_refused_before_it_is_read(path, monkeypatch):
    stored(path, A=[1.0, 2.0], B=[1.0, 2.0])
    monkeypatch.setattr("quorvane.cli.limits.MAX_CELLS", 3)
    with pytest.raises(DataError, match="at most 3 are allowed"):
        read_table(path)


NOTES = {
    "a number": b'{"index_columns": 3}',
    "null": b'{"index_columns": null}',
    "true": b'{"index_columns": true}',
    "an object": b'{"index_columns": {"a": 1}}',
    "a text": b'{"index_columns": "A"}',
    "two columns": b'{"index_columns": ["A", "B"]}',
    "no column": b'{"index_columns": ["C"]}',
    "no text": b'{"index_columns": ["\\ud800"]}',
    "no object": b"3",
    "no JSON": b"\xff",
    "too deep": b"[" * 100_000,
}


@pytest.mark.parametrize("note", NOTES.values(), ids=NOTES)
def test_an_index_that_pandas_cannot_have_noted_is_left_aside(path, note):
    table = pyarrow.table({"A": [1.0], "B": [2.0]}).replace_schema_metadata({b"pandas": note})
    parquet.write_table(table, path)
    assert read_table(path).instruments == ("A", "B")
    assert read_table(path).dates is None


@pytest.mark.parametrize(
    ("dates", "message"),
    [
        (pyarrow.array([[1]]), "column 'Date': expected the days' dates, got list<"),
        (pyarrow.array([{"x": 1}]), "column 'Date': expected the days' dates, got struct<"),
        (pyarrow.array([b"\xff"]), "not a readable Parquet file: "),
        (
            pyarrow.array([1], pyarrow.timestamp("us", "Nowhere/Land")),
            "not a readable Parquet file",
        ),
    ],
)
def test_dates_without_a_text_are_refused(path, dates, message):
    stored(path, Date=dates, A=[1.0])
    with pytest.raises(DataError, match=message):
        read_table(path)


@pytest.mark.parametrize(
    "kind", [pyarrow.string(), pyarrow.large_string(), pyarrow.dictionary("int32", "string")]
)
def test_dates_of_text_keep_their_type_and_have_a_longest_length(path, tmp_path, kind):
    stored(path, Date=pyarrow.array(["d" * 1000, None, ""]).cast(kind), A=[1.0, 2.0, 3.0])
    table = read_table(path)
    assert table.dates.text == ("d" * 1000, "", "")
    write_table(tmp_path / "out.parquet", table)
    back = parquet.read_table(tmp_path / "out.parquet").column("Date")
    assert back.type == kind
    assert back.to_pylist() == ["d" * 1000, None, ""]
    stored(path, Date=pyarrow.array(["d", "d" * 1001]).cast(kind), A=[1.0, 2.0])
    with pytest.raises(DataError, match="a date of 1001 characters, at most 1000 are allowed"):
        read_table(path)


def test_a_name_has_a_longest_length(path):
    stored(path, **{"A" * 1001: [1.0]})
    with pytest.raises(DataError, match="a name of 1001 characters, at most 1000 are allowed"):
        read_table(path)


def test_too_many_dates_are_refused(path, monkeypatch):
    monkeypatch.setattr("quorvane.cli.limits.MAX_DATED_DAYS", 1)
    stored(path, Date=DAYS, A=[1.0, 2.0])
    with pytest.raises(DataError, match="2 days with dates, at most 1 are allowed"):
        read_table(path)


def test_a_file_name_need_not_be_text(tmp_path):
    path = tmp_path / os.fsdecode(b"t\xff.parquet")
    with path.open("wb") as stream:
        parquet.write_table(pyarrow.table({"A": [1.0]}), stream)
    assert read_table(path).values.tolist() == [[1.0]]


LARGE = {
    "dates": {
        "Date": pyarrow.array(["d" * 100_000]).take(pyarrow.nulls(200, "int32").fill_null(0))
    },
    "bytes": {"Date": pyarrow.array([b"d" * 50_000] * 200, pyarrow.binary(50_000))},
    "lists": {"A": pyarrow.array([[1.0] * 10_000]).take(pyarrow.nulls(200, "int32").fill_null(0))},
}


# pyarrow's threads may still use a pool when nobody here does.
POOLS = []


@pytest.mark.parametrize("columns", LARGE.values(), ids=LARGE)
def test_a_small_file_of_large_columns_is_refused_in_little_memory(path, columns):
    stored(path, **columns, Z=np.ones(200))
    pool, before = (
        pyarrow.proxy_memory_pool(pyarrow.default_memory_pool()),
        pyarrow.default_memory_pool(),
    )
    POOLS.append(pool)
    pyarrow.set_memory_pool(pool)
    try:
        with pytest.raises(DataError, match=r"at most 1000 are allowed|expected the days' dates"):
            read_table(path)
    finally:
        pyarrow.set_memory_pool(before)
    assert pool.max_memory() < 2_000_000


def test_memory_that_ran_out_is_not_the_file_s_fault(path, monkeypatch):
    stored(path, A=[1.0])

    def read(*_):
        raise pyarrow.lib.ArrowMemoryError("malloc of size 64 failed")

    monkeypatch.setattr(parquet.ParquetFile, "read", read)
    with pytest.raises(MemoryError):
        read_table(path)


def test_columns_of_damaged_names_are_refused(path):
    stored(path, Date=DAYS, AAAA=[1.0, 2.0])
    path.write_bytes(path.read_bytes().replace(b"AAAA", b"AA\xffA"))
    with pytest.raises(DataError, match=r"t\.parquet: not a readable Parquet file"):
        read_table(path)
