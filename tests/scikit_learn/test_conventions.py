"""The habits that scikit-learn asks of an estimator."""

import importlib
import pickle
import subprocess
import sys

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, START, WEIGHTS, numbers, same_bits

EXEMPT = {
    "check_methods_sample_order_invariance": (
        "the samples are days, and each output depends on the days before: the training's days in "
        "another order are refused, not computed"
    ),
}
VARIANTS = {
    "as it is made": {},
    "with a memory": {"expression": "ewma(3);rank"},
    "by basket": {"expression": "zscore;ewma(3)", "level": "basket", "hold": None},
}


@pytest.mark.parametrize("variant", VARIANTS)
def test_scikit_learns_own_checks_pass_but_for_those_named(make, variant):
    from sklearn.utils.estimator_checks import check_estimator

    results = check_estimator(
        make(**VARIANTS[variant]), expected_failed_checks=EXEMPT, on_skip=None, on_fail=None
    )
    status = {result["check_name"]: result["status"] for result in results}
    others = {name: found for name, found in status.items() if found != "passed"}
    # Arrays of other libraries are a setting of SciPy's, which is off.
    others.pop("check_array_api_input", None)
    assert others == dict.fromkeys(EXEMPT, "xfail")
    assert len(status) > 30


@pytest.mark.filterwarnings("ignore:X does not have valid feature names")
@pytest.mark.filterwarnings("ignore:X has feature names")
@pytest.mark.parametrize(
    "name",
    [
        "check_dataframe_column_names_consistency",
        "check_get_feature_names_out_error",
        "check_global_output_transform_pandas",
        "check_global_set_output_transform_polars",
        "check_set_output_transform",
        "check_set_output_transform_pandas",
        "check_set_output_transform_polars",
        "check_transformer_get_feature_names_out",
        "check_transformer_get_feature_names_out_pandas",
    ],
)
def test_so_do_those_of_names_and_frames(make, name):
    from sklearn.utils import estimator_checks

    pytest.importorskip("polars" if "polars" in name else "pandas")
    getattr(estimator_checks, name)("StructureTransformer", make(expression="ewma(3);rank"))


# ---- parameters ---------------------------------------------------------------------------------


def test_parameters_are_kept_as_given_until_fit(make):
    weights, labels, instruments = {"p": {"A": 1}}, {"s": {"p": "x"}}, iter("AB")
    made = make(
        weights, "no such", hold=-1, labels=labels, instruments=instruments, date=[], level=3
    )
    found = made.get_params()
    assert found["weights"] is weights
    assert found["labels"] is labels
    assert found["instruments"] is instruments
    assert (found["expression"], found["hold"], found["date"], found["level"]) == (
        "no such",
        -1,
        [],
        3,
    )


@pytest.mark.parametrize(
    ("parameters", "error", "text"),
    [
        ({"expression": "emwa(20)"}, ValueError, "did you mean 'ewma'"),
        ({"expression": 3}, TypeError, "expression must be a str"),
        ({"weights": {"p": {}}}, ValueError, "'p' has no legs"),
        ({"weights": {"p": {"Z": 1.0}}}, ValueError, "X: no instrument 'Z'"),
        ({"weights": 3}, TypeError, "weights must be a mapping"),
        ({"level": "slot"}, ValueError, "level must be one of instrument, basket, got 'slot'"),
        ({"policy": "half"}, ValueError, "policy must be one of"),
        ({"hold": -1}, ValueError, "hold must be None or at least 0"),
        ({"capacity": 2}, ValueError, "capacity must be at least 5"),
        ({"reclaim": 1}, TypeError, "reclaim must be a bool"),
        ({"complete": 1}, TypeError, "complete must be a bool, got 1"),
        ({"complete": False}, ValueError, "complete=False is of weights that change by date"),
        ({"threads": 0}, ValueError, "threads must be"),
        ({"instruments": "AB"}, TypeError, "instruments must be a sequence"),
        ({"instruments": ["A", "Z"]}, ValueError, "X: no instrument 'Z'"),
        ({"labels": 3}, TypeError, "labels must be a mapping"),
        ({"date": "day"}, ValueError, "X: no column 'day'"),
        ({"date": ["day"]}, TypeError, "date: got list"),
    ],
)
def test_parameters_are_checked_in_fit_and_a_failed_fit_changes_nothing(
    make, frame, parameters, error, text
):
    columns = frame.reset_index(drop=True)
    made = make(expression="ewma(3)").fit(columns)
    expected = made.transform(columns)
    made.set_params(**parameters)
    with pytest.raises(error, match=text):
        made.fit(columns)
    same_bits(made.transform(columns), expected)


