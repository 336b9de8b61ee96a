"""Children, the framework, contexts and batches get by without detours that nobody can see.

Whatever their classes are made to be, before the day or in the middle of it, the day is the
twin's; and it is the same with overrides that only call super().
"""

import functools
import sys
import weakref

import numpy as np
import pytest

from support import frozen
from support.fakes import RecordingChild, make_rotation, structure
from support.isolated import run_isolated
from support.siblings import Siblings, load_base, plain_rotation_base

ITEMS = [
    structure(("a",), ((0, 1.0), (1, -0.3)), 1.1),
    structure(("b",), ((2, 0.7),), 2.0),
]


def through_super(base, name):
    """Return an override of the method that only calls the one behind it."""

    def only_super(self, *args, **kwargs):
        return getattr(base.VirtualizationBase, name)(self, *args, **kwargs)

    return only_super


def without_overrides(log):
    """Return the log without the overrides' own frames."""
    if not isinstance(log, (list, tuple)):
        return log
    return [without_overrides(part) for part in log if part != "only_super"]


OVERRIDES = ["__call__", "compute", "_make_child_context", "_run_child_chain", "_unmap"]


def same_on_both(scenario, **siblings):
    """Run scenario(base, attributes) on both modules, natively with and without overrides."""

    def log(kind, names):
        base = load_base(kind, Siblings(**{key: make() for key, make in siblings.items()}))
        return scenario(base, {name: through_super(base, name) for name in names})

    expected = log("twin", [])
    assert log("native", []) == expected
    assert without_overrides(log("native", OVERRIDES)) == without_overrides(expected)
    return expected


def a_day(rotation, *inputs, **keywords):
    """Call the rotation; return the outcome and all attributes that are no children."""
    result = frozen.outcome(rotation, *(inputs or (np.ones(6),)), **keywords)
    hidden = {"child_rotations", "child_factories"}
    kept = {name: value for name, value in vars(rotation).items() if name not in hidden}
    return result, frozen.freeze(kept)


def seen(child):
    """Freeze what a recording child was called with."""
    return [
        (
            frozen.freeze(values),
            type(context).__name__,
            frozen.freeze(getattr(context, "__dict__", 0)),
        )
        for _, values, context in child.calls
    ]


# --- children ---------------------------------------------------------------------------------


class Adding:
    """Child whose class defines __call__ as a function."""

    def __call__(self, values, context=None, **further):
        assert not further
        return values + context.current_day_index + 1.0


class OfClass:
    @classmethod
    def __call__(cls, values, *, context):
        assert cls.__name__ == "OfClass"
        return values * 2.0


class Static:
    @staticmethod
    def __call__(values, *, context):
        return values * 3.0


class Held:
    """Child whose class holds another callable, which does not bind."""

    __call__ = functools.partial(lambda values, context: values * 4.0)


class Computed:
    @property
    def __call__(self):
        return lambda values, context: values * 5.0


class OwnEntry(Adding):
    """What stands in an instance under __call__ does not count."""

    def __init__(self):
        vars(self)["__call__"] = lambda *values, **context: np.zeros(4)


class Uncallable:
    __call__ = None


class NoKeyword:
    def __call__(self, values):
        return values


class OnlyKeywords:
    def __call__(self, **everything):
        return everything


class Dictionary(dict):
    def __call__(self, values, *, context):
        return values + len(self)


class Meta(type):
    def __call__(cls, values, *, context):
        return values - 7.0


class OfMeta(metaclass=Meta):
    pass


def function(values, context):
    return values / 3.0


CHILDREN = {
    "instance": Adding,
    "classmethod": OfClass,
    "staticmethod": Static,
    "held": Held,
    "property": Computed,
    "instance entry": OwnEntry,
    "none": Uncallable,
    "no keyword": NoKeyword,
    "only keywords": OnlyKeywords,
    "not callable": object,
    "dictionary": lambda: Dictionary(a=1),
    "class": lambda: OfMeta,
    "function": lambda: function,
    "bound": lambda: Adding().__call__,
    "partial": lambda: functools.partial(function),
    "builtin": lambda: np.asarray,
    "list": lambda: lambda values, context: values.tolist(),
    "strided": lambda: lambda values, context: np.repeat(values, 3)[::3],
    "backward": lambda: lambda values, context: values[::-1],
    "swapped": lambda: lambda values, context: values.astype(">f8"),
    "single": lambda: lambda values, context: values.astype(np.float32),
    "frozen": lambda: lambda values, context: np.broadcast_to(values[1], values.shape),
    "subclass": lambda: lambda values, context: values.view(type("Row", (np.ndarray,), {})),
    "matrix": lambda: lambda values, context: values.reshape(2, 2),
}


