"""From matrices to tables: of the kind that was given, with its labels."""

import numpy as np
import pytest

from quorvane.tables import frame_of_kind, read_table

pytestmark = pytest.mark.plain_python

NAN = float("nan")


def test_filling_keeps_rows_columns_and_their_order(frames):
    given = frames.dated({"text": ["x"] * 3, "A": [1.0] * 3, "B": [1] * 3, "C": [1.0] * 3})
    table = read_table(given)
    filled = table.fill([[1.0, 2.0], [3.0, NAN], [5.0, 6.0]], ["C", "A"])
    assert type(filled) is type(given)
    content = frames.content(filled)
    assert list(content) == ["day", "text", "A", "B", "C"]
    assert frames.dates(filled) == frames.dates(given)
    assert content["A"] == [2.0, None, 6.0]
    assert content["C"] == [1.0, 3.0, 5.0]
    assert content["B"] == content["text"] == [None] * 3


def test_what_was_filled_is_read_back(frames, same):
    values = np.random.default_rng(3).normal(size=(3, 260))
    values[1, 7] = NAN
    names = [f"c{i}" for i in range(260)]
    table = read_table(frames.dated(dict.fromkeys(names, [0.0] * 3)))
    order = np.random.default_rng(4).permutation(260)
    filled = table.fill(values[:, order], [names[i] for i in order])
    same(read_table(filled).matrix(names), values)


def test_missing_numbers_are_null_where_there_is_null(frames):
    filled = read_table(frames.dated({"A": [1.0] * 3})).fill([[NAN], [1.0], [NAN]], "A")
    if frames.kind == "polars":
        assert filled["A"].null_count() == 2
    elif frames.kind == "pyarrow":
        assert filled["A"].null_count == 2
    else:
        assert filled["A"].dtype == np.float64


def test_other_columns_get_the_dates(frames):
    given = frames.dated({"A": [1.0] * 3})
    made = read_table(given).of_columns([[1.0, 2.0]] * 3, ["long", ("A", "B")])
    assert frames.dates(made) == frames.dates(given)
    pair = ("A", "B") if frames.kind == "pandas" else "('A', 'B')"
    assert frames.content(made)[pair] == [2.0] * 3
    assert read_table(made).names == ("long", pair)
    if frames.kind == "pandas":
        assert made.columns.nlevels == 1


@pytest.mark.parametrize("names", [["day"], [1, "1"]])
@pytest.mark.parametrize("kind", ["polars", "pyarrow"])
def test_names_that_are_one_as_text_are_refused(kind, names):
    library = pytest.importorskip(kind)
    pytest.importorskip("narwhals")
    make = library.DataFrame if kind == "polars" else library.table
    table = read_table(make({"day": np.array(["2024-01-02"], "M8[ms]")}))
    with pytest.raises(ValueError, match=r"^names: '.*' more than once as text"):
        table.of_columns(np.ones((1, len(names))), names)


@pytest.mark.parametrize("method", ["fill", "of_columns"])
def test_a_result_has_a_number_for_each_row_and_name(frames, method):
    table = read_table(frames.dated({"A": [1.0] * 3}))
    with pytest.raises(ValueError, match=r"^matrix: got the shape \(2, 1\), allowed is \(3, 1\)"):
        getattr(table, method)(np.ones((2, 1)), "A")


def test_plain_frames_are_of_the_same_kind(frames):
    given = frames.dated({"A": [1.0] * 3})
    made = frame_of_kind(
        read_table(given).kind, {"name": ["x", "y"], "weight": [0.5, NAN], "n": [1, 2]}
    )
    assert type(made) is type(given)
    expected = {"name": ["x", "y"], "weight": [0.5, None], "n": [1, 2]}
    assert frames.content(made) == expected


def test_pandas_gets_its_labels_back_as_they_were():
    pandas = pytest.importorskip("pandas")
    index = pandas.date_range("2024-01-01", periods=2, freq="D", tz="UTC", name="when")
    columns = pandas.MultiIndex.from_tuples([("A", 1), ("B", 2)], names=["x", "y"])
    given = pandas.DataFrame([[1.0, 2.0]] * 2, index=index, columns=columns)
    given.attrs["source"] = "here"
    filled = read_table(given).fill([[3.0], [4.0]], [("B", 2)])
    pandas.testing.assert_index_equal(filled.index, index)
    assert filled.index.freq == index.freq
    pandas.testing.assert_index_equal(filled.columns, columns)
    assert filled.attrs == {"source": "here"}


def test_a_column_of_dates_of_pandas_stays_where_it_was():
    pandas = pytest.importorskip("pandas")
    day = pandas.DatetimeIndex(["2024-01-02", "2024-01-03"]).as_unit("s")
    given = pandas.DataFrame({"A": [1.0, 2.0], "day": day, "B": [3, 4]}, index=[7, 9])
    given.columns.name = "ticker"
    table = read_table(given)
    assert (table.names, table.label(1)) == (("A", "B"), "2024-01-03")
    filled = table.fill([[3.0, 1.0], [4.0, 2.0]], "BA")
    pandas.testing.assert_frame_equal(filled, given.astype({"B": float}))
    made = table.of_columns([[5.0], [6.0]], [("A", "B")])
    assert made.columns.tolist() == ["day", ("A", "B")]
    assert made["day"].dtype == day.dtype


def test_an_array_is_filled_with_the_matrix_itself():
    table, matrix = read_table(np.ones((2, 2))), np.zeros((2, 2))
    assert table.fill(matrix, "AB") is matrix
    assert table.of_columns(matrix, "XY") is matrix
    assert table.fill(np.asfortranarray(matrix), "AB").flags.c_contiguous


def test_an_array_gives_structured_arrays_as_plain_frames():
    made = frame_of_kind("array", {"name": ["x", "yy"], "weight": [0.5, 1.0]})
    assert made["name"].tolist() == ["x", "yy"]
    assert made.dtype["name"].kind == "O"
    assert made["weight"].dtype == np.float64
    assert frame_of_kind("array", {"name": []}).shape == (0,)
