"""sweep(): rows in the order of the grid, the same numbers from all workers, errors as rows."""

import ast
import io
import os
import re
import subprocess
import sys
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from multiprocessing import get_context

import numpy as np
import pytest

import quorvane as qv
from quorvane.baskets import progress
from support import sweeping
from support.sweeping import NAMES, PAIRS, grid, in_a_loop, returns

pandas = pytest.importorskip("pandas")

ONE = {"weights": {"pairs": PAIRS}, "expression": ["ewma(5);rank"]}


def thread(*arguments, **keywords):
    """A sweep in a thread of this process: the quickest there is for a few configurations."""
    with ThreadPoolExecutor(1) as executor:
        return qv.sweep(*arguments, executor=executor, **keywords)


@pytest.fixture(scope="module")
def in_processes():
    return qv.sweep(returns(), grid())


def test_a_row_for_each_configuration_in_the_order_of_the_grid(in_processes):
    assert list(in_processes.columns[:3]) == ["weights", "expression", "hold"]
    assert list(in_processes.columns[-4:]) == ["turnover", "coverage", "seconds", "error"]
    assert in_processes["weights"].tolist() == ["pairs"] * 6 + ["singles"] * 6 + ["columns"] * 6
    assert in_processes["hold"].tolist() == [0, None] * 9
    failed = in_processes["expression"] == "ewma(0)"
    assert (in_processes["error"] != "").tolist() == failed.tolist()
    assert in_processes.loc[failed, "error"].str.startswith("ValueError: expression: ").all()
    assert in_processes.loc[failed, "ic_mean_1"].isna().all()
    assert (in_processes.loc[~failed, "seconds"] > 0.0).all()


def test_the_figures_are_those_of_a_loop_to_the_bit(in_processes):
    chosen = grid()
    configurations = [
        {"weights": weights, "expression": expression, "hold": hold}
        for weights in chosen["weights"].values()
        for expression in chosen["expression"]
        for hold in chosen["hold"]
    ]
    expected = in_a_loop(returns(), configurations)
    assert sum(row is None for row in expected) == 6
    figures = in_processes.columns[3:-2]
    for (_, row), by_hand in zip(in_processes.iterrows(), expected, strict=True):
        if by_hand is not None:
            assert set(by_hand) == set(figures)
            found = row[list(by_hand)].to_numpy(dtype=float)
            np.testing.assert_array_equal(found, list(by_hand.values()))


@pytest.mark.parametrize("workers", [1, 3])
def test_threads_give_the_same_rows(in_processes, same, workers):
    with ThreadPoolExecutor(workers) as executor:
        same(qv.sweep(returns(), grid(), executor=executor), in_processes)
        assert executor.submit(int, 3).result() == 3


def test_any_pool_of_processes_gives_the_same_rows(in_processes, same):
    with ProcessPoolExecutor(2, mp_context=get_context("spawn")) as executor:
        same(qv.sweep(returns(), grid(), executor=executor), in_processes)


def test_tables_of_every_kind_give_the_same(same):
    data = returns(missing=0.0)
    expected = thread(data, ONE)
    numbered = dict(zip(NAMES, range(len(NAMES)), strict=True))
    pairs = {
        basket: {numbered[name]: weight for name, weight in legs.items()}
        for basket, legs in PAIRS.items()
    }
    same(thread(data.to_numpy(), {**ONE, "weights": {"pairs": pairs}}), expected)
    same(thread(data.rename_axis("day").reset_index(), ONE), expected)
    same(thread(data.set_axis(data.index.strftime("day %Y-%m-%d")), ONE), expected)
    same(thread(data.tz_localize("Europe/Paris"), ONE), expected)
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    columns = {name: data[name].to_numpy() for name in NAMES}
    same(thread(polars.DataFrame({"day": data.index.to_numpy(), **columns}), ONE), expected)
    text = polars.DataFrame({"day": data.index.strftime("%Y-%m-%d").tolist(), **columns})
    same(thread(text, ONE, date="day"), expected)


def test_arguments_of_evaluate_choose_the_figures(same):
    found = thread(returns(), ONE, score={"horizons": [2], "cost": 0.01})
    summary = qv.evaluate(
        qv.Baskets(PAIRS, "ewma(5);rank").run(returns()), returns(), horizons=[2], cost=0.01
    ).summary
    assert found["net_mean_2"].tolist() == summary["net_mean"].tolist()
    assert "ic_mean_1" not in found


def test_a_function_scores_instead():
    found = thread(returns(), ONE, score=sweeping.mean_of_signal)
    signal = qv.Baskets(PAIRS, "ewma(5);rank").run(returns()).to_numpy()
    assert list(found.columns) == ["weights", "expression", "mean", "days", "seconds", "error"]
    assert found["mean"].tolist() == [signal[~np.isnan(signal)].mean()]
    assert found["days"].tolist() == [300]


