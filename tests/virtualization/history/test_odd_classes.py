"""Classes that answer for an attribute or watch their instances count in a history."""

import pytest

from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.virtualization import base
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from support.histories import ByDays
from virtualization.history.odd_rotations import DAYS, SLOTS, played, prices, rotation_of


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
