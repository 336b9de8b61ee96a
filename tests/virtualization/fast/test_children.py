"""Children of any kind are called without the objects that Python would make for it."""

import functools

import numpy as np
import pytest

from support import frozen
from support.fakes import RecordingChild, make_rotation, structure
from support.isolated import run_isolated
from virtualization.fast.calls import ITEMS, a_day, same_on_both


def seen(child):
    """Freeze what a recording child was called with."""
    return [
        (
            frozen.freeze(values),
            type(context).__name__,
            frozen.freeze(getattr(context, "__dict__", 0)),
        )
        for _, values, context in child.calls
    ]


# --- children ---------------------------------------------------------------------------------


class Adding:
    """Child whose class defines __call__ as a function."""

    def __call__(self, values, context=None, **further):
        assert not further
        return values + context.current_day_index + 1.0


class OfClass:
    @classmethod
    def __call__(cls, values, *, context):
        assert cls.__name__ == "OfClass"
        return values * 2.0


class Static:
    @staticmethod
    def __call__(values, *, context):
        return values * 3.0


class Held:
    """Child whose class holds another callable, which does not bind."""

    __call__ = functools.partial(lambda values, context: values * 4.0)


class Computed:
    @property
    def __call__(self):
        return lambda values, context: values * 5.0


class OwnEntry(Adding):
    """What stands in an instance under __call__ does not count."""

    def __init__(self):
        vars(self)["__call__"] = lambda *values, **context: np.zeros(4)


class Uncallable:
    __call__ = None


class NoKeyword:
    def __call__(self, values):
        return values


class OnlyKeywords:
    def __call__(self, **everything):
        return everything


class Dictionary(dict):
    def __call__(self, values, *, context):
        return values + len(self)


class Meta(type):
    def __call__(cls, values, *, context):
        return values - 7.0


class OfMeta(metaclass=Meta):
    pass


def function(values, context):
    return values / 3.0


CHILDREN = {
    "instance": Adding,
    "classmethod": OfClass,
    "staticmethod": Static,
    "held": Held,
    "property": Computed,
    "instance entry": OwnEntry,
    "none": Uncallable,
    "no keyword": NoKeyword,
    "only keywords": OnlyKeywords,
    "not callable": object,
    "dictionary": lambda: Dictionary(a=1),
    "class": lambda: OfMeta,
    "function": lambda: function,
    "bound": lambda: Adding().__call__,
    "partial": lambda: functools.partial(function),
    "builtin": lambda: np.asarray,
    "list": lambda: lambda values, context: values.tolist(),
    "strided": lambda: lambda values, context: np.repeat(values, 3)[::3],
    "backward": lambda: lambda values, context: values[::-1],
    "swapped": lambda: lambda values, context: values.astype(">f8"),
    "single": lambda: lambda values, context: values.astype(np.float32),
    "frozen": lambda: lambda values, context: np.broadcast_to(values[1], values.shape),
    "subclass": lambda: lambda values, context: values.view(type("Row", (np.ndarray,), {})),
    "matrix": lambda: lambda values, context: values.reshape(2, 2),
}


@pytest.mark.parametrize("name", CHILDREN)
@pytest.mark.parametrize("last", [False, True])
def test_child_of_any_kind_is_called_as_python_calls_it(name, last):
    def scenario(base, attributes):
        recording = RecordingChild()
        children = [CHILDREN[name]()]
        children.insert(0 if last else 1, recording)
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes, child_rotations=children)
        return a_day(rotation), a_day(rotation), seen(recording)

    same_on_both(scenario)


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_first_child_of_all_may_be_called_by_a_collection_during_the_first_call(kind):
    """Whatever is found out once, when it is needed, must not be asked for meanwhile."""
    printed = run_isolated(
        kind,
        """
        import os
        import signal

        base = load_base(kind, Siblings())
        items = [structure(("a",), ((0, 1.0),))]
        outer = make_rotation(base, [items], child_rotations=[RecordingChild()])
        inner = make_rotation(base, [items], child_rotations=[RecordingChild()])
        clear = np.zeros(6, dtype=np.uint8)

        def compute(rotation):
            rotation.compute((np.zeros(6),), (clear,), clear, np.zeros(6), 6)

        def compute_at(collection):
            seen = 0

            def collecting(phase, info):
                nonlocal seen
                seen += phase == "start"
                if phase == "start" and seen == collection:
                    compute(inner)

            gc.callbacks.append(collecting)
            gc.set_threshold(1)
            compute(outer)
            gc.set_threshold(700)
            return collection <= seen

        def outcome_at(collection):
            process = os.fork()
            if process == 0:
                signal.alarm(20)
                os._exit(0 if compute_at(collection) else 3)
            return os.waitpid(process, 0)[1]

        gc.collect()
        collection = 1
        while (outcome := outcome_at(collection)) == 0:
            collection += 1
        assert os.WIFEXITED(outcome) and os.WEXITSTATUS(outcome) == 3, (collection, outcome)
        print("collected", collection > 2)
        """,
    )
    assert printed == "collected True\n"


