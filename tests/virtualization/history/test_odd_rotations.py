"""Odd things found in a rotation or its children count in a history as they do on any day.

What a day leaves behind is what the next one finds: a history is then, to the bit and with its
errors, that of a rotation which is computed day by day.
"""

import warnings

import numpy as np
import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.attendance import Attendance, Gate
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.columns import StructureColumns
from quorvane.functions.rotations.virtualization.history import replay_history
from support import frozen
from support.histories import ByDays, both, leftovers, random_baskets

DAYS, INSTRUMENTS, BASKETS, SLOTS = 60, 11, 40, 45
BASKETS_BY_NAME, NAMES = random_baskets(np.random.default_rng(5), INSTRUMENTS, BASKETS, 3)


def prices(count=DAYS):
    rng = np.random.default_rng(2)
    matrix = rng.normal(size=(count, INSTRUMENTS))
    matrix[rng.random(matrix.shape) < 0.1] = np.nan
    return matrix


def chain():
    attendance = Attendance(1, N_alloc=SLOTS)
    return [
        attendance,
        Ewma(9, N_alloc=SLOTS),
        Gate(attendance, N_alloc=SLOTS),
        Transcendental(function="abs", N_alloc=SLOTS),
        Rank(N_alloc=SLOTS),
    ]


def rotation_of(cls, **options):
    options = {"max_structures": SLOTS, "child_rotations": chain(), **options}
    return cls(BASKETS_BY_NAME, NAMES, transformation_expression="none", **options)


def after_the_first_day(cls, change):
    """A class whose first day makes its instance one of `cls`, changed."""

    class FirstDay(cls):
        def __call__(self, *inputs, **options):
            output = super().__call__(*inputs, **options)
            self.__class__ = cls
            change(self)
            return output

    return FirstDay


def played(cls, change, matrix=None):
    """The history of a rotation that is changed after its first day, and what it leaves behind."""
    rotation = rotation_of(after_the_first_day(cls, change))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        ending = frozen.outcome(rotation.batch_reference, prices() if matrix is None else matrix)
    state = vars(rotation), [getattr(child, "__dict__", None) for child in chain_in(rotation)]
    for held in state[0], *filter(None, state[1]):
        held.pop("seen_days", None)
    # Errors name the class, which is not what this is about.
    told = repr(ending[:2]).replace("ByDays", "FixedBaskets")
    return told, ending[-1], frozen.freeze(state)


def chain_in(rotation):
    """The children, in whatever attribute they are."""
    return vars(rotation).get("child_rotations", [])


class Text(str):
    __slots__ = ()


class Whole(int):
    pass


class Array(np.ndarray):
    pass


def strided_by_nothing(array):
    with warnings.catch_warnings():
        # NumPy 2.4 still allows it, and says that it should not be.
        warnings.simplefilter("ignore", DeprecationWarning)
        array.strides = (0,)
    return array


def replacing(name, value):
    return name, lambda owner: setattr(owner, name, value(getattr(owner, name)))


def removing(name):
    return f"no {name}", lambda owner: delattr(owner, name)


def with_a_key_that_is_no_text(owner):
    vars(owner)[1] = 2


def with_a_method_of_its_own(owner):
    owner.compute = owner.compute


def arrays_instead_of(name, short=3):
    """An attribute that holds an array, as many other things."""
    return [
        replacing(name, lambda array: array.view(Array)),
        replacing(name, lambda array: array[:]),
        replacing(name, lambda array: array[:short].copy()),
        replacing(name, lambda array: np.repeat(array, 2)[::2]),
        replacing(name, lambda array: array.astype(np.float32)),
        replacing(name, lambda array: array.tolist()),
        replacing(name, lambda array: None),
        replacing(name, lambda array: array[None].copy()),
    ]


def masks_instead_of(name):
    """An attribute that holds a tuple of one array."""
    return [
        replacing(name, list),
        replacing(name, lambda masks: ()),
        replacing(name, lambda masks: masks * 2),
        replacing(name, lambda masks: (masks[0][:3].copy(),)),
        replacing(name, lambda masks: (masks[0][:],)),
        replacing(name, lambda masks: (masks[0].astype(np.float32),)),
        replacing(name, lambda masks: (None,)),
        replacing(name, lambda masks: None),
    ]


