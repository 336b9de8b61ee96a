"""Child output back onto the instruments."""

import collections

import numpy as np
import pytest

from support.fakes import make_rotation

NAN = float("nan")
INF = float("inf")
UNTOUCHED = 77.0

# Overflow and inf - inf are results here like any other, not accidents worth a warning.
pytestmark = pytest.mark.filterwarnings("ignore::RuntimeWarning")


def unmapped(base, legs_by_slot, outputs, *, N=4, policy="proportional", size=None):
    """Unmap four slots' outputs (NaN where not given) and return the whole output buffer."""
    rotation = make_rotation(base, unmap_policy=policy)
    rotation._legs_by_slot = legs_by_slot
    buffer = np.full(N if size is None else size, UNTOUCHED)
    assert rotation._unmap(full_row(outputs), buffer, N) is None
    return buffer


def full_row(outputs):
    return np.array(list(outputs) + [NAN] * (4 - len(outputs)))


def same(result, expected):
    """Equal value for value, NaN equal to NaN and -0.0 apart from 0.0."""
    expected = np.array(expected, dtype=np.float64)
    return np.array_equal(result, expected, equal_nan=True) and np.array_equal(
        np.signbit(result[result == 0]), np.signbit(expected[expected == 0])
    )


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
class TestUnderBothPolicies:
    def test_all_nan_outputs_make_the_live_entries_nan_and_leave_the_rest(self, base, policy):
        result = unmapped(base, {0: ((0, 1.0),)}, [NAN], N=3, size=6, policy=policy)
        assert same(result, [NAN, NAN, NAN, UNTOUCHED, UNTOUCHED, UNTOUCHED])

    def test_instrument_without_contribution_is_nan(self, base, policy):
        assert same(unmapped(base, {0: ((1, 1.0),)}, [2.0], policy=policy), [NAN, 2.0, NAN, NAN])

    @pytest.mark.parametrize("value", [INF, -INF, NAN])
    def test_slot_without_a_finite_output_is_skipped(self, base, policy, value):
        legs = {0: ((0, 1.0), (1, 1.0)), 1: ((1, 1.0),)}
        assert same(unmapped(base, legs, [value, 3.0], policy=policy), [NAN, 3.0, NAN, NAN])

    @pytest.mark.parametrize("legs", [(), [], None, 0])
    def test_slot_whose_legs_are_false_is_skipped(self, base, policy, legs):
        assert same(unmapped(base, {0: legs}, [2.0], policy=policy), [NAN] * 4)

    def test_slot_never_stored_is_skipped(self, base, policy):
        assert same(unmapped(base, {2: ((0, 1.0),)}, [2.0], policy=policy), [NAN] * 4)

    def test_slots_sharing_an_instrument_are_summed(self, base, policy):
        legs = {0: ((2, 1.0),), 1: ((2, 1.0),)}
        assert same(unmapped(base, legs, [1.0, 3.0], policy=policy), [NAN, NAN, 4.0, NAN])

    def test_legs_of_one_slot_sharing_an_instrument_are_summed(self, base, policy):
        legs = {0: ((1, 1.0), (1, 1.0), (1, 1.0), (1, 1.0))}
        expected = 8.0 if policy == "proportional" else 2.0
        assert same(unmapped(base, legs, [2.0], policy=policy), [NAN, expected, NAN, NAN])

    def test_cancelled_contributions_are_zero_not_nan(self, base, policy):
        legs = {0: ((1, 1.0),), 1: ((1, -1.0),)}
        assert same(unmapped(base, legs, [2.0, 2.0], policy=policy), [NAN, 0.0, NAN, NAN])

    def test_slots_add_up_in_slot_order(self, base, policy):
        legs = {3: ((0, 1.0),), 1: ((0, 1.0),), 0: ((0, 1.0),), 2: ((0, 1.0),)}
        result = unmapped(base, legs, [1.0, 1e16, -1e16, 1.0], policy=policy)
        assert result[0] == ((1.0 + 1e16) + -1e16) + 1.0
        assert result[0] != 2.0

    def test_sums_start_from_positive_zero(self, base, policy):
        assert same(unmapped(base, {0: ((0, 1.0),)}, [-0.0], policy=policy), [0.0, NAN, NAN, NAN])

    def test_every_slot_counts_whether_reported_today_or_not(self, base, policy):
        legs = {0: ((0, 1.0),), 3: ((3, 1.0),)}
        result = unmapped(base, legs, [1.0, NAN, NAN, 4.0], policy=policy)
        assert same(result, [1.0, NAN, NAN, 4.0])

    def test_legs_beyond_the_capacity_are_not_visited(self, base, policy):
        legs = {0: ((0, 1.0),), 4: ((1, 1.0),), -1: ((2, 1.0),)}
        assert same(unmapped(base, legs, [1.0], policy=policy), [1.0, NAN, NAN, NAN])

    def test_negative_leg_id_counts_from_the_end_of_the_live_entries(self, base, policy):
        result = unmapped(base, {0: ((-1, 1.0),)}, [2.0], N=3, size=6, policy=policy)
        assert same(result, [NAN, NAN, 2.0, UNTOUCHED, UNTOUCHED, UNTOUCHED])

    @pytest.mark.parametrize("leg_id", [4, -5, 10**12, 2**80, -(2**80)])
    def test_leg_id_outside_the_live_entries_raises_index_error(self, base, policy, leg_id):
        with pytest.raises(IndexError):
            unmapped(base, {0: ((leg_id, 1.0),)}, [2.0], size=6, policy=policy)

    def test_failure_leaves_the_live_entries_nan_and_writes_no_sum(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {0: ((0, 1.0),), 1: ((4, 1.0),)}
        buffer = np.full(6, UNTOUCHED)
        with pytest.raises(IndexError):
            rotation._unmap(full_row([1.0, 1.0]), buffer, 4)
        assert same(buffer, [NAN] * 4 + [UNTOUCHED] * 2)

    @pytest.mark.parametrize(
        ("leg", "error"),
        [((0,), ValueError), ((0, 1.0, 2.0), ValueError), (5, TypeError), (None, TypeError)],
    )
    def test_leg_that_is_no_pair_fails_to_unpack(self, base, policy, leg, error):
        with pytest.raises(error):
            unmapped(base, {0: (leg,)}, [2.0], policy=policy)

    def test_leg_ids_index_as_numpy_does(self, base, policy):
        legs = {0: ((np.int64(1), 1.0), (np.uint8(3), 1.0))}
        expected = 2.0 if policy == "proportional" else 1.0
        result = unmapped(base, legs, [2.0], policy=policy)
        assert same(result, [NAN, expected, NAN, expected])

    def test_float_leg_id_is_no_index(self, base, policy):
        with pytest.raises(IndexError):
            unmapped(base, {0: ((1.0, 1.0),)}, [2.0], policy=policy)

    def test_true_as_leg_id_selects_every_instrument_as_numpy_does(self, base, policy):
        assert same(unmapped(base, {0: ((True, 1.0),)}, [2.0], policy=policy), [2.0] * 4)

    def test_no_live_instruments_leave_the_buffer_alone(self, base, policy):
        assert same(unmapped(base, {}, [1.0], N=0, size=2, policy=policy), [UNTOUCHED] * 2)

    def test_no_live_instruments_and_a_leg_raise_index_error(self, base, policy):
        with pytest.raises(IndexError):
            unmapped(base, {0: ((0, 1.0),)}, [1.0], N=0, size=2, policy=policy)

    def test_instance_is_left_unchanged(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = legs = {0: ((0, 1.0),)}
        before = dict(vars(rotation))
        rotation._unmap(full_row([1.0]), np.zeros(4), 4)
        assert list(vars(rotation)) == list(before)
        assert all(vars(rotation)[name] is value for name, value in before.items())
        assert legs == {0: ((0, 1.0),)}

    def test_legs_may_be_lists(self, base, policy):
        result = unmapped(base, {0: [[0, 1.0], [1, -1.0]]}, [2.0], policy=policy)
        half = 2.0 if policy == "proportional" else 1.0
        assert same(result, [half, -half, NAN, NAN])

    def test_legs_are_read_with_the_tables_own_get(self, base, policy):
        class Table(dict):
            def get(self, slot, default=None):
                return ((slot, 1.0),)

        result = unmapped(base, Table(), [1.0, 2.0], policy=policy)
        assert same(result, [1.0, 2.0, NAN, NAN])

    def test_default_of_a_defaultdict_is_not_made(self, base, policy):
        table = collections.defaultdict(lambda: ((0, 1.0),))
        assert same(unmapped(base, table, [1.0], policy=policy), [NAN] * 4)
        assert table == {}

    def test_strided_buffer_is_written_through(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {0: ((0, 1.0),), 1: ((2, 1.0),)}
        whole = np.full(8, UNTOUCHED)
        rotation._unmap(full_row([1.0, 2.0]), whole[::2], 3)
        assert same(whole[::2], [1.0, NAN, 2.0, UNTOUCHED])
        assert same(whole[1::2], [UNTOUCHED] * 4)

    def test_reversed_buffer_is_written_through(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {0: ((0, 1.0),)}
        whole = np.full(4, UNTOUCHED)
        rotation._unmap(full_row([1.0]), whole[::-1], 2)
        assert same(whole, [UNTOUCHED, UNTOUCHED, NAN, 1.0])

    @pytest.mark.parametrize("row", [np.arange(1.0, 9.0)[::2], [1.0, 3.0, 5.0, 7.0]])
    def test_outputs_are_read_by_indexing(self, base, policy, row):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {slot: ((slot, 1.0),) for slot in range(4)}
        buffer = np.zeros(4)
        rotation._unmap(row, buffer, 4)
        assert same(buffer, [1.0, 3.0, 5.0, 7.0])

    def test_short_outputs_raise_index_error(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        buffer = np.zeros(4)
        with pytest.raises(IndexError):
            rotation._unmap(np.zeros(3), buffer, 4)
        assert same(buffer, [NAN] * 4)

    def test_outputs_beyond_the_capacity_are_not_read(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {4: ((0, 1.0),)}
        buffer = np.zeros(4)
        rotation._unmap(np.ones(5), buffer, 4)
        assert same(buffer, [NAN] * 4)

    def test_read_only_buffer_passes_numpys_error_on(self, base, policy):
        buffer = np.zeros(4)
        buffer.flags.writeable = False
        with pytest.raises(ValueError, match="read-only"):
            make_rotation(base, unmap_policy=policy)._unmap(full_row([]), buffer, 4)

    def test_integer_buffer_cannot_hold_nan(self, base, policy):
        with pytest.raises(ValueError, match="NaN"):
            make_rotation(base, unmap_policy=policy)._unmap(full_row([]), np.zeros(4, int), 4)

    def test_float32_buffer_receives_rounded_sums(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        rotation._legs_by_slot = {0: ((1, 1.0),)}
        buffer = np.zeros(3, dtype=np.float32)
        rotation._unmap(full_row([0.1]), buffer, 3)
        assert buffer[1] == np.float32(0.1)
        assert np.isnan(buffer[[0, 2]]).all()

    def test_buffer_shorter_than_the_live_count_raises_index_error(self, base, policy):
        buffer = np.zeros(3)
        with pytest.raises(IndexError):
            make_rotation(base, unmap_policy=policy)._unmap(full_row([]), buffer, 4)
        assert np.isnan(buffer).all()

    def test_list_buffer_fails(self, base, policy):
        with pytest.raises(TypeError):
            make_rotation(base, unmap_policy=policy)._unmap(full_row([]), [0.0] * 4, 4)

    def test_live_count_may_be_any_index(self, base, policy):
        rotation = make_rotation(base, unmap_policy=policy)
        buffer = np.zeros(4)
        rotation._unmap(full_row([]), buffer, np.int64(3))
        assert same(buffer, [NAN, NAN, NAN, 0.0])

    def test_live_count_that_is_no_index_fails_before_anything_is_written(self, base, policy):
        buffer = np.zeros(4)
        with pytest.raises(TypeError):
            make_rotation(base, unmap_policy=policy)._unmap(full_row([]), buffer, 2.0)
        assert same(buffer, [0.0] * 4)


def test_proportional_gives_each_leg_the_value_times_its_weight(base):
    result = unmapped(base, {0: ((0, 0.5), (3, -1.0))}, [2.0])
    assert same(result, [1.0, NAN, NAN, -2.0])


def test_equal_split_gives_each_leg_the_same_share_with_its_weights_sign(base):
    result = unmapped(base, {0: ((0, 0.5), (3, -1.0))}, [2.0], policy="equal_split")
    assert same(result, [1.0, NAN, NAN, -1.0])


def test_proportional_does_not_normalise_the_weights(base):
    result = unmapped(base, {0: ((0, 3.0), (1, 5.0))}, [2.0])
    assert same(result, [6.0, 10.0, NAN, NAN])


def test_proportional_zero_weight_gives_zero_not_nan(base):
    assert same(unmapped(base, {0: ((0, 0.0),)}, [2.0]), [0.0, NAN, NAN, NAN])


@pytest.mark.parametrize("weight", [0.0, -0.0])
def test_equal_split_zero_weight_counts_as_positive(base, weight):
    legs = {0: ((0, weight), (1, -1.0))}
    assert same(unmapped(base, legs, [3.0], policy="equal_split"), [1.5, -1.5, NAN, NAN])


def test_equal_split_nan_weight_is_not_positive(base):
    assert same(unmapped(base, {0: ((0, NAN),)}, [3.0], policy="equal_split"), [-3.0] + [NAN] * 3)


@pytest.mark.parametrize("weight", [INF, -INF])
def test_equal_split_infinite_weight_gives_its_sign_alone(base, weight):
    result = unmapped(base, {0: ((0, weight),)}, [3.0], policy="equal_split")
    assert result[0] == np.copysign(3.0, weight)


def test_equal_split_divides_by_the_number_of_legs_before_it_adds(base):
    legs = {0: ((0, 1.0), (0, 1.0), (0, 1.0), (1, 1.0), (2, 1.0))}
    fifth = 0.9 / 5
    assert fifth != 0.9 * (1 / 5)
    result = unmapped(base, legs, [0.9], policy="equal_split")
    assert result[0] == (fifth + fifth) + fifth
    assert result[1] == fifth


@pytest.mark.parametrize("weight", [INF, -INF, NAN])
def test_proportional_non_finite_weight_is_added_like_any_other(base, weight):
    legs = {0: ((0, 1.0), (0, weight))}
    assert np.array_equal(unmapped(base, legs, [2.0])[0], weight, equal_nan=True)


def test_proportional_opposite_infinities_sum_to_nan(base):
    legs = {0: ((0, INF),), 1: ((0, -INF),), 2: ((1, 1.0),)}
    assert same(unmapped(base, legs, [1.0, 1.0, 1.0]), [NAN, 1.0, NAN, NAN])


def test_proportional_zero_value_times_infinite_weight_is_nan(base):
    assert np.isnan(unmapped(base, {0: ((0, INF), (0, 1.0))}, [0.0])[0])


def test_proportional_overflow_is_infinite(base):
    assert unmapped(base, {0: ((0, 1e300),)}, [1e300])[0] == INF


def test_legs_of_a_slot_add_up_in_leg_order(base):
    result = unmapped(base, {0: ((0, 1.0), (0, 1e16), (0, -1e16), (0, 1.0))}, [1.0])
    assert result[0] == ((1.0 + 1e16) + -1e16) + 1.0


def test_product_is_rounded_before_it_is_added(base):
    value = 1.0 + 2.0**-30
    result = unmapped(base, {0: ((0, -1.0),), 1: ((0, value),)}, [value * value, value])
    assert result[0] == value * value - value * value == 0.0


@pytest.mark.parametrize("policy", ["other", "EQUAL_SPLIT", None, 5])
def test_any_other_policy_means_proportional(base, policy):
    rotation = make_rotation(base, unmap_policy="equal_split")
    rotation.unmap_policy = policy
    rotation._legs_by_slot = {0: ((0, 0.5), (1, 2.0))}
    buffer = np.zeros(2)
    rotation._unmap(full_row([2.0]), buffer, 2)
    assert buffer.tolist() == [1.0, 4.0]


def test_policy_is_compared_by_equality(base):
    class Policy(str):
        pass

    rotation = make_rotation(base)
    rotation.unmap_policy = Policy("equal_split")
    rotation._legs_by_slot = {0: ((0, 0.5), (1, 2.0))}
    buffer = np.zeros(2)
    rotation._unmap(full_row([2.0]), buffer, 2)
    assert buffer.tolist() == [1.0, 1.0]


def test_equal_split_weight_that_does_not_compare_fails(base):
    with pytest.raises(TypeError):
        unmapped(base, {0: ((0, "1"),)}, [2.0], policy="equal_split")


def test_proportional_weight_that_does_not_multiply_fails(base):
    with pytest.raises(TypeError):
        unmapped(base, {0: ((0, "1"),)}, [2.0])


def test_number_of_slots_visited_is_the_current_capacity(base):
    rotation = make_rotation(base)
    rotation._legs_by_slot = {0: ((0, 1.0),), 3: ((1, 1.0),)}
    rotation.max_structures = 3
    buffer = np.zeros(2)
    rotation._unmap(np.ones(3), buffer, 2)
    assert same(buffer, [1.0, NAN])
