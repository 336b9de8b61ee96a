"""The two small context classes and the child context of one day."""

import numpy as np
import pytest

from support.fakes import Context, make_rotation, shown


class Both:
    """Converts differently by int() and by indexing, so that the conversion used shows."""

    def __init__(self, as_int, as_index):
        self.as_int = as_int
        self.as_index = as_index

    def __int__(self):
        return self.as_int

    def __index__(self):
        return self.as_index


class Unconvertible:
    def __int__(self):
        raise LookupError("no number")


@pytest.fixture
def row():
    return np.ones(4, dtype=np.uint8)


@pytest.fixture
def mask(base, row):
    return base._AllOnesVirtualMask(3, row)


# _VirtualContext


def test_context_keeps_both_arguments_as_passed(base):
    universe, day = object(), object()
    context = base._VirtualContext(universe, day)
    assert context.universe_mask is universe
    assert context.current_day_index is day


def test_context_day_index_defaults_to_zero(base):
    assert base._VirtualContext(None).current_day_index == 0


def test_context_arguments_may_be_named(base):
    context = base._VirtualContext(current_day_index=3, universe_mask="mask")
    assert vars(context) == {"universe_mask": "mask", "current_day_index": 3}


def test_context_sets_the_mask_before_the_day(base):
    assert list(vars(base._VirtualContext(1, 2))) == ["universe_mask", "current_day_index"]


def test_context_attributes_are_plain_and_writable(base):
    context = base._VirtualContext(1, 2)
    context.current_day_index = 9
    context.further = "allowed"
    assert vars(context) == {"universe_mask": 1, "current_day_index": 9, "further": "allowed"}


def test_context_needs_a_universe_mask(base):
    with pytest.raises(TypeError):
        base._VirtualContext()


# _AllOnesVirtualMask: construction


def test_mask_has_two_dimensions_as_a_class_attribute(base):
    assert base._AllOnesVirtualMask.__dict__["ndim"] == 2


def test_mask_docstring(base):
    assert (
        base._AllOnesVirtualMask.__doc__
        == "Shape-compatible all-in-universe mask without dense TxI row history."
    )


def test_mask_shape_is_rows_by_row_length(mask):
    assert mask.shape == (3, 4)


def test_mask_keeps_the_row_by_reference(mask, row):
    assert mask._row is row


def test_mask_sets_shape_then_row_and_nothing_else(mask):
    assert list(vars(mask)) == ["shape", "_row"]


@pytest.mark.parametrize(
    "rows", [3, 3.9, "3", b"3", np.int64(3), np.float32(3.5), Both(as_int=3, as_index=7)]
)
def test_mask_converts_rows_with_int(base, row, rows):
    shape = base._AllOnesVirtualMask(rows, row).shape
    assert shape == (3, 4)
    assert [type(entry) for entry in shape] == [int, int]


def test_mask_converts_true_rows_to_one(base, row):
    shape = base._AllOnesVirtualMask(True, row).shape
    assert shape == (1, 4)
    assert type(shape[0]) is int


def test_mask_takes_any_number_of_rows(base, row):
    mask = base._AllOnesVirtualMask(10**30, row)
    assert mask.shape == (10**30, 4)
    assert mask[10**29] is row


def test_mask_does_not_check_the_rows(base, row):
    assert base._AllOnesVirtualMask(-2, row).shape == (-2, 4)


@pytest.mark.parametrize("length", [4, 4.5, "4", np.int32(4), Both(as_int=4, as_index=9)])
def test_mask_converts_the_row_length_with_int(base, length):
    shape = base._AllOnesVirtualMask(2, Context(shape=[length, "unused"])).shape
    assert shape == (2, 4)
    assert type(shape[1]) is int


@pytest.mark.parametrize(
    ("rows", "error"), [("x", ValueError), (None, TypeError), (Unconvertible(), LookupError)]
)
def test_mask_passes_on_the_error_of_unconvertible_rows(base, row, rows, error):
    with pytest.raises(error):
        base._AllOnesVirtualMask(rows, row)


def test_mask_of_a_row_without_shape_fails(base):
    with pytest.raises(AttributeError):
        base._AllOnesVirtualMask(2, [1, 1])


def test_mask_of_a_row_with_empty_shape_fails(base):
    with pytest.raises(IndexError):
        base._AllOnesVirtualMask(2, np.array(1))


def test_mask_converts_rows_before_it_reads_the_row(base):
    with pytest.raises(LookupError, match="no number"):
        base._AllOnesVirtualMask(Unconvertible(), None)


def test_mask_that_failed_to_construct_has_no_attributes(base):
    mask = base._AllOnesVirtualMask.__new__(base._AllOnesVirtualMask)
    with pytest.raises(AttributeError):
        mask.__init__(2, None)
    assert vars(mask) == {}


