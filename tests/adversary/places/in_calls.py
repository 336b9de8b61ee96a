"""Places outside of a day and a restore where the user's code can run.

Each takes the rotation and a trigger and returns the call to make.
"""

import functools
import types

import numpy as np

from adversary.places.names import names_of
from adversary.values.arrays import Array, Shaped
from adversary.values.children import Child, LookedUpChild
from adversary.values.containers import FiringList, MeasuredItems, WatchedMap
from adversary.values.numbers import Comparing, FiringInt
from adversary.values.triggers import firing, watched


def call_width_by_shape(rotation, trigger):
    rotation._n_alloc = None
    return functools.partial(rotation, Shaped(trigger, np.ones(6), (6,)))


def call_width_by_length_of_the_shape(rotation, trigger):
    rotation._n_alloc = None
    first = types.SimpleNamespace(shape=watched(MeasuredItems, trigger, [6]))
    return functools.partial(rotation, first)


def call_width_by_entry_of_the_shape(rotation, trigger):
    rotation._n_alloc = None
    first = types.SimpleNamespace(shape=firing(trigger, __getitem__=6, __len__=1))
    return functools.partial(rotation, first)


def call_width_by_conversion(rotation, trigger):
    rotation._n_alloc = None
    first = types.SimpleNamespace(shape=(watched(FiringInt, trigger, 6),))
    return functools.partial(rotation, first)


def call_width_by_length(rotation, trigger):
    rotation._n_alloc = None
    return functools.partial(rotation, watched(MeasuredItems, trigger, [1.0] * 6))


def call_input_conversion(rotation, trigger):
    return functools.partial(rotation, Array(trigger, np.ones(6)))


def call_batch_matrix(rotation, trigger):
    return functools.partial(rotation.batch_reference, Array(trigger, np.ones((3, 6))))


def call_batch_second_matrix(rotation, trigger):
    second = Array(trigger, np.ones((3, 2)))
    return functools.partial(rotation.batch_reference, np.ones((3, 6)), second)


def call_batch_mask_lookup(rotation, trigger):
    context = firing(trigger, __getattr__=lambda name: None)
    return functools.partial(rotation.batch_reference, np.ones((3, 6)), context=context)


def call_batch_hook(rotation, trigger):
    items = rotation.items

    def hook(*args):
        trigger.fire()
        return items

    rotation.items = hook
    return functools.partial(rotation.batch_reference, np.ones((3, 6)))


def call_batch_name(rotation, trigger):
    rotation._name = firing(trigger, __format__="name")
    return rotation.batch_reference


def call_get_state_of_a_child(rotation, trigger):
    rotation.child_rotations.insert(0, Child(trigger, "get_state"))
    return rotation.get_state


def call_get_state_lookup_in_a_child(rotation, trigger):
    rotation.child_rotations.insert(0, LookedUpChild(trigger, "get_state"))
    return rotation.get_state


def call_get_state_slot_map(rotation, trigger):
    rotation.slot_by_key = watched(WatchedMap, trigger, rotation.slot_by_key, place="keys")
    return rotation.get_state


def call_get_state_legs(rotation, trigger):
    rotation._legs_by_slot = watched(WatchedMap, trigger, rotation._legs_by_slot, place="keys")
    return rotation.get_state


def call_get_state_metadata(rotation, trigger):
    entries = rotation._metadata_by_slot
    rotation._metadata_by_slot = watched(FiringList, trigger, entries, place="iter")
    return rotation.get_state


def call_get_state_children(rotation, trigger):
    children = rotation.child_rotations
    rotation.child_rotations = watched(FiringList, trigger, children, place="iter")
    return rotation.get_state


def call_checkpoint_lookup(rotation, trigger):
    store = firing(trigger, __getattr__=lambda name: lambda *args: None)
    return functools.partial(rotation.checkpoint, store)


def call_checkpoint_write(rotation, trigger):
    store = types.SimpleNamespace(write=lambda name, state: trigger.fire())
    return functools.partial(rotation.checkpoint, store)


def call_recover_lookup(rotation, trigger):
    store = firing(trigger, __getattr__=lambda name: lambda *args: {})
    return functools.partial(rotation.recover, store)


def call_recover_read(rotation, trigger):
    def read(name):
        trigger.fire()
        return {"child_states": [{}]}

    return functools.partial(rotation.recover, types.SimpleNamespace(read=read))


def call_resize_comparison(rotation, trigger):
    return functools.partial(rotation.resize, watched(Comparing, trigger, 8))


def call_resize_conversion(rotation, trigger):
    return functools.partial(rotation.resize, watched(FiringInt, trigger, 8))


def call_resize_limit_conversion(rotation, trigger):
    rotation._structure_N_limit = watched(FiringInt, trigger, 5)
    return functools.partial(rotation.resize, 8)


def call_resize_old_width_conversion(rotation, trigger):
    rotation._n_alloc = watched(FiringInt, trigger, 6)
    return functools.partial(rotation.resize, 8)


def call_expression_strip(rotation, trigger):
    class Text(str):
        __slots__ = ()

        def strip(self):
            trigger.fire()
            return "identity"

    parse = rotation._parse_transformation_expression
    return functools.partial(parse, Text("rank"))


def call_chain_child(rotation, trigger):
    def child(values, context):
        trigger.fire()
        return values

    rotation.child_rotations.insert(0, child)
    return functools.partial(rotation._run_child_chain, np.ones(4), None)


def call_chain_values(rotation, trigger):
    return functools.partial(rotation._run_child_chain, Array(trigger, np.ones(4)), None)


def call_context_day(rotation, trigger):
    return functools.partial(rotation._make_child_context, None, firing(trigger, __index__=3))


def call_mask_index(rotation, trigger):
    return index_of_the_mask(rotation, firing(trigger, __index__=0))


def call_mask_slice(rotation, trigger):
    return index_of_the_mask(rotation, slice(firing(trigger, __index__=0), None))


def call_mask_column(rotation, trigger):
    return index_of_the_mask(rotation, (0, firing(trigger, __index__=1)))


def call_mask_unpacking(rotation, trigger):
    class Pair(tuple):
        __slots__ = ()

        def __iter__(self):
            trigger.fire()
            return super().__iter__()

    return index_of_the_mask(rotation, Pair((0, 1)))


def index_of_the_mask(rotation, item):
    mask = rotation._make_child_context(None, 2).universe_mask
    return functools.partial(mask.__getitem__, item)


CALLS = names_of("call_", globals())
