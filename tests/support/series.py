"""Random and deliberate rows for the child rotations."""

import numpy as np

DENORMAL = 5e-324
HUGE = 1.7e308


def random_rows(seed, days, columns):
    """Return days by columns of everything a row may hold, a different mixture in each column."""
    rng = np.random.default_rng(seed)
    rows = rng.normal(size=(days, columns)) * 10.0 ** rng.integers(-12, 12, size=columns)
    rows += rng.choice([0.0, 1.0, 1e6], size=columns)
    tied = rng.random(columns) < 0.2
    rows[:, tied] = np.round(rng.normal(size=(days, tied.sum())))
    constant = rng.random(columns) < 0.1
    rows[:, constant] = rng.normal(size=constant.sum())
    specials = [np.nan, np.nan, np.inf, -np.inf, 0.0, -0.0, DENORMAL, -DENORMAL, 1e300, -1e300]
    special = rng.random(rows.shape) < 0.15
    rows[special] = rng.choice(specials, size=special.sum())
    rows[:, rng.random(columns) < 0.05] = np.nan
    return rows


DELIBERATE_ROWS = {
    "empty": [],
    "one": [3.5],
    "one missing": [np.nan],
    "all missing": [np.nan] * 5,
    "all equal": [0.1] * 7,
    "two": [1.0, 2.0],
    "both zeros": [0.0, -0.0, np.nan, 1.0],
    "infinities": [np.inf, -np.inf, 0.0, np.inf, np.nan, 1e308],
    "only infinities": [np.inf, -np.inf, np.inf],
    "one finite": [np.inf, 1.0, np.nan],
    "ties": [2.0, 1.0, 2.0, 3.0, 1.0, 2.0, np.nan],
    "denormals": [DENORMAL, 0.0, 3 * DENORMAL, -DENORMAL, DENORMAL],
    "huge": [HUGE, -HUGE, HUGE / 2, 0.0, np.nan],
    "nearly equal": [1.0, 1.0 + 2**-52, 1.0, 1.0 - 2**-53],
    "large offset": [1e9, 1e9 + 1, 1e9 + 2, np.nan, 1e9 - 5],
    "one far away": [1e300, 1.0, 1.0 + 2**-50, 1.0 + 2**-51, 2.0, 1.0],
}


def same_bits(left, right):
    """Whether two float64 arrays agree to the bit, any NaN being equal to any other."""
    left, right = np.asarray(left, np.float64), np.asarray(right, np.float64)
    if left.shape != right.shape or (np.isnan(left) != np.isnan(right)).any():
        return False
    there = ~np.isnan(left)
    return bool((left[there].view(np.int64) == right[there].view(np.int64)).all())


def ulps_apart(left, right):
    """Return how many representable numbers lie between, per element, of equal signs."""
    left, right = np.asarray(left, np.float64), np.asarray(right, np.float64)
    return np.abs(left.view(np.int64) - right.view(np.int64))
