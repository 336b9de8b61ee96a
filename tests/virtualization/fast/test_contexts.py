"""The two context classes make what they make, whatever is changed about them."""

import sys

import numpy as np
import pytest

from support import frozen
from support.fakes import make_rotation
from virtualization.fast.calls import ITEMS, a_day, same_on_both


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
