"""Ways to use the rotations: operations that succeed, each as a function that sets it up.

An operation is a callable without arguments, set up once and run again and again.
"""

import contextlib
import copy
import pickle

import numpy as np

from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization.attendance import Gate
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from safety.subjects.rotations import (
    MAKERS,
    NAN,
    Baskets,
    Child,
    Context,
    Copied,
    N,
    Store,
    columns_of,
    make_attendance,
    make_ewma,
    matrix,
    plain_columns,
    row,
    used,
    usual_items,
    with_children,
)
from support import functions

# Operations of any rotation


def construct(make):
    return make


def call(make):
    rotation, values, context = used(make), row(), Context()
    return lambda: rotation(values, context=context)


def call_with_a_list(make):
    rotation, values = used(make), [1, 2, 3, 4, 5, 6]
    return lambda: rotation(values)


def get_state(make):
    return used(make).get_state


def set_state(make):
    rotation = used(make)
    state = copy.deepcopy(rotation.get_state())
    return lambda: rotation.set_state(state)


def checkpoint(make):
    rotation, store = used(make), Store()
    return lambda: rotation.checkpoint(store)


def recover(make):
    rotation = used(make)
    store = Store(copy.deepcopy(rotation.get_state()))

    def operation():
        return rotation.recover(store)

    return operation


def recover_nothing(make):
    rotation, store = used(make), Store()
    return lambda: rotation.recover(store)


def resize(make):
    rotation = used(make)
    return lambda: rotation.resize(N)


def represent(make):
    rotation = used(make)
    return lambda: repr(rotation)


GENERAL = [
    construct,
    call,
    call_with_a_list,
    get_state,
    set_state,
    checkpoint,
    recover,
    recover_nothing,
    resize,
    represent,
]


# Operations of a virtualization only


def batch_reference():
    rotation, values = used(Baskets), matrix()
    return lambda: rotation.batch_reference(values)


def ready_made():
    """A rotation whose histories are computed at once."""
    names = [f"i{column}" for column in range(N)]
    pairs = {f"p{i}": {names[i]: 1.0, names[(i + 1) % N]: -1.0} for i in range(N)}
    return FixedBaskets(pairs, names, transformation_expression="ewma(3);rank;zscore;sigmoid")


def history():
    rotation, values = ready_made(), np.ones((40, N))
    return lambda: rotation.batch_reference(values)


def history_of_threads_with_a_universe():
    rotation, values, mask = ready_made(), np.ones((40, N)), np.ones(N, dtype=bool)
    mask[0] = False

    # Made beforehand: Python 3.12 crashes by itself where it cannot make a function.
    def progress(done, days):
        pass

    return lambda: replay_history(
        rotation, values, universe_mask=mask, threads=3, progress=progress
    )


def history_with_gates():
    attendance = make_attendance()
    children = [attendance, make_ewma(), Gate(attendance, N_alloc=N), Rank(N_alloc=N)]
    names = [f"i{column}" for column in range(N)]
    pairs = {f"p{i}": {names[i]: 1.0, names[(i + 1) % N]: -1.0} for i in range(N)}
    rotation = FixedBaskets(
        pairs, names, transformation_expression="none", child_rotations=children
    )
    values = np.ones((40, N))
    values[::3, ::2] = np.nan
    return lambda: (replay_history(rotation, values, level="structure"), children[1].forget([0]))


def history_of_functions():
    makers = {**functions.OVER_TIME, **functions.ACROSS}
    children = [make(N) for make in makers.values()]
    names = [f"i{column}" for column in range(N)]
    singles = {name: {name: 1.0} for name in names}
    rotation = FixedBaskets(
        singles, names, transformation_expression="none", child_rotations=children
    )
    values = np.arange(40.0 * N).reshape(40, N)
    return lambda: (replay_history(rotation, values), children[0].forget([0]))


