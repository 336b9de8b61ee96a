"""Long tables give what the table of days gives."""

import numpy as np
import pytest

from quorvane.cli.errors import DataError
from quorvane.cli.table_io import read_table

ROWS = [
    ("2020-01-03", "KO", 1.0),
    ("2020-01-02", "PEP", 2.0),
    ("2020-01-02", "KO", np.nan),
    ("2020-01-06", "PEP", 4.0),
]
DAYS = [[np.nan, 2.0], [1.0, np.nan], [np.nan, 4.0]]


def as_csv(rows, header="date,instrument,value"):
    cells = [(d, i, "" if v != v else repr(v)) for d, i, v in rows]
    return "\n".join([header, *map(",".join, cells)]) + "\n"


@pytest.fixture(params=["csv", "parquet", "parquet with dates"])
def long(request, tmp_path, write):
    """Write rows as a long table and return its path."""

    def long(rows):
        if request.param == "csv":
            return write("long.csv", as_csv(rows))
        pa = pytest.importorskip("pyarrow")
        parquet = pytest.importorskip("pyarrow.parquet")
        date, instrument, value = map(list, zip(*rows, strict=True))
        dates = pa.array(date)
        if request.param == "parquet with dates":
            dates = pa.array(np.array(date, dtype="datetime64[s]"))
        columns = {
            "other": dates,
            "value": pa.array(value),
            "instrument": pa.array(instrument),
            "date": dates,
        }
        parquet.write_table(pa.table(columns), tmp_path / "long.parquet")
        return tmp_path / "long.parquet"

    return long


def test_a_long_table_is_days_by_instruments(long):
    table = read_table(long(ROWS))
    assert table.instruments == ("KO", "PEP")
    assert np.array_equal(table.values, DAYS, equal_nan=True)
    assert [text[:10] for text in table.dates.text] == ["2020-01-02", "2020-01-03", "2020-01-06"]
    (note,) = table.taken
    assert note.startswith("a long table, rows of date, instrument, value")
    assert note.endswith("(4 rows)")


def test_a_long_table_has_each_date_and_instrument_once(long):
    path = long([*ROWS, ("2020-01-02", "PEP", 2.0), ("2020-01-03", "KO", 2.0)])
    with pytest.raises(DataError) as raised:
        read_table(path)
    where = "line 6" if path.suffix == ".csv" else "row 5"
    assert str(raised.value).startswith(f"{path}, {where}: 'PEP' comes twice on '2020-01-02")


def test_columns_are_found_by_name_and_others_are_said_to_be_left_out(write):
    text = "Value;volume;DATE;Instrument\n1.5;7;20200102;KO\n"
    table = read_table(write("t.csv", text))
    assert (table.instruments, table.values.tolist()) == (("KO",), [[1.5]])
    assert table.dates.name == "DATE"
    assert table.taken == (
        "found ';' between columns",
        "a long table, rows of DATE, Instrument, Value; left out 'volume' (1 row)",
    )


@pytest.mark.parametrize(
    ("rows", "message"),
    [
        ("d1,KO,1\n", "line 2: expected a date such as 2000-01-31, got 'd1'"),
        ("2020-01-02,KO,1\n2020-01-03,,1\n", "line 3: no instrument, expected its name"),
        ("2020-01-02,KO,x\n", "line 2, column 'value': expected a number or an empty cell"),
        ("2020-01-02,KO\n", "line 2: 2 cells, expected 3 as in the header"),
        ("2020-01-02,KO,1\n20200102,PEP,1\n", "line 3: the date '20200102' is written "
         "'2020-01-02' elsewhere, expected one way of writing it"),
    ],
)  # fmt: skip
def test_a_fault_in_a_long_table_is_named_with_its_line(write, rows, message):
    path = write("t.csv", "date,instrument,value\n" + rows)
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value).startswith(f"{path}, {message}")


def test_a_table_that_is_nearly_long_is_told_what_it_lacks(write):
    path = write("t.csv", "date,ticker,value\n2020-01-02,KO,1\n")
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value) == (
        f"{path}, line 2, column 'ticker': expected a number or an empty cell, got 'KO'; "
        f"a long table has columns named date, instrument and value"
    )


def test_a_long_table_beyond_the_limits_is_refused_before_it_is_laid_out(long, monkeypatch):
    path = long(ROWS)
    monkeypatch.setattr("quorvane.cli.limits.MAX_CELLS", 5)
    with pytest.raises(DataError, match="3 days of 2 instruments are 6 cells, at most 5 are"):
        read_table(path)
    monkeypatch.setattr("quorvane.cli.limits.MAX_CELLS", 3)
    with pytest.raises(DataError):
        read_table(path)


def test_a_parquet_table_without_numbers_or_names_is_refused(tmp_path):
    pa = pytest.importorskip("pyarrow")
    parquet = pytest.importorskip("pyarrow.parquet")
    path = tmp_path / "t.parquet"
    usual = {"date": ["2020-01-02"], "instrument": ["KO"], "value": [1.0]}
    for name, column, message in [
        ("value", ["x"], "column 'value': expected numbers, got string"),
        ("instrument", pa.nulls(1, pa.string()), "row 1, column 'instrument': missing"),
        ("date", pa.nulls(1, pa.string()), "row 1, column 'date': missing"),
    ]:
        parquet.write_table(pa.table({**usual, name: column}), path)
        with pytest.raises(DataError, match=message):
            read_table(path)


def test_the_command_gives_what_the_table_of_days_gives(replay, prices, write, tmp_path):
    options = {"expression": "ewma(3);rank"}
    assert replay(**options).status == 0
    whole = (tmp_path / "output.csv").read_bytes()
    table = read_table(prices)
    rows = [
        (day, name, float(table.values[row, column]))
        for column, name in enumerate(table.instruments)
        for row, day in enumerate(table.dates.text)
    ]
    long = write("long.csv", as_csv(rows, header="Date,instrument,value"))
    outcome = replay(table=long, **options)
    assert outcome.status == 0, outcome.err
    assert "read as         a long table, rows of Date, instrument, value (28 rows)" in outcome.out
    assert (tmp_path / "output.csv").read_bytes() == whole
