"""Slots: permanent, dense, and given once to each key."""

import pytest

from support.fakes import make_rotation, shown
from virtualization.structure.helpers import Key, NamedKey


class Formatted:
    def __format__(self, format_spec):
        return f"formatted<{format_spec}>"


# --- slots ------------------------------------------------------------------------------------


def test_slots_are_dense_in_the_order_of_first_sight(rotation):
    assert [rotation._slot_for_key(key) for key in ["a", "b", "a", "c", "b"]] == [0, 1, 0, 2, 1]
    assert rotation.slot_by_key == {("a",): 0, ("b",): 1, ("c",): 2}
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("c",)}


def test_slot_is_an_exact_int(rotation):
    assert type(rotation._slot_for_key("a")) is int
    assert type(rotation._slot_for_key("a")) is int


@pytest.mark.parametrize("other", [[1, 2], (1, 2), (1.0, True + 1), NamedKey(1, 2), range(1, 3)])
def test_equal_keys_have_one_slot(rotation, other):
    rotation._slot_for_key("first")
    assert rotation._slot_for_key((1, 2)) == rotation._slot_for_key(other) == 1


def test_text_key_is_the_tuple_of_its_characters(rotation):
    rotation._slot_for_key("ab")
    assert rotation.slot_by_key == {("a", "b"): 0}


def test_stored_key_is_an_exact_tuple(rotation):
    rotation._slot_for_key(Key((1,)))
    assert type(rotation.key_by_slot[0]) is tuple
    assert type(next(iter(rotation.slot_by_key))) is tuple


def test_both_maps_hold_the_same_key_object(rotation):
    key = (object(),)
    rotation._slot_for_key(key)
    assert rotation.key_by_slot[0] is key
    assert next(iter(rotation.slot_by_key)) is key


def test_iterator_key_is_read_once(rotation):
    assert rotation._slot_for_key(iter("ab")) == 0
    assert rotation.slot_by_key == {("a", "b"): 0}


def test_new_key_beyond_the_capacity_is_a_value_error(base):
    rotation = make_rotation(base, max_structures=3)
    for key in "abc":
        rotation._slot_for_key(key)
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        rotation._slot_for_key("d")
    assert str(caught.value) == (
        "virtualization_base: active structure count exceeds max_structures=3"
    )
    assert rotation.slot_by_key == {("a",): 0, ("b",): 1, ("c",): 2}
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("c",)}


def test_known_key_is_found_when_all_slots_are_taken(base):
    rotation = make_rotation(base, max_structures=1)
    rotation._slot_for_key("a")
    with pytest.raises(ValueError, match="exceeds"):
        rotation._slot_for_key("b")
    assert rotation._slot_for_key("a") == 0


def test_known_key_is_found_even_under_a_lowered_capacity(rotation):
    rotation._slot_for_key("a")
    rotation.max_structures = 0
    assert rotation._slot_for_key("a") == 0


def test_capacity_message_formats_name_and_capacity(rotation):
    rotation._name = Formatted()
    rotation.max_structures = -0.5
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        rotation._slot_for_key("a")
    assert str(caught.value) == ("formatted<>: active structure count exceeds max_structures=-0.5")


@pytest.mark.parametrize("key", [5, None, 1.5], ids=shown)
def test_slot_key_that_cannot_be_iterated_is_a_type_error(rotation, key):
    with pytest.raises(TypeError, match="not iterable"):
        rotation._slot_for_key(key)


def test_slot_key_that_cannot_be_hashed_is_a_type_error(rotation):
    with pytest.raises(TypeError, match="unhashable"):
        rotation._slot_for_key([[1]])
    assert rotation.slot_by_key == rotation.key_by_slot == {}


def test_error_of_a_key_hash_propagates(rotation):
    error = LookupError("no hash")

    class Element:
        def __hash__(self):
            raise error

    with pytest.raises(LookupError) as caught:
        rotation._slot_for_key([Element()])
    assert caught.value is error


