"""What labels cost: tables against the same arrays, a step against the bare call, the import."""

import subprocess
import sys
import time
from functools import partial

import numpy as np

from daybench.goals import Line
from daybench.peers import PeerAbsent, load
from daybench.timing import Side, in_turn, medians, summary
from quorvane.baskets import Baskets
from quorvane.functions.rotations.virtualization.history import replay_history

CALLS = 1_000

# Days, instruments, baskets, legs of each.
SHAPES = {
    "tables-decades": (8_313, 20, 60, 2),
    "tables-wide": (2_520, 3_000, 3_000, 5),
}

# A table may cost a tenth and so many seconds more than the same numbers as an array in one call.
SHARE, SECONDS = 1.1, 5e-3
STEP_MICROSECONDS = 1.0
IMPORT_MILLISECONDS = 20.0


def run(names, settings):
    """Yield for each shape and kind of table its cost, in units of what it may be."""
    for name in names:
        shape = SHAPES[name]
        baskets, inputs, labels = _made(shape)
        what = "{} x {} x {} x {}".format(*shape)
        for kind, as_table in TABLES.items():
            try:
                table = as_table(inputs, labels)
            except PeerAbsent as absent:
                yield absent
                continue
            yield Line(
                "tables",
                what,
                kind,
                _cost_of_labels(baskets, inputs, table, settings),
                1.0,
                smaller_is_better=True,
            )
    yield _step_line(settings)
    yield _import_line()


def _made(shape):
    days, instruments, count, legs = shape
    draw = np.random.default_rng(7)
    labels = [f"I{i}" for i in range(instruments)]
    weights = {
        f"B{k}": {
            labels[i]: float(draw.normal())
            for i in draw.choice(instruments, size=legs, replace=False)
        }
        for k in range(count)
    }
    baskets = Baskets(weights, "ewma(20);rank", instruments=labels)
    return baskets, draw.normal(size=(days, instruments)) * 0.01, labels


def _cost_of_labels(baskets, inputs, table, settings):
    times = in_turn(
        (Side(partial(baskets.run, table)), Side(partial(_in_one_call, baskets, inputs))), settings
    )
    ours, bare = medians(times)
    ratios = [mine / (SHARE * other + SECONDS) for mine, other in times]
    return summary(ratios, ours, bare)


def _in_one_call(baskets, inputs):
    """The rotation behind the baskets over an array, from a fresh start."""
    course = baskets._new_course(baskets._book)
    course.rotation._columns = course.book.listings[0].columns
    return replay_history(course.rotation, inputs)


def _step_line(settings):
    baskets, inputs, _ = _made((2, 20, 60, 2))
    row = inputs[0].copy()
    baskets.run(inputs)
    baskets.step(row)
    rotation = baskets._course.rotation
    sides = Side(partial(_often, baskets.step, row)), Side(partial(_often, rotation, row))
    times = in_turn(sides, settings)
    ours, bare = medians(times)
    more = [(mine - other) / CALLS * 1e6 for mine, other in times]
    return Line(
        "tables",
        "a step",
        "microseconds beyond the bare call",
        summary(more, ours / CALLS, bare / CALLS),
        STEP_MICROSECONDS,
        smaller_is_better=True,
    )


def _often(call, row):
    for _ in range(CALLS):
        call(row)


def _import_line():
    with_it, without = "import numpy, quorvane", "import numpy"
    pairs = [(_seconds_of(with_it), _seconds_of(without)) for _ in range(9)]
    ours, bare = medians(pairs)
    more = [(mine - other) * 1e3 for mine, other in pairs]
    return Line(
        "tables",
        "import quorvane",
        "milliseconds beyond NumPy's",
        summary(more, ours, bare),
        IMPORT_MILLISECONDS,
        smaller_is_better=True,
    )


def _seconds_of(program):
    start = time.perf_counter()
    subprocess.run([sys.executable, "-c", program], check=True)
    return time.perf_counter() - start


def _pandas(inputs, labels):
    pandas = load("pandas")
    days = pandas.bdate_range("1990-01-01", periods=len(inputs))
    return pandas.DataFrame(inputs.copy(order="F"), columns=labels, index=days)


def _polars(inputs, labels):
    polars = load("polars")
    load("narwhals")
    return polars.DataFrame({"date": _days(inputs), **_columns(inputs, labels)})


def _pyarrow(inputs, labels):
    pyarrow = load("pyarrow")
    load("narwhals")
    return pyarrow.table({"date": _days(inputs), **_columns(inputs, labels)})


def _days(inputs):
    return np.datetime64("1990-01-01", "us") + np.arange(len(inputs)) * np.timedelta64(1, "D")


def _columns(inputs, labels):
    return {label: np.ascontiguousarray(inputs[:, i]) for i, label in enumerate(labels)}


TABLES = {
    "array": lambda inputs, labels: inputs,
    "pandas": _pandas,
    "polars": _polars,
    "pyarrow": _pyarrow,
}
