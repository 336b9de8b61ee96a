"""Children of many kinds: plain ones, odd ones, and those that fire."""

import numpy as np

from support import frozen


class Sum:
    """Stateful child: a running sum per slot, NaN counting as nothing."""

    def __init__(self):
        self.total = 0.0
        self.days = []

    def __call__(self, values, *, context):
        self.days.append((context.current_day_index, context.universe_mask.shape))
        self.total = self.total + np.nan_to_num(values)
        return self.total

    def get_state(self):
        return {"total": self.total, "days": self.days}

    def set_state(self, state):
        self.total, self.days = state["total"], state["days"]


def build_child(kind, capacity):
    """Build one child by its kind's name."""
    makers = {
        "sum": Sum,
        "double": lambda: lambda values, context: values * 2.0,
        "same": lambda: lambda values, context: values,
        "list": lambda: lambda values, context: [0.5] * capacity,
        "float32": lambda: lambda values, context: values.astype(np.float32),
        "strided": lambda: lambda values, context: np.repeat(values, 2)[::2],
        "fill": lambda: lambda values, context: np.nan_to_num(values, nan=0.25, posinf=3.0),
        "infinite": lambda: lambda values, context: np.full(capacity, np.inf),
        "overwrite": lambda: _overwrite,
        "scalar": lambda: lambda values, context: 1.0,
        "matrix": lambda: lambda values, context: values[None],
        "raise": lambda: _raise,
    }
    return makers[kind]()


def _overwrite(values, context):
    values[:] = np.arange(len(values))
    return values


def _raise(values, context):
    raise LookupError("child", len(values))


CHILD_KINDS = ["sum", "double", "same", "list", "float32", "strided", "fill", "infinite"]
ODD_CHILD_KINDS = ["overwrite", "scalar", "matrix", "raise"]


class Child:
    """Child with a state, that fires in the one method that `place` names."""

    def __init__(self, trigger, place, *, fails=False):
        self.trigger = trigger
        self.place = place
        self.fails = fails
        self.state = {"mine": [1, 2]}

    def __call__(self, values, *, context):
        return values

    def get_state(self):
        if self.place == "get_state":
            self.trigger.fire()
        return self.state

    def set_state(self, state):
        if self.place == "set_state":
            self.trigger.fire()
        if self.fails:
            raise LookupError("set_state")
        self.state = state


class LookedUpChild(Child):
    """Child that fires when its methods are looked up."""

    def __getattribute__(self, name):
        if name == object.__getattribute__(self, "place"):
            object.__getattribute__(self, "trigger").fire()
        return object.__getattribute__(self, name)


class CopiedState(dict):
    """State that fires when it is copied deeply."""

    trigger = None

    def __deepcopy__(self, memo):
        self.trigger.fire()
        return {"copied": 1}


class NotedError(LookupError):
    """Error that fires when a note is added, or when it is shown."""

    trigger = None
    place = None

    def add_note(self, note):
        if self.place == "add_note":
            self.trigger.fire()

    def __repr__(self):
        if self.place == "repr":
            self.trigger.fire()
        return "NotedError()"


class FailingChild:
    """Child whose state cannot be set, not even the one that it had."""

    def __call__(self, values, *, context):
        return values

    def get_state(self):
        return {"mine": [1]}

    def set_state(self, state):
        raise LookupError("set_state", frozen.freeze(state))


class OneState:
    """Child that has one state object all its life, and hands it out."""

    def __init__(self):
        self.state = {"mine": [1]}

    def __call__(self, values, *, context):
        return values

    def get_state(self):
        return self.state

    def set_state(self, state):
        self.state.clear()
        self.state["mine"] = state
