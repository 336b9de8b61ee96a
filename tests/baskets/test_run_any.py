"""Any rotation of one's own over labelled tables."""

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, WEIGHTS, numbers, same_bits


class Spread(qv.VirtualizationBase):
    """The first input's extremes against each other; the second one's day as a factor."""

    _name = "spread"
    arity = 2

    def _refresh_active_structures(self, returns, others, nan_masks, nan_mask, N):
        if np.isnan(returns).all():
            return
        a, b = int(np.nanargmax(returns)), int(np.nanargmin(returns))
        factor = float(np.nansum(others[0])) if others else 1.0
        yield qv.VirtualStructure(
            key=(a, b), legs=((a, 1.0), (b, -1.0)), value=(returns[a] - returns[b]) * factor
        )


def make(columns=5):
    return Spread(max_structures=40, transformation_expression="ewma(3)", N_alloc=columns)


def by_hand(rotation, *matrices):
    return np.array([rotation(*rows) for rows in zip(*matrices, strict=True)])


def test_a_callable_gives_a_fresh_start_and_a_rotation_goes_on(kind):
    values = numbers()
    expected = by_hand(make(), values)
    table = kind.table(values)
    for _ in range(2):
        found = qv.run(make, table)
        assert type(found) is type(table)
        same_bits(kind.values(found), expected)
    rotation = make()
    parts = [qv.run(rotation, kind.part(table, a, b)) for a, b in ((0, 13), (13, 13), (13, 40))]
    same_bits(np.concatenate([kind.values(part).reshape(-1, 5) for part in parts]), expected)


def test_several_tables_go_in_by_name(kind):
    values, others = numbers(), numbers(seed=2)
    expected = by_hand(make(), values, others)
    order = [3, 1, 0, 2, 4]
    second = (
        kind.table(others)
        if kind.name == "array"
        else kind.table(others[:, order], tuple(NAMES[i] for i in order))
    )
    same_bits(kind.values(qv.run(make, kind.table(values), second)), expected)


def test_tables_of_different_kinds_go_together():
    pandas = pytest.importorskip("pandas")
    values, others = numbers(), numbers(seed=2)
    found = qv.run(make, pandas.DataFrame(values, columns=[*NAMES]), others)
    assert list(found.columns) == list(NAMES)
    same_bits(found.to_numpy(), by_hand(make(), values, others))


def test_instruments_choose_and_order_the_columns(frames):
    values = numbers()
    found = qv.run(lambda: make(3), frames.table(values), instruments=["D", "A", "B"])
    expected = by_hand(make(3), np.ascontiguousarray(values[:, [3, 0, 1]]))
    same_bits(frames.values(found)[:, [3, 0, 1]], expected)
    assert np.isnan(frames.values(found)[:, [2, 4]]).all()


def test_a_rotation_s_own_instruments_are_found_by_name(frames):
    values = numbers()

    def rotation():
        return qv.FixedBaskets(WEIGHTS, NAMES, transformation_expression="ewma(3)")

    order = [3, 1, 0, 2, 4]
    found = qv.run(rotation, frames.table(values[:, order], [NAMES[i] for i in order]))
    same_bits(frames.values(found), rotation().batch_reference(values)[:, order])


@pytest.mark.parametrize("rotation", [None, 7, "ewma", object(), lambda: None, dict])
def test_what_is_no_rotation_is_refused(rotation):
    with pytest.raises(TypeError, match="rotation must be a rotation, or a callable"):
        qv.run(rotation, np.ones((2, 5)))


def test_at_least_one_table_is_wanted():
    with pytest.raises(TypeError, match="at least one table"):
        qv.run(make)


def test_tables_of_other_rows_are_refused(kind):
    values = numbers()
    with pytest.raises(ValueError, match="table 2 has 39 rows, the first table has 40"):
        qv.run(make, kind.table(values), kind.table(values[1:]))
    if kind.name != "array":
        with pytest.raises(ValueError, match="table 2: row 0 is of 2024-01-02"):
            qv.run(make, kind.table(values), kind.table(values, first=1))


def test_missing_instruments_and_infinite_numbers_are_named(frames):
    values = numbers()
    with pytest.raises(ValueError, match="table 2: no instrument 'E'"):
        qv.run(make, frames.table(values), frames.table(values[:, :4], NAMES[:4]))
    values[3, 2] = np.inf
    with pytest.raises(ValueError, match="'C' holds inf at 2024-01-04"):
        qv.run(make, frames.table(values))


def test_a_text_is_no_list_of_instruments():
    with pytest.raises(TypeError, match="instruments"):
        qv.run(lambda: make(2), np.ones((1, 2)), instruments="AB")


def test_an_error_of_the_rotation_says_where_it_arose():
    class Fails(Spread):
        def _refresh_active_structures(self, returns, *others):
            if returns[0] == 3.0:
                raise ZeroDivisionError("mine")
            return ()

    pandas = pytest.importorskip("pandas")
    days = pandas.date_range("2024-01-01", periods=4)
    table = pandas.DataFrame({"A": [1.0, 2.0, 3.0, 4.0]}, index=days)
    rotation = Fails(max_structures=4, transformation_expression="none", N_alloc=1)
    with pytest.raises(ZeroDivisionError, match="mine") as caught:
        qv.run(rotation, table)
    assert any("2024-01-03" in note for note in caught.value.__notes__)


def test_no_rows_give_no_rows(kind):
    rotation = make()
    found = qv.run(rotation, kind.table(numbers()[:0]))
    assert kind.values(found).shape == (0, 5)
    assert rotation.slot_by_key == {}
