"""Histories, batches, representations and masks that fail."""

import numpy as np

from quorvane.functions.rotations.virtualization.history import replay_history
from safety.subjects.failing import failing
from safety.subjects.operations import ready_made
from safety.subjects.rotations import Baskets, Copied, N, matrix, raising, used


@failing(LookupError)
def history_that_its_progress_ends():
    rotation, values = ready_made(), np.ones((40, N))
    return lambda: replay_history(rotation, values, progress=raising)


@failing(ValueError)
def history_of_no_number_of_threads():
    rotation, values = ready_made(), np.ones((40, N))
    return lambda: replay_history(rotation, values, threads=0)


@failing(ValueError)
def batch_without_matrices():
    return used(Baskets).batch_reference


@failing(IndexError)
def batch_of_a_scalar():
    rotation = used(Baskets)
    return lambda: rotation.batch_reference(1.0)


@failing(IndexError)
def batch_of_different_lengths():
    rotation = used(Baskets)
    return lambda: rotation.batch_reference(matrix(), matrix()[:1])


@failing(LookupError)
def representation_of_a_value_that_raises():
    rotation = Copied(parameter=type("Value", (), {"__repr__": raising})())
    return lambda: repr(rotation)


@failing(IndexError)
def row_that_is_not_in_the_mask():
    mask = used(Baskets)._make_child_context(None, 2).universe_mask
    return lambda: mask[7]


@failing(ValueError)
def mask_index_of_three_parts():
    mask = used(Baskets)._make_child_context(None, 2).universe_mask
    return lambda: mask[0, 1, 2]