def named(change):
    return pytest.param(change[1], id=change[0]) if isinstance(change, tuple) else change


BUFFERS = [
    *arrays_instead_of("_output_buf"),
    *arrays_instead_of("_combined_nan_buf"),
    *masks_instead_of("_nan_mask_bufs"),
    replacing("_n_alloc", lambda count: None),
    replacing("_n_alloc", np.int64),
    replacing("_n_alloc", Whole),
    replacing("_n_alloc", lambda count: 10**30),
    with_a_key_that_is_no_text,
    with_a_method_of_its_own,
]
OF_THE_ROTATION = [
    *BUFFERS,
    *arrays_instead_of("_txi_input", short=SLOTS + 1),
    *arrays_instead_of("_txi_universe_row"),
    replacing("_txi_universe_row", strided_by_nothing),
    replacing("unmap_policy", Text),
    replacing("unmap_policy", lambda policy: "none of them"),
    replacing("unmap_policy", lambda policy: None),
    replacing("_instruments", list),
    replacing("_instruments", lambda names: (*names, "one", "more")),
    replacing("child_rotations", tuple),
    replacing("trace_sink", lambda sink: []),
    replacing("_columns", lambda columns: ((99, columns),)),
    replacing("_columns", lambda columns: ([0, columns],)),
    replacing("_columns", lambda columns: ((0, columns, 1),)),
    replacing("_columns", lambda columns: ((True, columns),)),
    replacing("_columns", lambda columns: ((-1, columns),)),
    replacing("_columns", lambda columns: ()),
    replacing("_columns", lambda columns: None),
    removing("unmap_policy"),
    removing("_instruments"),
    removing("_columns"),
    removing("child_rotations"),
    removing("trace_sink"),
]


def test_a_row_without_a_place_for_every_slot_ends_a_history_on_its_day():
    _, change = replacing("_txi_input", lambda row: row[:3].copy())
    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("change", [named(change) for change in OF_THE_ROTATION])
def test_what_a_day_leaves_in_the_rotation_counts_on_the_next(change):
    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("place", range(5))
@pytest.mark.parametrize("change", [named(change) for change in BUFFERS])
def test_what_a_day_leaves_in_a_child_counts_on_the_next(change, place):
    def change_child(rotation):
        change(rotation.child_rotations[place])

    assert played(FixedBaskets, change_child) == played(ByDays, change_child)


class Shown:
    """Somebody else who holds what an attribute holds."""

    held = None


def held_by_somebody(array):
    Shown.held = array
    return array


def an_average_that_counts(attendance):
    """Not what a gate expects, but it has all that a gate asks for."""
    ewma = Ewma(2, N_alloc=SLOTS)
    ewma.hold, ewma._silent_days = 0, np.arange(SLOTS) % 2.0
    return ewma


OF_ONE_CHILD = [
    *[(0, change) for change in arrays_instead_of("_silent_days")],
    (0, replacing("_silent_days", held_by_somebody)),
    (0, replacing("hold", Whole)),
    (0, replacing("hold", lambda hold: -1)),
    (0, replacing("hold", lambda hold: None)),
    (0, removing("hold")),
    (0, removing("_silent_days")),
    *[(1, change) for change in arrays_instead_of("_mean")],
    *[(1, change) for change in arrays_instead_of("_weight")],
    (1, replacing("_mean", held_by_somebody)),
    (1, replacing("_weight", held_by_somebody)),
    *[(1, replacing("window", lambda window, new=new: new)) for new in (0, -1, 10**30, 10**400)],
    (1, replacing("window", Whole)),
    (1, replacing("window", float)),
    *[(1, removing(name)) for name in ("window", "_mean", "_weight")],
    (2, replacing("attendance", lambda attendance: None)),
    (2, removing("attendance")),
    (3, replacing("function", Text)),
    (3, replacing("function", lambda name: "none of them")),
    (3, replacing("function", lambda name: 3)),
    (3, replacing("function", lambda name: 3.0)),
    (3, removing("function")),
]


@pytest.mark.parametrize(
    ("place", "change"),
    [pytest.param(place, change, id=f"{place} {name}") for place, (name, change) in OF_ONE_CHILD],
)
def test_what_a_day_leaves_in_one_child_counts_on_the_next(place, change):
    def change_child(rotation):
        change(rotation.child_rotations[place])

    assert played(FixedBaskets, change_child) == played(ByDays, change_child)


