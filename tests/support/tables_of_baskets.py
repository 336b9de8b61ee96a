"""Baskets for tests, and tables of every kind with the same numbers."""

import numpy as np
import pytest

START = np.datetime64("2024-01-01")
DAY = np.timedelta64(1, "D")
KINDS = ["array", "pandas", "polars", "pyarrow"]
EXPRESSIONS = [
    "none",
    "ewma(3)",
    "ewma(3);rank",
    "ewma(4);zscore",
    "rank;ewma(2)",
    "sigmoid;ewma(3);rank",
    "zscore;ewma(3);sigmoid",
    "ewma(3);rank;ewma(5);sigmoid",
]
WEIGHTS = {
    "a/b": {"A": 1.0, "B": -1.0},
    "c/d": {"C": 1.0, "D": -0.5},
    "all": {"A": 0.25, "B": 0.5, "C": 0.75, "D": 1.0},
    "e": {"E": 2.0},
}
NAMES = ("A", "B", "C", "D", "E")


def numbers(rows=40, columns=5, *, missing=0.1, seed=1):
    """Random numbers with holes, and a first column that is listed late."""
    rng = np.random.default_rng(seed)
    values = rng.normal(size=(rows, columns))
    values[rng.random(values.shape) < missing] = np.nan
    values[: rows // 4, :1] = np.nan
    return values


def same_bits(found, expected):
    """The same shape and numbers to the bit; one NaN is as good as another."""
    found, expected = np.asarray(found), np.asarray(expected)
    np.testing.assert_array_equal(found, expected, strict=True)
    np.testing.assert_array_equal(np.signbit(found)[found == 0], np.signbit(expected)[found == 0])


class Kind:
    """Makes tables of one kind, dated in the index of pandas and in the first column elsewhere."""

    def __init__(self, name):
        self.name = name
        self.library = None if name == "array" else pytest.importorskip(name)
        if name in ("polars", "pyarrow"):
            pytest.importorskip("narwhals")

    def table(self, values, names=NAMES, *, first=0):
        days = START + np.arange(first, first + len(values))
        if self.name == "array":
            return np.array(values)
        columns = {name: values[:, i] for i, name in enumerate(names)}
        if self.name == "pandas":
            index = self.library.DatetimeIndex(days, name="day")
            return self.library.DataFrame(columns, index=index)
        if self.name == "polars":
            made = self.library.DataFrame({"day": days, **columns})
            return made.with_columns(self.library.col(list(names)).fill_nan(None))
        return self.library.table(
            {
                "day": days,
                **{k: self.library.array(v, from_pandas=True) for k, v in columns.items()},
            }
        )

    def plain(self, columns):
        """A frame without dates of its own; of pandas for arrays too."""
        if self.name in ("array", "pandas"):
            return pytest.importorskip("pandas").DataFrame(columns)
        return self.library.table(columns) if self.name == "pyarrow" else self.frame(columns)

    def frame(self, columns):
        return self.library.DataFrame(columns)

    def part(self, table, start, stop):
        return table.iloc[start:stop] if self.name == "pandas" else table[start:stop]

    def values(self, table):
        """The numbers as an array, without the column of dates."""
        if self.name == "array":
            return table
        if self.name == "pandas":
            return table.to_numpy()
        if self.name == "polars":
            return table.drop("day").cast(self.library.Float64).to_numpy()
        return table.drop_columns(["day"]).to_pandas().to_numpy(dtype=float)

    def columns(self, frame):
        """Columns as lists."""
        if self.name == "array":
            return {name: frame[name].tolist() for name in frame.dtype.names}
        if self.name == "pyarrow":
            return frame.to_pydict()
        if self.name == "polars":
            return frame.to_dict(as_series=False)
        return frame.to_dict(orient="list")

    def date(self, row):
        """What `step` and `run` are told of a date: only arrays need it."""
        return START + np.arange(row.start, row.stop) if self.name == "array" else None


def long_columns(rows):
    days, *others = zip(*rows, strict=True)
    names = ("basket", "instrument", "weight")
    columns = dict(zip(names, map(list, others), strict=True))
    return {"date": START + np.array(days), **columns}


def three_lists():
    """A long table as columns: three lists of baskets, of which one comes back."""
    rows = [
        (3, "a/b", "A", 1.0),
        (3, "a/b", "B", -1.0),
        (3, "c", "C", 1.0),
        (9, "c", "C", 0.5),
        (9, "c", "D", 0.5),
        (9, "e", "E", 2.0),
        (20, "a/b", "A", 1.0),
        (20, "a/b", "B", -2.0),
        (20, "e", "E", 2.0),
        (20, "d", "D", 1.0),
    ]
    return long_columns(rows)
