"""The contexts' and the record's class may be changed at any time."""

import numpy as np
import pytest

from support import frozen
from support.fakes import Context, make_rotation, structure
from virtualization.surroundings.helpers import ITEMS, Acting, a_day, both, steady

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
