"""Validity: legs on live instruments and a finite value."""

import collections
import gc
import types

import numpy as np
import pytest

from support.fakes import shown, structure
from virtualization.structure.helpers import PlainInt


def valid(rotation, legs, value=1.0, nan_masks=(), combined=(0, 0, 0), N=3):
    record = types.SimpleNamespace(legs=legs, value=value)
    return rotation._structure_is_valid(record, nan_masks, combined, N)


def test_legs_on_live_instruments_and_a_finite_value_are_valid(rotation):
    result = valid(rotation, ((0, 1.0), (2, -1.0)), nan_masks=[[0, 0, 0], [0, 0, 0]])
    assert result is np.True_ or (type(result) is np.bool_ and bool(result))


@pytest.mark.parametrize("leg_id", [-1, 3, 4, -(10**30), 10**30, 2**63, -(2**63) - 1])
def test_leg_outside_the_live_instruments_is_invalid(rotation, leg_id):
    assert valid(rotation, ((0, 1.0), (leg_id, 1.0))) is False


def test_leg_flagged_in_the_combined_mask_is_invalid(rotation):
    assert valid(rotation, ((0, 1.0), (1, 1.0)), combined=[0, 1, 0]) is False
    assert valid(rotation, ((0, 1.0), (2, 1.0)), combined=[0, 1, 0])


@pytest.mark.parametrize("which", [0, 1, 2])
def test_leg_flagged_in_any_single_mask_is_invalid(rotation, which):
    masks = [[0, 0, 0] for _ in range(3)]
    masks[which][1] = 1
    assert valid(rotation, ((1, 1.0),), nan_masks=masks) is False
    assert valid(rotation, ((0, 1.0),), nan_masks=masks)


@pytest.mark.parametrize("value", [np.nan, np.inf, -np.inf])
def test_value_that_is_not_finite_gives_numpy_false(rotation, value):
    result = valid(rotation, ((0, 1.0),), value)
    assert type(result) is np.bool_
    assert not result


@pytest.mark.parametrize("value", [0.0, -0.0, 1e308, 5e-324, 3, True, np.float32(1), 2**62])
def test_finite_value_gives_numpy_true(rotation, value):
    result = valid(rotation, (), value)
    assert type(result) is np.bool_
    assert result


@pytest.mark.parametrize("value", ["1.0", None, [None], 10**30, object(), {}], ids=shown)
def test_value_that_numpy_refuses_is_the_error_of_numpy(rotation, value):
    with pytest.raises(TypeError) as caught:
        valid(rotation, (), value)
    with pytest.raises(TypeError) as expected:
        np.isfinite(value)
    assert str(caught.value) == str(expected.value)


def test_result_is_what_numpy_returns_for_any_value(rotation):
    result = valid(rotation, (), np.array([1.0, np.nan]))
    assert type(result) is np.ndarray
    assert result.tolist() == [True, False]
    assert valid(rotation, (), 1j) == np.True_


def test_structure_without_legs_is_valid_by_its_value_alone(rotation):
    masks = [[1, 1, 1]]
    assert valid(rotation, (), 1.0, masks, [1, 1, 1], 0)
    assert not valid(rotation, (), np.inf, masks, [1, 1, 1], 0)


@pytest.mark.parametrize("weight", [0.0, np.nan, None, "text", object()], ids=shown)
def test_weight_plays_no_part(rotation, weight):
    assert valid(rotation, ((0, weight),))


def test_value_is_not_read_for_an_invalid_leg(rotation):
    class Record:
        legs = ((3, 1.0),)

        @property
        def value(self):
            raise AssertionError("value was read")

    assert rotation._structure_is_valid(Record(), (), [0, 0, 0], 3) is False


@pytest.mark.parametrize("field", ["key", "metadata"])
def test_a_record_is_judged_without_what_is_not_asked_of_it(base, rotation, field):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    delattr(record, field)
    assert rotation._structure_is_valid(record, (), [0, 0, 0], 3)


