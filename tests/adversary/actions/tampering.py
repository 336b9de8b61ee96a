"""What somebody may do to a rotation that is played, to its masks and to its steps between days."""

import copy
import gc
import itertools

import numpy as np

N = 6
SLOTS = 4
EMPTY_TABLES = {"slot_by_key": {}, "key_by_slot": {}, "legs_by_slot": {}}
STEPS = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]


def way(ways):
    """Register a function of a side and an index by its name, with blanks."""

    def register(function):
        ways[function.__name__.replace("_", " ")] = function
        return function

    return register


WAYS = {}


# Metadata


@way(WAYS)
def hold(side, index):
    side.held.append(side.rotation._metadata_by_slot[index % SLOTS])


@way(WAYS)
def hold_all(side, index):
    side.held.extend(side.rotation._metadata_by_slot)


@way(WAYS)
def let_go(side, index):
    side.held.clear()


@way(WAYS)
def edit_metadata(side, index):
    side.rotation._metadata_by_slot[index % SLOTS]["active"] = "edited"


@way(WAYS)
def edit_metadata_and_back(side, index):
    entry = side.rotation._metadata_by_slot[index % SLOTS]
    entry["x"] = entry.pop("active", None)
    entry["active"] = entry.pop("x")


@way(WAYS)
def claim_to_be_active(side, index):
    side.rotation._metadata_by_slot[index % SLOTS]["active"] = True


@way(WAYS)
def reorder_metadata(side, index):
    metadata = side.rotation._metadata_by_slot
    metadata[index % SLOTS] = dict(reversed(metadata[index % SLOTS].items()))


@way(WAYS)
def swap_metadata(side, index):
    metadata = side.rotation._metadata_by_slot
    metadata[index % SLOTS], metadata[0] = metadata[0], metadata[index % SLOTS]


@way(WAYS)
def share_metadata(side, index):
    metadata = side.rotation._metadata_by_slot
    metadata[index % SLOTS] = metadata[0]


@way(WAYS)
def replace_metadata_list(side, index):
    side.rotation._metadata_by_slot = [dict(entry) for entry in side.rotation._metadata_by_slot]


@way(WAYS)
def copy_metadata_list(side, index):
    side.rotation._metadata_by_slot = list(side.rotation._metadata_by_slot)


# Legs


@way(WAYS)
def edit_legs(side, index):
    side.rotation._legs_by_slot[index % SLOTS] = ((index % SLOTS, 7.0),)


@way(WAYS)
def edit_legs_and_back(side, index):
    legs = side.rotation._legs_by_slot
    kept = legs.get(index % SLOTS)
    legs[index % SLOTS] = ()
    if kept is not None:
        legs[index % SLOTS] = kept


@way(WAYS)
def drop_legs(side, index):
    side.rotation._legs_by_slot.pop(index % SLOTS, None)


@way(WAYS)
def replace_legs(side, index):
    side.rotation._legs_by_slot = dict(reversed(side.rotation._legs_by_slot.items()))


@way(WAYS)
def negative_legs(side, index):
    side.rotation._legs_by_slot[index % SLOTS] = ((-1, 2.0),)


@way(WAYS)
def list_legs(side, index):
    side.rotation._legs_by_slot[index % SLOTS] = [[index % SLOTS, 2]]


# Slots


@way(WAYS)
def swap_slots(side, index):
    slots = side.rotation.slot_by_key
    keys = list(slots)
    if len(keys) > 1:
        slots[keys[0]], slots[keys[-1]] = slots[keys[-1]], slots[keys[0]]


@way(WAYS)
def share_a_slot(side, index):
    slots = side.rotation.slot_by_key
    for key in slots:
        slots[key] = 0


@way(WAYS)
def drop_a_slot(side, index):
    slots = side.rotation.slot_by_key
    if slots:
        slots.pop(list(slots)[index % len(slots)])


