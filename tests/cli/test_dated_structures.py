"""Structures with dates compute what `qv.Baskets.from_long` computes of the same rows."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.errors import DataError
from quorvane.cli.structures import read_structures
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import read_table, write_table

NAMES = ("A", "B", "C", "D")
ROWS = [
    ("2020-01-10", "mix", "A", 0.5),
    ("2020-01-03", "A/B", "A", 1.0),
    ("2020-01-03", "A/B", "B", -1.0),
    ("2020-01-10", "A/B", "A", 1.0),
    ("2020-01-10", "A/B", "B", -2.0),
    ("2020-01-10", "mix", "D", 1.5),
    ("2020-01-20", "late", "C", 1.0),
    ("2020-01-20", "mix", "A", 0.5),
    ("2020-01-20", "none", "B", 0.0),
    ("2020-01-20", "mix", "D", np.nan),
]
EXPRESSION = "ewma(4);zscore"


def structures_text(rows, header="date,key,instrument,weight"):
    lines = [f"{d},{k},{i},{'' if w != w else w}" for d, k, i, w in rows]
    return "\n".join([header, *lines]) + "\n"


def prices(days=40):
    rng = np.random.default_rng(4)
    values = 100.0 * np.exp(rng.normal(0.0, 0.02, size=(40, 4)).cumsum(axis=0))
    values[rng.random(values.shape) < 0.1] = np.nan
    labels = np.datetime_as_string(np.datetime64("2020-01-01") + np.arange(40))
    return Table(values[:days], NAMES, Dates("Date", tuple(labels[:days])))


@pytest.fixture
def go(replay, tmp_path, write):
    """Replay the levels through the rows; the output as an array."""
    write_table(tmp_path / "prices.csv", prices())

    def go(*flags, rows=ROWS, **options):
        path = options.pop("structures", None) or write("dated.csv", structures_text(rows))
        usual = {"table": tmp_path / "prices.csv", "input": "levels", "expression": EXPRESSION}
        outcome = replay(*flags, structures=path, **{**usual, **options})
        assert outcome.status == 0, outcome.err
        return outcome, read_table(tmp_path / "output.csv").values

    return go


def expected(rows=ROWS, hold=0, **arguments):
    """The same by the layer, from a frame with the rows."""
    pd = pytest.importorskip("pandas")
    frame = pd.DataFrame(rows, columns=["date", "basket", "instrument", "weight"])
    baskets = qv.Baskets.from_long(frame, EXPRESSION, hold=hold, instruments=NAMES, **arguments)
    return baskets.run(prices().values, date=np.array(prices().dates.text, "datetime64[ns]"))


@pytest.mark.parametrize(("text", "hold"), [(None, 0), ("3", 3), ("forever", None)])
def test_dated_structures_are_dated_baskets(go, text, hold):
    _, output = go(hold=text)
    assert np.array_equal(output, expected(hold=hold), equal_nan=True)
    assert np.isnan(output[:2]).all()
    # Who has ended speaks no more, unless it is held.
    assert np.isfinite(output[25:, 1]).any() == (hold is None)


def test_a_date_may_say_only_what_changes(go):
    rows = [*ROWS, ("2020-01-28", "A/B", "A", 0.0), ("2020-01-28", "A/B", "B", np.nan)]
    _, output = go("--changes-only", rows=rows)
    assert np.array_equal(output, expected(rows, complete=False), equal_nan=True)


def test_the_order_of_rows_and_columns_and_how_dates_are_written_change_nothing(go, write):
    _, whole = go()
    header = "weight;Instrument;Day;basket"
    lines = [f"{w};{i};{d.replace('-', '')};{k}" for d, k, i, w in ROWS if k != "none"]
    _, output = go(structures=write("other.csv", "\n".join([header, *lines])))
    assert np.array_equal(output, whole, equal_nan=True)


@pytest.mark.parametrize("kind", ["text", "dates", "fixed"])
def test_structures_may_be_parquet(go, tmp_path, kind):
    pa = pytest.importorskip("pyarrow")
    parquet = pytest.importorskip("pyarrow.parquet")
    rows = ROWS if kind != "fixed" else sorted(row for row in ROWS if row[0] == "2020-01-10")
    date, key, instrument, weight = map(list, zip(*rows, strict=True))
    columns = {"key": key, "instrument": instrument, "weight": weight}
    if kind != "fixed":
        dates = np.array(date, "datetime64[D]") if kind == "dates" else date
        columns["date"] = pa.array(dates)
    parquet.write_table(pa.table(columns), tmp_path / "s.parquet")
    _, output = go(structures=tmp_path / "s.parquet")
    if kind == "fixed":
        header, fixed = "key,instrument,weight", [",".join(map(str, row[1:])) for row in rows]
        (tmp_path / "s.csv").write_text("\n".join([header, *fixed]))
        _, whole = go(structures=tmp_path / "s.csv")
    else:
        _, whole = go()
    assert np.array_equal(output, whole, equal_nan=True)


def test_the_summary_counts_dates(go):
    outcome, _ = go()
    assert "dated.csv: 3 structures, 8 legs of 3 dates, 2020-01-03 to 2020-01-20" in outcome.out
    assert "  hold            0 days\n" in outcome.out


@pytest.mark.parametrize(
    ("rows", "message"),
    [
        ("x,k,A,1", "line 2: expected a date such as 2000-01-31, got 'x'"),
        ("2020-02-30,k,A,1", "line 2: expected a date such as 2000-01-31, got '2020-02-30'"),
        ("2020-01-02,,A,1", "line 2: empty key, expected a structure's name"),
        ("2020-01-02,k,AA,1", "line 2: unknown instrument 'AA', expected one of the table's "
         "columns; did you mean 'A'?"),
        ("2020-01-02,k,A,x", "line 2, column 'weight': expected a number, got 'x'"),
        ("2020-01-02,k,A,inf", "line 2: weight of 'A' must be finite, got inf"),
        ("2020-01-02,k,A,1\n2020-01-03,k,A,1\n2020-01-02,k,A,2", "line 4: structure 'k' names "
         "instrument 'A' twice on one date"),
        ("2020-01-02,k,A,1\n2020-01-03T00:00Z,k,A,1", "line 3: dates with and without a time zone"),
    ],
)  # fmt: skip
def test_a_fault_is_named_with_its_line(write, rows, message):
    path = write("s.csv", f"date,key,instrument,weight\n{rows}\n")
    with pytest.raises(DataError) as raised:
        read_structures(path, NAMES)
    assert str(raised.value).startswith(f"{path}, {message}")


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("date,key,instrument,weight\n", "s.csv: no structures, expected one or more"),
        ("date,key,instrument,weight\n2020-01-02,k,A,0\n", "must hold at least one basket with a"),
        ("dat,key,instrument,weight\n2020-01-02,k,A,1\n", "line 1: expected the header "
         "key,instrument,weight, got 'dat,key,instrument,weight'; a column named date makes the "
         "structures dated"),
        ("date,day,key,instrument,weight\n", "line 1: expected the header"),
    ],
)  # fmt: skip
def test_a_file_without_what_it_needs_is_refused(write, text, message):
    with pytest.raises(DataError) as raised:
        read_structures(write("s.csv", text), NAMES)
    assert message in str(raised.value)


@pytest.mark.parametrize("limit", ["MAX_STRUCTURES", "MAX_LEGS"])
def test_a_file_beyond_the_limits_is_refused(write, monkeypatch, limit):
    monkeypatch.setattr(f"quorvane.cli.dated_structures.{limit}", 2)
    with pytest.raises(DataError, match=r"more than 2 (structures|legs)"):
        read_structures(write("s.csv", structures_text(ROWS)), NAMES)


@pytest.mark.parametrize(
    ("header", "message"),
    [
        ("Date,A,B,C,D\nd1,1,2,3,4\n", "the structures have dates, but the days of"),
        ("A,B,C,D\n1,2,3,4\n", "the structures have dates, but the days of"),
        ("Date,A,B,C,D\n2020-01-02T00:00Z,1,2,3,4\n", "know their time zone, those of the "
         "structures do not"),
    ],
)  # fmt: skip
def test_dated_structures_need_a_table_with_such_dates(replay, write, header, message):
    structures = write("dated.csv", structures_text(ROWS))
    outcome = replay(table=write("t.csv", header), structures=structures)
    assert (outcome.status, outcome.out) == (1, "")
    assert message in outcome.err


def test_changes_are_of_structures_with_dates(replay, structures):
    outcome = replay("--changes-only")
    assert (outcome.status, outcome.out) == (1, "")
    assert "--changes-only is for structures with dates, it has none" in outcome.err


@pytest.mark.parametrize("stop_after", [1, 9, 19, 39])
def test_stopped_and_resumed_gives_the_same_bytes(go, replay, tmp_path, stop_after):
    pytest.importorskip("msgpack")
    outputs = tmp_path / "output.csv", tmp_path / "t.npz"
    go(hold="2", trace=outputs[1])
    whole = [path.read_bytes() for path in outputs]
    options = {"hold": "2", "trace": outputs[1], "checkpoint": tmp_path / "c.db"}
    for path in outputs:
        path.unlink()
    usual = {
        "table": tmp_path / "prices.csv", "structures": tmp_path / "dated.csv",
        "input": "levels", "expression": EXPRESSION,
    }  # fmt: skip
    assert replay(stop_after=stop_after, **usual, **options).status == 0
    go("--resume", **options)
    assert [path.read_bytes() for path in outputs] == whole


def test_later_days_and_later_dates_may_be_added(go, tmp_path):
    pytest.importorskip("msgpack")
    options = {"checkpoint": tmp_path / "c.db", "max_structures": 3}
    _, whole = go()
    write_table(tmp_path / "prices.csv", prices(19))
    go(rows=[row for row in ROWS if row[0] < "2020-01-20"], **options)
    write_table(tmp_path / "prices.csv", prices())
    outcome, output = go("--resume", **options)
    assert "s for 21 days" in outcome.out
    assert np.array_equal(output, whole, equal_nan=True)


def test_dates_that_are_over_must_be_as_they_were(go, replay, tmp_path, write):
    pytest.importorskip("msgpack")
    go(checkpoint=tmp_path / "c.db")
    other = write("other.csv", structures_text([("2020-01-05", "A/B", "A", 2.0), *ROWS]))
    refused = replay(
        "--resume", table=tmp_path / "prices.csv", structures=other, input="levels",
        expression=EXPRESSION, checkpoint=tmp_path / "c.db",
    )  # fmt: skip
    assert (refused.status, refused.out) == (1, "")
    assert refused.err.endswith("made with other structures, or in another order\n")


def test_an_index_that_pandas_writes_beside_the_columns_is_left_out(go, tmp_path):
    pandas = pytest.importorskip("pandas")
    pytest.importorskip("pyarrow")
    rows = [("a", "A", 1.0), ("a", "B", -1.0), ("none", "A", 0.0)]
    frame = pandas.DataFrame(rows, columns=["key", "instrument", "weight"])
    frame[frame["key"] == "a"].iloc[::-1].to_parquet(tmp_path / "s.parquet")
    _, output = go(structures=tmp_path / "s.parquet")
    (tmp_path / "s.csv").write_text("key,instrument,weight\na,B,-1\na,A,1\n")
    _, same = go(structures=tmp_path / "s.csv")
    assert np.array_equal(output, same, equal_nan=True)
