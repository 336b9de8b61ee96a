"""What the safety tests work on: rotations on the package's real siblings, and ways to use them.

An operation is a callable without arguments, set up once and run again and again. `OPERATIONS` are
those that succeed, `FAILURES` those that raise, each by a name for the test's id and as a function
that sets the operation up.
"""

import contextlib
import copy
import functools
import pickle

import numpy as np

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.cross_section import Winsorize, WithinGroups
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.longitudinal.rolling import RollingMean
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from support import functions

N = 6
CHAIN = "ewma(3);rank;zscore;sigmoid"
NAN = float("nan")


class Item:
    """Item that is an object, with legs and numbers that need converting."""

    def __init__(self, key, legs, value):
        self.key = key
        self.legs = legs
        self.value = value


class Baskets(base.VirtualizationBase):
    """Reports the items that it was given: two that are plain and one that is not."""

    _name = "baskets"

    def __init__(self, items=None, **constructor):
        defaults = {"max_structures": 4, "N_alloc": N, "transformation_expression": CHAIN}
        super().__init__(**{**defaults, **constructor})
        self.items = usual_items() if items is None else items

    def _refresh_active_structures(
        self, space_input, structure_inputs, nan_masks, combined_nan_mask, N
    ):
        return self.items() if callable(self.items) else self.items