def test_known_slot_is_returned_as_it_is_stored(rotation):
    marker = object()
    rotation.slot_by_key[("a",)] = marker
    assert rotation._slot_for_key("a") is marker


def test_new_slot_is_the_number_of_entries_without_a_search(rotation):
    for key in "abc":
        rotation._slot_for_key(key)
    del rotation.slot_by_key[("a",)]
    assert rotation._slot_for_key("d") == 2
    assert rotation.key_by_slot == {0: ("a",), 1: ("b",), 2: ("d",)}


class LoggingMap(dict):
    """Dict subclass that writes membership tests, reads, sizes and stores into `log`."""

    def __init__(self, log, label):
        super().__init__()
        self.log, self.label = log, label

    def __contains__(self, key):
        self.log.append((self.label, "contains", key))
        return super().__contains__(key)

    def __getitem__(self, key):
        self.log.append((self.label, "get", key))
        return super().__getitem__(key)

    def __len__(self):
        self.log.append((self.label, "len"))
        return super().__len__()

    def __setitem__(self, key, value):
        self.log.append((self.label, "set", key, value))
        super().__setitem__(key, value)


def test_slot_maps_are_used_through_their_own_methods_in_order(rotation):
    log = []
    rotation.slot_by_key = LoggingMap(log, "slots")
    rotation.key_by_slot = LoggingMap(log, "keys")
    rotation._slot_for_key("a")
    assert log == [
        ("slots", "contains", ("a",)),
        ("slots", "len"),
        ("slots", "len"),
        ("slots", "set", ("a",), 0),
        ("keys", "set", 0, ("a",)),
    ]
    del log[:]
    rotation._slot_for_key("a")
    assert log == [("slots", "contains", ("a",)), ("slots", "get", ("a",))]


def test_membership_is_what_the_map_says(rotation):
    class Everything(dict):
        def __contains__(self, key):
            return True

        def __missing__(self, key):
            return 17

    rotation.slot_by_key = Everything()
    assert rotation._slot_for_key("new") == 17
    assert rotation.slot_by_key == {}


def test_failing_second_store_leaves_the_first(rotation):
    error = LookupError("full")

    class Full(dict):
        def __setitem__(self, key, value):
            raise error

    rotation.key_by_slot = Full()
    with pytest.raises(LookupError) as caught:
        rotation._slot_for_key("a")
    assert caught.value is error
    assert rotation.slot_by_key == {("a",): 0}


def test_maps_replaced_by_the_user_are_the_ones_used(rotation):
    rotation._slot_for_key("a")
    rotation.slot_by_key, rotation.key_by_slot = {}, {}
    assert rotation._slot_for_key("b") == 0
    assert rotation.key_by_slot == {0: ("b",)}


def test_map_swapped_by_a_key_hash_is_read_anew(rotation):
    old = rotation.slot_by_key
    swapped = {("x",): 0}

    class Swaps:
        def __hash__(self):
            rotation.slot_by_key = swapped
            return 1

    assert rotation._slot_for_key([Swaps()]) == 1
    assert old == {}
    assert list(swapped.values()) == [0, 1]
    assert list(rotation.key_by_slot) == [1]


def test_slot_attributes_may_be_properties_of_a_subclass(base):
    slots, keys = {}, {}
    attributes = {
        "slot_by_key": property(lambda self: slots, lambda self, value: None),
        "key_by_slot": property(lambda self: keys, lambda self, value: None),
        "_name": property(lambda self: "computed"),
    }
    rotation = make_rotation(base, attributes=attributes, max_structures=1)
    assert rotation._slot_for_key("a") == 0
    assert (slots, keys) == ({("a",): 0}, {0: ("a",)})
    with pytest.raises(ValueError, match=r"^computed: active structure count exceeds"):
        rotation._slot_for_key("b")
