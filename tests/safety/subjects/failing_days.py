"""Days that fail."""

import numpy as np

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.virtualization import base
from safety.subjects.failing import FAILURES, failing
from safety.subjects.rotations import (
    Baskets,
    Child,
    Context,
    Copied,
    N,
    make_ewma,
    make_transcendental,
    raising,
    row,
    used,
    usual_items,
)


@failing(AttributeError)
def call_of_an_empty_instance():
    rotation = object.__new__(Baskets)
    return lambda: rotation(row())


@failing(NotImplementedError)
def call_of_the_abstract_virtualization():
    rotation = base.VirtualizationBase(
        max_structures=1, transformation_expression="none", N_alloc=N
    )
    return lambda: rotation(row())


@failing(NotImplementedError)
def call_of_the_abstract_rotation():
    rotation = RotationBase(N_alloc=N)
    return lambda: rotation(row())


def day_of_items(name, error, *items):
    """Register a day that fails for what the hook reports."""

    def setup():
        rotation, values = used(Baskets), row()
        rotation.items = list(items)
        return lambda: rotation(values)

    FAILURES[name] = (error, setup)


day_of_items("item without key", KeyError, {"legs": (), "value": 1.0})


day_of_items("item without attributes", AttributeError, 3)


day_of_items("key that is no sequence", TypeError, {"key": 3, "legs": ()})


day_of_items("key that cannot be hashed", TypeError, {"key": ([],), "legs": ()})


day_of_items("legs that are no pairs", ValueError, {"key": (1,), "legs": [(1, 2, 3)]})


day_of_items("leg that is no number", ValueError, {"key": (1,), "legs": [("x", 1.0)]})


day_of_items("value that is no number", ValueError, {"key": (1,), "legs": (), "value": "x"})


day_of_items("metadata that is no mapping", TypeError, {"key": (1,), "legs": (), "metadata": 3})


day_of_items(
    "too many structures",
    ValueError,
    *[{"key": (number,), "legs": (), "value": 1.0} for number in range(9)],
)


@failing(LookupError)
def hook_that_raises():
    rotation = used(Baskets)
    rotation.items = raising
    return lambda: rotation(row())


@failing(LookupError)
def hook_that_raises_half_way():
    def items():
        yield usual_items()[0]
        raise LookupError

    rotation = used(Baskets)
    rotation.items = items
    return lambda: rotation(row())


@failing(LookupError)
def child_that_raises():
    rotation = used(Baskets)
    rotation.child_rotations.append(Child(fails=["call"]))
    return lambda: rotation(row())


@failing(ValueError)
def child_of_another_shape():
    rotation = used(Baskets)
    rotation.child_rotations.append(lambda values, context: values[:1])
    return lambda: rotation(row())


@failing(LookupError)
def sink_that_raises():
    rotation = used(Baskets)
    rotation.trace_sink = type("Sink", (), {"append": raising})()
    return lambda: rotation(row())


@failing(ValueError)
def day_that_is_too_wide():
    rotation, values = used(Baskets), np.ones(N + 1)
    return lambda: rotation(values)


@failing(ValueError)
def day_wider_than_any():
    rotation = used(Baskets)
    rotation._n_alloc = None
    return lambda: rotation(np.broadcast_to(1.0, 10**6 + 1))


@failing(TypeError)
def day_without_inputs():
    rotation = used(Copied)
    return lambda: rotation()


@failing(ValueError)
def day_of_a_scalar():
    rotation = used(Copied)
    return lambda: rotation(3.0)


@failing(ValueError)
def day_of_text():
    rotation = used(Copied)
    return lambda: rotation(["x"])


@failing(RuntimeError)
def day_that_reports_failure():
    rotation = used(Copied)
    rotation.answer = 1
    return lambda: rotation(row())


@failing(ValueError)
def mask_that_is_too_short():
    rotation, context = used(Copied), Context(np.ones((3, 2), dtype=bool))
    return lambda: rotation(row(), context=context)


@failing(IndexError)
def mask_without_the_day():
    rotation, context = used(Copied), Context(np.ones((1, N), dtype=bool))
    return lambda: rotation(row(), context=context)


@failing(ValueError)
def buffer_that_is_no_buffer():
    rotation = used(Copied)
    rotation._combined_nan_buf = np.zeros(2, dtype=np.uint8)
    return lambda: rotation(row())


@failing(ValueError)
def memory_that_is_no_memory():
    rotation = used(make_ewma)
    rotation._mean = np.zeros((2, 3))
    return lambda: rotation(row())


@failing(ValueError)
def function_that_is_unknown_later():
    rotation = used(make_transcendental)
    rotation.function = "nothing"
    return lambda: rotation(row())


@failing(TypeError)
def compute_of_two_inputs():
    rotation = used(make_ewma)
    return lambda: rotation(row(), row())


@failing(ValueError)
def compute_of_a_negative_width():
    rotation, output = used(lambda: Rank(N_alloc=N)), np.empty(N)
    return lambda: rotation.compute((row(),), (), None, output, -1)


@failing(ValueError)
def compute_into_a_read_only_output():
    rotation, output = used(lambda: ZScore(N_alloc=N)), np.empty(N)
    output.flags.writeable = False
    return lambda: rotation.compute((row(),), (), None, output, N)