@pytest.mark.parametrize("name", CHILDREN)
@pytest.mark.parametrize("last", [False, True])
def test_child_of_any_kind_is_called_as_python_calls_it(name, last):
    def scenario(base, attributes):
        recording = RecordingChild()
        children = [CHILDREN[name]()]
        children.insert(0 if last else 1, recording)
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes, child_rotations=children)
        return a_day(rotation), a_day(rotation), seen(recording)

    same_on_both(scenario)


@pytest.mark.parametrize("kind", ["native", "twin"])
def test_first_child_of_all_may_be_called_by_a_collection_during_the_first_call(kind):
    """Whatever is found out once, when it is needed, must not be asked for meanwhile."""
    printed = run_isolated(
        kind,
        """
        import os
        import signal

        base = load_base(kind, Siblings())
        items = [structure(("a",), ((0, 1.0),))]
        outer = make_rotation(base, [items], child_rotations=[RecordingChild()])
        inner = make_rotation(base, [items], child_rotations=[RecordingChild()])
        clear = np.zeros(6, dtype=np.uint8)

        def compute(rotation):
            rotation.compute((np.zeros(6),), (clear,), clear, np.zeros(6), 6)

        def compute_at(collection):
            seen = 0

            def collecting(phase, info):
                nonlocal seen
                seen += phase == "start"
                if phase == "start" and seen == collection:
                    compute(inner)

            gc.callbacks.append(collecting)
            gc.set_threshold(1)
            compute(outer)
            gc.set_threshold(700)
            return collection <= seen

        def outcome_at(collection):
            process = os.fork()
            if process == 0:
                signal.alarm(20)
                os._exit(0 if compute_at(collection) else 3)
            return os.waitpid(process, 0)[1]

        gc.collect()
        collection = 1
        while (outcome := outcome_at(collection)) == 0:
            collection += 1
        assert os.WIFEXITED(outcome) and os.WEXITSTATUS(outcome) == 3, (collection, outcome)
        print("collected", collection > 2)
        """,
    )
    assert printed == "collected True\n"


REPLACEMENTS = {
    "function": lambda self, values, context: values * 10.0,
    "static": staticmethod(lambda values, context: values * 20.0),
    "none": None,
    "class": RecordingChild,
    "array": np.ones(4),
}


@pytest.mark.parametrize("name", [*REPLACEMENTS, "deleted", "restored"])
def test_call_replaced_by_the_child_before_counts(name):
    def scenario(base, attributes):
        class Child:
            def __call__(self, values, *, context):
                return values + 0.5

        class Changing:
            def __call__(self, values, *, context):
                if name == "deleted":
                    del Child.__call__
                elif name == "restored":
                    own = Child.__call__
                    Child.__call__ = None
                    Child.__call__ = own
                else:
                    Child.__call__ = REPLACEMENTS[name]
                return values

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[Child(), Changing(), Child()]
        )
        return a_day(rotation)

    same_on_both(scenario)


def test_class_replaced_by_the_child_before_counts():
    def scenario(base, attributes):
        last = Adding()

        def change(values, context):
            last.__class__ = type("Later", (Adding,), {"__call__": lambda *_, context: [9.0] * 4})
            return values

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[Adding(), change, last]
        )
        return a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("error", [ValueError, KeyboardInterrupt, StopIteration])
def test_failing_child_leaves_the_day_as_it_was(error):
    def scenario(base, attributes):
        class Failing:
            def __call__(self, values, *, context):
                raise error("no")

        later = RecordingChild()
        rotation = make_rotation(
            base, [ITEMS] * 2, attributes=attributes, child_rotations=[Adding(), Failing(), later]
        )
        return a_day(rotation), later.calls

    (result, _), calls = same_on_both(scenario)
    assert result[0] == "raised"
    assert calls == []


CHANGES_OF_THE_LIST = {
    "append": lambda children: children.append(Adding()),
    "insert": lambda children: children.insert(0, Adding()),
    "remove next": lambda children: children.pop(1),
    "remove last": lambda children: children.pop(),
    "clear": lambda children: children.clear(),
    "replace next": lambda children: children.__setitem__(1, Static()),
}


