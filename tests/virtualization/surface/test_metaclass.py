"""The metaclass of the rotation base and the class hooks."""

import abc
import sys

import numpy as np
import pytest

from support.fakes import make_rotation, structure
from support.siblings import BASE_NAME, Siblings, installed_base, load_base, plain_rotation_base
from virtualization.surface.names import BODY_NAMES, MODULE_NAMES, own_names


def recording_metaclass(events, namespace_type=dict):
    """A metaclass that writes what each of its hooks receives into the list `events`."""

    class Meta(type):
        @classmethod
        def __prepare__(mcs, name, bases, **keywords):
            namespace = namespace_type()
            events.append(("prepare", name, bases, keywords, namespace))
            return namespace

        def __new__(mcs, name, bases, namespace, **keywords):
            events.append(("new", name, bases, keywords, namespace))
            return super().__new__(mcs, name, bases, dict(namespace))

        def __init__(cls, name, bases, namespace, **keywords):
            events.append(("init", name, bases, keywords, namespace))
            super().__init__(name, bases, namespace)

    return Meta


def metaclass_base(Meta):
    plain = plain_rotation_base()
    return Meta("RotationBase", (plain,), {"__module__": __name__})


def test_metaclass_hooks_run_once_each_with_name_and_bases(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert [event[:4] for event in events] == [
        (hook, "VirtualizationBase", (RotationBase,), {}) for hook in ("prepare", "new", "init")
    ]
    assert type(base.VirtualizationBase) is type(RotationBase)


def test_metaclass_receives_the_very_namespace_it_prepared(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    load_base(kind, Siblings(RotationBase=RotationBase))
    prepared, new, init = (event[4] for event in events)
    assert new is prepared
    assert init is prepared


def test_metaclass_sees_the_complete_body_in_order(kind):
    events = []
    RotationBase = metaclass_base(recording_metaclass(events))
    events.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    namespace = events[1][4]
    assert own_names(namespace) == BODY_NAMES
    leading = [name for name in namespace if name in ("__module__", "__qualname__", "__doc__")]
    assert leading == ["__module__", "__qualname__", "__doc__"]
    assert namespace["__module__"] == BASE_NAME
    assert namespace["__qualname__"] == "VirtualizationBase"
    assert namespace["__doc__"] == base.VirtualizationBase.__doc__


def test_prepared_namespace_may_be_any_mapping_and_sees_every_assignment(kind):
    events = []
    assigned = []

    class Namespace:
        def __init__(self):
            self.entries = {}

        def __getitem__(self, name):
            return self.entries[name]

        def __setitem__(self, name, value):
            assigned.append(name)
            self.entries[name] = value

        def keys(self):
            return self.entries.keys()

    RotationBase = metaclass_base(recording_metaclass(events, Namespace))
    assigned.clear()
    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert own_names(assigned) == BODY_NAMES
    assert own_names(vars(base.VirtualizationBase)) == BODY_NAMES


def test_metaclass_may_wrap_every_method(kind):
    calls = []

    def wrapped(name, function):
        def wrapper(*args, **kwargs):
            calls.append(name)
            return function(*args, **kwargs)

        return wrapper

    class Meta(type):
        def __new__(mcs, name, bases, namespace):
            if name == "VirtualizationBase":
                for key, value in list(namespace.items()):
                    if callable(value) and not isinstance(value, (staticmethod, property)):
                        namespace[key] = wrapped(key, value)
            return super().__new__(mcs, name, bases, namespace)

    siblings = Siblings(RotationBase=metaclass_base(Meta))
    with installed_base(kind, siblings) as base:
        rotation = make_rotation(base, [[structure("a", [(0, 2.0)], 3.0)]])
        assert rotation(np.ones(2))[0] == 6.0
    assert calls == [
        "__init__",
        "_parse_transformation_expression",
        "__call__",
        "compute",
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ]


def test_metaclass_error_fails_the_import_unchanged(kind):
    error = RuntimeError("no such class here")

    class Meta(type):
        def __new__(mcs, name, bases, namespace):
            if name == "VirtualizationBase":
                raise error
            return super().__new__(mcs, name, bases, namespace)

    with pytest.raises(RuntimeError) as caught:
        load_base(kind, Siblings(RotationBase=metaclass_base(Meta)))
    assert caught.value is error


def test_metaclass_call_makes_the_instances(kind):
    made = []

    class Meta(type):
        def __call__(cls, **kwargs):
            instance = super().__call__(**kwargs)
            made.append(instance)
            return instance

    base = load_base(kind, Siblings(RotationBase=metaclass_base(Meta)))
    rotation = make_rotation(base)
    assert made == [rotation]


def test_abstract_methods_are_settled_by_the_class_body(kind):
    class RotationBase(plain_rotation_base(), metaclass=abc.ABCMeta):
        @abc.abstractmethod
        def compute(self, args, nan_masks, combined_nan_mask, output_buf, N): ...

        @abc.abstractmethod
        def describe(self): ...

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert base.VirtualizationBase.__abstractmethods__ == frozenset({"describe"})
    with pytest.raises(TypeError, match="describe"):
        make_rotation(base)
    assert make_rotation(base, attributes={"describe": lambda self: "x"}).describe() == "x"


def test_subclass_hook_sees_the_finished_class_once(kind):
    seen = []

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls, **keywords):
            super().__init_subclass__()
            seen.append((cls, cls._name, keywords, own_names(vars(cls))))

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert seen == [(base.VirtualizationBase, "virtualization_base", {}, BODY_NAMES)]


def test_subclass_hook_error_fails_the_import_unchanged(kind):
    error = LookupError("not welcome")

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            raise error

    with pytest.raises(LookupError) as caught:
        load_base(kind, Siblings(RotationBase=RotationBase))
    assert caught.value is error


def test_subclass_hook_runs_before_the_class_is_bound(kind):
    bound = []

    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            module = vars(sys.modules[BASE_NAME])
            bound.append([name for name in module if not name.startswith("__")])

    load_base(kind, Siblings(RotationBase=RotationBase))
    assert bound == [MODULE_NAMES[:-1]]


def test_subclass_hook_may_replace_methods(kind):
    class RotationBase(plain_rotation_base()):
        def __init_subclass__(cls):
            if cls.__name__ == "VirtualizationBase":
                cls._slot_for_key = lambda self, key: 3

    base = load_base(kind, Siblings(RotationBase=RotationBase))
    assert make_rotation(base)._slot_for_key("any") == 3
