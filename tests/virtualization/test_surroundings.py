"""What surrounds the module may be changed at any time, and the next step goes by the change.

NumPy's functions, the module's own globals, the record's class, the methods that were put in place
of others: each is looked up when it is needed, in the order in which Python code would do it.
"""

import functools
import sys
import types
import warnings
from unittest import mock

import numpy as np
import pytest

from support import frozen
from support.fakes import Context, RecordingChild, make_rotation, structure
from support.siblings import Siblings, load_base, plain_rotation_base

ITEMS = [
    structure(("a",), ((0, 1.0), (1, -0.3)), 1.1),
    structure(("b",), ((2, 0.7),), 2.0),
    structure(("c",), ((3, 1.0),), float("nan")),
]


def both(scenario, *arguments, **siblings):
    """Run a scenario on fresh modules of both kinds; assert equal logs and return the log."""
    logs = [
        scenario(load_base(kind, Siblings(**siblings)), *arguments) for kind in ("native", "twin")
    ]
    assert logs[0] == logs[1]
    return logs[0]


def a_day(rotation):
    """Compute one day on six live instruments; return all that came of it."""
    buffer = np.full(6, 77.0)
    result = frozen.outcome(compute, rotation, buffer)
    attributes = {name: value for name, value in vars(rotation).items() if not callable(value)}
    return result, frozen.freeze(buffer), frozen.freeze(attributes)


def compute(rotation, buffer):
    clear = np.zeros(6, dtype=np.uint8)
    return rotation.compute((np.zeros(6),), (clear,), clear, buffer, 6)


def steady(base, **constructor):
    """Make a rotation that reports ITEMS every day."""
    return make_rotation(base, [ITEMS] * 20, **constructor)


# --- NumPy ------------------------------------------------------------------------------------


class OtherNumpy:
    """NumPy with some functions replaced; `read` lists every name that was asked for."""

    def __init__(self, **replaced):
        self.replaced = replaced
        self.read = []

    def __getattr__(self, name):
        self.read.append(name)
        return self.replaced[name] if name in self.replaced else getattr(np, name)


REPLACEMENTS = {
    "asarray": lambda *args, **kwargs: np.full(4, 9.0),
    "array": lambda *args, **kwargs: np.full(4, 8.0),
    "isfinite": lambda value: False,
    "zeros": lambda N, dtype: np.ones(N, dtype=dtype),
    "nan": 55.0,
    "float64": np.float32,
}


@pytest.mark.parametrize("name", REPLACEMENTS)
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("way", ["module's np", "numpy itself"])
def test_replaced_numpy_function_serves_from_the_next_step_on(name, policy, way):
    """The child replaces it in the middle of the second day and restores it in the fourth."""

    def scenario(base):
        def child(values, context):
            step[0] += 1
            if step[0] == 2:
                patch.start()
            elif step[0] == 4:
                patch.stop()
            return values

        if way == "numpy itself":
            patch = mock.patch.object(np, name, REPLACEMENTS[name])
        else:
            patch = mock.patch.object(base, "np", OtherNumpy(**{name: REPLACEMENTS[name]}))
        step = [0]
        rotation = steady(base, child_rotations=[child], unmap_policy=policy, trace_sink=[])
        outputs = []
        for _ in range(5):
            try:
                outputs.append(rotation(np.ones(6)).tobytes())
            except (TypeError, ValueError) as error:
                outputs.append(str(error))
        if step[0] < 4:
            patch.stop()
        return outputs

    assert len(set(both(scenario))) > 1


def test_conversion_is_looked_up_after_the_child_was_called(base):
    def child(values, context):
        base.np = OtherNumpy(asarray=lambda *args, **kwargs: np.full(4, 9.0))
        return values

    rotation = make_rotation(base, child_rotations=[child])
    assert rotation._run_child_chain(np.zeros(4), None).tolist() == [9.0] * 4


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
def test_names_are_asked_of_numpy_in_pythons_order(policy):
    """A stand-in for `np` sees the same questions, call by call, from both modules."""

    def scenario(base):
        log = []

        def asked(call, *args, **kwargs):
            standing.read.clear()
            call(*args, **kwargs)
            log.append(list(standing.read))

        standing = base.np = OtherNumpy()
        rotation = steady(
            base, child_rotations=[RecordingChild()] * 2, unmap_policy=policy, trace_sink=[]
        )
        log.append(list(standing.read))
        for _ in range(2):
            asked(rotation, np.ones(6))
        asked(rotation.batch_reference, np.ones((2, 6)))
        asked(rotation._normalize_structure, {"key": (), "legs": (), "value": 1.0})
        asked(rotation.set_state, rotation.get_state() | {"child_states": [{}, {}]})
        asked(rotation.resize, 7)
        asked(base._AllOnesVirtualMask(3, np.ones(4)).__getitem__, slice(1))
        return log

    log = both(scenario)
    assert all(log)