@pytest.mark.parametrize("change", CHANGES_OF_THE_LIST)
@pytest.mark.parametrize("kind", [list, type("List", (list,), {})])
def test_list_of_children_changed_by_a_child_is_gone_through_as_it_is(change, kind):
    def scenario(base, attributes):
        def first(values, context):
            if len(children) == 3:
                CHANGES_OF_THE_LIST[change](children)
            return values * 2.0

        children = kind([first, Adding(), OfClass()])
        rotation = make_rotation(base, [ITEMS], attributes=attributes)
        rotation.child_rotations = children
        return a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("kind", [tuple, iter, lambda parts: dict.fromkeys(parts).keys(), set])
def test_children_may_be_any_iterable(kind):
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 2, attributes=attributes)
        rotation.child_rotations = kind([Adding()])
        return a_day(rotation), a_day(rotation)

    same_on_both(scenario)


@pytest.mark.parametrize("change", ["shorter", "longer", "cleared", "replaced"])
@pytest.mark.parametrize("kind", [list, tuple])
def test_report_changed_while_it_is_recorded_is_gone_through_as_it_is(change, kind):
    def scenario(base, attributes):
        class Changing:
            key, legs, metadata = ("c",), ((3, 1.0),), None

            @property
            def value(self):
                if type(report) is list and change == "shorter":
                    report.pop()
                elif type(report) is list and change == "longer":
                    report.append(structure(("d",), ((4, 1.0),), 4.0))
                elif type(report) is list and change == "cleared":
                    report.clear()
                elif type(report) is list:
                    report[2] = structure(("b",), ((5, 1.0),), 5.0)
                return 3.0

        report = kind([ITEMS[0], Changing(), ITEMS[1]])
        rotation = make_rotation(base, [report], attributes=attributes)
        return a_day(rotation)

    same_on_both(scenario)


# --- the rotation's class ---------------------------------------------------------------------


class Watching:
    """Key of a class with the hash of a name and equal to nothing; acts once when compared."""

    def __init__(self, name):
        self.name = name
        self.action = None

    def __hash__(self):
        return hash(self.name)

    def __eq__(self, other):
        if self.action:
            action, self.action = self.action, None
            action()
        return False


STEPS = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]


# From Python 3.13 on the interpreter warns of such keys.
@pytest.mark.filterwarnings("ignore:non-string key:RuntimeWarning")
@pytest.mark.parametrize("looked_up", [*STEPS, "max_structures", "_txi_input", "slot_by_key"])
@pytest.mark.parametrize("changed", STEPS)
def test_class_changed_while_it_is_looked_into_is_looked_into_again(looked_up, changed):
    replaced = {
        "_normalize_structure": lambda self, item: type(
            "Record", (), {"key": (), "legs": ((3, 1.0),), "value": 8.0, "metadata": None}
        ),
        "_slot_for_key": lambda self, key: 3,
        "_structure_is_valid": lambda *_: False,
    }

    def scenario(base, attributes):
        key = Watching(looked_up)
        body = {**attributes, "_refresh_active_structures": lambda *_: ITEMS, key: None}
        own = type("Own", (base.VirtualizationBase,), body)
        rotation = own(max_structures=4, N_alloc=6, transformation_expression="none")
        log = [a_day(rotation), a_day(rotation)]
        key.action = lambda: setattr(own, changed, replaced[changed])
        own.further = 1  # so that nothing is known of the class any more
        frozen.outcome(rotation, np.ones(6))
        if key.action:
            key.action()
        return [*log, *[frozen.outcome(rotation, np.ones(6)) for _ in range(3)]]

    log = same_on_both(scenario)
    assert log[1][0] != log[2]


# --- the framework's __call__ -----------------------------------------------------------------


BESIDE = {
    "function": lambda self, *args, context: ("mixin", len(args), context),
    "static": staticmethod(lambda *args, context: ("static", len(args), context)),
    "class method": classmethod(lambda cls, *args, context: (cls.__name__, len(args))),
    "partial": functools.partial(lambda *args, context: ("partial", len(args))),
    "property": property(lambda self: lambda *args, context: ("property", self._name)),
    "class": dict,
    "none": None,
}


