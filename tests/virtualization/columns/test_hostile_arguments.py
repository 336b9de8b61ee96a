"""Structure columns of arguments that raise, convert to junk, or change while they are read."""

import gc

import numpy as np
import pytest

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from virtualization.columns.helpers import PLAIN, make, refusal, same_as


class Raising:
    """Raises wherever it is asked."""

    def raises(self, *arguments, **named):
        raise LookupError("on purpose")

    __iter__ = __array__ = __len__ = __getitem__ = __float__ = __index__ = __repr__ = raises


@pytest.mark.parametrize("argument", PLAIN)
def test_errors_of_arguments_come_through(argument):
    refusal(LookupError, "on purpose", make, **{argument: Raising()})


def test_errors_of_inputs_come_through():
    refusal(LookupError, "on purpose", make().weighted_sums, Raising())
    refusal(LookupError, "on purpose", make().with_values, Raising())


def test_errors_of_parts_of_the_keys_come_through():
    class RaisingTuple(tuple):
        __slots__ = ()

        def __iter__(self):
            raise LookupError("on purpose")

    def keys():
        yield ("a",)
        raise LookupError("on purpose")

    refusal(LookupError, "on purpose", make, keys=keys())
    refusal(LookupError, "on purpose", make, keys=[("a",), RaisingTuple(), ()])
    refusal(LookupError, "on purpose", make, keys=[("a",), Raising(), ()])  # while it is shown


class Converted:
    """Answers __array__ with whatever it was given, after running something."""

    def __init__(self, answer, action=lambda: None):
        self.answer = answer
        self.action = action

    def __array__(self, dtype=None, copy=None):
        self.action()
        return self.answer


@pytest.mark.parametrize("argument", ["offsets", "leg_ids", "weights", "values"])
@pytest.mark.parametrize("junk", [None, 3, [0, 2, 3], "text", np.float64(3.0)])
def test_conversions_to_junk_are_refused(argument, junk):
    with pytest.raises((ValueError, TypeError)):
        make(**{argument: Converted(junk)})


def test_conversions_to_arrays_are_taken():
    columns = make(**{name: Converted(np.array(PLAIN[name])) for name in list(PLAIN)[1:]})
    same_as(columns, make())


def test_code_that_runs_while_one_argument_is_read_cannot_change_those_before_it():
    keys = [("a",), ("b", 2), ()]
    offsets = np.array(PLAIN["offsets"])
    leg_ids = np.array(PLAIN["leg_ids"])
    weights = np.array(PLAIN["weights"])

    def spoil(*arrays):
        keys.clear()
        for array in arrays:
            array.resize(0, refcheck=False)
            array.resize(10**5, refcheck=False)

    columns = StructureColumns(
        keys,
        Converted(offsets, spoil),
        Converted(leg_ids, lambda: spoil(offsets)),
        Converted(weights, lambda: spoil(leg_ids)),
        Converted(np.array(PLAIN["values"]), lambda: spoil(weights)),
    )
    same_as(columns, make())


def test_values_may_change_while_the_object_is_made():
    """Where a collection comes as the legs are made, it finds something to run."""
    values = np.ones(2000)

    class Shrinking:
        def __init__(self):
            self.cycle = self

        def __del__(self):
            values.resize(1, refcheck=False)

    gc.collect()
    columns = StructureColumns(
        [()] * 2000, np.arange(2001), [0] * 2000, [1.0] * 2000, Converted(values, Shrinking)
    )
    gc.collect()
    assert values.shape == (1,)
    assert columns[0]["value"] == 1.0
    refusal(ValueError, "values: the array was changed in size or type", lambda: columns[1])


def test_what_runs_when_it_goes_finds_the_others_whole():
    seen = []

    class Last:
        def __del__(self):
            seen.append([item["key"] for item in other])
            gc.collect()

    other = make()
    columns = make(keys=[(Last(),), (), ()])
    del columns
    assert seen == [[("a",), ("b", 2), ()]]