def test_a_gate_goes_by_whatever_counts_before_it():
    def go_by_the_average(rotation):
        ewma = rotation.child_rotations[1]
        ewma.hold, ewma._silent_days = 0, np.arange(SLOTS) % 2.0
        rotation.child_rotations[2].attendance = ewma

    assert played(FixedBaskets, go_by_the_average) == played(ByDays, go_by_the_average)


# Classes that answer for an attribute, or watch their instances


def asking_for(cls, name):
    """A subclass that answers for the attribute in place of its instances."""

    def answer(self):
        return vars(self)[name]

    def change(self, value):
        vars(self)[name] = value

    def forget(self):
        del vars(self)[name]

    return type("Asking", (cls,), {name: property(answer, change, forget)})


def watching_reads(cls):
    class Watching(cls):
        def __getattribute__(self, name):
            return super().__getattribute__(name)

    return Watching


def watching_writes(cls):
    class Watching(cls):
        def __setattr__(self, name, value):
            super().__setattr__(name, value)

    return Watching


FRAMEWORK = ["_n_alloc", "_output_buf", "_combined_nan_buf", "_nan_mask_bufs"]
ASKED_OF_A_CHILD = [
    *[(place, name) for place in range(5) for name in FRAMEWORK],
    (0, "hold"), (0, "_silent_days"), (1, "window"), (1, "_mean"), (1, "_weight"),
    (2, "attendance"), (3, "function"),
]  # fmt: skip
ASKED_OF_THE_ROTATION = [
    *FRAMEWORK, "unmap_policy", "_instruments", "_columns", "_txi_universe_row", "trace_sink",
    "child_rotations", "_txi_input", "max_structures", "_metadata_by_slot",
]  # fmt: skip


@pytest.mark.parametrize("name", ASKED_OF_THE_ROTATION)
def test_a_class_may_answer_for_an_attribute_of_the_rotation(name):
    def change(rotation):
        rotation.__class__ = asking_for(type(rotation), name)

    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize(("place", "name"), ASKED_OF_A_CHILD)
def test_a_class_may_answer_for_an_attribute_of_a_child(place, name):
    def change(rotation):
        child = rotation.child_rotations[place]
        child.__class__ = asking_for(type(child), name)

    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("watching", [watching_reads, watching_writes])
@pytest.mark.parametrize("place", [None, *range(5)])
def test_a_class_may_watch_its_instances(watching, place):
    def change(rotation):
        owner = rotation if place is None else rotation.child_rotations[place]
        owner.__class__ = watching(type(owner))

    assert played(FixedBaskets, change) == played(ByDays, change)


def test_a_child_without_a_dictionary_is_called_every_day():
    class Slotted:
        __slots__ = (
            "_combined_nan_buf", "_mean", "_n_alloc", "_nan_mask_bufs", "_output_buf", "_weight",
            "window",
        )  # fmt: skip
        _name = "slotted"
        __call__, compute = RotationBase.__call__, Ewma.compute

        def __init__(self):
            model = Ewma(9, N_alloc=SLOTS)
            for name, value in vars(model).items():
                if name in Slotted.__slots__:
                    setattr(self, name, value)

    def change(rotation):
        rotation.child_rotations[1] = Slotted()

    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("name", ["_refresh_active_structures", "basket_values"])
def test_a_method_of_ours_in_another_s_place_is_what_it_is(name):
    other = {"_refresh_active_structures": "basket_values", "basket_values": "structure_values"}

    def change(rotation):
        method = getattr(FixedBaskets, other[name])
        rotation.__class__ = type("Odd", (type(rotation),), {name: method})

    assert played(FixedBaskets, change) == played(ByDays, change)


def test_a_child_s_compute_that_is_none_is_called_as_it_is():
    def change(rotation):
        child = rotation.child_rotations[1]
        child.__class__ = type("Odd", (Ewma,), {"compute": FixedBaskets.basket_values})

    assert played(FixedBaskets, change) == played(ByDays, change)


