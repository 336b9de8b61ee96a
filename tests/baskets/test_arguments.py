"""What is taken, what is refused, and how that is said."""

import decimal

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, START, WEIGHTS, long_columns, numbers, same_bits

NAN = float("nan")
PAIR = {"p": {"A": 1.0, "B": -1.0}}


def from_long(table=None, expression="none", **options):
    pandas = pytest.importorskip("pandas")
    rows = pandas.DataFrame(long_columns([(0, "p", "A", 1.0), (0, "p", "B", -1.0)]))
    return qv.Baskets.from_long(rows if table is None else table, expression, **options)


def fixed(expression="none", **options):
    return qv.Baskets(PAIR, expression, **options)


MAKERS = pytest.mark.parametrize("make", [fixed, from_long])


@MAKERS
@pytest.mark.parametrize(
    ("name", "near"),
    [
        ("unmap_polcy", "policy"),
        ("polcy", "policy"),
        ("holds", "hold"),
        ("instrumnts", "instruments"),
        ("capacty", "capacity"),
        ("reclaims", "reclaim"),
        ("n_threads", "threads"),
        ("label", "labels"),
    ],
)
def test_a_misspelt_argument_is_named_with_the_nearest(make, name, near):
    with pytest.raises(TypeError, match=rf"no argument '{name}'; did you mean '{near}'\?"):
        make(**{name: 1})


def test_a_misspelt_argument_of_dated_baskets_is_named_with_the_nearest():
    for name, near in (("complet", "complete"), ("baskets", "basket"), ("dates", "date")):
        with pytest.raises(TypeError, match=f"did you mean '{near}'"):
            from_long(**{name: 1})
    with pytest.raises(TypeError, match="no argument 'complete'"):
        fixed(complete=False)


@MAKERS
@pytest.mark.parametrize(
    ("options", "error", "text"),
    [
        ({"policy": "equal"}, ValueError, "policy must be one of proportional, equal_split"),
        ({"policy": None}, ValueError, "policy must be one of"),
        ({"hold": -1}, ValueError, "hold must be None or at least 0, got -1"),
        ({"hold": 1.0}, TypeError, "hold must be None or an int, got 1.0"),
        ({"hold": True}, TypeError, "hold must be None or an int"),
        ({"hold": "2"}, TypeError, "hold must be None or an int"),
        ({"capacity": 0}, ValueError, "capacity must be"),
        ({"capacity": 2.5}, TypeError, "capacity must be"),
        ({"reclaim": 1}, TypeError, "reclaim must be a bool"),
        ({"reclaim": None}, TypeError, "reclaim must be a bool"),
        ({"reclaim": True, "hold": None}, ValueError, "reclaim=True needs a hold"),
        ({"threads": 0}, ValueError, "threads must be"),
        ({"threads": "all"}, TypeError, "threads must be"),
        ({"labels": ["p"]}, TypeError, "labels must be a mapping"),
        ({"labels": {"s": "p"}}, TypeError, "labels: 's' must be a mapping"),
        ({"instruments": "AB"}, TypeError, "instruments must be"),
        ({"instruments": 7}, TypeError, "instruments"),
        ({"instruments": ["A"]}, ValueError, "not among the instruments: 'B'"),
        ({"instruments": ["A", "B", "A"]}, ValueError, "instruments must be distinct.*'A'"),
        ({"expression": "emwa(3)"}, ValueError, "no function 'emwa'; did you mean 'ewma'"),
        ({"expression": "ewma(0)"}, ValueError, "window must be a positive int, got 0"),
        ({"expression": ""}, ValueError, "expression"),
        ({"expression": None}, TypeError, "expression must be a str"),
        ({"expression": ["ewma(3)"]}, TypeError, "expression must be a str"),
    ],
)
def test_an_argument_that_makes_no_sense_is_refused(make, options, error, text):
    with pytest.raises(error, match=text):
        make(**options)


@pytest.mark.parametrize("complete", ["no", 0, None])
def test_complete_is_a_bool(complete):
    with pytest.raises(TypeError, match="complete must be a bool"):
        from_long(complete=complete)


def test_numbers_of_numpy_are_numbers():
    made = fixed("ewma(3)", hold=np.int64(1), capacity=np.int32(2), threads=np.int8(1))
    made.grow(np.int64(3))
    assert made.slots.capacity == 3


# ---- weights ------------------------------------------------------------------------------------


