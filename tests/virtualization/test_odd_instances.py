"""Methods on objects and classes that are hardly rotations: what Python code would do with them.

Each scenario gets a module and returns what it saw; the native module and the twin must agree.
"""

import numpy as np
import pytest

from support.fakes import make_rotation, structure
from support.siblings import Siblings, load_base, plain_rotation_base

N = 6
ROW = np.arange(1.0, N + 1)
ITEMS = [structure(("a",), ((0, 1.0), (1, -1.0)), 2.0)]


def outcome(call, *arguments, **keywords):
    """Return what the call gives, or the type and text of its error."""
    try:
        return repr(call(*arguments, **keywords))
    except Exception as error:
        return type(error).__name__, str(error)


def same(scenario, siblings=Siblings):
    """Return what the scenario saw, the same on both modules."""
    expected = scenario(load_base("twin", siblings()))
    assert scenario(load_base("native", siblings())) == expected
    return expected


# --- self is no rotation ------------------------------------------------------------------------


def test_object_without_a_dictionary_has_no_attributes():
    def scenario(base):
        unmap = base.VirtualizationBase._unmap
        return outcome(unmap, object(), np.zeros(1), np.zeros(1), 1)

    assert same(scenario)[0] == "AttributeError"


def test_class_as_self_calls_the_class_behind():
    def scenario(base):
        class Rotation(base.VirtualizationBase):
            _n_alloc = N

        calls = [
            outcome(base.VirtualizationBase.__call__, Rotation),
            outcome(base.VirtualizationBase.__call__, Rotation, ROW),
            outcome(base.VirtualizationBase.__call__, Rotation, ROW, ROW, context=3),
        ]
        return calls, Rotation._current_parent_context

    same(scenario)


def test_object_of_another_class_is_refused_by_super():
    def scenario(base):
        class Other:
            _n_alloc = N

        return outcome(base.VirtualizationBase.__call__, Other(), ROW)

    assert same(scenario)[0] == "TypeError"


@pytest.mark.parametrize("row", [ROW, [1.0] * N, 3.0, None], ids=repr)
def test_no_allocation_asks_the_first_input_alone_for_its_width(row):
    def scenario(base):
        rotation = make_rotation(base, [ITEMS, ITEMS])
        rotation._n_alloc = None
        return outcome(rotation, row), outcome(rotation)

    same(scenario)


# --- classes ------------------------------------------------------------------------------------


class WithoutWeakReferences(type):
    """Metaclass whose classes have a dictionary and allow no weak references."""

    def __new__(cls, name, bases, body):
        if not bases or name == "VirtualizationBase":
            body = {**body, "__slots__": () if bases else ("__dict__",)}
        return super().__new__(cls, name, bases, body)


def plain_base_without_weak_references():
    namespace = dict(vars(plain_rotation_base()))
    for name in ("__dict__", "__weakref__"):
        del namespace[name]
    return WithoutWeakReferences("RotationBase", (), namespace)


def test_rotation_that_nobody_can_refer_to_weakly():
    def scenario(base):
        class Rotation(base.VirtualizationBase):
            __slots__ = ()

            def _refresh_active_structures(self, *day):
                return ITEMS

        rotation = Rotation(max_structures=3, N_alloc=N, transformation_expression="none")
        seen = [type(rotation).__weakrefoffset__, hasattr(rotation, "__dict__")]
        seen += [rotation(ROW).tolist()[:2] for _ in range(3)]
        state = rotation.get_state()
        rotation.set_state(dict(state))
        return seen, repr(rotation.get_state()), rotation(ROW).tobytes()

    seen, _, _ = same(scenario, lambda: Siblings(RotationBase=plain_base_without_weak_references()))
    assert seen == [0, True] + [[2.0, -2.0]] * 3


# --- instances without their dictionary ---------------------------------------------------------


@pytest.mark.parametrize(
    "step",
    ["_refresh_active_structures", "_make_child_context", "_run_child_chain", "_unmap"],
)
@pytest.mark.parametrize("attributes", [False, True])
def test_step_that_drops_the_dictionary(step, attributes):
    def scenario(base):
        def drop(self, *arguments):
            if attributes:
                for name, value in vars(self).items():
                    setattr(type(self), name, value)
            del self.__dict__
            if step == "_refresh_active_structures":
                return ITEMS
            return getattr(super(type(self), self), step)(*arguments)

        rotation = make_rotation(base, [ITEMS] * 3, attributes={step: drop})
        seen = [outcome(rotation, ROW), outcome(rotation.get_state)]
        return seen, sorted(vars(rotation))

    same(scenario)


# --- unpacking ----------------------------------------------------------------------------------


class FailsAtTheEnd:
    """Iterable of so many elements, and of an error after them."""

    def __init__(self, *elements):
        self.elements = elements

    def __iter__(self):
        yield from self.elements
        raise LookupError("at the end")


def without_iter(error):
    """Make an object whose __iter__ goes away while it raises; __getitem__ stays."""

    class Odd:
        def __iter__(self):
            del Odd.__iter__
            raise error("raised by __iter__")

        def __getitem__(self, index):
            raise IndexError

    return Odd()


COMPONENTS = {
    "error after the last": lambda: FailsAtTheEnd(*({},) * 3, [], 1),
    "error instead of the last": lambda: FailsAtTheEnd(*({},) * 3, []),
    "too few": lambda: [{}] * 4,
    "too many": lambda: iter([{}] * 6),
    "sequence that lost its iteration": lambda: without_iter(TypeError),
    "other error of iteration": lambda: without_iter(ValueError),
    "no iterable": lambda: 5,
}


@pytest.mark.parametrize("components", COMPONENTS)
def test_components_of_a_state_are_unpacked_as_python_does(components):
    def scenario(base):
        rotation = make_rotation(
            base,
            attributes={"_validate_state_components": lambda self, s: COMPONENTS[components]()},
        )
        return outcome(rotation.set_state, {}), repr(rotation.get_state())

    refused, _ = same(scenario)
    assert isinstance(refused, tuple)


@pytest.mark.parametrize("width", [0, 1, 2, 3])
@pytest.mark.parametrize("kind_of_leg", [list, tuple, iter, FailsAtTheEnd])
def test_legs_are_unpacked_as_python_does(width, kind_of_leg):
    def leg():
        parts = (0, 1.0, 2.0)[:width]
        return FailsAtTheEnd(*parts) if kind_of_leg is FailsAtTheEnd else kind_of_leg(parts)

    def scenario(base):
        rotation = make_rotation(base)
        return outcome(rotation._normalize_structure, structure(("a",), [leg()], 1.0))

    same(scenario)


# --- resizing -----------------------------------------------------------------------------------


@pytest.mark.parametrize("limit", [None, 0, 3, N, 9, 2.5])
@pytest.mark.parametrize("allocated", [None, 4, N])
@pytest.mark.parametrize("width", [1, 5, 8])
def test_limit_after_a_change_of_width(limit, allocated, width):
    def scenario(base):
        rotation = make_rotation(base)
        rotation._structure_N_limit, rotation._n_alloc = limit, allocated
        return outcome(rotation.resize, width), rotation._structure_N_limit, rotation._n_alloc

    same(scenario)