def test_a_class_between_that_sets_nothing_changes_nothing():
    class Between(RotationBase):
        pass

    class Mixed(FixedBaskets, Between):
        pass

    matrix = prices()
    output = rotation_of(Mixed).batch_reference(matrix)
    assert output.tobytes() == rotation_of(ByDays).batch_reference(matrix).tobytes()


def test_without_the_framework_s_call_there_are_no_days(monkeypatch):
    monkeypatch.delattr(RotationBase, "__call__")
    for cls in (FixedBaskets, ByDays):
        with pytest.raises(AttributeError, match="__call__"):
            rotation_of(cls).batch_reference(prices())


CONTEXT_CLASSES = ["_VirtualContext", "_AllOnesVirtualMask"]


@pytest.mark.parametrize("name", CONTEXT_CLASSES)
def test_what_the_module_makes_contexts_of_may_be_replaced(name):
    original = getattr(base, name)

    def play(cls):
        made = []

        class Seen(original):
            def __init__(self, *args, **options):
                made.append(name)
                super().__init__(*args, **options)

        with pytest.MonkeyPatch.context() as patch:
            ending = played(cls, lambda _: patch.setattr(base, name, Seen))[0]
        return ending, len(made)

    at_once, by_days = play(FixedBaskets), play(ByDays)
    assert at_once == by_days
    assert at_once[1] >= DAYS - 1


@pytest.mark.parametrize("name", CONTEXT_CLASSES)
def test_what_the_module_makes_contexts_of_may_answer_in_its_own_way(name):
    def play(cls):
        asked = []

        def read(self, attribute):
            asked.append(attribute)
            return object.__getattribute__(self, attribute)

        def change(rotation):
            patch.setattr(getattr(base, name), "__getattribute__", read, raising=False)

        with pytest.MonkeyPatch.context() as patch:
            return played(cls, change)[0], asked

    assert play(FixedBaskets) == play(ByDays)


# Structures


@pytest.mark.parametrize(
    ("leg_ids", "weights"),
    [([0, 1], [np.inf, 1.0]), ([0, 1], [np.nan, 1.0]), ([-1, 2], [1.0, 2.0])],
)
def test_columns_of_odd_weights_or_that_count_from_the_end(leg_ids, weights):
    odd = StructureColumns(
        keys=[("odd",)], offsets=[0, 2], leg_ids=leg_ids, weights=weights, values=[np.nan]
    )

    def play(cls):
        rotation = rotation_of(cls)
        rotation._columns = odd
        matrix = prices()
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            ending = frozen.outcome(rotation.batch_reference, matrix)[:2]
        return ending, leftovers(rotation)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("legs", [((99, 1.0),), ((INSTRUMENTS, 1.0),), ((2, np.inf),)])
def test_legs_of_a_slot_without_a_value_are_of_no_use(legs):
    def change(rotation):
        rotation._legs_by_slot[SLOTS - 1] = legs

    assert played(FixedBaskets, change) == played(ByDays, change)


@pytest.mark.parametrize("threads", [1, 2, 3])
@pytest.mark.parametrize("slots", [100_000, 140_000, 300_000])
def test_slots_beyond_what_may_be_held_at_once(slots, threads):
    """The memory of a history does not grow with what it is given: fewer threads, or days."""
    matrix = prices(19)

    def play(cls):
        rotation = rotation_of(cls, max_structures=slots, child_rotations=[])
        return replay_history(rotation, matrix, threads=threads).tobytes()

    assert play(FixedBaskets) == play(ByDays)


def test_outputs_beyond_what_an_array_may_have_are_not_missed_before_they_end():
    """A progress that raises ends a history which could never have been kept."""
    matrix = np.broadcast_to(np.ones(INSTRUMENTS), (10**17, INSTRUMENTS))

    def stop(done, count):
        raise StopIteration

    with pytest.raises(StopIteration):
        replay_history(
            rotation_of(FixedBaskets), matrix, universe_mask=np.ones(INSTRUMENTS, dtype=bool),
            progress=stop, level="structure",
        )  # fmt: skip


# Universes and matrices


@pytest.mark.parametrize(
    "universe", [np.ones((), bool), np.ones((DAYS, INSTRUMENTS, 1), bool), np.ones(0, bool)]
)
def test_a_universe_of_too_few_or_too_many_axes_is_that_of_its_days(universe):
    context = type("Context", (), {"universe_mask": universe})
    at_once, by_days = both(rotation_of, prices(), context=context)
    assert at_once == by_days


