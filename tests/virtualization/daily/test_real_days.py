"""Days on the package's own framework and children."""

import numpy as np

from support.fakes import Context, make_rotation, structure
from virtualization.daily.helpers import NAN


def returns_hook(space, rest, masks, combined, N):
    """Every neighbouring pair, its value the difference of the two."""
    return [
        structure((leg, leg + 1), [(leg, 1.0), (leg + 1, -1.0)], space[leg] - space[leg + 1])
        for leg in range(N - 1)
    ]


def test_real_days_go_through_the_children_and_back(real_base):
    matrix = np.random.default_rng(11).normal(size=(30, 4))
    rotation = make_rotation(
        real_base,
        [returns_hook] * 30,
        N_alloc=4,
        max_structures=3,
        transformation_expression="ewma(5);rank",
    )
    by_hand = make_rotation(real_base, max_structures=3, transformation_expression="ewma(5);rank")
    result = rotation.batch_reference(matrix)
    for day, row in enumerate(matrix):
        context = by_hand._make_child_context(None, day)
        values = by_hand._run_child_chain(row[:-1] - row[1:], context)
        expected = np.zeros(4)
        expected[:-1] += values
        expected[1:] -= values
        np.testing.assert_allclose(result[day], expected, rtol=0, atol=1e-15)


def test_real_nan_input_makes_its_structures_invalid(real_base):
    rotation = make_rotation(real_base, [returns_hook], N_alloc=4, max_structures=3)
    result = rotation(np.array([1.0, 5.0, NAN, 2.0]))
    assert [entry["active"] for entry in rotation._metadata_by_slot] == [True, False, False]
    np.testing.assert_array_equal(result, [-4.0, 4.0, NAN, NAN])


def test_real_instrument_left_out_of_the_universe_makes_its_structures_invalid(real_base):
    rotation = make_rotation(real_base, [returns_hook] * 2, N_alloc=4, max_structures=3)
    mask = np.ones((2, 4), dtype=np.uint8)
    mask[1, 0] = 0
    matrix = np.array([[1.0, 2.0, 4.0, 8.0]] * 2)
    rotation.batch_reference(matrix, context=Context(universe_mask=mask))
    assert [entry["active"] for entry in rotation._metadata_by_slot] == [False, True, True]


def test_real_inputs_that_describe_structures_reach_the_hook(real_base):
    seen = []

    def hook(space, rest, masks, combined, N):
        seen.append([values.tolist() for values in rest])
        return []

    make_rotation(real_base, [hook])(np.zeros(6), np.arange(2.0), np.arange(6.0))
    assert seen == [[[0.0, 1.0], [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]]]