@pytest.mark.parametrize("field", ["legs", "value"])
def test_a_record_without_legs_or_value_is_an_attribute_error(base, rotation, field):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    delattr(record, field)
    with pytest.raises(AttributeError, match=field):
        rotation._structure_is_valid(record, (), [0, 0, 0], 3)
    with pytest.raises(AttributeError, match=field):
        rotation._normalize_structure(record)


@pytest.mark.parametrize("legs", [((0, 1.0),), [(0, 1.0)], ([0, 1.0],), ((np.int64(0), 1),)])
@pytest.mark.parametrize("value", [1.0, 1, np.float64(1.0), True, np.inf, -1])
def test_a_record_is_judged_by_what_it_has_become(base, rotation, legs, value):
    record = base.VirtualStructure(("a",), ((0, 1.0),), 1.0, {})
    record.legs, record.value = legs, value
    verdict = rotation._structure_is_valid(record, (), [0, 0, 0], 3)
    assert type(verdict) is np.bool_
    assert bool(verdict) == (value != np.inf)
    assert rotation._structure_is_valid(record, (), [1, 0, 0], 3) is False


def test_a_record_class_with_another_initialiser_is_called(base, rotation, monkeypatch):
    def initialise(self, key, legs, value, metadata=None):
        self.key, self.legs, self.value, self.metadata = key, legs, 2.0 * value, metadata

    monkeypatch.setattr(base.VirtualStructure, "__init__", initialise)
    record = rotation._normalize_structure(structure(("a",), ((0, 1.0),), 1.5))
    assert record.value == 3.0
    assert rotation._structure_is_valid(record, (), [0, 0, 0], 3)


def test_legs_after_an_invalid_one_are_not_looked_at(rotation):
    def legs():
        yield (3, 1.0)
        raise AssertionError("read on")

    assert valid(rotation, legs()) is False
    assert valid(rotation, ((-1, 1.0), "not a pair")) is False


@pytest.mark.parametrize("legs", [((0,),), ((0, 1.0, 2),), ("123",)], ids=shown)
def test_stored_leg_that_is_no_pair_is_an_unpacking_error(rotation, legs):
    with pytest.raises(ValueError, match="unpack"):
        valid(rotation, legs)


@pytest.mark.parametrize("legs", [5, None, (5,)], ids=shown)
def test_stored_legs_that_cannot_be_iterated_are_a_type_error(rotation, legs):
    with pytest.raises(TypeError):
        valid(rotation, legs)


@pytest.mark.parametrize(
    "make", [list, tuple, iter, lambda legs: [list(leg) for leg in legs], np.array]
)
def test_stored_legs_may_be_any_iterable(rotation, make):
    masks = {0: 0, 2: 0, 1: 1}
    assert valid(rotation, make([(0, 1), (2, 1)]), combined=masks)
    assert valid(rotation, make([(0, 1), (1, 1)]), combined=masks) is False


def test_object_without_the_record_fields_is_an_attribute_error(rotation):
    with pytest.raises(AttributeError, match="legs"):
        rotation._structure_is_valid({"legs": (), "value": 1.0}, (), [0], 1)
    with pytest.raises(AttributeError, match="value"):
        rotation._structure_is_valid(types.SimpleNamespace(legs=()), (), [0], 1)


class GetItemMask:
    def __init__(self, flags):
        self.flags = flags
        self.asked = []

    def __getitem__(self, leg_id):
        self.asked.append(leg_id)
        return self.flags[leg_id]


MASKS = [
    lambda flags: flags,
    tuple,
    bytes,
    bytearray,
    lambda flags: memoryview(bytes(flags)),
    lambda flags: np.array(flags, dtype=np.uint8),
    lambda flags: np.array(flags, dtype=bool),
    lambda flags: np.array(flags, dtype=np.int64),
    lambda flags: np.array(flags, dtype=np.float64),
    lambda flags: np.array(flags, dtype=object),
    lambda flags: np.array([flags, flags], dtype=np.uint8).T.copy().T[0],
    lambda flags: np.array(flags[::-1], dtype=np.uint8)[::-1],
    lambda flags: np.array([flag * 7 for flag in flags], dtype=np.uint8),
    lambda flags: dict(enumerate(flags)),
    GetItemMask,
]