def test_module_class_of_numpy_that_answers_itself_is_asked():
    def scenario(base):
        class Answering(types.ModuleType):
            def __getattribute__(self, name):
                if name in ("isfinite", "nan"):
                    log.append(name)
                return super().__getattribute__(name)

        log = []
        rotation = steady(base)
        rotation(np.ones(6))
        np.__class__ = Answering
        try:
            rotation(np.ones(6))
        finally:
            np.__class__ = types.ModuleType
        # NumPy's own Python code asks its module, too, but not for these.
        return log

    assert both(scenario).count("isfinite") >= 2


class Acting:
    """Number that acts when it is read: in the middle of a day."""

    def __init__(self, act):
        self.act = act

    def __float__(self):
        self.act()
        return 3.0


def test_module_class_of_numpy_changed_in_the_middle_of_a_day_is_asked():
    def scenario(base):
        class Answering(types.ModuleType):
            def __getattribute__(self, name):
                if name == "isfinite":
                    log.append(name)
                return super().__getattribute__(name)

        def change():
            np.__class__ = Answering

        log = []
        acting = structure(("d",), ((0, 1.0),), Acting(change))
        rotation = make_rotation(base, [ITEMS, [ITEMS[0], acting, *ITEMS]])
        rotation(np.ones(6))
        try:
            rotation(np.ones(6))
        finally:
            np.__class__ = types.ModuleType
        return log

    assert both(scenario).count("isfinite") >= 4


# --- arrays that warn of being written --------------------------------------------------------


def warning_array(size):
    """Return an array of one repeated number, upon whose first write NumPy warns."""
    return np.broadcast_arrays(np.zeros(1), np.zeros(size))[0]


def assign(array):
    array[0] = 1.0


def fill(array):
    array.fill(1.0)


def numpy_warns_of(write):
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        write(warning_array(2))
    return bool(caught)


def with_row(rotation, name):
    setattr(rotation, name, warning_array(4))
    return rotation


WRITES = {
    "unmapping": lambda base, buffer: steady(base)._unmap(np.full(4, np.nan), buffer, 6),
    "unmapping something": lambda base, buffer: steady(base)._unmap(np.zeros(4), buffer, 6),
    "output": lambda base, buffer: compute(steady(base), buffer),
    "input row": lambda base, buffer: compute(with_row(steady(base), "_txi_input"), buffer),
    "output row": lambda base, buffer: compute(
        with_row(
            make_rotation(base, attributes={"_call_child_on_empty": False}, child_rotations=[]),
            "_txi_output",
        ),
        buffer,
    ),
}


@pytest.mark.parametrize("place", WRITES)
@pytest.mark.parametrize("action", ["always", "error"])
def test_numpy_warns_of_a_write_as_ever(place, action):
    def scenario(base):
        buffer = np.ones(6) if "row" in place else warning_array(6)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter(action)
            try:
                raised = WRITES[place](base, buffer)
            except DeprecationWarning as warning:
                raised = str(warning)
        return raised, [str(warning.message) for warning in caught], str(buffer)

    # Of the output row nothing but its filling is written, of which older NumPy does not warn.
    write = fill if place == "output row" else assign
    assert ("overlapping memory" in str(both(scenario))) == numpy_warns_of(write)


# --- the contexts -----------------------------------------------------------------------------


def test_child_context_is_made_with_the_day_as_keyword(base):
    def context(universe_mask, *, current_day_index):
        return (universe_mask, current_day_index)

    def mask(rows, row, /):
        return (rows, row)

    rotation = make_rotation(base)
    base._VirtualContext = context
    base._AllOnesVirtualMask = mask
    row = rotation._txi_universe_row
    assert rotation._make_child_context(None, 3) == ((4, row), 3)
    assert rotation._make_child_context(None, -5) == ((1, row), -5)


def test_context_that_takes_no_such_keyword_is_an_error(base):
    base._VirtualContext = lambda universe_mask, day=0: None
    with pytest.raises(TypeError, match="unexpected keyword argument 'current_day_index'"):
        make_rotation(base)._make_child_context(None, 3)