@pytest.mark.parametrize("name", BESIDE)
@pytest.mark.parametrize("inputs", [1, 6, 7, 20])
def test_call_of_a_class_between_is_the_one_that_super_finds(name, inputs):
    def scenario(base, attributes):
        between = type("Between", (base.RotationBase,), {"__call__": BESIDE[name]})
        bases = (base.VirtualizationBase, between)
        own = type("Own", bases, {**attributes, "_refresh_active_structures": lambda *_: ITEMS})
        rotation = own(max_structures=4, N_alloc=6, transformation_expression="none")
        return [a_day(rotation, *[np.ones(6)] * inputs, context=None) for _ in range(2)]

    same_on_both(scenario)


@pytest.mark.parametrize("inputs", [1, 6, 7, 20])
def test_any_number_of_inputs_reaches_the_framework(inputs):
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 2, attributes=attributes)
        return [a_day(rotation, *[np.ones(6)] * inputs) for _ in range(2)]

    same_on_both(scenario)


@pytest.mark.parametrize("name", [*BESIDE, "deleted"])
def test_call_of_the_framework_replaced_between_the_days_counts(name):
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes)
        log = [a_day(rotation)]
        if name == "deleted":
            del base.RotationBase.__call__
        else:
            base.RotationBase.__call__ = BESIDE[name]
        return [*log, a_day(rotation)]

    same_on_both(scenario, RotationBase=plain_rotation_base)


def test_bases_replaced_between_the_days_count():
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes)
        log = [a_day(rotation)]
        between = type("Between", (base.RotationBase,), {"__call__": BESIDE["function"]})
        type(rotation).__bases__ = (base.VirtualizationBase, between)
        return [*log, a_day(rotation)]

    same_on_both(scenario)


class Pretending:
    """An object that only says that it is a rotation."""

    _n_alloc = 6

    def __init__(self, rotation_class):
        self.pretended = rotation_class

    @property
    def __class__(self):
        return self.pretended


@pytest.mark.parametrize("what", ["alien", "class", "pretending", "none"])
def test_self_that_is_no_rotation_is_what_super_makes_of_it(what):
    def scenario(base, attributes):
        own = type(make_rotation(base, attributes=attributes))
        own._n_alloc = 6
        selves = {
            "alien": type("Alien", (), {"_n_alloc": 6})(),
            "class": own,
            "pretending": Pretending(own),
            "none": None,
        }
        return frozen.outcome(base.VirtualizationBase.__call__, selves[what], np.ones(6))

    same_on_both(scenario)


# --- the two context classes ------------------------------------------------------------------


def set_on_instances(self, name, value):
    object.__setattr__(self, name, (value,))


def refuse(*args, **kwargs):
    raise LookupError("refused")


class Stored:
    """Data descriptor that keeps what is set, marked, under another name."""

    def __init__(self, name):
        self.name = name

    def __get__(self, instance, owner=None):
        return self if instance is None else vars(instance)["stored " + self.name]

    def __set__(self, instance, value):
        vars(instance)["stored " + self.name] = value


CHANGES = {
    "init": lambda own: setattr(own, "__init__", lambda self, *a, **k: vars(self).update(k, a=a)),
    "failing init": lambda own: setattr(own, "__init__", refuse),
    "no init": lambda own: delattr(own, "__init__"),
    "init with a result": lambda own: setattr(own, "__init__", lambda *args, **kwargs: 5),
    "new": lambda own: setattr(own, "__new__", lambda cls, *args, **kwargs: ("new", len(args))),
    "failing new": lambda own: setattr(own, "__new__", refuse),
    "setattr": lambda own: setattr(own, "__setattr__", set_on_instances),
    "failing setattr": lambda own: setattr(own, "__setattr__", refuse),
    "abstract": lambda own: setattr(own, "__abstractmethods__", frozenset({"f"})),
    "mask attribute": lambda own: setattr(own, "universe_mask", Stored("mask")),
    "day attribute": lambda own: setattr(own, "current_day_index", Stored("day")),
    "shape attribute": lambda own: setattr(own, "shape", Stored("shape")),
    "row attribute": lambda own: setattr(own, "_row", property(lambda self: None)),
    "plain attribute": lambda own: setattr(own, "_row", "plain"),
    "further attribute": lambda own: setattr(own, "further", 1),
    "item": lambda own: setattr(own, "__getitem__", lambda self, item: ("item", item)),
    "getattribute": lambda own: setattr(own, "__getattribute__", lambda self, name: (name, 1)),
    "getattr": lambda own: setattr(own, "__getattr__", lambda self, name: name),
    "finalizer": lambda own: setattr(own, "__del__", lambda self: None),
}
# From Python 3.13 on a call that was made often no longer asks whether its class became abstract.
if sys.version_info >= (3, 13):
    del CHANGES["abstract"]