@pytest.mark.parametrize("make", MASKS)
@pytest.mark.parametrize("role", ["combined", "single"])
def test_mask_may_be_anything_that_is_indexed(rotation, make, role):
    mask = make([0, 1, 0])
    masks = {"combined": mask} if role == "combined" else {"nan_masks": [mask]}
    assert valid(rotation, ((0, 1.0), (2, 1.0)), **masks)
    assert valid(rotation, ((0, 1.0), (1, 1.0)), **masks) is False


def test_mask_is_asked_with_the_leg_id_itself(rotation):
    leg_id = PlainInt(1)
    mask = GetItemMask([0, 0, 0])
    valid(rotation, ((leg_id, 1.0),), combined=mask)
    assert mask.asked == [leg_id]
    assert mask.asked[0] is leg_id


@pytest.mark.parametrize("flag", [np.nan, "x", [0], -1, 0.1])
def test_flag_counts_by_its_truth(rotation, flag):
    assert valid(rotation, ((0, 1.0),), combined=[flag]) is False


@pytest.mark.parametrize("flag", [0.0, "", [], None, np.False_])
def test_false_flag_is_clear(rotation, flag):
    assert valid(rotation, ((0, 1.0),), combined=[flag], nan_masks=[[flag]])


def test_error_of_the_truth_of_a_flag_propagates(rotation):
    with pytest.raises(ValueError, match="ambiguous"):
        valid(rotation, ((0, 1.0),), combined=np.ones((3, 2)))


@pytest.mark.parametrize("make", MASKS[:13])
@pytest.mark.parametrize("role", ["combined", "single"])
def test_mask_shorter_than_n_is_an_index_error(rotation, make, role):
    mask = make([0, 0, 0])
    masks = {"combined": mask} if role == "combined" else {"nan_masks": [mask]}
    masks.setdefault("combined", np.zeros(9, dtype=np.uint8))
    with pytest.raises(IndexError):
        valid(rotation, ((3, 1.0),), N=9, **masks)
    assert valid(rotation, ((2, 1.0),), N=9, **masks)


@pytest.mark.parametrize("make", [list, lambda flags: np.array(flags, dtype=np.uint8)])
def test_leg_id_beyond_any_index_is_an_index_error_below_a_huge_n(rotation, make):
    with pytest.raises(IndexError):
        valid(rotation, ((10**30, 1.0),), N=10**40, combined=make([0, 0, 0]))


def test_leg_id_of_a_wrong_type_is_the_error_of_the_mask(rotation):
    with pytest.raises(TypeError):
        valid(rotation, ((1.0, 1.0),), combined=[0, 0, 0])
    with pytest.raises(IndexError):
        valid(rotation, ((1.0, 1.0),), combined=np.zeros(3))


def test_leg_id_that_does_not_compare_is_a_type_error(rotation):
    with pytest.raises(TypeError):
        valid(rotation, (("1", 1.0),))
    with pytest.raises(TypeError):
        valid(rotation, ((None, 1.0),))


@pytest.mark.parametrize("N", [2.5, np.int64(3), np.float64(2.5), PlainInt(3), 10**30])
def test_n_may_be_any_number(rotation, N):
    assert valid(rotation, ((2, 1.0),), N=N)


def test_n_that_does_not_compare_is_a_type_error(rotation):
    with pytest.raises(TypeError):
        valid(rotation, ((0, 1.0),), N="3")
    assert valid(rotation, ((-1, 1.0),), N="3") is False