def test_context_of_a_batch_is_made_with_the_day_as_keyword(base):
    calls = []

    def context(universe_mask, **further):
        calls.append((universe_mask.shape, further))
        return Context(universe_mask=universe_mask, **further)

    base._VirtualContext, original = context, base._VirtualContext
    rotation = make_rotation(base)
    rotation._make_child_context = lambda parent, day: original(None, day)
    rotation.batch_reference(np.ones((2, 3)))
    assert calls == [((2, 3), {"current_day_index": 0}), ((2, 3), {"current_day_index": 1})]


# --- the record's class -----------------------------------------------------------------------


def other_code(record):
    def __init__(self, key, legs, value, metadata=None):
        self.key = key
        self.legs = legs
        self.value = value * 100
        self.metadata = metadata

    record.__init__.__code__ = __init__.__code__


def other_initialiser(record):
    original = record.__init__

    def __init__(self, key, legs, value, metadata=None):
        original(self, key, legs, value + 10, metadata)

    record.__init__ = __init__


def no_initialiser(record):
    del record.__init__


def own_new(record):
    def __new__(cls, key, legs, value, metadata):
        made = object.__new__(cls)
        metadata["new"] = True
        return made

    record.__new__ = __new__


def halving_value(record):
    record.value = property(
        lambda self: vars(self)["value"] / 2,
        lambda self, value: vars(self).__setitem__("value", value),
    )


def fixed_legs(record):
    record.legs = property(lambda self: ((5, 1.0),), lambda self, legs: None)


def doubled_on_setting(record):
    def __setattr__(self, name, value):
        object.__setattr__(self, name, value * 2 if name == "value" else value)

    record.__setattr__ = __setattr__


def doubled_on_reading(record):
    def __getattribute__(self, name):
        found = object.__getattribute__(self, name)
        return found * 2 if name == "value" else found

    record.__getattribute__ = __getattribute__


def no_metadata(record):
    def __init__(self, key, legs, value, metadata=None):
        vars(self).update(key=key, legs=legs, value=value)

    record.__init__ = __init__


def other_defaults(record):
    record.__init__.__defaults__ = ({"default": True},)


def fewer_parameters(record):
    record.__init__.__code__ = (lambda self, key, legs: None).__code__


def metaclass_call(record):
    class Meta(type):
        def __call__(cls, key, legs, value, metadata):
            return super().__call__(key, legs, value * 3, metadata)

    return Meta(record.__name__, (record,), {})


def finalizer(record):
    record.__del__ = lambda self: None


def function_instead(record):
    return lambda key, legs, value, metadata: record(key, legs, value * 5, metadata)


RECORD_CHANGES = [
    other_code,
    other_initialiser,
    no_initialiser,
    own_new,
    halving_value,
    fixed_legs,
    doubled_on_setting,
    doubled_on_reading,
    no_metadata,
    other_defaults,
    fewer_parameters,
    metaclass_call,
    finalizer,
    function_instead,
]


@pytest.mark.parametrize("change", RECORD_CHANGES, ids=lambda change: change.__name__)
@pytest.mark.parametrize("day", [0, 2])
def test_day_goes_by_a_change_of_the_record_class(change, day):
    def scenario(base):
        rotation = steady(base)
        log = []
        for index in range(day + 2):
            if index == day:
                replaced = change(base.VirtualStructure)
                base.VirtualStructure = replaced or base.VirtualStructure
            log.append(a_day(rotation))
        return log

    both(scenario)


def test_code_of_the_record_initialiser_counts(base):
    other_code(base.VirtualStructure)
    rotation = steady(base)
    rotation(np.ones(6))
    assert rotation._txi_input[:2].tolist() == [1.1 * 100, 200.0]


@pytest.mark.parametrize("change", RECORD_CHANGES, ids=lambda change: change.__name__)
def test_change_of_the_record_class_in_the_middle_of_a_day_counts_from_the_next_item_on(change):
    def scenario(base):
        def act():
            replaced = change(base.VirtualStructure)
            base.VirtualStructure = replaced or base.VirtualStructure

        acting = structure(("d",), ((0, 1.0),), Acting(act))
        rotation = make_rotation(base, [ITEMS, [ITEMS[0], acting, *ITEMS]])
        return a_day(rotation), a_day(rotation)

    both(scenario)