@pytest.mark.parametrize(
    ("name", "meant"), [("Date", "; is 'Date' meant as 'date'"), ("dates", "; is"), ("when", "$")]
)
@pytest.mark.parametrize("in_index", [False, True])
def test_dates_by_another_name_or_in_the_index_are_not_left_out(make, frame, name, meant, in_index):
    pandas = pytest.importorskip("pandas")
    legs = pandas.DataFrame({name: [START], "basket": ["p"], "instrument": ["A"], "weight": [1.0]})
    if in_index:
        legs = legs.set_index(name)
    with pytest.raises(ValueError, match=f"no other, got '{name}' as well{meant}"):
        make(legs).fit(frame)
    legs.index = legs.index.rename(None)
    if in_index:
        with pytest.raises(ValueError, match="got 'an index of dates' as well"):
            make(legs).fit(frame)


def test_arrays_have_no_dates_for_baskets_that_change(make):
    pandas = pytest.importorskip("pandas")
    legs = pandas.DataFrame(
        {"date": [START], "basket": ["p"], "instrument": ["A"], "weight": [1.0]}
    )
    with pytest.raises(ValueError, match="an array has no dates, and the baskets change by date"):
        make(legs, instruments=NAMES).fit(numbers())
    with pytest.raises(ValueError, match="date='day' is the name of a column, and X has no names"):
        make(date="day").fit(numbers())


def test_a_clone_has_the_parameters_and_not_the_training(make, frame):
    from sklearn.base import clone
    from sklearn.exceptions import NotFittedError

    made = make(WEIGHTS, "ewma(3);rank", hold=2).set_output(transform="pandas").fit(frame[:20])
    copied = clone(made)
    assert copied.get_params() == made.get_params()
    with pytest.raises(NotFittedError):
        copied.transform(frame)
    with pytest.raises(NotFittedError):
        copied.get_feature_names_out()
    assert not hasattr(copied, "baskets_")
    assert made.transform(frame).equals(copied.fit(frame[:20]).transform(frame))


def test_a_pickle_goes_on_to_the_bit(make, sort, frame):
    weights, others, _ = sort
    made = make(weights, "ewma(3);rank;ewma(5)", instruments=NAMES, **others).fit(frame[:20])
    loaded = pickle.loads(pickle.dumps(made))
    for days in (frame[:20], frame[20:], frame):
        same_bits(loaded.transform(days), made.transform(days))
    same_bits(loaded.baskets_.update(frame[20:]), made.baskets_.update(frame[20:]))
    assert list(loaded.get_feature_names_out()) == list(made.get_feature_names_out())


def test_threads_may_ask_at_the_same_time(make, frame):
    from concurrent.futures import ThreadPoolExecutor

    made = make(WEIGHTS, "ewma(3);rank").fit(frame[:10])
    expected = made.transform(frame[10:])
    with ThreadPoolExecutor(4) as pool:
        for found in pool.map(made.transform, [frame[10:]] * 40):
            same_bits(found, expected)


# ---- names --------------------------------------------------------------------------------------