CONTEXT_CLASSES = ["_VirtualContext", "_AllOnesVirtualMask"]


class Reading:
    """Child that logs what it can read of its context."""

    def __init__(self):
        self.log = []

    def __call__(self, values, *, context):
        for read in [
            lambda: type(context).__name__,
            lambda: vars(context),
            lambda: context.current_day_index,
            lambda: context.universe_mask.shape,
            lambda: context.universe_mask[0],
            lambda: context.universe_mask[1],
            lambda: context.universe_mask[-1],
            lambda: context.universe_mask[:, 1],
            lambda: vars(context.universe_mask),
        ]:
            self.log.append(frozen.outcome(read))
        return values * 0.5


@pytest.mark.parametrize("change", CHANGES)
@pytest.mark.parametrize("name", CONTEXT_CLASSES)
@pytest.mark.parametrize("moment", ["before", "hook", "child", "batch"])
def test_changed_context_class_makes_what_it_makes(change, name, moment):
    def scenario(base, attributes):
        def act(values=None, context=None):
            if values is None or armed:
                armed.clear()
                CHANGES[change](getattr(base, name))
            return values

        def hook():
            if moment == "hook" and armed:
                act()
            return ITEMS

        armed = []
        reading = Reading()
        children = [act, reading] if moment == "child" else [reading]
        rotation = make_rotation(
            base,
            [lambda *_: hook()] * 9,
            attributes=attributes,
            child_rotations=children,
        )
        log = [a_day(rotation)]
        armed.append(True)
        if moment == "before":
            act()
        if moment == "batch":
            act()
            log.append(frozen.outcome(rotation.batch_reference, np.ones((2, 6))))
        return [*log, a_day(rotation), a_day(rotation), reading.log]

    same_on_both(scenario)


@pytest.mark.parametrize("name", CONTEXT_CLASSES)
def test_change_of_a_context_class_that_is_taken_back_leaves_no_trace(name):
    def scenario(base, attributes):
        reading = Reading()
        rotation = make_rotation(
            base, [ITEMS] * 4, attributes=attributes, child_rotations=[reading]
        )
        own = getattr(base, name)
        init = own.__init__
        log = [a_day(rotation)]
        own.__init__ = refuse
        log.append(a_day(rotation))
        own.__init__ = init
        return [*log, a_day(rotation), reading.log]

    log = same_on_both(scenario)
    assert [day[0][0] for day in log[:3]] == ["returned", "raised", "returned"]


@pytest.mark.parametrize("name", CONTEXT_CLASSES)
@pytest.mark.parametrize("other", CONTEXT_CLASSES)
def test_initialiser_of_the_other_context_class_is_called_as_it_is(name, other):
    def scenario(base, attributes):
        rotation = make_rotation(base, [ITEMS] * 2, attributes=attributes)
        getattr(base, name).__init__ = getattr(base, other).__init__
        return a_day(rotation)

    same_on_both(scenario)


ROWS = {
    "wide": lambda: np.ones(9, dtype=np.uint8),
    "matrix": lambda: np.ones((3, 4), dtype=np.uint8),
    "scalar": lambda: np.array(1),
    "list": lambda: [1, 1],
    "subclass": lambda: np.ones(4).view(type("Row", (np.ndarray,), {"shape": (7,)})),
    "shaped": lambda: type("Shaped", (), {"shape": ("5", 1)})(),
    "none": lambda: None,
}


@pytest.mark.parametrize("row", ROWS)
def test_universe_row_may_be_anything_with_a_shape(row):
    def scenario(base, attributes):
        reading = Reading()
        rotation = make_rotation(
            base, [ITEMS] * 3, attributes=attributes, child_rotations=[reading]
        )
        log = [a_day(rotation)]
        rotation._txi_universe_row = ROWS[row]()
        return [*log, frozen.outcome(rotation, np.ones(6)), reading.log]

    same_on_both(scenario)


class Seven(int):
    def __int__(self):
        return 3


DAYS = [0, 5, -1, -9, True, 2.9, "4", 2**70, -(2**70), None, Seven(7), np.int64(2), 2**63 - 1]