# _AllOnesVirtualMask: one row


@pytest.mark.parametrize(
    "item",
    [
        0,
        2,
        -1,
        -3,
        True,
        1.7,
        -0.5,
        "1",
        b"2",
        np.int64(2),
        np.uint8(0),
        np.float64(2.9),
        np.bool_(True),
        Both(as_int=2, as_index=9),
    ],
    ids=shown,
)
def test_integer_item_gives_the_stored_row_itself(mask, row, item):
    assert mask[item] is row


@pytest.mark.parametrize(
    ("item", "reported"),
    [
        (3, 3),
        (-4, -1),
        (10**30, 10**30),
        (-(10**30), 3 - 10**30),
        (3.9, 3),
        ("-5", -2),
        (Both(as_int=3, as_index=0), 3),
    ],
)
def test_index_outside_the_rows_raises_with_the_adjusted_index(mask, item, reported):
    with pytest.raises(IndexError) as caught:
        mask[item]
    assert caught.value.args == (reported,)
    assert type(caught.value.args[0]) is int


def test_index_error_carries_an_exact_int_for_an_int_subclass(mask):
    class Number(int):
        pass

    with pytest.raises(IndexError) as caught:
        mask[Number(3)]
    assert type(caught.value.args[0]) is int


@pytest.mark.parametrize(
    ("item", "error"),
    [
        ("x", ValueError),
        (None, TypeError),
        ([0], TypeError),
        (Unconvertible(), LookupError),
        (float("nan"), ValueError),
        (float("inf"), OverflowError),
    ],
)
def test_item_that_int_cannot_convert_passes_its_error_on(mask, item, error):
    with pytest.raises(error):
        mask[item]


def test_mask_without_rows_has_no_row(base, row):
    with pytest.raises(IndexError) as caught:
        base._AllOnesVirtualMask(0, row)[0]
    assert caught.value.args == (0,)


def test_iterating_the_mask_gives_every_row(mask, row):
    rows = list(mask)
    assert len(rows) == 3
    assert all(entry is row for entry in rows)


def test_indexing_reads_the_current_shape_and_row(mask):
    mask.shape = (5, 2)
    mask._row = other = np.zeros(2, dtype=np.uint8)
    assert mask[4] is other
    assert mask[:].shape == (5, 2)


# _AllOnesVirtualMask: slices


@pytest.mark.parametrize(
    ("item", "rows"),
    [
        (slice(1, None), 2),
        (slice(None), 3),
        (slice(2, 2), 0),
        (slice(5, 9), 0),
        (slice(-2, None), 2),
        (slice(-99, 99), 3),
        (slice(None, None, -1), 3),
        (slice(None, None, 2), 2),
        (slice(0, 3, -1), 0),
        (slice(np.int64(1), np.int64(3)), 2),
        (slice(10**30, None, -(10**30)), 1),
    ],
    ids=shown,
)
def test_slice_selects_as_many_rows_as_of_any_sequence(mask, item, rows):
    view = mask[item]
    assert view.shape == (rows, 4)
    assert view.dtype == np.uint8
    assert (view == 1).all()


def test_slice_gives_a_read_only_view(mask):
    with pytest.raises(ValueError, match="read-only"):
        mask[1:][0, 0] = 0


def test_slice_copies_nothing(mask, row):
    view = mask[1:]
    row[2] = 7
    assert view[:, 2].tolist() == [7, 7]
    assert view.strides[0] == 0


def test_slice_of_very_many_rows_takes_no_memory(base, row):
    assert base._AllOnesVirtualMask(10**12, row)[1:].shape == (10**12 - 1, 4)


def test_slice_with_zero_step_passes_the_error_on(mask):
    with pytest.raises(ValueError, match="slice step cannot be zero"):
        mask[::0]


def test_slice_with_a_bound_that_is_no_index_passes_the_error_on(mask):
    with pytest.raises(TypeError):
        mask["a":]


# _AllOnesVirtualMask: pairs


def test_pair_of_integers_gives_the_rows_element(mask, row):
    row[2] = 5
    element = mask[-1, 2]
    assert element == 5
    assert type(element) is np.uint8


def test_pair_checks_the_row_index(mask):
    with pytest.raises(IndexError) as caught:
        mask[3, 0]
    assert caught.value.args == (3,)


def test_pair_of_integer_and_slice_indexes_the_stored_row(mask, row):
    part = mask[0, 1:3]
    assert part.shape == (2,)
    assert np.shares_memory(part, row)
    assert part.flags.writeable


def test_pair_of_slice_and_integer_is_a_row_of_the_view(mask):
    assert mask[0:2, 0].shape == (4,)
    with pytest.raises(IndexError):
        mask[0:2, 2]