def test_features_have_the_names_of_columns_or_of_baskets(make, kind):
    table = kind.table(numbers())
    made = make(WEIGHTS, instruments=NAMES).fit(table)
    by_basket = make(WEIGHTS, level="basket", instruments=NAMES).fit(table)
    single = make(level="basket").fit(table)
    names = [f"x{i}" for i in range(5)] if kind.name == "array" else list(NAMES)
    assert made.get_feature_names_out().tolist() == names
    assert by_basket.get_feature_names_out().tolist() == list(WEIGHTS)
    assert single.get_feature_names_out().tolist() == names
    assert made.get_feature_names_out().dtype == object
    # A column of dates is a column of the table, and no feature.
    assert made.n_features_in_ == 5 + (kind.name in ("polars", "pyarrow"))
    assert made.transform(table).shape == (40, 5)
    assert by_basket.transform(table).shape == (40, 4)


@pytest.mark.parametrize("at", [0, 2, 5])
def test_a_column_of_dates_may_stand_anywhere(make, frame, at):
    table = frame.reset_index(drop=True)
    table.insert(at, "when", [str(day) for day in frame.index.date])
    made = make(expression="ewma(3);rank", date="when").fit(table[:20])
    assert made.get_feature_names_out().tolist() == list(NAMES)
    assert made.feature_names_in_.tolist() == list(table.columns)
    expected = make(expression="ewma(3);rank").fit_transform(frame)
    same_bits(made.transform(table[20:]), expected[20:])
    by_basket = make({"p": {"A": 1.0}}, date="when", level="basket").fit(table)
    assert by_basket.get_feature_names_out().tolist() == ["p"]
    with pytest.raises(ValueError, match="X: no column 'wen'; did you mean 'when'"):
        make(date="wen").fit(table)


@pytest.mark.parametrize("at", [0, 2, 5])
def test_names_that_are_no_text_become_numbers_of_columns(make, frame, at):
    table = frame.reset_index(drop=True)
    table.insert(at, "when", frame.index)
    table.columns = range(10, 16)
    made = make(expression="ewma(3)").set_output(transform="pandas").fit(table[:20])
    found = made.transform(table[20:])
    names = [f"x{i}" for i in range(6) if i != at]
    assert made.get_feature_names_out().tolist() == found.columns.tolist() == names
    same_bits(found, make(expression="ewma(3)").fit_transform(frame)[20:])


def test_columns_without_a_basket_come_out_missing(make, frame):
    found = make({"p": {"B": 1.0, "D": -1.0}}).set_output(transform="pandas").fit_transform(frame)
    assert found.columns.tolist() == list(NAMES)
    assert found[["A", "C", "E"]].isna().all(axis=None)
    same_bits(found["B"], -found["D"])


@pytest.mark.parametrize("container", ["pandas", "polars"])
def test_frames_come_out_where_they_are_asked_for(make, kind, container):
    library = pytest.importorskip(container)
    table = kind.table(numbers())
    made = make(WEIGHTS, "ewma(3)", level="basket", instruments=NAMES)
    expected = made.fit_transform(table)
    made.set_output(transform=container)
    for found in (made.fit_transform(table), made.transform(table)):
        assert isinstance(found, library.DataFrame)
        assert list(found.columns) == list(WEIGHTS)
        same_bits(found.to_numpy(), expected)
        if container == kind.name == "pandas":
            assert found.index.equals(table.index)


def test_other_columns_than_those_of_the_training_are_refused(make, frame):
    made = make(expression="ewma(3)").fit(frame[:20])
    later = frame[20:]
    for wrong in (later[[*"BACDE"]], later.rename(columns={"A": "a"}), later.drop(columns="E")):
        with pytest.raises(ValueError, match="eature"):
            made.transform(wrong)
    with (
        pytest.raises(
            ValueError, match="X has 6 features, but StructureTransformer is expecting 5"
        ),
        pytest.warns(UserWarning, match="valid feature names"),
    ):
        made.transform(numbers(4, 6))


def test_columns_that_are_no_text_are_compared_too(make, frame):
    frame.columns = [10, 20, 30, 40, 50]
    made = make({"p": {10: 1.0, 20: -1.0}}, "ewma(3)").fit(frame[:20])
    expected = made.transform(frame[20:])
    with pytest.raises(ValueError, match=r"X: its columns are \[20, 10"):
        made.transform(frame[20:][[20, 10, 30, 40, 50]])
    same_bits(made.transform(frame[20:].to_numpy()), expected)