@pytest.mark.parametrize("change", RECORD_CHANGES, ids=lambda change: change.__name__)
def test_record_was_made_before_the_slot_is_looked_for(change):
    class Acting:
        """Key of the slot map that acts when it is compared with a reported key."""

        def __init__(self, act):
            self.act = act

        def __hash__(self):
            return hash(("a",))

        def __eq__(self, other):
            self.act()
            return False

    def scenario(base):
        def act():
            acting.act = lambda: None
            replaced = change(base.VirtualStructure)
            base.VirtualStructure = replaced or base.VirtualStructure

        acting = Acting(act)
        rotation = make_rotation(base, [ITEMS[:1]] * 2)
        rotation.slot_by_key[acting] = 0
        outcome, buffer, _ = a_day(rotation)
        return outcome, buffer, frozen.freeze([rotation._metadata_by_slot, rotation._txi_input])

    both(scenario)


@pytest.mark.parametrize("change", RECORD_CHANGES, ids=lambda change: change.__name__)
def test_record_items_go_by_a_change_of_their_class(change):
    def scenario(base):
        items = [base.VirtualStructure(**item) for item in ITEMS]
        rotation = make_rotation(base, [items] * 4)
        log = [a_day(rotation)]
        replaced = change(base.VirtualStructure)
        base.VirtualStructure = replaced or base.VirtualStructure
        return [*log, a_day(rotation), a_day(rotation)]

    both(scenario)


# --- steps put in place of others -------------------------------------------------------------

STEPS = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]
OTHERS = [*STEPS, "compute", "get_state", "resize", "_unmap", "_validate_child_states"]


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("other", OTHERS)
@pytest.mark.parametrize("place", ["class", "subclass", "instance"])
def test_step_that_is_another_native_function_is_called_as_it_is(step, other, place):
    def scenario(base):
        rotation = steady(base)
        log = [a_day(rotation)]
        function = vars(base.VirtualizationBase)[other]
        owners = {"class": base.VirtualizationBase, "subclass": type(rotation)}
        setattr(owners.get(place, rotation), step, function)
        return [*log, a_day(rotation), a_day(rotation)]

    both(scenario)


@pytest.mark.parametrize("step", STEPS)
def test_step_may_be_replaced_while_the_class_is_being_made(step):
    class Base(plain_rotation_base()):
        def __init_subclass__(cls, **further):
            super().__init_subclass__(**further)
            if cls.__name__ == "VirtualizationBase":
                setattr(cls, step, cls.compute)

    both(lambda base: a_day(steady(base)), RotationBase=Base)


@pytest.mark.parametrize("step", STEPS)
def test_step_of_another_import_goes_by_that_imports_globals(step):
    def scenario(base, kinds):
        other = load_base(kinds[base.__file__.endswith("twin.py")], Siblings())
        other.np = OtherNumpy(isfinite=lambda value: False)
        other.VirtualStructure = lambda key, legs, value, metadata: types.SimpleNamespace(
            key=key, legs=legs, value=value + 1, metadata=metadata
        )
        rotation = steady(base)
        log = [a_day(rotation)]
        setattr(type(rotation), step, vars(other.VirtualizationBase)[step])
        return [*log, a_day(rotation), a_day(rotation)]

    both(scenario, ["native", "twin"])


# --- what is let go, and when -----------------------------------------------------------------


class Dropped:
    """Item that tells when it goes away."""

    def __init__(self, log, name, key):
        self.log = log
        self.name = name
        self.key = (key,)
        self.legs = ((0, 1.0),)
        self.value = 1.0

    def __del__(self):
        self.log.append(f"drop {self.name}")


def drawn(log, names):
    for name in names:
        log.append(f"yield {name}")
        yield Dropped(log, name, name)
    log.append("end")


class Saying:
    def __init__(self, log):
        self.log = log

    def __call__(self, values, context):
        self.log.append("child")
        return values


def test_items_of_a_generator_go_when_the_next_one_is_there(base):
    log = []
    rotation = make_rotation(
        base, [lambda *day: drawn(log, "abc")] * 2, child_rotations=[Saying(log)]
    )
    rotation(np.ones(6))
    log.append("after")
    assert log == [
        "yield a",
        "yield b",
        "drop a",
        "yield c",
        "drop b",
        "end",
        "child",
        "drop c",
        "after",
    ]


@pytest.mark.parametrize("days_before", [0, 1, 3])
def test_list_that_the_hook_lets_go_lives_until_the_day_is_over(base, days_before):
    log = []
    steps = [lambda *day: [Dropped(log, "x", "a")]] * days_before
    steps.append(lambda *day: [Dropped(log, "y", "a"), Dropped(log, "z", "b")])
    rotation = make_rotation(base, steps, child_rotations=[Saying(log)])
    for _ in steps:
        rotation(np.ones(6))
        log.append("after")
    assert log[:-4] == ["child", "drop x", "after"] * days_before
    assert (log[-4], sorted(log[-3:-1])) == ("child", ["drop y", "drop z"])