def unmap_step_by_step_of_a_history():
    """Every product underflows, of which NumPy may warn: days are computed one by one."""
    names = [f"i{column}" for column in range(N)]
    tiny = FixedBaskets({"x": {names[0]: 1e-300}}, names, transformation_expression="none")
    values = np.ones((40, N))
    return lambda: tiny.batch_reference(values)


def batch_reference_with_context():
    rotation, values, context = used(Baskets), matrix(), Context()
    return lambda: rotation.batch_reference(values, context=context)


def set_state_of_lists():
    """The state as a store may give it back: lists for tuples, another order."""
    rotation = used(Baskets)
    state = copy.deepcopy(rotation.get_state())
    state["legs_by_slot"] = {
        slot: [list(leg) for leg in legs] for slot, legs in state["legs_by_slot"].items()
    }
    state["slot_by_key"] = dict(reversed(state["slot_by_key"].items()))
    return lambda: rotation.set_state(state)


def new_structures_every_day():
    """Slots run full and are emptied again: keys, legs and metadata are never yesterday's."""
    rotation = used(Baskets)
    values = row()
    numbers = iter(range(10**9))

    def operation():
        number = next(numbers)
        if len(rotation.slot_by_key) == 4:
            rotation.slot_by_key.clear()
            rotation.key_by_slot.clear()
        rotation.items = [{"key": (number,), "legs": ((number % N, 0.5),), "value": 1.0}]
        return rotation(values)

    return operation


def no_structures():
    rotation, values = used(Baskets), row()
    rotation.items = []
    rotation._call_child_on_empty = False
    return lambda: rotation(values)


def own_metadata_holders():
    """Somebody else holds yesterday's metadata, so that today's has to be made anew."""
    rotation, values = used(Baskets), row()
    rotation.items = usual_items()[:1]

    def operation():
        rotation.held = list(rotation._metadata_by_slot)
        return rotation(values)

    return operation


def steps_by_hand():
    """The steps of a day one by one, with the objects that a subclass may hand to them."""
    rotation, values = used(Baskets), row()
    masks = np.zeros(N, dtype=np.uint8)
    output = np.empty(N)

    def operation():
        structure = rotation._normalize_structure(rotation.items[1])
        rotation._slot_for_key(structure.key)
        rotation._structure_is_valid(structure, (masks,), masks, N)
        context = rotation._make_child_context(None, 2)
        child_output = rotation._run_child_chain(rotation._txi_input, context)
        rotation._unmap(child_output, output, N)
        rotation._record_trace(output, N)
        return rotation.compute((values,), (masks,), masks, output, N)

    return operation


def unmap_step_by_step():
    """Child output and legs of kinds that are only handled item by item."""
    rotation, output = used(Baskets), np.empty(N)
    rotation._legs_by_slot[0] = [[0, 1], (1, np.float64(2.0))]
    return lambda: rotation._unmap([1.0, NAN, 2.0, 3.0], output, N)


def mask_indexing():
    mask = used(Baskets)._make_child_context(None, 2).universe_mask
    return lambda: (mask[0], mask[-1], mask[1:], mask[0, 1], mask[:, 1])


VIRTUALIZATION = [
    batch_reference,
    batch_reference_with_context,
    history,
    history_of_threads_with_a_universe,
    history_with_gates,
    history_of_functions,
    unmap_step_by_step_of_a_history,
    set_state_of_lists,
    new_structures_every_day,
    no_structures,
    own_metadata_holders,
    steps_by_hand,
    unmap_step_by_step,
    mask_indexing,
]


# Operations of structure columns, and days that report them


def columns_made():
    keys, offsets, ids, weights, values = [("a",), ()], [0, 1, 3], [1, 2, 1], [1.0, 2, 3], [1, 2.0]
    return lambda: StructureColumns(keys, offsets, ids, weights, values)


def columns_made_of_no_legs():
    return lambda: StructureColumns([], [0], [], np.empty(0, dtype=complex), [])