def test_an_array_has_the_columns_of_the_training_in_their_order(make, frame):
    turned = frame[[*"EDCBA"]]
    made = make(WEIGHTS, "ewma(3);rank").fit(turned[:20])
    expected = made.transform(turned[20:])
    with pytest.warns(UserWarning, match="does not have valid feature names"):
        same_bits(made.transform(turned[20:].to_numpy()), expected)


def test_a_frame_after_an_array_goes_by_name_where_there_are_names(make, frame):
    expected = make(WEIGHTS, "ewma(3);rank").fit_transform(frame)
    named = make(WEIGHTS, "ewma(3);rank", instruments=NAMES).fit(frame[:20].to_numpy())
    numbered = make(expression="ewma(3);rank").fit(frame[:20].to_numpy())
    with pytest.warns(UserWarning, match="has feature names"):
        same_bits(named.transform(frame[20:]), expected[20:])
    with pytest.warns(UserWarning, match="has feature names"):
        found = numbered.transform(frame[20:])
    same_bits(found, make(expression="ewma(3);rank").fit_transform(frame)[20:])


# ---- tables -------------------------------------------------------------------------------------


def test_missing_numbers_are_numbers_and_infinite_ones_are_refused(make, frame):
    from sklearn.utils import get_tags

    made = make(expression="ewma(3)")
    assert get_tags(made).input_tags.allow_nan
    values = frame.to_numpy()
    masked = np.ma.array(np.nan_to_num(values, nan=99.0), mask=np.isnan(values))
    same_bits(made.fit_transform(masked), made.fit_transform(values))
    with pytest.raises(ValueError, match="X: 1 holds inf at row 2"):
        made.fit(np.array([[0.0, 1.0], [1.0, 2.0], [1.0, np.inf]]))
    frame.iloc[2, 0] = np.inf
    with pytest.raises(ValueError, match="X: 'A' holds inf at 2024-01-03"):
        made.fit(frame)


def test_no_days_are_no_training(make, frame):
    with pytest.raises(ValueError, match="X has no rows, at least one day is needed to fit"):
        make().fit(frame[:0])


def test_lazy_frames_and_sparse_arrays_are_refused(make):
    polars = pytest.importorskip("polars")
    scipy_sparse = pytest.importorskip("scipy.sparse")
    with pytest.raises(TypeError, match="X is lazy; collect it first"):
        make().fit(polars.DataFrame({"A": [1.0]}).lazy())
    with pytest.raises(TypeError, match=r"[Ss]parse"):
        make().fit(scipy_sparse.eye(3).tocsr())


# ---- importing ----------------------------------------------------------------------------------


def test_nothing_else_of_the_package_imports_scikit_learn():
    source = qv.__file__.rpartition("/quorvane/")[0]
    code = (
        f"import sys; sys.path.insert(0, {source!r})\n"
        "import quorvane as qv\n"
        "qv.Baskets(None, 'ewma(3)').run([[1.0]])\n"
        "assert not {'sklearn', 'quorvane.sklearn'} & set(sys.modules)\n"
    )
    subprocess.run([sys.executable, "-c", code], check=True)


def test_the_package_and_scikit_learn_do_not_meet(make):
    import sklearn.base

    assert issubclass(make, sklearn.base.BaseEstimator)
    assert sklearn.__name__ == "sklearn"
    assert make.__module__ == "quorvane.sklearn.transformer"


def test_without_scikit_learn_it_says_what_to_install(monkeypatch):
    for name in [name for name in sys.modules if name.startswith("quorvane.sklearn")]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.setitem(sys.modules, "sklearn.utils.validation", None)
    with pytest.raises(ImportError, match=r"scikit-learn 1\.6 or newer: pip install"):
        importlib.import_module("quorvane.sklearn")