@pytest.mark.parametrize("day", DAYS, ids=repr)
def test_day_of_a_child_context_may_be_whatever_int_takes(day):
    def scenario(base, attributes):
        rotation = make_rotation(base, attributes=attributes)
        outcome = frozen.outcome(rotation._make_child_context, None, day)
        if outcome[0] == "returned":
            assert rotation._make_child_context(None, day).current_day_index is day
        return outcome

    same_on_both(scenario)


SHAPES = [(3, 4), (np.int64(3), 4), (3.0, 4), [3, 4], (), ("3",), (True,), (2**70, 4), (-1, 4), 5]


@pytest.mark.parametrize("shape", SHAPES, ids=repr)
@pytest.mark.parametrize("way", ["set", "subclass", "attribute", "missing", "no row"])
def test_mask_of_any_shape_is_indexed_by_the_rules(shape, way):
    def scenario(base, attributes):
        own = base._AllOnesVirtualMask
        if way == "subclass":
            own = type("Own", (own,), {"shape": property(lambda self: shape, lambda *_: None)})
        mask = own(2, np.ones(4, dtype=np.uint8))
        frozen.outcome(mask.__getitem__, 0)
        if way == "set":
            mask.shape = shape
        elif way == "attribute":
            type(mask).shape = property(lambda self: shape)
        elif way == "missing":
            del mask.shape
        elif way == "no row":
            del mask._row
        items = [0, 1, 2, 3, -1, -3, -4, True, np.int64(1), 1.7, 2**70, Seven(7), "1", None]
        return [frozen.outcome(mask.__getitem__, item) for item in items]

    same_on_both(scenario)


# --- batches ----------------------------------------------------------------------------------

MATRICES = {
    "days": lambda: np.arange(24.0).reshape(4, 6),
    "one day": lambda: np.ones((1, 6)),
    "one column": lambda: np.ones((3, 1)),
    "no day": lambda: np.ones((0, 6)),
    "no column": lambda: np.ones((3, 0)),
    "columns first": lambda: np.arange(24.0).reshape(6, 4).T,
    "backward": lambda: np.arange(24.0).reshape(4, 6)[::-1, ::-1],
    "frozen": lambda: np.broadcast_to(np.arange(6.0), (4, 6)),
    "one axis": lambda: np.arange(6.0),
    "three axes": lambda: np.arange(48.0).reshape(4, 2, 6),
    "integers": lambda: np.arange(24).reshape(4, 6),
    "list": lambda: [[1, 2], [3, 4]],
    "subclass": lambda: np.arange(24.0).reshape(4, 6).view(type("Own", (np.ndarray,), {})),
    "scalar": lambda: 5.0,
}


def described(row):
    """Tell what can be told of an array that is handed over, besides its content."""
    if not isinstance(row, np.ndarray):
        return repr(row)
    base = None if row.base is None else (type(row.base).__name__, row.base.shape)
    return frozen.freeze(row), str(row.flags), base


@pytest.mark.parametrize("name", MATRICES)
@pytest.mark.parametrize("second", [None, "short", "wide"])
def test_rows_of_a_batch_are_handed_over_as_numpy_indexes_them(name, second):
    def scenario(base, attributes):
        rows = []

        def __call__(self, *args, context=None):
            rows.append([described(row) for row in args])
            rows.append(frozen.freeze(vars(context)))
            return np.array(args[0])

        further = {"short": [np.ones((2, 6))], "wide": [np.ones((9, 9))], None: []}[second]
        rotation = make_rotation(base, attributes={**attributes, "__call__": __call__})
        context = type("Context", (), {"universe_mask": "everybody"})()
        outcomes = [
            frozen.outcome(rotation.batch_reference, MATRICES[name](), *further),
            frozen.outcome(rotation.batch_reference, MATRICES[name](), *further, context=context),
        ]
        return outcomes, rows

    same_on_both(scenario)


