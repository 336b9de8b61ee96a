"""NumPy may be replaced at any time, and its arrays may warn of being written."""

import functools
import sys
import types
import warnings
from unittest import mock

import numpy as np
import pytest

from support.fakes import RecordingChild, make_rotation, structure
from virtualization.surroundings.helpers import ITEMS, Acting, OtherNumpy, both, compute, steady

REPLACEMENTS = {
    "asarray": lambda *args, **kwargs: np.full(4, 9.0),
    "array": lambda *args, **kwargs: np.full(4, 8.0),
    "isfinite": lambda value: False,
    "zeros": lambda N, dtype: np.ones(N, dtype=dtype),
    "nan": 55.0,
    "float64": np.float32,
}


@pytest.mark.parametrize("name", REPLACEMENTS)
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("way", ["module's np", "numpy itself"])
def test_replaced_numpy_function_serves_from_the_next_step_on(name, policy, way):
    """The child replaces it in the middle of the second day and restores it in the fourth."""

    def scenario(base):
        def child(values, context):
            step[0] += 1
            if step[0] == 2:
                patch.start()
            elif step[0] == 4:
                patch.stop()
            return values

        if way == "numpy itself":
            patch = mock.patch.object(np, name, REPLACEMENTS[name])
        else:
            patch = mock.patch.object(base, "np", OtherNumpy(**{name: REPLACEMENTS[name]}))
        step = [0]
        rotation = steady(base, child_rotations=[child], unmap_policy=policy, trace_sink=[])
        outputs = []
        for _ in range(5):
            try:
                outputs.append(rotation(np.ones(6)).tobytes())
            except (TypeError, ValueError) as error:
                outputs.append(str(error))
        if step[0] < 4:
            patch.stop()
        return outputs

    assert len(set(both(scenario))) > 1


def test_conversion_is_looked_up_after_the_child_was_called(base):
    def child(values, context):
        base.np = OtherNumpy(asarray=lambda *args, **kwargs: np.full(4, 9.0))
        return values

    rotation = make_rotation(base, child_rotations=[child])
    assert rotation._run_child_chain(np.zeros(4), None).tolist() == [9.0] * 4


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
def test_names_are_asked_of_numpy_in_pythons_order(policy):
    """A stand-in for `np` sees the same questions, call by call, from both modules."""

    def scenario(base):
        log = []

        def asked(call, *args, **kwargs):
            standing.read.clear()
            call(*args, **kwargs)
            log.append(list(standing.read))

        standing = base.np = OtherNumpy()
        rotation = steady(
            base, child_rotations=[RecordingChild()] * 2, unmap_policy=policy, trace_sink=[]
        )
        log.append(list(standing.read))
        for _ in range(2):
            asked(rotation, np.ones(6))
        asked(rotation.batch_reference, np.ones((2, 6)))
        asked(rotation._normalize_structure, {"key": (), "legs": (), "value": 1.0})
        asked(rotation.set_state, rotation.get_state() | {"child_states": [{}, {}]})
        asked(rotation.resize, 7)
        asked(base._AllOnesVirtualMask(3, np.ones(4)).__getitem__, slice(1))
        return log

    log = both(scenario)
    assert all(log)


def test_module_class_of_numpy_that_answers_itself_is_asked():
    def scenario(base):
        class Answering(types.ModuleType):
            def __getattribute__(self, name):
                if name in ("isfinite", "nan"):
                    log.append(name)
                return super().__getattribute__(name)

        log = []
        rotation = steady(base)
        rotation(np.ones(6))
        np.__class__ = Answering
        try:
            rotation(np.ones(6))
        finally:
            np.__class__ = types.ModuleType
        # NumPy's own Python code asks its module, too, but not for these.
        return log

    assert both(scenario).count("isfinite") >= 2


def test_module_class_of_numpy_changed_in_the_middle_of_a_day_is_asked():
    def scenario(base):
        class Answering(types.ModuleType):
            def __getattribute__(self, name):
                if name == "isfinite":
                    log.append(name)
                return super().__getattribute__(name)

        def change():
            np.__class__ = Answering

        log = []
        acting = structure(("d",), ((0, 1.0),), Acting(change))
        rotation = make_rotation(base, [ITEMS, [ITEMS[0], acting, *ITEMS]])
        rotation(np.ones(6))
        try:
            rotation(np.ones(6))
        finally:
            np.__class__ = types.ModuleType
        return log

    assert both(scenario).count("isfinite") >= 4


# --- arrays that warn of being written --------------------------------------------------------


def warning_array(size):
    """Return an array of one repeated number, upon whose first write NumPy warns."""
    return np.broadcast_arrays(np.zeros(1), np.zeros(size))[0]


def assign(array):
    array[0] = 1.0


def fill(array):
    array.fill(1.0)


def numpy_warns_of(write):
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        write(warning_array(2))
    return bool(caught)


def with_row(rotation, name):
    setattr(rotation, name, warning_array(4))
    return rotation


WRITES = {
    "unmapping": lambda base, buffer: steady(base)._unmap(np.full(4, np.nan), buffer, 6),
    "unmapping something": lambda base, buffer: steady(base)._unmap(np.zeros(4), buffer, 6),
    "output": lambda base, buffer: compute(steady(base), buffer),
    "input row": lambda base, buffer: compute(with_row(steady(base), "_txi_input"), buffer),
    "output row": lambda base, buffer: compute(
        with_row(
            make_rotation(base, attributes={"_call_child_on_empty": False}, child_rotations=[]),
            "_txi_output",
        ),
        buffer,
    ),
}


@pytest.mark.parametrize("place", WRITES)
@pytest.mark.parametrize("action", ["always", "error"])
def test_numpy_warns_of_a_write_as_ever(place, action):
    def scenario(base):
        buffer = np.ones(6) if "row" in place else warning_array(6)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter(action)
            try:
                raised = WRITES[place](base, buffer)
            except DeprecationWarning as warning:
                raised = str(warning)
        return raised, [str(warning.message) for warning in caught], str(buffer)

    # Of the output row nothing but its filling is written, of which older NumPy does not warn.
    write = fill if place == "output row" else assign
    assert ("overlapping memory" in str(both(scenario))) == numpy_warns_of(write)


def test_numpy_is_whole_again():
    """The tests of this file put things in NumPy's place; none may stay there."""
    assert type(np) is types.ModuleType
    assert sys.modules["numpy"] is np
    assert functools.reduce(lambda total, name: total and name in vars(np), REPLACEMENTS, True)
