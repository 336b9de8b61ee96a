"""Places in a rotation where a restore runs the user's code: its children, capacity and name.

Each takes the rotation and a trigger.
"""

from adversary.places.in_states import CAPACITY
from adversary.places.names import names_of
from adversary.values.children import Child, CopiedState, LookedUpChild, NotedError
from adversary.values.containers import FiringList
from adversary.values.ends import Deleted
from adversary.values.numbers import Comparing
from adversary.values.triggers import firing, watched

WIDTH = 6


def rotation_get_state(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, "get_state")


def rotation_set_state(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, "set_state")


def rotation_set_state_that_fails(rotation, trigger):
    rotation.child_rotations[1] = Child(trigger, "set_state", fails=True)


def rotation_get_state_lookup(rotation, trigger):
    rotation.child_rotations[0] = LookedUpChild(trigger, "get_state")


def rotation_set_state_lookup(rotation, trigger):
    rotation.child_rotations[0] = LookedUpChild(trigger, "set_state")


def rotation_state_copied(rotation, trigger):
    rotation.child_rotations[0] = Child(trigger, None)
    rotation.child_rotations[0].state = watched(CopiedState, trigger, {"mine": 1})


def rotation_note_added(rotation, trigger):
    fail_with(rotation, trigger, "add_note")


def rotation_error_shown_in_the_note(rotation, trigger):
    fail_with(rotation, trigger, "repr")


def fail_with(rotation, trigger, place):
    def set_state(state):
        error = NotedError("set_state")
        error.trigger, error.place = trigger, place
        raise error

    rotation.child_rotations[1].set_state = set_state


def rotation_children_iteration(rotation, trigger):
    rotation.child_rotations = watched(FiringList, trigger, rotation.child_rotations, place="iter")


def rotation_children_length(rotation, trigger):
    rotation.child_rotations = watched(FiringList, trigger, rotation.child_rotations, place="len")


def rotation_capacity_comparison(rotation, trigger):
    rotation.max_structures = watched(Comparing, trigger, CAPACITY)


def rotation_width_comparison(rotation, trigger):
    rotation._n_alloc = watched(Comparing, trigger, WIDTH)


def rotation_name_formatting(rotation, trigger):
    rotation._name = firing(trigger, __format__="name")
    rotation.max_structures = 0


def rotation_old_metadata_deletion(rotation, trigger):
    rotation._metadata_by_slot[1]["old"] = Deleted(trigger)


def rotation_old_legs_deletion(rotation, trigger):
    rotation._legs_by_slot[0] = [Deleted(trigger)]


def rotation_old_key_deletion(rotation, trigger):
    rotation.key_by_slot[0] = Deleted(trigger)


def rotation_assignment(rotation, trigger):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value)
        if name == "key_by_slot":
            trigger.fire()

    type(rotation).__setattr__ = __setattr__


ROTATION_SPOTS = names_of("rotation_", globals())
