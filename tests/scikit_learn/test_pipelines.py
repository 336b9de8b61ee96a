"""In a pipeline and in a search: what one would compute by hand, fold by fold."""

import functools

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli import demo
from support.tables_of_baskets import same_bits

pandas = pytest.importorskip("pandas")


@pytest.fixture(scope="module")
def returns():
    """Real daily returns of 20 stocks, four years."""
    path = demo.find_prices()
    if path is None:
        pytest.skip("the prices come with skfolio, which is not here")
    prices = pandas.read_csv(path, index_col=0, parse_dates=True)
    return prices.pct_change(fill_method=None)[1:1101]


@pytest.fixture
def pipeline(make):
    """Pairs through an expression, and a model of tomorrow's returns."""
    from sklearn.impute import SimpleImputer
    from sklearn.linear_model import Ridge
    from sklearn.pipeline import Pipeline

    signal = make(demo.pair_weights(), "ewma(20);centered_rank", level="basket")
    filled = SimpleImputer(strategy="constant", fill_value=0.0)
    return Pipeline([("signal", signal), ("filled", filled), ("model", Ridge())])


def features(returns, expression="ewma(20);centered_rank", **options):
    baskets = qv.Baskets(demo.pair_weights(), expression, **options)
    return baskets.run(returns, level="basket").fillna(0.0).to_numpy()


def test_a_pipeline_predicts_what_the_same_by_hand_does(pipeline, returns):
    from sklearn.linear_model import Ridge

    known, tomorrow = returns[:-1], returns.shift(-1)[:-1]
    by_hand = Ridge().fit(features(known)[:900], tomorrow[:900])
    pipeline.fit(known[:900], tomorrow[:900])
    # The bits of a model's sums are those of the order in which its numbers lie in memory.
    close = functools.partial(np.testing.assert_allclose, rtol=1e-9, atol=1e-12)
    close(pipeline.predict(known[900:]), by_hand.predict(features(known)[900:]))
    close(pipeline.predict(known[:900]), by_hand.predict(features(known)[:900]))
    close(pipeline.predict(known), by_hand.predict(features(known)))
    names = pipeline[:-1].get_feature_names_out()
    assert names.tolist() == list(demo.pair_weights())


@pytest.mark.parametrize("as_arrays", [False, True])
def test_a_search_scores_each_fold_as_by_hand(pipeline, returns, as_arrays):
    from sklearn.linear_model import Ridge
    from sklearn.model_selection import GridSearchCV, TimeSeriesSplit

    known, tomorrow = returns[:-1], returns.shift(-1)[:-1]
    grid = {
        "signal__expression": ["ewma(5)", "ewma(40);centered_rank"],
        "signal__hold": [0, None],
    }
    folds = TimeSeriesSplit(3)
    given = (known.to_numpy(), tomorrow.to_numpy()) if as_arrays else (known, tomorrow)
    if as_arrays:
        pipeline.set_params(signal__instruments=list(known.columns))
    search = GridSearchCV(pipeline, grid, cv=folds, return_train_score=True).fit(*given)
    results = pandas.DataFrame(search.cv_results_)
    assert len(results) == 4
    for _, row in results.iterrows():
        chosen = row["params"]
        found = features(known, chosen["signal__expression"], hold=chosen["signal__hold"])
        for number, (train, test) in enumerate(folds.split(known)):
            model = Ridge().fit(found[train], tomorrow.iloc[train])
            for part, days in (("train", train), ("test", test)):
                expected = model.score(found[days], tomorrow.iloc[days])
                assert row[f"split{number}_{part}_score"] == pytest.approx(expected, rel=1e-12)
    assert len(search.predict(given[0][-5:])) == 5


