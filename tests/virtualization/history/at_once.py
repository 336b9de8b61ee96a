"""Rotations of some baskets, and tables of numbers for them."""

import numpy as np

from support.histories import random_baskets


def prices(rng, days, instruments, missing=0.0, infinite=0.0):
    matrix = rng.normal(size=(days, instruments))
    matrix[rng.random(matrix.shape) < missing] = np.nan
    matrix[rng.random(matrix.shape) < infinite] = np.inf
    return matrix


def rotation_of(cls, baskets, names, expression, **options):
    return cls(baskets, names, transformation_expression=expression, **options)


def some_baskets(count=40, instruments=11):
    return random_baskets(np.random.default_rng(5), instruments, count, 3)