@way(WAYS)
def drop_a_key(side, index):
    side.rotation.key_by_slot.pop(index % SLOTS, None)


@way(WAYS)
def odd_slot(side, index):
    keys = side.rotation.key_by_slot
    keys[np.int64(index % SLOTS)] = keys.pop(index % SLOTS, "nobody's")


@way(WAYS)
def share_a_map(side, index):
    first, second = list(
        itertools.permutations(["slot_by_key", "key_by_slot", "_legs_by_slot"], 2)
    )[index % 6]
    setattr(side.rotation, first, getattr(side.rotation, second))


@way(WAYS)
def map_as_metadata(side, index):
    name = ["slot_by_key", "key_by_slot", "_legs_by_slot"][index % 3]
    side.rotation._metadata_by_slot[index % SLOTS] = getattr(side.rotation, name)


@way(WAYS)
def forget_slots(side, index):
    side.rotation.slot_by_key = {}
    side.rotation.key_by_slot = {}


# The whole rotation


@way(WAYS)
def restore(side, index):
    side.rotation.set_state(side.rotation.get_state())


@way(WAYS)
def restore_a_copy(side, index):
    side.rotation.set_state(copy.deepcopy(side.rotation.get_state()))


@way(WAYS)
def restore_nothing(side, index):
    side.rotation.set_state({**side.rotation.get_state(), **EMPTY_TABLES})


@way(WAYS)
def resize(side, index):
    side.rotation.resize(N + index)


@way(WAYS)
def policy(side, index):
    side.rotation.unmap_policy = ["proportional", "equal_split"][index % 2]


@way(WAYS)
def collect(side, index):
    gc.collect(1)  # all that a few days have left behind


@way(WAYS)
def fewer_slots(side, index):
    side.rotation.max_structures = SLOTS - index % 3


# The row


@way(WAYS)
def row(side, index):
    side.rotation._txi_input = np.zeros(2 * SLOTS)[::2]


@way(WAYS)
def longer_row(side, index):
    side.rotation._txi_input = np.zeros(SLOTS + index)


@way(WAYS)
def row_in_a_larger_array(side, index):
    side.rotation._txi_input = np.arange(3.0 * SLOTS)[SLOTS : 2 * SLOTS]


@way(WAYS)
def backward_row(side, index):
    side.rotation._txi_input = np.zeros(SLOTS)[::-1]


@way(WAYS)
def row_of_one_number(side, index):
    side.rotation._txi_input = np.lib.stride_tricks.as_strided(np.zeros(1), (SLOTS,), (0,))


# Masks


def flip(mask, index):
    if len(mask) > 0:
        mask[index % len(mask)] = not mask[index % len(mask)]


@way(WAYS)
def flag(side, index):
    flip(side.combined, index)


@way(WAYS)
def flag_one(side, index):
    flip(side.masks[-1], index)


@way(WAYS)
def another_mask(side, index):
    side.masks = (*side.masks, np.arange(N) == index)


@way(WAYS)
def no_masks(side, index):
    side.masks = ()


@way(WAYS)
def masks_in_a_list(side, index):
    side.masks = list(side.masks)


# Steps of the day


@way(WAYS)
def own_step_on_the_instance(side, index):
    name = STEPS[index % 3]
    setattr(
        side.rotation,
        name,
        lambda *arguments: getattr(type(side.rotation), name)(side.rotation, *arguments),
    )


@way(WAYS)
def own_step_on_the_class(side, index):
    owner, name = type(side.rotation), STEPS[index % 3]
    setattr(
        owner,
        name,
        lambda self, *arguments: getattr(super(owner, self), name)(*arguments),
    )


@way(WAYS)
def step_that_differs(side, index):
    side.rotation._structure_is_valid = lambda structure, *masks: structure.value != 1.5


@way(WAYS)
def no_steps_on_the_instance(side, index):
    for name in STEPS:
        vars(side.rotation).pop(name, None)