def test_pair_of_slice_and_pair_indexes_the_view_in_two_dimensions(mask):
    assert mask[0:2, (1, 3)] == 1
    assert mask[0:2, (slice(None), 3)].shape == (2,)


def test_pair_with_a_list_column_indexes_as_numpy_does(mask):
    assert mask[0, [0, 3]].tolist() == [1, 1]


def test_pair_inside_a_pair_is_resolved_from_within(mask, row):
    row[1] = 8
    assert mask[(0, slice(1, None)), 0] == 8


@pytest.mark.parametrize("item", [(), (0,), (0, 1, 2)])
def test_tuple_that_is_no_pair_fails_to_unpack(mask, item):
    with pytest.raises(ValueError, match="values to unpack"):
        mask[item]


def test_tuple_subclass_counts_as_a_pair(mask, row):
    class Pair(tuple):
        pass

    row[3] = 6
    assert mask[Pair((0, 3))] == 6


def test_tuple_subclass_is_unpacked_by_its_own_iteration(mask, row):
    class Swapped(tuple):
        def __iter__(self):
            return reversed(tuple(self[:]))

    row[1] = 6
    assert mask[Swapped((1, 2))] == 6


def test_bad_column_key_passes_numpys_error_on(mask):
    with pytest.raises(IndexError):
        mask[0, 4]
    with pytest.raises(IndexError):
        mask[0, "a"]


def test_list_is_not_a_pair(mask):
    with pytest.raises(TypeError):
        mask[[0, 1]]


# _make_child_context


@pytest.mark.parametrize(
    ("day", "rows"),
    [
        (0, 1),
        (9, 10),
        (-1, 1),
        (-5, 1),
        ("5", 6),
        (2.9, 3),
        (True, 2),
        (10**20, 10**20 + 1),
        (np.int64(4), 5),
        (Both(as_int=1, as_index=6), 2),
    ],
)
def test_child_context_has_one_row_per_day_so_far(base, day, rows):
    context = make_rotation(base)._make_child_context(None, day)
    assert context.universe_mask.shape == (rows, 4)


@pytest.mark.parametrize("day", ["5", 2.9, np.int64(10**4), 10**20])
def test_child_context_keeps_the_very_day_object(base, day):
    assert make_rotation(base)._make_child_context(None, day).current_day_index is day


def test_child_context_is_made_of_the_modules_two_classes(base):
    context = make_rotation(base)._make_child_context(None, 2)
    assert type(context) is base._VirtualContext
    assert type(context.universe_mask) is base._AllOnesVirtualMask


def test_child_context_rows_are_the_universe_row_of_the_instance(base):
    rotation = make_rotation(base)
    assert rotation._make_child_context(None, 2).universe_mask[1] is rotation._txi_universe_row
    rotation._txi_universe_row = np.zeros(2, dtype=np.uint8)
    mask = rotation._make_child_context(None, 2).universe_mask
    assert mask[1] is rotation._txi_universe_row
    assert mask.shape == (3, 2)


def test_child_context_takes_nothing_from_the_parent(base):
    class Untouchable:
        def __getattribute__(self, name):
            raise AssertionError(name)

    context = make_rotation(base)._make_child_context(Untouchable(), 1)
    assert sorted(vars(context)) == ["current_day_index", "universe_mask"]


def test_child_context_is_new_each_time(base):
    rotation = make_rotation(base)
    first, second = (rotation._make_child_context(None, 1) for _ in range(2))
    assert first is not second
    assert first.universe_mask is not second.universe_mask


@pytest.mark.parametrize(
    ("day", "error"), [("x", ValueError), (None, TypeError), (Unconvertible(), LookupError)]
)
def test_child_context_of_an_unconvertible_day_passes_the_error_on(base, day, error):
    with pytest.raises(error):
        make_rotation(base)._make_child_context(None, day)


def test_child_context_looks_both_classes_up_when_called(base):
    made = []

    class OtherMask(base._AllOnesVirtualMask):
        def __init__(self, rows, row):
            made.append(("mask", rows))
            super().__init__(rows, row)

    class OtherContext(base._VirtualContext):
        def __init__(self, universe_mask, current_day_index=0):
            made.append(("context", current_day_index))
            super().__init__(universe_mask, current_day_index)

    rotation = make_rotation(base)
    base._AllOnesVirtualMask = OtherMask
    base._VirtualContext = OtherContext
    context = rotation._make_child_context(None, 3)
    assert made == [("mask", 4), ("context", 3)]
    assert type(context) is OtherContext
    assert type(context.universe_mask) is OtherMask


def test_child_context_work_does_not_grow_with_the_day(base):
    context = make_rotation(base)._make_child_context(None, 10**15)
    assert context.universe_mask[10**15] is context.universe_mask[0]
