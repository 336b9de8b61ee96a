"""What computes the same as the functions of expressions, each as its library does it best."""

import numpy as np

from daybench.peers import load

WINDOW = 60
GROUPS = 11


def _pandas_row(row):
    return load("pandas").Series(row)


def _by_group(method):
    """A method of pandas' groups, over groups that are known beforehand."""

    def over(row):
        series = _pandas_row(row)
        grouped = series.groupby(np.arange(len(row)) % GROUPS)
        return lambda: method(grouped).to_numpy()

    return over


def bottleneck_centered_rank(row):
    nanrankdata = load("bottleneck").nanrankdata
    count = np.count_nonzero(~np.isnan(row))
    return lambda: (2.0 * nanrankdata(row) - (count + 1)) / count


def bottleneck_demean(row):
    nanmean = load("bottleneck").nanmean
    return lambda: row - nanmean(row)


def bottleneck_scale(row):
    nansum = load("bottleneck").nansum
    return lambda: row / nansum(np.abs(row))


def pandas_clip(row):
    series = _pandas_row(row)
    return lambda: series.clip(-1.0, 1.0).to_numpy()


def pandas_winsorize(row):
    series = _pandas_row(row)
    return lambda: series.clip(*series.quantile([0.02, 0.98])).to_numpy()


def _numpy(function):
    return lambda row: lambda: function(row)


# By expression: the library, the least ratio wanted, and what makes a call for a row.
ROWS = {
    "centered_rank": ("bottleneck", 2.0, bottleneck_centered_rank),
    "demean": ("bottleneck", 2.0, bottleneck_demean),
    "scale": ("bottleneck", 2.0, bottleneck_scale),
    "clip(-1, 1)": ("pandas", 2.0, pandas_clip),
    "winsorize(0.02)": ("pandas", 2.0, pandas_winsorize),
    'rank(by="group")': ("pandas", 2.0, _by_group(lambda grouped: grouped.rank(pct=True))),
    'demean(by="group")': (
        "pandas",
        2.0,
        _by_group(lambda grouped: grouped.obj - grouped.transform("mean")),
    ),
    'zscore(by="group")': (
        "pandas",
        2.0,
        _by_group(
            lambda grouped: (
                (grouped.obj - grouped.transform("mean")) / grouped.transform("std", ddof=0)
            )
        ),
    ),
    "tanh": ("NumPy", None, _numpy(np.tanh)),
    "sign": ("NumPy", None, _numpy(np.sign)),
    "abs": ("NumPy", None, _numpy(np.abs)),
    "log": ("NumPy", None, _numpy(lambda row: np.log(np.where(row > 0.0, row, np.nan)))),
}


def bottleneck_move(name, **options):
    def over(table):
        function = load("bottleneck", name)
        return lambda: function(table, WINDOW, min_count=WINDOW // 2, axis=0, **options)

    return over


def bottleneck_rolling_zscore(table):
    mean, deviation = (
        bottleneck_move("move_mean")(table),
        bottleneck_move("move_std", ddof=1)(table),
    )
    return lambda: (table - mean()) / deviation()


def _pandas_table(method):
    def over(table):
        frame = load("pandas").DataFrame(table)
        return lambda: method(frame).to_numpy()

    return over


# By expression: the library, the least ratio wanted, and what makes a call for a whole table.
TABLES = {
    f"rolling_mean({WINDOW}, {WINDOW // 2})": ("bottleneck", 1.0, bottleneck_move("move_mean")),
    f"rolling_std({WINDOW}, {WINDOW // 2})": (
        "bottleneck",
        1.0,
        bottleneck_move("move_std", ddof=1),
    ),
    f"rolling_zscore({WINDOW}, {WINDOW // 2})": ("bottleneck", 1.0, bottleneck_rolling_zscore),
    "ewma(halflife=10)": ("pandas", 1.0, _pandas_table(lambda f: f.ewm(halflife=10).mean())),
    "ewm_std(20)": ("pandas", 1.0, _pandas_table(lambda f: f.ewm(span=20).std())),
    "delay(5)": ("pandas", None, _pandas_table(lambda f: f.shift(5))),
    "diff(5)": ("pandas", None, _pandas_table(lambda f: f.diff(5))),
}
