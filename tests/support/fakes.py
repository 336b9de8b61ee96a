"""Recording fakes: concrete rotations, children, sinks, stores and contexts."""

import copy

import numpy as np


def rotation_class(base, items_per_day=(), *, name="Baskets", **attributes):
    """Make a concrete subclass of the module's VirtualizationBase.

    Entry d of `items_per_day` is what the hook returns on its call d (counted over the class); a
    callable entry is called with the hook's arguments and its result returned, so that it can
    raise or yield. After the last entry the hook returns []. The class attribute `hook_calls`
    lists the argument tuples. `attributes` are further class attributes (methods, `_name`, ...).
    """
    days = list(items_per_day)
    hook_calls = []

    def _refresh_active_structures(
        self, space_input, structure_inputs, nan_masks, combined_nan_mask, N
    ):
        arguments = (space_input, structure_inputs, nan_masks, combined_nan_mask, N)
        hook_calls.append(arguments)
        day = len(hook_calls) - 1
        if day >= len(days):
            return []
        return days[day](*arguments) if callable(days[day]) else days[day]

    body = {
        "__module__": __name__,
        "_refresh_active_structures": _refresh_active_structures,
        "hook_calls": hook_calls,
        **attributes,
    }
    metaclass = type(base.VirtualizationBase)
    return metaclass(name, (base.VirtualizationBase,), body)


def make_rotation(base, items_per_day=(), *, attributes=None, **constructor):
    """Make an instance of a fresh `rotation_class`; keywords override these defaults:

    max_structures=4, N_alloc=6, transformation_expression="none".
    """
    arguments = {"max_structures": 4, "N_alloc": 6, "transformation_expression": "none"}
    arguments.update(constructor)
    return rotation_class(base, items_per_day, **(attributes or {}))(**arguments)


def structure(key, legs, value=1.0, **further):
    """Make one raw structure item in its dict form."""
    return {"key": key, "legs": legs, "value": value, **further}


class RecordingChild:
    """Child that records its calls and returns `answer(values)`, or a copy of the values.

    `calls` lists (values object, copy of the values at the call, context).
    """

    def __init__(self, answer=None):
        self.answer = answer
        self.calls = []

    def __call__(self, values, *, context):
        self.calls.append((values, np.array(values, copy=True), context))
        return np.array(values, copy=True) if self.answer is None else self.answer(values)


class ConstantChild(RecordingChild):
    """Child that returns the given object itself, whatever it is called with.

    Serves as the child of a wrong shape, a scalar, a plain list, or finite values for empty slots.
    """

    def __init__(self, result):
        super().__init__(lambda values: result)


class RaisingChild(RecordingChild):
    """Child that raises the given exception object."""

    def __init__(self, error):
        super().__init__(self._raise)
        self.error = error

    def _raise(self, values):
        raise self.error


class MutatingChild(RecordingChild):
    """Child that overwrites the vector it receives with `fill` and returns that same object."""

    def __init__(self, fill):
        super().__init__(self._overwrite)
        self.fill = fill

    def _overwrite(self, values):
        values[:] = self.fill
        return values


class StatefulChild(RecordingChild):
    """Child with a running sum as its state; `log` records ("get",) and ("set", state).

    `set_errors` are raised by the calls of set_state in turn; None lets that call succeed.
    The live state dict is handed out by get_state, so that missing copies show.
    """

    def __init__(self, total=0.0, set_errors=()):
        super().__init__(self._add)
        self.state = {"total": total, "history": []}
        self.set_errors = list(set_errors)
        self.log = []

    def _add(self, values):
        self.state["total"] += float(np.nansum(values))
        self.state["history"].append(self.state["total"])
        return np.where(np.isnan(values), np.nan, self.state["total"])

    def get_state(self):
        self.log.append(("get",))
        return self.state

    def set_state(self, state):
        self.log.append(("set", state))
        error = self.set_errors.pop(0) if self.set_errors else None
        if error is not None:
            raise error
        self.state = state


class WriteOnlyChild(RecordingChild):
    """Child with set_state and without get_state."""

    def __init__(self):
        super().__init__()
        self.restored = []

    def set_state(self, state):
        self.restored.append(state)


class ReadOnlyChild(RecordingChild):
    """Child with get_state and without set_state."""

    def __init__(self, state):
        super().__init__()
        self.state = state

    def get_state(self):
        return self.state


class RecordingSink:
    """Trace sink with nothing but `append`, which returns a value that must be ignored."""

    def __init__(self):
        self.records = []

    def append(self, record):
        self.records.append(record)
        return "ignored"


class RaisingSink:
    """Trace sink whose append raises the given exception object."""

    def __init__(self, error):
        self.error = error

    def append(self, record):
        raise self.error


class MemoryStore:
    """Storage object that copies on write and on read; `calls` lists ("read"|"write", name)."""

    def __init__(self, states=None):
        self.states = dict(states or {})
        self.calls = []

    def write(self, name, state):
        self.calls.append(("write", name))
        self.states[name] = copy.deepcopy(state)
        return "ignored"

    def read(self, name):
        self.calls.append(("read", name))
        return copy.deepcopy(self.states.get(name))


class RaisingStore:
    """Storage object whose read and write raise the given exception object."""

    def __init__(self, error):
        self.error = error

    def write(self, name, state):
        raise self.error

    def read(self, name):
        raise self.error


class Context:
    """Caller's context holding just the attributes given: Context(current_day_index=7)."""

    def __init__(self, **attributes):
        self.__dict__.update(attributes)


def shown(value):
    """Name a parameter of a test: its repr, unless that holds an address that differs per run."""
    text = repr(value)
    return type(value).__name__ if " at 0x" in text else text


def through_super(name):
    """Return an override of the method that only calls the one behind it."""

    def step(self, *args):
        return getattr(super(type(self), self), name)(*args)

    return step