def weights_in_every_form():
    pandas = pytest.importorskip("pandas")
    rows = {"A": [1.0, 0.25], "B": [-1.0, 0.5], "C": [NAN, 0.75], "D": [0.0, 1.0]}
    frame = pandas.DataFrame(rows, index=["a/b", "all"]).T
    text = frame.reset_index(names="name")
    yield "mapping", {k: WEIGHTS[k] for k in ("a/b", "all")}
    yield (
        "mapping of numpy",
        {k: {name: np.float32(w) for name, w in WEIGHTS[k].items()} for k in ("a/b", "all")},
    )
    for missing in (None, NAN, 0, 0.0, -0.0, pandas.NA, pandas.NaT, np.nan, np.float64(0)):
        yield (
            f"mapping with {missing!r}",
            {"a/b": {**WEIGHTS["a/b"], "C": missing, "Z": missing}, "all": WEIGHTS["all"]},
        )
    yield "pandas", frame
    yield "pandas nullable", frame.astype("Float64")
    yield "pandas objects", frame.astype(object).where(frame.notna(), None)
    polars, pyarrow = pytest.importorskip("polars"), pytest.importorskip("pyarrow")
    yield "polars", polars.from_pandas(text)
    yield "polars nan", polars.from_pandas(text).with_columns(polars.col("a/b").fill_null(NAN))
    yield "polars text last", polars.from_pandas(text[["a/b", "all", "name"]])
    yield "pyarrow", pyarrow.Table.from_pandas(text, preserve_index=False)


@pytest.mark.parametrize("form", range(18))
def test_weights_of_every_form_are_the_same_baskets(form):
    forms = list(weights_in_every_form())
    assert len(forms) == 18
    name, weights = forms[form]
    made = qv.Baskets(weights, "ewma(3);rank", instruments=NAMES)
    expected = qv.Baskets(forms[0][1], "ewma(3);rank", instruments=NAMES)
    assert made.baskets == ("a/b", "all"), name
    same_bits(made.run(numbers()), expected.run(numbers()))
    equal = qv.Baskets(weights, "none", policy="equal_split", instruments=NAMES)
    np.testing.assert_array_equal(
        equal.run([[4.0, 1.0, 0.0, 0.0, 0.0]]),
        [[3 / 2 + 1.5 / 4, -3 / 2 + 1.5 / 4, 1.5 / 4, 1.5 / 4, NAN]],
    )


def test_a_column_of_nothing_is_a_basket_without_legs(frames):
    columns = {"name": ["A", "B"], "p": [1.0, -1.0], "q": [None, None]}
    frame = frames.plain(columns)
    frame = frame.set_index("name") if frames.name == "pandas" else frame
    with pytest.raises(ValueError, match="basket 'q' has no legs"):
        qv.Baskets(frame, "none")


def test_instruments_are_those_of_the_legs_as_they_first_come():
    weights = {"p": {"B": 1.0, "X": 0.0}, "q": {"A": 1.0, "B": 1.0, "Y": None}}
    assert qv.Baskets(weights, "none").instruments == ("B", "A")
    assert qv.Baskets(weights, "none", instruments=["A", "B", "C"]).instruments == tuple("ABC")
    made = qv.Baskets(weights, "none", instruments=iter(["A", "B", "C"]))
    assert made.instruments == tuple("ABC")


@pytest.mark.parametrize(
    ("weights", "error", "text"),
    [
        ({}, ValueError, "at least one basket"),
        ({"p": {}}, ValueError, "'p' has no legs"),
        ({"p": {"A": 0}}, ValueError, "'p' has no legs"),
        ({"p": {"A": float("inf")}}, ValueError, "basket 'p', instrument 'A'.*finite.*inf"),
        ({"p": {"A": 10**400}}, ValueError, "basket 'p', instrument 'A'"),
        ({"p": {"A": "1"}}, TypeError, "basket 'p', instrument 'A'.*'1'"),
        ({"p": {"A": 1j}}, TypeError, "basket 'p', instrument 'A'"),
        ({"p": {"A": True}}, TypeError, "basket 'p', instrument 'A'"),
        ({"p": ["A", "B"]}, TypeError, "basket 'p' must be a mapping"),
        ({"p": "AB"}, TypeError, "basket 'p' must be a mapping"),
        (["A"], TypeError, "weights must be a mapping.*got list"),
        ("AB", TypeError, "weights must be a mapping.*got str"),
        (np.eye(2), TypeError, "weights must be a mapping.*got ndarray"),
        (7, TypeError, "weights must be a mapping.*got int"),
    ],
)
def test_weights_that_make_no_sense_are_refused(weights, error, text):
    with pytest.raises(error, match=text):
        qv.Baskets(weights, "none")