@pytest.mark.parametrize("form", [">f8", "<i8", "<f4"])
def test_a_matrix_that_a_day_gives_another_form_counts_as_it_is_then(form):
    def play(cls):
        matrix = prices()

        def change(rotation):
            with warnings.catch_warnings():
                # NumPy 2.5 still allows it, and says that it should not be.
                warnings.simplefilter("ignore", DeprecationWarning)
                matrix.dtype = form

        return played(cls, change, matrix)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("place", [None, *range(5)])
@pytest.mark.parametrize("buffer", ["_output_buf", "_combined_nan_buf", "_nan_mask_bufs"])
def test_buffers_in_the_matrix_are_written_as_its_days_are_read(buffer, place):
    def play(cls):
        matrix = np.vstack([prices(), np.zeros((10, INSTRUMENTS))])
        memory = matrix.reshape(-1)[DAYS * INSTRUMENTS :]

        def change(rotation):
            owner = rotation if place is None else rotation.child_rotations[place]
            width = INSTRUMENTS if place is None else SLOTS
            parts = {
                "_output_buf": memory[:width],
                "_combined_nan_buf": memory.view(np.uint8)[:width],
                "_nan_mask_bufs": (memory.view(np.uint8)[:width],),
            }
            setattr(owner, buffer, parts[buffer])

        return played(cls, change, matrix), matrix.tobytes()

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("buffer", ["_output_buf", "_combined_nan_buf", "_nan_mask_bufs"])
def test_a_matrix_in_a_buffer_is_written_as_its_days_are_read(buffer):
    """The other way round: the buffer owns the memory, and the matrix is a view of it."""
    kind = float if buffer == "_output_buf" else np.uint8
    size = DAYS * INSTRUMENTS * (1 if kind is float else 8)
    if buffer == "_nan_mask_bufs":
        size = INSTRUMENTS

    def play(cls):
        memory = np.zeros(size, dtype=kind)
        count = size * memory.itemsize // (8 * INSTRUMENTS)
        whole = prices()
        if count:
            memory.view(float)[: count * INSTRUMENTS] = prices(count).reshape(-1)
            whole = memory.view(float)[: count * INSTRUMENTS].reshape(count, INSTRUMENTS)
        else:
            whole = np.ndarray((DAYS, 1), float, memory, strides=(0, 8))
            whole = np.broadcast_to(whole, (DAYS, INSTRUMENTS))

        def change(rotation):
            setattr(rotation, buffer, (memory,) if buffer == "_nan_mask_bufs" else memory)

        return played(cls, change, whole), memory.tobytes()

    assert play(FixedBaskets) == play(ByDays)


# Outputs


def of_another_kind(cls, kind):
    """A class whose first output is of another kind; its instance is then one of `cls`."""

    class Odd(cls):
        def __call__(self, *inputs, **options):
            output = super().__call__(*inputs, **options)
            self.__class__ = cls
            return kind(output)

    return Odd


ROWS = {
    "float32": lambda row: row.astype(np.float32),
    "list": lambda row: row.tolist(),
    "wider": lambda row: np.append(row, 1.0),
    "strided": lambda row: np.repeat(row, 2)[::2],
    "complex": lambda row: row + 1j,
    "text": lambda row: row.astype("U30"),
    "none": lambda row: None,
}


@pytest.mark.parametrize("kind", ROWS)
def test_a_first_output_of_another_kind_is_stacked_with_the_others(kind):
    matrix = prices()

    def play(cls):
        rotation = rotation_of(of_another_kind(cls, ROWS[kind]))
        return frozen.outcome(rotation.batch_reference, matrix)[:2]

    assert play(FixedBaskets) == play(ByDays)


class OnOverflow:
    """What NumPy calls when it overflows; the first time it acts."""

    def __init__(self, act):
        self.act = act

    def __call__(self, *what):
        act, self.act = self.act, None
        if act is not None:
            act()


STEEP = {"x": {"a": 1e10}, "y": {"a": 1e10, "b": 1.0}}