def usual_items():
    return [
        {"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 1.5},
        {"key": ("b", 2), "legs": [(2, 1.0)], "value": 2.5, "metadata": {"note": 1}},
        Item(("c",), [[3, 1]], 1),
    ]


def columns_of(items):
    """The items as columns; their legs must be tuples of pairs."""
    legs = [item["legs"] for item in items]
    flat = [leg for each in legs for leg in each]
    return StructureColumns(
        [item["key"] for item in items],
        np.cumsum([0, *map(len, legs)]),
        [leg_id for leg_id, _ in flat],
        [weight for _, weight in flat],
        [item["value"] for item in items],
    )


def plain_columns():
    """Four structures, of which the last one is not valid."""
    return columns_of(
        [
            {"key": ("a",), "legs": ((0, 1.0), (1, -1.0)), "value": 1.5},
            {"key": ("b", 2), "legs": ((2, 1.0),), "value": 2.5},
            {"key": (), "legs": (), "value": 3.5},
            {"key": ("d",), "legs": ((3, 2.0),), "value": NAN},
        ]
    )


class Copied(RotationBase):
    """Copies its first input, or does what it was told."""

    _name = "copied"

    def __init__(self, answer=0, **constructor):
        super().__init__(**{"N_alloc": N, **constructor})
        self.answer = answer

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = args[0]
        return self.answer


class Context:
    """Context of day 1, which leaves instrument 4 out; or of another mask."""

    current_day_index = 1

    def __init__(self, universe_mask=None):
        if universe_mask is None:
            universe_mask = np.ones((3, N), dtype=bool)
            universe_mask[1, 4] = False
        self.universe_mask = universe_mask


class Store:
    """Keeps one state."""

    def __init__(self, state=None):
        self.state = state

    def write(self, name, state):
        self.state = state

    def read(self, name):
        return self.state


class Sink:
    """Takes records and forgets them."""

    def append(self, record):
        pass


class Child:
    """Child that is the identity, counts its days, and fails where it is told to."""

    def __init__(self, *, fails=()):
        self.fails = fails
        self.days = 0

    def __call__(self, values, *, context):
        self._step("call")
        self.days += 1
        return values

    def get_state(self):
        self._step("get_state")
        return {"days": self.days}

    def set_state(self, state):
        self._step("set_state")
        self.days = state["days"]

    def _step(self, name):
        if name in self.fails:
            raise LookupError(name)


def row():
    values = np.arange(float(N))
    values[5] = np.nan
    return values


def matrix():
    return np.arange(2.0 * N).reshape(2, N)


def make_ewma():
    return Ewma(window=3, N_alloc=N)


def make_transcendental():
    return Transcendental(function="tanh", N_alloc=N)


# NumPy's own np.ones leaks a reference to its dtype.
ONES = np.ones(N)


def make_attendance():
    return Attendance(1, N_alloc=N)


def make_gate():
    attendance = make_attendance()
    attendance(ONES)
    return Gate(attendance, N_alloc=N)


MAKERS = {
    "virtualization": Baskets,
    "virtualization with equal split": lambda: Baskets(
        unmap_policy="equal_split", transformation_expression="none", trace_sink=Sink()
    ),
    "rotation": Copied,
    "ewma": make_ewma,
    "zscore": lambda: ZScore(N_alloc=N),
    "rank": lambda: Rank(N_alloc=N),
    "transcendental": make_transcendental,
    "attendance": make_attendance,
    "gate": make_gate,
    **{
        name: functools.partial(make, N)
        for name, make in {**functions.OVER_TIME, **functions.ACROSS}.items()
    },
}


def used(make):
    """Make an instance that has seen two days."""
    rotation = make()
    rotation(row())
    rotation(row(), context=Context())
    return rotation


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


# Failures: (expected error, set-up)

FAILURES = {}


def failing(error):
    def register(setup):
        FAILURES[setup.__name__] = (error, setup)
        return setup

    return register


def rejected_arguments(error, make, **arguments):
    """Register one failing construction."""
    shown = ", ".join(f"{name}={value!r:.20}" for name, value in arguments.items())
    FAILURES[f"{make.__name__}({shown})"] = (error, lambda: lambda: make(**arguments))


for wrong in (True, "x", 1.5):
    rejected_arguments(TypeError, Baskets, max_structures=wrong)
    rejected_arguments(TypeError, Baskets, N_alloc=wrong)
    rejected_arguments(TypeError, Rank, N_alloc=wrong)
    rejected_arguments(TypeError, Ewma, window=wrong)
for wrong in (0, -1, 10**7):
    rejected_arguments(ValueError, Baskets, max_structures=wrong)
for wrong in (0, -(10**30), 10**30):
    rejected_arguments(ValueError, Copied, N_alloc=wrong)
    rejected_arguments(ValueError, ZScore, N_alloc=wrong)
for wrong in (0, -1, 2**1100):
    rejected_arguments(ValueError, Ewma, window=wrong, N_alloc=N)
for expression in (
    "",
    " ",
    ";",
    "none;none",
    "ewma",
    "ewma()",
    "ewma(x)",
    "ewma(1,2)",
    "rank(1)",
    "rank(",
    "nothing",
    "rank;" * 5,
    "x" * 600,
    "ewma(0)",
):
    rejected_arguments(ValueError, Baskets, transformation_expression=expression)
rejected_arguments(ValueError, Baskets, transformation_expression=3)
rejected_arguments(ValueError, Baskets, unmap_policy="other")
rejected_arguments(TypeError, Baskets, child_rotations=3)
rejected_arguments(TypeError, Baskets, child_factories=[3])
rejected_arguments(TypeError, Ewma)
rejected_arguments(TypeError, Attendance, hold=1.5, N_alloc=N)
rejected_arguments(ValueError, Attendance, hold=-(10**400), N_alloc=N)
rejected_arguments(TypeError, Attendance, hold=1)
rejected_arguments(TypeError, Gate)
rejected_arguments(TypeError, RollingMean, window=1.5, N_alloc=N)
rejected_arguments(TypeError, RollingMean, window=3)
rejected_arguments(ValueError, RollingMean, window=3, min_periods=4, N_alloc=N)
rejected_arguments(ValueError, RollingMean, window=10**400, N_alloc=N)
rejected_arguments(TypeError, Winsorize, fraction="x")
rejected_arguments(ValueError, Winsorize, fraction=10**400)
rejected_arguments(TypeError, WithinGroups, function="rank", groups=[0])
rejected_arguments(ValueError, WithinGroups, function="none", groups=np.zeros(1, np.int64))
rejected_arguments(TypeError, Rank, other=1)
rejected_arguments(TypeError, Transcendental, function=3)
rejected_arguments(ValueError, Transcendental, function="nothing")
rejected_arguments(ValueError, Transcendental, function="\ud800")


@failing(TypeError)
def too_few_arguments():
    return lambda: base.VirtualizationBase.compute()


@failing(TypeError)
def too_many_arguments():
    rotation = used(Baskets)
    return lambda: rotation.resize(1, 2, 3)


@failing(TypeError)
def repeated_argument():
    rotation = used(Baskets)
    return lambda: rotation.resize(1, new_N_alloc=2)


@failing(TypeError)
def unknown_argument():
    rotation = used(Baskets)
    return lambda: rotation.resize(other=2)


@failing(AttributeError)
def call_of_an_empty_instance():
    rotation = object.__new__(Baskets)
    return lambda: rotation(row())


@failing(NotImplementedError)
def call_of_the_abstract_virtualization():
    rotation = base.VirtualizationBase(
        max_structures=1, transformation_expression="none", N_alloc=N
    )
    return lambda: rotation(row())


@failing(NotImplementedError)
def call_of_the_abstract_rotation():
    rotation = RotationBase(N_alloc=N)
    return lambda: rotation(row())


def day_of_items(name, error, *items):
    """Register a day that fails for what the hook reports."""

    def setup():
        rotation, values = used(Baskets), row()
        rotation.items = list(items)
        return lambda: rotation(values)

    FAILURES[name] = (error, setup)


def raising(*arguments):
    raise LookupError("on purpose")


day_of_items("item without key", KeyError, {"legs": (), "value": 1.0})
day_of_items("item without attributes", AttributeError, 3)
day_of_items("key that is no sequence", TypeError, {"key": 3, "legs": ()})
day_of_items("key that cannot be hashed", TypeError, {"key": ([],), "legs": ()})
day_of_items("legs that are no pairs", ValueError, {"key": (1,), "legs": [(1, 2, 3)]})
day_of_items("leg that is no number", ValueError, {"key": (1,), "legs": [("x", 1.0)]})
day_of_items("value that is no number", ValueError, {"key": (1,), "legs": (), "value": "x"})
day_of_items("metadata that is no mapping", TypeError, {"key": (1,), "legs": (), "metadata": 3})
day_of_items(
    "too many structures",
    ValueError,
    *[{"key": (number,), "legs": (), "value": 1.0} for number in range(9)],
)


def refused_columns(name, error, **changed):
    """Register columns that are as they should be but for these arguments."""
    arguments = {
        "keys": [("a",), ()],
        "offsets": [0, 1, 3],
        "leg_ids": [1, 2, 1],
        "weights": [1.0, 2.0, 3.0],
        "values": [1.0, 2.0],
    }
    arguments.update(changed)
    FAILURES[f"columns with {name}"] = (error, lambda: lambda: StructureColumns(**arguments))


class Unconvertible:
    def __array__(self, dtype=None, copy=None):
        raise LookupError("on purpose")

    __iter__ = raising


refused_columns("keys that are no tuples", TypeError, keys=[("a",), ["b"]])
refused_columns("keys that raise", LookupError, keys=Unconvertible())
refused_columns("too few offsets", ValueError, offsets=[0, 3])
refused_columns("offsets that fall", ValueError, offsets=[0, 5, 3])
refused_columns("offsets of two axes", ValueError, offsets=[[0, 1, 3]])
refused_columns("leg ids that are no integers", TypeError, leg_ids=[1.0, 2.0, 3.0])
refused_columns("leg ids that do not fit", ValueError, leg_ids=np.full(3, 2**63, dtype=np.uint64))
refused_columns("leg ids that raise", LookupError, leg_ids=Unconvertible())
refused_columns("weights that are no numbers", TypeError, weights=["a", "b", "c"])
refused_columns("too few weights", ValueError, weights=[1.0])
refused_columns("too many values", ValueError, values=[1.0, 2.0, 3.0])
refused_columns("values that raise", LookupError, values=Unconvertible())
rejected_arguments(TypeError, StructureColumns, keys=[])


@failing(IndexError)
def column_out_of_range():
    columns = plain_columns()
    return lambda: columns[4]


@failing(ValueError)
def columns_whose_values_were_changed_in_place():
    values = np.ones(4)
    columns = plain_columns().with_values(values)
    values.resize(2, refcheck=False)
    return lambda: list(columns)


@failing(ValueError)
def day_of_columns_whose_values_were_changed_in_place():
    rotation, values = used(lambda: Baskets([])), np.ones(4)
    rotation.items = plain_columns().with_values(values)
    values.resize(2, refcheck=False)
    return lambda: rotation(row())


@failing(IndexError)
def sums_of_too_few_inputs():
    columns = plain_columns()
    return lambda: columns.weighted_sums([1.0])


@failing(ValueError)
def sums_of_no_row():
    columns = plain_columns()
    return lambda: columns.weighted_sums(1.0)


@failing(TypeError)
def day_of_columns_with_a_key_that_cannot_be_hashed():
    rotation = used(lambda: Baskets([]))
    rotation.items = columns_of(
        [
            {"key": ("a",), "legs": ((0, 1.0),), "value": 1.0},
            {"key": ([],), "legs": (), "value": 1.0},
        ]
    )
    return lambda: rotation(row())


@failing(ValueError)
def too_many_columns():
    rotation = used(Baskets)
    rotation.items = columns_of(
        [{"key": (number,), "legs": (), "value": 1.0} for number in range(9)]
    )
    return lambda: rotation(row())


@failing(LookupError)
def hook_that_raises():
    rotation = used(Baskets)
    rotation.items = raising
    return lambda: rotation(row())


@failing(LookupError)
def hook_that_raises_half_way():
    def items():
        yield usual_items()[0]
        raise LookupError

    rotation = used(Baskets)
    rotation.items = items
    return lambda: rotation(row())


@failing(LookupError)
def child_that_raises():
    rotation = used(Baskets)
    rotation.child_rotations.append(Child(fails=["call"]))
    return lambda: rotation(row())


@failing(ValueError)
def child_of_another_shape():
    rotation = used(Baskets)
    rotation.child_rotations.append(lambda values, context: values[:1])
    return lambda: rotation(row())


@failing(LookupError)
def sink_that_raises():
    rotation = used(Baskets)
    rotation.trace_sink = type("Sink", (), {"append": raising})()
    return lambda: rotation(row())


@failing(ValueError)
def day_that_is_too_wide():
    rotation, values = used(Baskets), np.ones(N + 1)
    return lambda: rotation(values)


@failing(ValueError)
def day_wider_than_any():
    rotation = used(Baskets)
    rotation._n_alloc = None
    return lambda: rotation(np.broadcast_to(1.0, 10**6 + 1))


@failing(TypeError)
def day_without_inputs():
    rotation = used(Copied)
    return lambda: rotation()


@failing(ValueError)
def day_of_a_scalar():
    rotation = used(Copied)
    return lambda: rotation(3.0)


@failing(ValueError)
def day_of_text():
    rotation = used(Copied)
    return lambda: rotation(["x"])


@failing(RuntimeError)
def day_that_reports_failure():
    rotation = used(Copied)
    rotation.answer = 1
    return lambda: rotation(row())


@failing(ValueError)
def mask_that_is_too_short():
    rotation, context = used(Copied), Context(np.ones((3, 2), dtype=bool))
    return lambda: rotation(row(), context=context)


@failing(IndexError)
def mask_without_the_day():
    rotation, context = used(Copied), Context(np.ones((1, N), dtype=bool))
    return lambda: rotation(row(), context=context)


@failing(ValueError)
def buffer_that_is_no_buffer():
    rotation = used(Copied)
    rotation._combined_nan_buf = np.zeros(2, dtype=np.uint8)
    return lambda: rotation(row())


@failing(ValueError)
def memory_that_is_no_memory():
    rotation = used(make_ewma)
    rotation._mean = np.zeros((2, 3))
    return lambda: rotation(row())


@failing(ValueError)
def function_that_is_unknown_later():
    rotation = used(make_transcendental)
    rotation.function = "nothing"
    return lambda: rotation(row())


@failing(TypeError)
def compute_of_two_inputs():
    rotation = used(make_ewma)
    return lambda: rotation(row(), row())


@failing(ValueError)
def compute_of_a_negative_width():
    rotation, output = used(lambda: Rank(N_alloc=N)), np.empty(N)
    return lambda: rotation.compute((row(),), (), None, output, -1)


@failing(ValueError)
def compute_into_a_read_only_output():
    rotation, output = used(lambda: ZScore(N_alloc=N)), np.empty(N)
    output.flags.writeable = False
    return lambda: rotation.compute((row(),), (), None, output, N)


def refused_state(name, **entries):
    """Register a state that is as it should be but for these entries."""

    def setup():
        rotation = used(Baskets)
        state = {**copy.deepcopy(rotation.get_state()), **entries}
        return lambda: rotation.set_state(state)

    FAILURES[f"state with {name}"] = (ValueError, setup)


refused_state("slots of another type", slot_by_key=[])
refused_state("inverse slots of another type", key_by_slot=[])
refused_state("legs of another type", legs_by_slot=[])
refused_state("too many slots", slot_by_key={(number,): number for number in range(9)})
refused_state("a slot twice", slot_by_key={(1,): 0, (2,): 0})
refused_state("a slot that is too high", slot_by_key={(1,): 7})
refused_state("a key that is no tuple", slot_by_key={"a": 0})
refused_state("maps that do not fit", key_by_slot={})
refused_state("legs of an unknown slot", legs_by_slot={3: ()})
refused_state("a leg that is no pair", legs_by_slot={0: [(1,)]})
refused_state("a leg that is too high", legs_by_slot={0: [(N, 1.0)]})
refused_state("a weight that is not finite", legs_by_slot={0: [(0, NAN)]})
refused_state("too little metadata", structure_metadata_by_slot=[])
refused_state("metadata that are no dicts", structure_metadata_by_slot=[1, 2, 3, 4])
refused_state("a limit that is too high", structure_N_limit=N + 1)
refused_state("a limit that is no integer", structure_N_limit=1.5)
refused_state("too few children", child_states=[])
refused_state("children of another type", child_states=3)


@failing(ValueError)
def state_that_is_no_dict():
    rotation = used(Baskets)
    return lambda: rotation.set_state([])


def with_children(*children):
    rotation = used(lambda: Baskets(child_rotations=children, transformation_expression="none"))
    return rotation, copy.deepcopy(rotation.get_state())


@failing(LookupError)
def child_that_refuses_its_state():
    failing_child = Child()
    rotation, state = with_children(Child(), failing_child)
    failing_child.fails = ["set_state"]
    return lambda: rotation.set_state(state)


@failing(LookupError)
def child_without_a_snapshot():
    failing_child = Child()
    rotation, state = with_children(Child(), failing_child)
    failing_child.fails = ["get_state"]
    return lambda: rotation.set_state(state)


@failing(LookupError)
def state_of_a_child_that_raises():
    failing_child = Child()
    rotation, _ = with_children(failing_child)
    failing_child.fails = ["get_state"]
    return rotation.get_state


@failing(ValueError)
def state_of_another_window():
    rotation = used(make_ewma)
    state = {**rotation.get_state(), "window": 4}
    return lambda: rotation.set_state(state)


@failing(ValueError)
def state_of_another_width():
    rotation = used(make_ewma)
    state = {**rotation.get_state(), "weight": np.ones(2)}
    return lambda: rotation.set_state(state)


@failing(ValueError)
def state_without_entries():
    rotation = used(make_ewma)
    return lambda: rotation.set_state({})


@failing(ValueError)
def state_of_a_rotation_that_is_no_dict():
    rotation = used(Copied)
    return lambda: rotation.set_state(3)


@failing(LookupError)
def store_that_cannot_write():
    rotation = used(Baskets)
    store = type("Store", (), {"write": raising})()
    return lambda: rotation.checkpoint(store)


@failing(LookupError)
def store_that_cannot_read():
    rotation = used(Copied)
    store = type("Store", (), {"read": raising})()
    return lambda: rotation.recover(store)


@failing(AttributeError)
def store_that_is_none():
    rotation = used(Baskets)
    return lambda: rotation.recover(3)


for _make in (Baskets, Copied, Ewma):
    for _error, _wrong in ((TypeError, True), (TypeError, "x"), (ValueError, 0), (ValueError, -3)):
        FAILURES[f"resize of {_make.__name__} to {_wrong!r}"] = (
            _error,
            lambda make=_make, wrong=_wrong: (lambda rotation: lambda: rotation.resize(wrong))(
                used(make_ewma if make is Ewma else make)
            ),
        )


@failing(IndexError)
def slot_that_is_not_there_to_be_forgotten():
    ewma = used(make_ewma)
    return lambda: ewma.forget([0, N])


@failing(TypeError)
def slots_that_are_no_numbers():
    ewma = used(make_ewma)
    return lambda: ewma.forget(["x"])


@failing(ValueError)
def memory_without_room():
    rotation = used(MAKERS["rolling mean"])
    rotation._memory = np.zeros(1)
    return lambda: rotation(ONES)


@failing(ValueError)
def groups_by_no_known_function():
    rotation = used(MAKERS["within groups"])
    rotation.function = "median"
    return lambda: rotation(ONES)


@failing(IndexError)
def column_that_is_not_there_to_be_forgotten():
    rotation = used(MAKERS["delay"])
    return lambda: rotation.forget([N])


@failing(ValueError)
def attendance_without_room():
    attendance = used(make_attendance)
    attendance._silent_days = np.zeros(1)
    return lambda: attendance(ONES)


@failing(AttributeError)
def gate_that_goes_by_nobody():
    gate = used(make_gate)
    gate.attendance = None
    return lambda: gate(ONES)


@failing(LookupError)
def history_that_its_progress_ends():
    rotation, values = ready_made(), np.ones((40, N))
    return lambda: replay_history(rotation, values, progress=raising)


@failing(ValueError)
def history_of_no_number_of_threads():
    rotation, values = ready_made(), np.ones((40, N))
    return lambda: replay_history(rotation, values, threads=0)


@failing(ValueError)
def batch_without_matrices():
    return used(Baskets).batch_reference


@failing(IndexError)
def batch_of_a_scalar():
    rotation = used(Baskets)
    return lambda: rotation.batch_reference(1.0)


@failing(IndexError)
def batch_of_different_lengths():
    rotation = used(Baskets)
    return lambda: rotation.batch_reference(matrix(), matrix()[:1])


@failing(LookupError)
def representation_of_a_value_that_raises():
    rotation = Copied(parameter=type("Value", (), {"__repr__": raising})())
    return lambda: repr(rotation)


@failing(IndexError)
def row_that_is_not_in_the_mask():
    mask = used(Baskets)._make_child_context(None, 2).universe_mask
    return lambda: mask[7]


@failing(ValueError)
def mask_index_of_three_parts():
    mask = used(Baskets)._make_child_context(None, 2).universe_mask
    return lambda: mask[0, 1, 2]