def columns_read():
    columns = plain_columns()
    return lambda: (list(columns), columns[-1], len(columns), repr(columns), list(iter(columns)))


def columns_shown():
    columns = plain_columns()
    return lambda: (
        columns.keys,
        columns.legs,
        columns.offsets,
        columns.leg_ids,
        columns.weights,
        columns.values,
    )


def columns_with_other_values():
    columns, values = plain_columns(), np.ones(4)
    return lambda: (columns.with_values(values), columns.with_values([1, 2, 3, 4]))


def columns_summed():
    columns, values = plain_columns(), row()
    return lambda: (columns.weighted_sums(values), columns.weighted_sums([1, 2, 3, 4]))


def columns_copied():
    columns = plain_columns()
    return lambda: (copy.copy(columns), copy.deepcopy(columns), columns.__reduce__())


def columns_pickled():
    columns = plain_columns()
    return lambda: pickle.loads(pickle.dumps(columns))


def same_columns_every_day():
    """One structure is valid on every other day."""
    rotation, values, columns = used(lambda: Baskets([])), row(), plain_columns()
    days = iter(range(10**9))

    def operation():
        rotation.items = columns.with_values([1.0, next(days) % 2 or NAN, 3.0, NAN])
        return rotation(values)

    return operation


def other_columns_every_day():
    rotation, values = used(lambda: Baskets([])), row()
    reports = [plain_columns(), columns_of(list(plain_columns())[:2]), plain_columns(), []]
    days = iter(range(10**9))

    def operation():
        rotation.items = reports[next(days) % 4]
        return rotation(values)

    return operation


def columns_whose_metadata_somebody_holds():
    rotation, values = used(lambda: Baskets([])), row()
    rotation.items = plain_columns()

    def operation():
        rotation.held = list(rotation._metadata_by_slot)
        return rotation(values)

    return operation


COLUMNS = [
    columns_made,
    columns_made_of_no_legs,
    columns_read,
    columns_shown,
    columns_with_other_values,
    columns_summed,
    columns_copied,
    columns_pickled,
    same_columns_every_day,
    other_columns_every_day,
    columns_whose_metadata_somebody_holds,
]


def growing_buffers():
    widths = iter(range(10**9))
    values = np.ones(50)

    def operation():
        return Copied(N_alloc=None)(values[: next(widths) % 50 + 1])

    return operation


def masks_of_several_inputs():
    rotation, values, context = used(Copied), row(), Context()
    further, short = np.array([[1.0] * N, [NAN] * N]), np.ones(2)
    return lambda: rotation(values, further, "label", short, context=context)


def recover_refused_state():
    rotation = used(Baskets)
    store = Store({"slot_by_key": 3})
    return lambda: rotation.recover(store)


def recover_with_a_child_that_refuses():
    rotation, state = with_children(Child(), Child(fails=["set_state"]))
    store = Store(state)
    return lambda: rotation.recover(store)


def function_of_a_foreign_name():
    """A name that has no ASCII form: the text is made anew each time, and encoded."""

    def operation():
        with contextlib.suppress(ValueError):
            Transcendental(function="".join(["σιγμο", "ειδής"]))

    return operation


OPERATIONS = {
    **{
        f"{step.__name__} of {name}": lambda step=step, make=make: step(make)
        for name, make in MAKERS.items()
        for step in GENERAL
    },
    **{setup.__name__: setup for setup in VIRTUALIZATION},
    **{setup.__name__: setup for setup in COLUMNS},
    growing_buffers.__name__: growing_buffers,
    masks_of_several_inputs.__name__: masks_of_several_inputs,
    function_of_a_foreign_name.__name__: function_of_a_foreign_name,
    recover_refused_state.__name__: recover_refused_state,
    recover_with_a_child_that_refuses.__name__: recover_with_a_child_that_refuses,
}