def with_an_act_on(day, cls, act, count=700, **options):
    """Replay days that are computed at once up to one that overflows, where `act(...)` is called.

    It is given the rotation and the matrix.
    """
    matrix = np.linspace(0.0, 1.0, 2 * count).reshape(count, 2)
    # Its cube is a number, and twice the cube none.
    matrix[day] = 5.5e92, 1.0
    rotation = cls(
        STEEP, ["a", "b"], N_alloc=4, transformation_expression="none",
        child_rotations=[Transcendental(function="cube", N_alloc=9)],
    )  # fmt: skip
    acting = OnOverflow(lambda: act(rotation, matrix))
    with np.errstate(over="call", call=acting):
        ending = frozen.outcome(replay_history, rotation, matrix, **options)[:2]
    assert acting.act is None, "nothing overflowed"
    return ending


@pytest.mark.parametrize("day", [600, 699])
@pytest.mark.parametrize("kind", ROWS)
def test_a_later_output_of_another_kind_is_stacked_with_the_others(kind, day):
    def play(cls):
        def act(rotation, matrix):
            rotation.__class__ = of_another_kind(cls, ROWS[kind])

        return with_an_act_on(day, cls, act)

    assert play(FixedBaskets) == play(ByDays)


@pytest.mark.parametrize("day", [0, 600, 699])
def test_a_stack_that_somebody_replaces_meanwhile_is_used(monkeypatch, day):
    stack, stacked = np.vstack, []

    def own_stack(rows, *args, **options):
        stacked.append(len(list(rows)))
        return stack(rows, *args, **options) + 1.0

    def play(cls):
        with monkeypatch.context() as patch:
            return with_an_act_on(day, cls, lambda *_: patch.setattr(np, "vstack", own_stack))

    assert play(FixedBaskets) == play(ByDays)
    assert stacked == [700, 700]


@pytest.mark.parametrize("day", [100, 600])
def test_slots_that_change_meanwhile_are_those_of_their_days(day):
    def act(rotation, matrix):
        rotation.max_structures += 1
        rotation._txi_input = np.full(rotation.max_structures, np.nan)
        rotation._txi_universe_row = np.ones(rotation.max_structures, np.uint8)
        rotation._metadata_by_slot.append({"active": False})

    assert with_an_act_on(day, FixedBaskets, act) == with_an_act_on(day, ByDays, act)


@pytest.mark.parametrize("day", [600, 1024])
@pytest.mark.parametrize("shape", [(1200, 3), (1200, 4), (1200, 1), (1000, 2), (1500, 2)])
def test_a_matrix_that_a_day_gives_another_shape_counts_as_it_is_then(shape, day):
    def act(rotation, matrix):
        memory = np.arange(float(np.prod(shape))).tobytes()
        matrix.__setstate__((1, shape, np.dtype("f8"), False, memory))
        # As if the rotation had been called with such a row before.
        rotation._nan_mask_bufs = (np.zeros(shape[1], dtype=np.uint8),)

    everybody = np.ones(4, dtype=bool)
    outcomes = [
        with_an_act_on(day, cls, act, 1200, universe_mask=everybody)
        for cls in (FixedBaskets, ByDays)
    ]
    assert outcomes[0] == outcomes[1]


def test_a_stack_that_is_replaced_after_the_last_day_is_used(monkeypatch):
    stack, matrix = np.vstack, prices()

    def play(cls):
        with monkeypatch.context() as patch:

            def replace(done, count):
                if done == count:
                    patch.setattr(np, "vstack", lambda rows: stack(rows) + 1.0)

            return replay_history(rotation_of(cls), matrix, progress=replace)

    at_once, by_days = play(FixedBaskets), play(ByDays)
    assert at_once.tobytes() == by_days.tobytes()
    plain = replay_history(rotation_of(ByDays), matrix) + 1.0
    assert at_once.tobytes() == plain.tobytes()


def test_a_matrix_that_a_day_gives_another_form_has_the_error_of_that_day():
    def play(cls):
        matrix = np.ones((DAYS, 1))

        class Flattening(cls):
            def __call__(self, *args, **options):
                output = super().__call__(*args, **options)
                self.__class__ = cls
                matrix.shape = (DAYS,)
                return output

        rotation = Flattening({"x": {"a": 1.0}}, ["a"], transformation_expression="none")
        return frozen.outcome(rotation.batch_reference, matrix)[:2]

    assert play(FixedBaskets) == play(ByDays)