RETURNED = {
    "rows": lambda day: np.arange(3.0) + day,
    "one number": lambda day: np.ones(1),
    "nothing": lambda day: np.ones(0),
    "widths": lambda day: np.ones(2 + day % 2),
    "lists": lambda day: [1, 2],
    "scalars": lambda day: 1.0 * day,
    "without axes": lambda day: np.array(1.0),
    "matrices": lambda day: np.ones((2, 3)),
    "a matrix first": lambda day: np.ones((1, 3) if day == 0 else 3),
    "single": lambda day: np.ones(3, dtype=np.float32),
    "single last": lambda day: np.ones(3, dtype=np.float32 if day == 3 else np.float64),
    "swapped": lambda day: np.ones(3).astype(">f8"),
    "strided": lambda day: np.arange(6.0)[::2],
    "backward": lambda day: np.arange(3.0)[::-1],
    "frozen": lambda day: np.broadcast_to(1.0, 3),
    "subclass": lambda day: np.ones(3).view(type("Own", (np.ndarray,), {})),
    "masked": lambda day: np.ma.masked_array(np.ones(3), [0, 1, 0]),
    "none": lambda day: None,
    "dtype of its own": lambda day: np.ones(3, dtype=np.dtype("f8", metadata={"own": 1})),
}


@pytest.mark.parametrize("name", RETURNED)
@pytest.mark.parametrize("number", [1, 4])
def test_outputs_of_a_batch_are_stacked_as_numpy_stacks_them(name, number):
    def scenario(base, attributes):
        def __call__(self, row, context=None):
            return RETURNED[name](context.current_day_index)

        rotation = make_rotation(base, attributes={**attributes, "__call__": __call__})
        outcome = frozen.outcome(rotation.batch_reference, np.ones((number, 6)))
        if outcome[0] == "raised":
            return outcome
        stacked = rotation.batch_reference(np.ones((number, 6)))
        return outcome, described(stacked), dict(stacked.dtype.metadata or {})

    same_on_both(scenario)


@pytest.mark.parametrize("name", ["vstack", "asarray", "array", "nan"])
def test_numpy_replaced_during_a_batch_counts(name):
    class Other:
        def __getattr__(self, attribute):
            if attribute == name:
                return lambda *args, **kwargs: ("replaced", len(args), sorted(kwargs))
            return getattr(np, attribute)

    def scenario(base, attributes):
        def replace(*_):
            base.np = Other()
            return ITEMS

        rotation = make_rotation(base, [ITEMS, replace] + [ITEMS] * 3, attributes=attributes)
        return frozen.outcome(rotation.batch_reference, np.ones((4, 6)))

    same_on_both(scenario)


def test_batch_may_be_called_through_any_kind_of_call():
    def scenario(base, attributes):
        outcomes = []
        for call in [*BESIDE.values(), property(lambda self: lambda *args, context: np.ones(2))]:
            rotation = make_rotation(base, attributes={**attributes, "__call__": call})
            outcomes.append(
                frozen.outcome(rotation.batch_reference, np.ones((2, 6)), np.ones((2, 1)))
            )
        return outcomes

    same_on_both(scenario)


# --- what is let go, and when -----------------------------------------------------------------


def test_result_of_a_child_lives_until_the_next_one_is_there():
    class Result(list):
        pass

    def scenario(base, attributes):
        results, log = [], []

        def child(values, context):
            log.append([result() is None for result in results])
            result = Result(values)
            results.append(weakref.ref(result))
            return result

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[child, child, child]
        )
        rotation(np.ones(6))
        return log, [result() is None for result in results]

    assert same_on_both(scenario) == ([[], [False], [True, False]], [True] * 3)


def test_child_context_lives_until_the_day_is_over():
    class Sink(list):
        def append(self, record):
            super().append(self.context() is None)

    def scenario(base, attributes):
        def child(values, context):
            sink.context = weakref.ref(context)
            return values

        sink = Sink()
        rotation = make_rotation(
            base, [ITEMS] * 2, attributes=attributes, child_rotations=[child], trace_sink=sink
        )
        rotation(np.ones(6))
        rotation(np.ones(6))
        return list(sink), sink.context() is None

    assert same_on_both(scenario) == ([False, False], True)


def test_context_of_a_batch_lives_until_the_next_one_is_there():
    def scenario(base, attributes):
        class Context:
            def __init__(self, universe_mask, current_day_index):
                self.universe_mask = universe_mask
                self.current_day_index = current_day_index
                log.append(f"make {current_day_index}")

            def __del__(self):
                log.append(f"drop {self.current_day_index}")

        log = []
        attributes = {**attributes, "_make_child_context": lambda *_: None}
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes)
        base._VirtualContext = Context
        rotation.batch_reference(np.ones((3, 6)))
        return log

    log = same_on_both(scenario)
    assert log == ["make 0", "make 1", "drop 0", "make 2", "drop 1", "drop 2"]