@pytest.mark.parametrize(
    ("score", "error"),
    [
        (
            sweeping.no_mapping,
            "TypeError: score: support.sweeping:no_mapping must return a mapping",
        ),
        (sweeping.a_text, "TypeError: score: the figure 'mean' must be a number, got 'high'"),
        (
            sweeping.a_name_that_is_taken,
            "ValueError: score: the name 'expression' .* taken already",
        ),
        (sweeping.wants_to_exit, "SystemExit: 3"),
    ],
)
def test_a_score_that_fails_is_an_error_in_each_row(score, error):
    found = thread(returns(), ONE, score=score)
    assert found["error"].str.match(error).all()


def test_a_score_that_writes_into_its_frames_spoils_no_other(same):
    data = returns()
    many = {**ONE, "hold": [0, 1, 2]}
    found = thread(data, many, score=sweeping.spoils_its_data)
    assert found["error"].tolist() == [""] * 3
    assert found["before"].tolist() == [np.nansum(data.to_numpy())] * 3


@pytest.mark.parametrize(
    ("score", "kind", "text"),
    [
        (3, TypeError, "score must be a function, a mapping of arguments of evaluate, or None"),
        ({"horizon": [1]}, TypeError, "no argument 'horizon'; did you mean 'horizons'"),
        ({"horizons": [0]}, ValueError, "horizons must be at least 1"),
        (lambda signal, data: {}, ValueError, "cannot be imported.*at the top of a module"),
        (sweeping.made(), ValueError, "cannot be imported"),
    ],
)
def test_a_score_that_can_be_none_is_refused_at_once(score, kind, text):
    with pytest.raises(kind, match=text):
        qv.sweep(returns(), ONE, score=score)


def test_what_is_no_executor_is_refused_at_once():
    with pytest.raises(
        TypeError, match=r"executor must be a concurrent.futures.Executor, .* got 4"
    ):
        qv.sweep(returns(), ONE, executor=4)


def test_a_table_that_is_none_is_refused_at_once():
    with pytest.raises(ValueError, match="data: row 1 has the date 2022-02-24 after"):
        qv.sweep(returns().iloc[::-1], ONE)


def test_an_instrument_that_is_missing_is_an_error_of_its_rows_alone():
    both = {**ONE, "weights": {"pairs": PAIRS, "others": {"b": {"GOLD": 1.0}}}}
    found = thread(returns(), both)
    assert found["error"].tolist()[0] == ""
    assert found["error"].tolist()[1] == "ValueError: returns: no instrument 'GOLD'"


class Terminal(io.StringIO):
    def isatty(self):
        return True


def test_whoever_watches_sees_one_bar_with_the_time_left(monkeypatch):
    pytest.importorskip("tqdm")
    monkeypatch.setattr(progress, "PATIENCE", 0.0)
    screen = Terminal()
    monkeypatch.setattr(sys, "stderr", screen)
    thread(returns(), {**ONE, "hold": [0, 1, 2, 3]}, score=sweeping.sleeps_longer)
    shown = screen.getvalue()
    assert re.search(r"sweep: +\d+%.* [1-4]/4 \[\d\d:\d\d<\d\d:\d\d, .*configuration", shown)
    # Those of the baskets themselves would come in between.
    assert "quorvane" not in shown


def test_nobody_else_is_told_anything(capsys):
    thread(returns(), ONE)
    assert capsys.readouterr() == ("", "")


def test_without_pandas_it_says_what_to_install(monkeypatch):
    monkeypatch.setitem(sys.modules, "pandas", None)
    with pytest.raises(ImportError, match=r"pip install 'quorvane\[evaluation\]'"):
        qv.sweep(np.zeros((3, 2)), ONE)


PROGRAM = """
import sys
import numpy as np, quorvane as qv
assert not {'pandas', 'dask', 'distributed'} & set(sys.modules)
import mine
qv.register('mine', mine.function)
@qv.register('own')
def own(values, state):
    return values, state
grid = {'weights': [None], 'expression': ['rank', 'own;rank', 'mine;rank']}
found = qv.sweep(np.random.default_rng(1).normal(size=(60, 5)), grid)
assert not {'dask', 'distributed'} & set(sys.modules)
print(found['error'].tolist())
"""


@pytest.mark.parametrize("is_file", [True, False])
def test_a_program_needs_no_guard_and_can_have_modules_beside_it(tmp_path, is_file):
    (tmp_path / "program.py").write_text(PROGRAM)
    (tmp_path / "mine.py").write_text("def function(values, state):\n    return values, state\n")
    done = subprocess.run(
        [sys.executable, "program.py" if is_file else "-"],
        env={**os.environ, "PYTHONPATH": qv.__file__.rpartition("/quorvane/")[0]},
        cwd=tmp_path,
        input=None if is_file else PROGRAM,
        capture_output=True,
        text=True,
        check=True,
    )
    first, own, beside = ast.literal_eval(done.stdout)
    assert (first, beside) == ("", "")
    assert own.startswith("ImportError: '__main__:own' cannot be imported")
    assert own.endswith("; put the function at the top of a module of its own")
    assert done.stderr == ""