REPLACEMENTS = {
    "function": lambda self, values, context: values * 10.0,
    "static": staticmethod(lambda values, context: values * 20.0),
    "none": None,
    "class": RecordingChild,
    "array": np.ones(4),
}


@pytest.mark.parametrize("name", [*REPLACEMENTS, "deleted", "restored"])
def test_call_replaced_by_the_child_before_counts(name):
    def scenario(base, attributes):
        class Child:
            def __call__(self, values, *, context):
                return values + 0.5

        class Changing:
            def __call__(self, values, *, context):
                if name == "deleted":
                    del Child.__call__
                elif name == "restored":
                    own = Child.__call__
                    Child.__call__ = None
                    Child.__call__ = own
                else:
                    Child.__call__ = REPLACEMENTS[name]
                return values

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[Child(), Changing(), Child()]
        )
        return a_day(rotation)

    same_on_both(scenario)


def test_class_replaced_by_the_child_before_counts():
    def scenario(base, attributes):
        last = Adding()

        def change(values, context):
            last.__class__ = type("Later", (Adding,), {"__call__": lambda *_, context: [9.0] * 4})
            return values

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[Adding(), change, last]
        )
        return a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("error", [ValueError, KeyboardInterrupt, StopIteration])
def test_failing_child_leaves_the_day_as_it_was(error):
    def scenario(base, attributes):
        class Failing:
            def __call__(self, values, *, context):
                raise error("no")

        later = RecordingChild()
        rotation = make_rotation(
            base, [ITEMS] * 2, attributes=attributes, child_rotations=[Adding(), Failing(), later]
        )
        return a_day(rotation), later.calls

    (result, _), calls = same_on_both(scenario)
    assert result[0] == "raised"
    assert calls == []


CHANGES_OF_THE_LIST = {
    "append": lambda children: children.append(Adding()),
    "insert": lambda children: children.insert(0, Adding()),
    "remove next": lambda children: children.pop(1),
    "remove last": lambda children: children.pop(),
    "clear": lambda children: children.clear(),
    "replace next": lambda children: children.__setitem__(1, Static()),
}


@pytest.mark.parametrize("change", CHANGES_OF_THE_LIST)
@pytest.mark.parametrize("kind", [list, type("List", (list,), {})])
def test_list_of_children_changed_by_a_child_is_gone_through_as_it_is(change, kind):
    def scenario(base, attributes):
        def first(values, context):
            if len(children) == 3:
                CHANGES_OF_THE_LIST[change](children)
            return values * 2.0

        children = kind([first, Adding(), OfClass()])
        rotation = make_rotation(base, [ITEMS], attributes=attributes)
        rotation.child_rotations = children
        return a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("kind", [tuple, iter, lambda parts: dict.fromkeys(parts).keys(), set])
def test_children_may_be_any_iterable(kind):
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 2, attributes=attributes)
        rotation.child_rotations = kind([Adding()])
        return a_day(rotation), a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("change", ["shorter", "longer", "cleared", "replaced"])
@pytest.mark.parametrize("kind", [list, tuple])
def test_report_changed_while_it_is_recorded_is_gone_through_as_it_is(change, kind):
    def scenario(base, attributes):
        class Changing:
            key, legs, metadata = ("c",), ((3, 1.0),), None

            @property
            def value(self):
                if type(report) is list and change == "shorter":
                    report.pop()
                elif type(report) is list and change == "longer":
                    report.append(structure(("d",), ((4, 1.0),), 4.0))
                elif type(report) is list and change == "cleared":
                    report.clear()
                elif type(report) is list:
                    report[2] = structure(("b",), ((5, 1.0),), 5.0)
                return 3.0

        report = kind([ITEMS[0], Changing(), ITEMS[1]])
        rotation = make_rotation(base, [report], attributes=attributes)
        return a_day(rotation)

    same_on_both(scenario)
