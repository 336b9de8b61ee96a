"""Tables of every make, and attributes and steps that are not where they usually are."""

import collections
import contextlib
import copy
import types
import weakref

import numpy as np
import pytest

from adversary.day import make
from adversary.values.odd_containers import MissingKeys, OwnKeys
from support import frozen
from support.days import STEPS, day_rotation_class
from virtualization.hostile.scenarios import Scenarios, assert_same_on_both, day_log, plain_items

pytestmark = pytest.mark.usefixtures("quick_collections")
SCENARIOS = Scenarios()


@pytest.mark.hostile
@pytest.mark.parametrize("scene", SCENARIOS, ids=lambda scene: scene.__name__)
def test_scenario(scene):
    assert_same_on_both(scene)


# Tables of every make


@SCENARIOS.add
def odd_tables(base):
    tables = [
        collections.OrderedDict(),
        collections.defaultdict(lambda: 1),
        collections.UserDict(),
        MissingKeys(),
        OwnKeys(),
        types.MappingProxyType({}),
        [{"active": 1}] * 4,
        [None] * 4,
        ({}, {}, {}, {}),
        collections.deque([{}, {}, {}, {}]),
        np.array([{}, {}, {}, {}], dtype=object),
        {0: {}, 1: {}},
        iter([{}]),
        weakref.WeakValueDictionary(),
        "abcd",
        None,
    ]
    log = []
    for name in ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot"]:
        for table in tables:
            rotation = make(base)
            rotation.items = plain_items()
            with contextlib.suppress(TypeError):
                table = copy.deepcopy(table)
            setattr(rotation, name, table)
            result, buffer, _ = day_log(rotation)
            log.append((name, result, buffer, str(vars(rotation)["_legs_by_slot"])))
            log.append(str(rotation.key_by_slot) if name != "key_by_slot" else None)
    # The addresses in these texts differ from run to run.
    return [str(entry).split(" at 0x")[0] for entry in log]


@SCENARIOS.add
def attributes_that_are_properties_of_the_class(base):
    def stored_elsewhere(name):
        def read(self):
            self.__dict__.setdefault("reads", set()).add(name)
            return self.__dict__["own " + name]

        def write(self, value):
            self.__dict__["own " + name] = value

        return property(read, write)

    names = ["slot_by_key", "key_by_slot", "_legs_by_slot", "_metadata_by_slot", "_txi_input"]
    names += ["_txi_output", "max_structures", "unmap_policy", "trace_sink", "child_rotations"]
    names += ["_txi_universe_row", "_current_parent_context", "_n_alloc"]
    log = []
    for name in names:
        rotation = make(base, **{name: stored_elsewhere(name)})
        rotation.items = plain_items()
        log.append(day_log(rotation))
        log.append(frozen.outcome(rotation, np.ones(6)))
        log.append(sorted(vars(rotation)["reads"]))
        log.append(frozen.outcome(rotation.set_state, {"child_states": [1]}))
    return log


@SCENARIOS.add
def attribute_access_of_the_class_itself(base):
    log = []

    class Watch:
        def __getattribute__(self, name):
            value = super().__getattribute__(name)
            return value + 100.0 if name == "_txi_input" and type(value) is float else value

        def __getattr__(self, name):
            if name == "_legs_by_slot":
                return {0: ((5, 1.0),)}
            raise AttributeError(name)

    cls = day_rotation_class(base)
    watched = type("Watched", (Watch, cls), {})
    rotation = watched(max_structures=4, N_alloc=6, transformation_expression="none")
    rotation.items = plain_items()
    log.append(day_log(rotation))
    del rotation._legs_by_slot
    log.append(day_log(rotation))
    cls.__getattr__ = lambda self, name: {"unmap_policy": "equal_split"}[name]
    rotation = cls(max_structures=4, N_alloc=6, transformation_expression="none")
    rotation.items = plain_items()
    del rotation.unmap_policy
    return [*log, day_log(rotation)]


@SCENARIOS.add
def class_attributes_in_place_of_instance_attributes(base):
    rotation = make(base)
    rotation.items = plain_items()
    for name in ["_legs_by_slot", "unmap_policy", "max_structures", "slot_by_key", "_txi_input"]:
        setattr(type(rotation), name, vars(rotation)[name])
        delattr(rotation, name)
    return [day_log(rotation), frozen.outcome(rotation.get_state)]


@SCENARIOS.add
def steps_that_are_no_functions(base):
    log = []
    for name in STEPS:
        for step in [None, 5, staticmethod(lambda *args: 0), classmethod(lambda *args: 0)]:
            rotation = make(base, **{name: step})
            rotation.items = plain_items()
            log.append(frozen.outcome(rotation, np.ones(6)))
    return log
