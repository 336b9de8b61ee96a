"""The rotation's class and the framework's __call__ count as they are when they are asked."""

import numpy as np
import pytest

from support import frozen
from support.fakes import make_rotation
from support.siblings import plain_rotation_base
from virtualization.fast.calls import BESIDE, ITEMS, a_day, same_on_both


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