@pytest.mark.parametrize(
    ("weight", "error", "text"),
    [
        (np.inf, ValueError, "'p'.*'B'.*inf"),
        ("x", TypeError, "'p'"),
        (decimal.Decimal("0.5"), None, None),
    ],
)
def test_a_weight_of_a_frame_is_named_by_basket_and_instrument(weight, error, text):
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame({"p": [1.0, weight]}, index=["A", "B"])
    if error is None:
        assert qv.Baskets(frame, "none").instruments == ("A", "B")
        return
    with pytest.raises(error, match=text):
        qv.Baskets(frame, "none")


def test_instruments_of_a_frame_come_once(frames):
    columns = {"name": ["A", "A"], "p": [1.0, -1.0]}
    frame = frames.plain(columns)
    frame = frame.set_index("name") if frames.name == "pandas" else frame
    with pytest.raises(ValueError, match="'A'"):
        qv.Baskets(frame, "none")


def test_a_frame_without_an_index_has_one_column_of_text():
    polars = pytest.importorskip("polars")
    for columns in ({"p": [1.0]}, {"a": ["A"], "b": ["B"], "p": [1.0]}):
        with pytest.raises(TypeError, match="one column of text"):
            qv.Baskets(polars.DataFrame(columns), "none")


# ---- tables -------------------------------------------------------------------------------------


@pytest.mark.parametrize("call", ["run", "update"])
def test_missing_instruments_are_listed(frames, call):
    given = frames.table(numbers(columns=2), ("A", "X"))
    with pytest.raises(ValueError, match="no instruments 'B', 'C', 'D', 'E'"):
        getattr(qv.Baskets(WEIGHTS, "none"), call)(given)
    row = frames.part(given, 0, 1)
    with pytest.raises(ValueError, match="no instruments 'B', 'C', 'D', 'E'"):
        qv.Baskets(WEIGHTS, "none").step(row)


def test_a_column_of_text_or_given_twice_matters_only_where_it_is_used():
    pandas = pytest.importorskip("pandas")
    made = qv.Baskets({"p": {"A": 1.0}}, "none")
    given = pandas.DataFrame([[1.0, "x", 2.0, 3.0]], columns=["A", "T", "B", "B"])
    np.testing.assert_array_equal(made.run(given), [[1.0, NAN, NAN, NAN]])
    with pytest.raises(ValueError, match="'B' named more than once"):
        qv.Baskets({"p": {"B": 1.0}}, "none").run(given)
    with pytest.raises(TypeError, match=r"'T' holds.*allowed are numbers"):
        qv.Baskets({"p": {"T": 1.0}}, "none").run(given)


@pytest.mark.parametrize("infinity", [np.inf, -np.inf])
def test_an_infinite_number_is_named_where_it_is_used(kind, infinity):
    values = numbers()
    values[7, 1] = infinity
    place = "row 7" if kind.name == "array" else "2024-01-08"
    for call in ("run", "update"):
        with pytest.raises(ValueError, match=rf"'B' holds {infinity} at {place}"):
            getattr(qv.Baskets(WEIGHTS, "none", instruments=NAMES), call)(kind.table(values))
    unused = qv.Baskets({"e": {"E": 1.0}}, "none", instruments=NAMES)
    found = kind.values(unused.run(kind.table(values)))
    assert np.isnan(found[:, :4]).all()
    clean = np.where(np.isinf(values), 0.0, values)
    same_bits(found, kind.values(unused.run(kind.table(clean))))


def test_an_infinite_number_of_a_day_is_named_where_it_is_used():
    row = np.array([1.0, np.inf, 1.0, 1.0, 1.0])
    made = qv.Baskets(WEIGHTS, "none", instruments=NAMES)
    unused = qv.Baskets({"e": {"E": 1.0}}, "ewma(3)", instruments=NAMES)
    for days in range(3):
        with pytest.raises(ValueError, match="'B' holds inf"):
            made.step(row)
        same_bits(unused.step(row), [NAN] * 4 + [1.0])
        made.step(np.ones(5))
        assert days < 3


