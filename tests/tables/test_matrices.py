"""From tables to matrices: by name, as float64, and errors that say which number is wrong."""

import datetime
import decimal

import numpy as np
import pytest

from quorvane.tables import read_table

pytestmark = pytest.mark.plain_python

NAN = float("nan")


def test_columns_are_found_by_name_and_no_other_is_looked_at(frames, same):
    given = frames.dated({"A": [1.0, 2.0, 3.0], "text": ["x"] * 3, "B": [4.0, NAN, 6.0]})
    table = read_table(given)
    assert (table.kind, table.rows, table.names) == (frames.kind, 3, ("A", "text", "B"))
    assert table.width == 3
    same(table.matrix(["B", "A"]), [[4, 1], [NAN, 2], [6, 3]])


@pytest.mark.parametrize(
    ("column", "expected"),
    [
        ([1, 2, 3], [1, 2, 3]),
        ([True, False, True], [1, 0, 1]),
        ([1, None, 3], [1, NAN, 3]),
        ([True, None, False], [1, NAN, 0]),
        ([decimal.Decimal("1.5"), None, decimal.Decimal(2)], [1.5, NAN, 2]),
        ([None, None, None], [NAN, NAN, NAN]),
        (np.array([1, 2, 3], np.float32), [1, 2, 3]),
        (np.array([1, 2, 2**63], np.uint64), [1, 2, 2.0**63]),
    ],
)
def test_every_sort_of_real_numbers_becomes_float64(frames, same, column, expected):
    table = read_table(frames.dated({"A": [1.0] * 3, "B": column}))
    same(table.matrix("BA"), np.column_stack([expected, [1.0] * 3]))


@pytest.mark.parametrize(
    "dtype", ["Int64", "Float64", "boolean", "int8[pyarrow]", "double[pyarrow]", "null[pyarrow]"]
)
def test_nullable_numbers_of_pandas_become_float64(same, dtype):
    pandas = pytest.importorskip("pandas")
    pytest.importorskip("pyarrow")
    values = [None, None] if "null" in dtype else [1, None]
    expected = [[NAN], [NAN]] if "null" in dtype else [[1.0], [NAN]]
    same(read_table(pandas.DataFrame({"A": values}, dtype=dtype)).matrix("A"), expected)


@pytest.mark.parametrize(
    "column", [["x", "y", "z"], [datetime.timedelta(1)] * 3, [datetime.time(1)] * 3]
)
def test_what_is_no_number_is_a_type_error_that_names_the_column(frames, column):
    table = read_table(frames.dated({"A": [1.0] * 3, "B": column}), argument="prices")
    with pytest.raises(TypeError, match=r"^prices: column 'B' holds .*allowed are numbers and"):
        table.matrix("AB")


def test_an_object_that_is_no_number_is_shown_with_its_day():
    pandas = pytest.importorskip("pandas")
    values = [1, None, "x", 1j]
    index = pandas.date_range("2024-01-01", periods=4)
    table = read_table(pandas.DataFrame({"A": values}, index=index, dtype=object))
    with pytest.raises(TypeError, match=r"column 'A' holds 'x' \(str\) at 2024-01-03, allowed"):
        table.matrix("A")
    with pytest.raises(TypeError, match="column 'A' holds complex128"):
        read_table(pandas.DataFrame({"A": [1j]})).matrix("A")


def test_objects_of_polars_are_read_as_those_of_pandas(same):
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    given = polars.DataFrame({"A": polars.Series([1, 2.5, None], dtype=polars.Object)})
    same(read_table(given).matrix("A"), [[1], [2.5], [NAN]])


def test_missing_instruments_are_all_named_with_near_ones(frames):
    table = read_table(frames.dated({"AAPL": [1.0] * 3, "MSFT": [1.0] * 3}), argument="prices")
    message = "^prices: no instruments 'AAPI', 'XY'; did you mean 'AAPL'"
    with pytest.raises(ValueError, match=message):
        table.matrix(["MSFT", "AAPI", "XY"])


@pytest.mark.parametrize("kind", ["pandas", "pyarrow"])
def test_a_name_given_twice_fails_only_when_it_is_asked_for(kind, same):
    library = pytest.importorskip(kind)
    if kind == "pandas":
        given = library.DataFrame([[1.0, 2.0, 3.0]], columns=["A", "B", "A"])
    else:
        pytest.importorskip("narwhals")
        given = library.table([[1.0], [2.0], [3.0]], names=["A", "B", "A"])
    table = read_table(given)
    same(table.matrix("B"), [[2.0]])
    with pytest.raises(ValueError, match="'A' named more than once"):
        table.matrix("BA")
    filled = table.fill([[5.0]], "B")
    assert list(filled.columns if kind == "pandas" else filled.column_names) == ["A", "B", "A"]


@pytest.mark.parametrize("infinity", [np.inf, -np.inf])
def test_an_infinite_number_of_a_used_column_names_column_day_and_value(frames, same, infinity):
    table = read_table(frames.dated({"A": [1.0, NAN, infinity], "B": [infinity, 1.0, 1.0]}))
    message = f"^table: 'A' holds {infinity} at 2024-01-05, allowed are finite"
    with pytest.raises(ValueError, match=message):
        table.matrix("AB", used=[True, False])
    same(table.matrix("A", used=[False]), [[1.0], [NAN], [infinity]])
    with pytest.raises(ValueError, match=r"^used: got the shape \(1,\).*each of 2 instruments"):
        table.matrix("AB", used=[True])