def test_a_search_needs_no_model(make, returns):
    from sklearn.model_selection import GridSearchCV, TimeSeriesSplit

    def ic(transformer, days, y=None):
        judged = qv.evaluate(transformer.transform(days), days, horizons=[1])
        return judged.summary["ic_mean"].item()

    signal = make(demo.pair_weights()).set_output(transform="pandas")
    expressions = ["ewma(5);centered_rank", "ewma(60);centered_rank"]
    folds = TimeSeriesSplit(3)
    search = GridSearchCV(signal, {"expression": expressions}, scoring=ic, cv=folds).fit(returns)
    for expression, row in zip(expressions, np.transpose(_scores(search)), strict=True):
        whole = qv.Baskets(demo.pair_weights(), expression).run(returns)
        for (_, test), found in zip(folds.split(returns), row, strict=True):
            judged = qv.evaluate(whole.iloc[test], returns.iloc[test], horizons=[1])
            assert found == judged.summary["ic_mean"].item()


# As a parameter of a search is compared, pandas 2 warns of an attribute that all its frames have.
@pytest.mark.filterwarnings("ignore:DataFrame._data is deprecated:DeprecationWarning")
def test_weights_can_be_searched_over(make, returns):
    from sklearn.model_selection import GridSearchCV, TimeSeriesSplit

    pairs = demo.pair_weights()
    legs = [("2000-01-03", pair, name, w) for pair, of in pairs.items() for name, w in of.items()]
    dated = pandas.DataFrame(legs, columns=["date", "basket", "instrument", "weight"])
    search = GridSearchCV(
        make(expression="ewma(20);centered_rank"),
        {"weights": [None, pairs, pandas.DataFrame(pairs), dated.assign(date="1980-01-01")]},
        scoring=lambda made, days, y=None: float(np.nansum(made.transform(days)[-1] ** 2)),
        cv=TimeSeriesSplit(2),
    ).fit(returns)
    scores = np.transpose(_scores(search))
    assert len({*scores[0]} | {*scores[1]}) == 4
    np.testing.assert_array_equal(scores[1], scores[2])
    np.testing.assert_array_equal(scores[1], scores[3])


def test_a_search_may_work_on_several_threads(make, returns):
    from joblib import parallel_config
    from sklearn.model_selection import GridSearchCV, TimeSeriesSplit

    grid = {"expression": ["ewma(5);rank", "ewma(20);zscore"], "hold": [0, 3]}
    with parallel_config(backend="threading"):
        found = [
            GridSearchCV(make(threads=1), grid, scoring=_last, cv=TimeSeriesSplit(2), n_jobs=jobs)
            .fit(returns)
            .cv_results_["mean_test_score"]
            for jobs in (None, 2)
        ]
    np.testing.assert_array_equal(*found)


def test_two_transformers_in_a_row_are_two_expressions_in_a_row(make, returns):
    from sklearn.pipeline import make_pipeline

    expected = make(expression="ewma(20);rank;ewma(5)").fit_transform(returns)
    for container in ("default", "pandas"):
        both = make_pipeline(make(expression="ewma(20);rank"), make(expression="ewma(5)"))
        both.set_output(transform=container).fit(returns[:900])
        same_bits(np.asarray(both.transform(returns[900:])), expected[900:])
        same_bits(np.asarray(both.transform(returns[:900])), expected[:900])


def test_steps_before_it_that_round_otherwise_the_second_time_do_not_matter(make, returns):
    from sklearn.decomposition import PCA
    from sklearn.pipeline import make_pipeline

    known = returns.fillna(0.0)
    train = known[:900].to_numpy()
    both = make_pipeline(PCA(8, svd_solver="full"), make(expression="ewma(20);zscore"))
    first = both.fit_transform(train)
    assert not np.array_equal(both[0].fit_transform(train), both[0].transform(train))
    same_bits(both.transform(train), first)
    expected = make(expression="ewma(20);zscore").fit_transform(both[0].transform(known.to_numpy()))
    np.testing.assert_allclose(both.transform(known[900:].to_numpy()), expected[900:], rtol=1e-6)


def _scores(search):
    """The scores of each split and candidate."""
    results = search.cv_results_
    return [results[f"split{i}_test_score"] for i in range(search.n_splits_)]


def _last(made, days, y=None):
    return float(np.nansum(made.transform(days)[-1] ** 2))
