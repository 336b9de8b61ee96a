"""Warnings of the arithmetic, errors raised while another is handled, recursion without end."""

import sys

import numpy as np
import pytest

from adversary.day import make
from adversary.values.odd_numbers import NAN
from support import frozen
from virtualization.hostile.scenarios import Scenarios, assert_same_on_both, plain_items

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


# Warnings and errors of the arithmetic


@SCENARIOS.add
def arithmetic_that_overflows_warns_or_raises_as_numpy_is_told(base):
    log = []
    cases = [(1e300, 1e300), (1e-300, 1e-300), (0.0, float("inf")), (1.0, NAN), (3.0, 5e-324)]
    for policy in ["proportional", "equal_split"]:
        for setting in ["ignore", "warn", "raise"]:
            for value, weight in cases:
                rotation = make(base)
                rotation.unmap_policy = policy
                legs = ((0, weight), (0, weight), (1, -weight), (0, 1.0))
                rotation._legs_by_slot = {0: legs, 1: ((0, -weight), (0, float("-inf")))}
                buffer = np.full(6, 77.0)
                row = np.array([value, value, NAN, NAN])
                with np.errstate(all=setting):
                    log.append((frozen.outcome(rotation._unmap, row, buffer, 6), buffer.tobytes()))
    return log


@SCENARIOS.add
def arithmetic_calls_the_function_that_numpy_was_told_to_call(base):
    told = []
    rotation = make(base)
    rotation._legs_by_slot = {0: ((0, 1e300),)}
    with np.errstate(all="call", call=lambda kind, flag: told.append((kind, flag))):
        rotation._unmap(np.full(4, 1e300), np.zeros(6), 6)
    return told


# Errors that are raised while another is handled


@SCENARIOS.add
def errors_raised_while_another_is_handled_have_it_as_context(base):
    rotation = make(base)
    rotation._name = "R"
    rotation.slot_by_key = {(number,): number for number in range(4)}
    calls = [
        lambda: rotation.batch_reference(),
        lambda: rotation._slot_for_key("new"),
        lambda: rotation.set_state([]),
        lambda: rotation.set_state({"slot_by_key": 5}),
        lambda: rotation.set_state({}),
        lambda: rotation.resize(True),
        lambda: rotation.resize(0),
        lambda: rotation._run_child_chain(np.zeros(2), None),
        lambda: base._AllOnesVirtualMask(1, np.ones(2))[5],
        lambda: base._AllOnesVirtualMask(1, np.ones(2))[1, 2, 3],
        lambda: rotation._normalize_structure({}),
        lambda: rotation._normalize_structure({"key": (), "legs": [(1,)], "value": 1.0}),
        lambda: rotation._parse_transformation_expression("?"),
        lambda: rotation._refresh_active_structures(1, 2, 3, 4, 5) and rotation.nothing,
    ]
    log = []
    for call in calls:
        try:
            raise OSError("outer")
        except OSError:
            log.append(frozen.outcome(call))
            log.append(repr(sys.exc_info()[1]))
    return log


@SCENARIOS.add
def error_raised_again_and_again_stays_one_object(base):
    error = LookupError("again")

    def fail(values, context):
        raise error

    rotation = make(base, fail)
    log = []
    for _ in range(3):
        try:
            rotation(np.ones(6))
        except LookupError as caught:
            log.append((caught is error, frozen.callers_frames(caught), caught.__context__))
        error.__traceback__ = None
    return log


@SCENARIOS.add
def error_handled_outside_is_seen_inside_a_step(base):
    seen = []

    def look(*args):
        seen.append(repr(sys.exc_info()[1]))
        return plain_items()

    rotation = make(base)
    rotation.items = look
    try:
        raise OSError("outer")
    except OSError:
        rotation(np.ones(6))
    rotation(np.ones(6))
    return seen


@SCENARIOS.add
def error_being_handled_during_a_rollback(base):
    seen = []

    class Child:
        calls = 0

        def get_state(self):
            return {}

        def set_state(self, state):
            self.calls += 1
            seen.append((self.calls, repr(sys.exc_info()[1])))
            if self.calls == 1:
                raise LookupError("set")

    rotation = make(base, Child())
    result = frozen.outcome(rotation.set_state, {"child_states": [{}, {}]})
    return [result, seen, repr(sys.exc_info()[1])]


@SCENARIOS.add
def error_being_handled_while_the_context_is_released(base):
    seen = []

    def __setattr__(self, name, value):
        if name == "_current_parent_context":
            seen.append((value, repr(sys.exc_info()[1])))
        object.__setattr__(self, name, value)

    def fail(values, context):
        raise LookupError("child")

    rotation = make(base, fail, __setattr__=__setattr__)
    return [frozen.outcome(rotation, np.ones(6)), seen]


@SCENARIOS.add
def error_with_a_cause_keeps_it(base):
    def fail(values, context):
        try:
            raise OSError("first")
        except OSError as error:
            raise LookupError("second") from error

    return frozen.outcome(make(base, fail), np.ones(6))


# Recursion


@SCENARIOS.add
def call_that_calls_itself_without_end_is_a_recursion_error(base):
    rotation = make(base)
    rotation.items = lambda *args: rotation(np.ones(6))
    kind, *details = frozen.outcome(rotation, np.ones(6))
    return [kind, details[0][0], rotation._current_parent_context]