def test_leg_id_is_compared_by_its_own_operators_in_order(rotation):
    log = []

    class LegId(int):
        def __lt__(self, other):
            log.append(("<", other))
            return False

        def __ge__(self, other):
            log.append((">=", other))
            return False

    assert valid(rotation, ((LegId(1), 1.0),))
    assert log == [("<", 0), (">=", 3)]


@pytest.mark.parametrize("leg_id", [np.int64(1), np.uint8(1), True, PlainInt(1)])
def test_leg_id_may_be_any_integer_that_indexes(rotation, leg_id):
    assert valid(rotation, ((leg_id, 1.0),), combined=[1, 0, 1])
    assert valid(rotation, ((leg_id, 1.0),), combined=[0, 1, 0]) is False


def test_combined_mask_is_asked_before_the_single_masks(rotation):
    order = []

    class Mask:
        def __init__(self, label, flag):
            self.label, self.flag = label, flag

        def __getitem__(self, leg_id):
            order.append((self.label, leg_id))
            return self.flag

    masks = [Mask("first", 0), Mask("second", 0)]
    valid(rotation, ((0, 1.0), (2, 1.0)), nan_masks=masks, combined=Mask("combined", 0))
    assert order == [(label, leg) for leg in (0, 2) for label in ("combined", "first", "second")]
    del order[:]
    valid(rotation, ((0, 1.0),), nan_masks=[Mask("first", 1), *masks], combined=Mask("c", 0))
    assert order == [("c", 0), ("first", 0)]
    del order[:]
    assert valid(rotation, ((0, 1.0),), nan_masks=masks, combined=Mask("c", 1)) is False
    assert order == [("c", 0)]


@pytest.mark.parametrize(
    "make",
    [list, tuple, np.array, lambda masks: {tuple(mask): 1 for mask in masks}, collections.deque],
)
def test_single_masks_may_be_any_iterable(rotation, make):
    masks = make([[0, 0, 1], [0, 1, 0]])
    assert valid(rotation, ((0, 1.0),), nan_masks=masks)
    assert valid(rotation, ((1, 1.0),), nan_masks=masks) is False
    assert valid(rotation, ((2, 1.0),), nan_masks=masks) is False


def test_iterator_of_masks_is_used_up_by_the_first_leg(rotation):
    masks = iter([[0, 1, 0]])
    assert valid(rotation, ((0, 1.0), (1, 1.0)), nan_masks=masks)


def test_single_masks_are_read_lazily(rotation):
    def masks():
        yield [0, 1, 0]
        raise AssertionError("read on")

    assert valid(rotation, ((1, 1.0),), nan_masks=masks()) is False


def test_single_masks_are_not_touched_without_legs(rotation):
    assert valid(rotation, (), nan_masks=None, combined=None, N=None)
    with pytest.raises(TypeError):
        valid(rotation, ((0, 1.0),), nan_masks=None)


def test_mask_may_change_the_legs_while_they_are_read(rotation):
    legs = [(0, 1.0), (1, 1.0)]

    class Mask:
        def __getitem__(self, leg_id):
            legs.clear()
            return 0

    assert valid(rotation, legs, combined=Mask())


def test_mask_may_drop_the_legs_and_the_masks_while_they_are_read(rotation):
    record = types.SimpleNamespace(legs=((int("1000"), [1.0]), (0, [1.0])), value=1.0)
    masks = []
    asked = []

    class Mask:
        def __getitem__(self, leg_id):
            asked.append(leg_id)
            record.legs = None
            masks.clear()
            gc.collect()
            return 0

    masks.extend([Mask(), Mask()])
    assert rotation._structure_is_valid(record, masks, Mask(), 2000)
    assert asked == [1000, 0]


def test_validity_changes_nothing(rotation):
    before = dict(vars(rotation))
    mask = np.array([0, 1, 0], dtype=np.uint8)
    valid(rotation, ((1, 1.0),), combined=mask)
    assert vars(rotation) == before
    assert mask.tolist() == [0, 1, 0]