@pytest.mark.parametrize(
    ("returns", "error", "text"),
    [
        (np.ones((2, 3)), ValueError, "returns: got 3 columns, allowed are 2"),
        (np.ones(2), ValueError, r"returns: .*two axes, got shape \(2,\), use step"),
        (np.ones((2, 2, 2)), ValueError, "returns: .*two axes"),
        (None, TypeError, "returns: got NoneType"),
        ("text", TypeError, "returns: got str"),
        ({"A": [1.0]}, TypeError, "returns: got dict"),
        ([[1.0], [1.0, 2.0]], ValueError, "returns: rows of different lengths"),
        ([["x", 1.0]], TypeError, "returns: .*'x'"),
        (np.ones((2, 2), complex), TypeError, "returns: got an array of complex128"),
    ],
)
def test_a_table_of_another_shape_or_sort_is_refused(returns, error, text):
    made = qv.Baskets(PAIR, "none")
    with pytest.raises(error, match=text):
        made.run(returns)
    assert made.slots.known == 0


def test_a_frame_where_a_row_is_wanted_is_refused(frames):
    made = qv.Baskets(WEIGHTS, "none")
    for rows in (0, 2):
        with pytest.raises(ValueError, match=f"one row is wanted, got a table of {rows} rows"):
            made.step(frames.table(numbers(rows)))
    with pytest.raises(ValueError, match="got 3 numbers, allowed are 5"):
        made.step(np.ones(3))
    with pytest.raises(ValueError, match="no instrument"):
        made.step({"A": 1.0})


def test_lazy_frames_are_refused_in_a_line():
    polars = pytest.importorskip("polars")
    lazy = polars.DataFrame({"A": [1.0], "B": [1.0]}).lazy()
    made = qv.Baskets(PAIR, "none")
    for call in (made.run, made.update, made.step, lambda x: qv.Baskets(x, "none"), from_long):
        with pytest.raises(TypeError, match="lazy; collect it first") as caught:
            call(lazy)
        assert "\n" not in str(caught.value)


@pytest.mark.parametrize("order", [[1, 0], [0, 0]])
def test_dates_are_sorted_and_distinct(kind, order):
    days = START + np.array(order)
    made = qv.Baskets(PAIR, "none")
    values = np.ones((2, 2))
    if kind.name == "array":
        given, date = values, days
    else:
        given, date = kind.table(values, ["A", "B"]), None
        if kind.name == "pandas":
            given.index = kind.library.DatetimeIndex(days)
        elif kind.name == "polars":
            given = given.with_columns(day=days)
        else:
            given = given.set_column(0, "day", kind.library.array(days))
    with pytest.raises(ValueError, match=r"row 1 has the date .* after .* in row 0"):
        made.run(given, date=date)


def test_the_level_is_one_of_two():
    with pytest.raises(ValueError, match="level must be one of instrument, basket, got 'slot'"):
        qv.Baskets(PAIR, "none").run(np.ones((1, 2)), level="slot")


def test_a_day_before_anybody_knows_the_instruments_says_so():
    with pytest.raises(ValueError, match=r"instruments are not known yet.*or run\(\) first"):
        qv.Baskets(None, "none").step([1.0])


@pytest.mark.parametrize(
    ("column", "values", "error", "text"),
    [
        ("weight", [1.0, np.inf], ValueError, "'weight' holds inf at row 1"),
        ("weight", ["1", "2"], TypeError, "'weight' holds"),
        ("basket", ["p", None], ValueError, "'basket' has no key at row 1"),
        ("instrument", ["A", None], ValueError, "'instrument' has no key at row 1"),
        ("date", [1.0, 2.0], TypeError, "dates"),
        ("date", ["2024-01-01", "x"], ValueError, "row 1.*'x'"),
    ],
)
def test_a_long_table_that_makes_no_sense_is_refused(frames, column, values, error, text):
    columns = long_columns([(0, "p", "A", 1.0), (0, "p", "B", -1.0)])
    columns["date"] = columns["date"].astype("M8[us]")
    with pytest.raises(error, match=text):
        from_long(frames.plain({**columns, column: values}))


@pytest.mark.parametrize("table", [np.eye(3), None, [[1]], {"date": []}])
def test_a_long_table_is_a_frame(table):
    with pytest.raises(TypeError, match="allowed are pandas, polars and pyarrow tables"):
        qv.Baskets.from_long(table, "none")


def test_a_long_table_without_a_leg_is_refused(frames):
    columns = long_columns([(0, "p", "A", 0.0)])
    columns["date"] = columns["date"].astype("M8[us]")
    with pytest.raises(ValueError, match="at least one basket"):
        from_long(frames.plain(columns))