@pytest.mark.parametrize("place", [(0, 0), (299, 299), (150, 128), (127, 127)])
def test_an_infinite_number_is_found_wherever_it_is(place):
    values = np.ones((300, 300))
    values[place] = np.inf
    for given in (values, np.asfortranarray(values)):
        with pytest.raises(ValueError, match=f"^table: {place[1]} holds inf at row {place[0]},"):
            read_table(given).matrix(range(300))


@pytest.mark.parametrize("shape", [(1, 1), (127, 129), (300, 257), (128, 256)])
def test_matrices_of_any_size_are_those_of_the_columns(frames, same, shape):
    values = np.random.default_rng(1).normal(size=shape)
    values[values > 2] = NAN
    given = frames.plain({f"c{i}": column for i, column in enumerate(values.T)})
    order = np.random.default_rng(2).permutation(shape[1])
    same(read_table(given).matrix([f"c{i}" for i in order]), values[:, order])


@pytest.mark.parametrize("rows", [0, 3])
def test_tables_without_rows_or_columns_work(frames, same, rows):
    table = read_table(
        frames.dated({"A": np.ones(rows)}, [datetime.date(2024, 1, 2)] * rows)
        if rows == 0
        else frames.dated({"A": np.ones(3)})
    )
    assert table.rows == rows
    same(table.matrix([]), np.empty((rows, 0)))
    same(table.matrix("A"), np.ones((rows, 1)))
    assert frames.content(table.fill(np.empty((rows, 0)), []))["A"] == [None] * rows
    assert frames.content(table.fill(np.ones((rows, 1)), "A"))["A"] == [1.0] * rows
    assert read_table(table.of_columns(np.empty((rows, 0)), [])).rows == rows
    assert read_table(frames.plain({})).matrix([]).shape == (0, 0)


def test_the_first_rows_are_a_table_of_their_own(frames, same):
    part = read_table(frames.dated({"A": [1.0, 2.0, np.inf], "B": [1, None, 3]})).first(2)
    assert (part.rows, part.dates.size) == (2, 2)
    same(part.matrix("AB"), [[1, 1], [2, NAN]])
    assert frames.content(part.fill([[5.0], [6.0]], "A"))["A"] == [5.0, 6.0]


def test_a_float_array_in_c_order_is_returned_without_a_copy(same):
    values = np.ones((3, 2))
    table = read_table(values)
    assert np.shares_memory(table.matrix("AB"), values)
    assert (table.kind, table.names, table.dates, table.width) == ("array", None, None, 2)
    same(read_table(np.asfortranarray(values)).matrix("AB"), values)
    same(table.first(1).matrix("AB"), [[1, 1]])
    assert table.label(17) == "row 17"


@pytest.mark.parametrize(
    "given",
    [
        [[1, None], [2, True]],
        [[1.0, NAN], [2.0, 1.0]],
        np.array([[1, NAN], [2, 1]], dtype=">f4"),
        np.ma.masked_array([[1, 7], [2, 1]], [[0, 1], [0, 0]]),
    ],
)
def test_whatever_numpy_makes_two_axes_of_is_an_array(given, same):
    same(read_table(given).matrix("AB"), [[1, NAN], [2, 1]])


def test_an_array_needs_a_column_for_each_instrument():
    with pytest.raises(ValueError, match=r"^table: got 2 columns, allowed are 3, one for each"):
        read_table(np.ones((3, 2))).matrix("ABC")


def test_one_axis_is_no_table():
    pandas = pytest.importorskip("pandas")
    message = r"a table of days by instruments has two axes, got shape \(3,\), use step\(\)"
    for given in (np.ones(3), [1.0] * 3, pandas.Series([1.0] * 3)):
        with pytest.raises(ValueError, match=message):
            read_table(given)


@pytest.mark.parametrize("given", [None, 3.0, "AB", {"A": [1.0]}, {1.0}, object()])
def test_what_is_no_table_is_a_type_error(given):
    with pytest.raises(TypeError, match=r"^table: got .*allowed are a NumPy array, a pandas"):
        read_table(given)


def test_arrays_of_other_things_are_type_errors():
    with pytest.raises(TypeError, match=r"column 'B' holds 'x' \(str\) at row 0"):
        read_table([[1, "x"]]).matrix("AB")
    for given in (np.array([["x"]]), np.array([[1j]]), np.array([["2024-01-01"]], "M8[D]")):
        with pytest.raises(TypeError, match=r"^table: got an array of .*allowed are numbers"):
            read_table(given).matrix("A")
    with pytest.raises(ValueError, match=r"^table: rows of different lengths"):
        read_table([[1.0], [1.0, 2.0]])


def test_lazy_tables_are_to_be_collected_first():
    polars = pytest.importorskip("polars")
    narwhals = pytest.importorskip("narwhals")
    lazy = polars.LazyFrame({"A": [1.0]})
    for given in (lazy, narwhals.from_native(lazy)):
        with pytest.raises(TypeError, match=r"^prices is lazy; collect it first"):
            read_table(given, argument="prices")


def test_reading_writes_nothing_to_what_is_given(same):
    pandas = pytest.importorskip("pandas")
    values = np.ones((3, 2))
    values.flags.writeable = False
    same(read_table(values).matrix("AB"), values)
    given = pandas.DataFrame(values, columns=list("AB"), copy=False)
    same(read_table(given).matrix("BA"), values)


def test_numbers_too_large_for_float64_are_infinite():
    for given in ([[-(10**400)]], np.array([["-1e4000"]]).astype(np.longdouble)):
        with pytest.raises(ValueError, match="'A' holds -inf at row 0"):
            read_table(given).matrix("A")


def test_the_longest_integers_of_polars_become_float64(same):
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    given = polars.DataFrame({"A": polars.Series([2**100, None], dtype=polars.Int128)})
    same(read_table(given).matrix("A"), [[2.0**100], [NAN]])