class Watched:
    """Something that an override hands out; `log` tells when it goes."""

    def __init__(self, log, name):
        self.log = log
        self.name = name

    def __del__(self):
        self.log.append(f"drop {self.name}")


class Inputs:
    """The day's inputs, made when they are asked for."""

    def __init__(self, log):
        self.log = log

    def __getitem__(self, index):
        return Watched(self.log, "first input" if index == 0 else "further inputs")


def test_what_a_day_was_made_of_goes_when_the_day_is_over(base):
    log = []

    class Report(Watched):
        def __iter__(self):
            return drawn(log, "ab")

    class Record(base.VirtualStructure, Watched):
        def __init__(self, made):
            super().__init__(made.key, made.legs, made.value, made.metadata)
            self.log, self.name = log, f"record {made.key[0]}"

    class Sink:
        def append(self, record):
            log.append("trace")

    def _refresh_active_structures(self, *day):
        return Report(log, "report")

    def _normalize_structure(self, item):
        return Record(base.VirtualizationBase._normalize_structure(self, item))

    def _structure_is_valid(self, record, *day):
        return Verdict(log, f"verdict on {record.key[0]}")

    def _make_child_context(self, parent_context, day_index):
        return Watched(log, "child context")

    class Verdict(Watched):
        pass

    overrides = (
        _refresh_active_structures,
        _normalize_structure,
        _structure_is_valid,
        _make_child_context,
    )
    rotation = make_rotation(
        base,
        attributes={override.__name__: override for override in overrides},
        child_rotations=[Saying(log)],
        trace_sink=Sink(),
    )
    clear = np.zeros(6, dtype=np.uint8)
    rotation.compute(Inputs(log), (clear,), clear, np.zeros(6), 6)
    during = ["yield a", "yield b", "drop a", "drop record a", "drop verdict on a", "end"]
    after = ["drop first input", "drop further inputs", "drop report"]
    after += ["drop b", "drop record b", "drop verdict on b", "drop child context"]
    if sys.version_info >= (3, 14) and isinstance(
        base.VirtualizationBase.compute, types.FunctionType
    ):
        # There a frame written in Python drops the last of its variables first.
        after.reverse()
    assert log == [*during, "child", "trace", *after]


class Leg(Watched):
    """Leg that is unpacked like a pair."""

    def __iter__(self):
        return iter((0, 1.0))


def made(log, maker, names):
    for name in names:
        log.append(f"make {name}")
        yield maker(log, name)


def test_legs_go_when_the_next_one_is_there_and_the_last_with_the_step(base):
    class Key:
        def __iter__(self):
            log.append("key")
            return iter("k")

    log = []
    rotation = make_rotation(base)
    rotation._normalize_structure(structure(Key(), made(log, Leg, "ab")))
    assert log == ["make a", "make b", "drop a", "key", "key", "drop b"]


class Child(Watched):
    """Child that tells what is asked of it."""

    def __call__(self, values, context):
        self.log.append(f"call {self.name}")
        return values

    def get_state(self):
        self.log.append(f"get {self.name}")
        return self.name

    def set_state(self, state):
        self.log.append(f"set {self.name}")


CHILD_STEPS = {
    "call": lambda rotation: rotation._run_child_chain(np.ones(4), None),
    "get": lambda rotation: rotation.get_state(),
    "get again": lambda rotation: rotation._snapshot_child_states(),
    "set": lambda rotation: rotation._restore_child_snapshots(["x", "y"]),
}


@pytest.mark.parametrize("step", CHILD_STEPS)
def test_children_that_are_made_as_they_are_asked_for_go_when_the_next_one_is_there(base, step):
    log = []
    rotation = make_rotation(base)
    rotation.child_rotations = made(log, Child, "ab")
    CHILD_STEPS[step](rotation)
    verb = step.split()[0]
    assert log == ["make a", f"{verb} a", "make b", "drop a", f"{verb} b", "drop b"]


def test_numpy_is_whole_again():
    """The tests of this file put things in NumPy's place; none may stay there."""
    assert type(np) is types.ModuleType
    assert sys.modules["numpy"] is np
    assert functools.reduce(lambda total, name: total and name in vars(np), REPLACEMENTS, True)
