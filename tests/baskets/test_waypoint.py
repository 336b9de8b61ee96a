"""Baskets that stood somewhere: others go on from there, as often as wanted."""

import pickle

import numpy as np
import pytest

import quorvane as qv
from quorvane.baskets.waypoint import Waypoint
from support.tables_of_baskets import EXPRESSIONS, START, WEIGHTS, numbers, same_bits

DAYS = START + np.arange(40)


@pytest.mark.parametrize("hold", [0, 2, None])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_each_goes_on_to_the_bit_and_by_itself(make, expression, hold):
    values = numbers()
    made = make(expression, hold=hold)
    expected = make(expression, hold=hold).run(values, date=DAYS)
    made.run(values[:17], date=DAYS[:17])
    point = Waypoint.of(made)
    pickled = pickle.dumps(point)
    same_bits(made.update(values[17:], date=DAYS[17:]), expected[17:])
    for from_where in (point, point, pickle.loads(pickled), point):
        other = from_where.baskets()
        assert (other.last_date, other.baskets) == (DAYS[16], made.baskets)
        other.step(values[17], date=DAYS[17])
        same_bits(other.update(values[18:], date=DAYS[18:]), expected[18:])
        assert other.slots == made.slots


def test_what_can_be_asked_of_the_baskets_can_be_asked_of_others(make, store):
    values = numbers()
    made = make("ewma(3);rank")
    made.run(values[:30], date=DAYS[:30])
    other = Waypoint.of(made).baskets()
    for name in ("A", "C"):
        assert other.explain(name).tolist() == made.explain(name).tolist()
    assert repr(other) == repr(made)
    other.save(store)
    made.load(store)
    other.grow(20)
    assert (other.slots.capacity, made.slots.capacity) == (20, len(made.baskets))
    other.reset()
    assert made.last_date == DAYS[29]


def test_days_of_one_are_no_days_of_the_others():
    values = numbers()
    made = qv.Baskets(WEIGHTS, "ewma(3);rank")
    made.run(values[:20])
    point, before = Waypoint.of(made), repr(made)
    other = point.baskets()
    other.step(values[20])
    other.step(values[21])
    assert repr(made) == before
    made.step(values[20])
    assert before not in (repr(other), repr(made))
    assert repr(point.baskets()) == before


def test_baskets_that_were_given_more_room_keep_it(store):
    values = numbers()
    made = qv.Baskets(WEIGHTS, "ewma(3);rank")
    expected = made.run(values)
    made.run(values[:20])
    made.grow(11)
    other = Waypoint.of(made).baskets()
    assert other.slots.capacity == 11
    same_bits(other.update(values[20:]), expected[20:])
    made.save(store)
    loaded = qv.Baskets(WEIGHTS, "ewma(3);rank")
    loaded.load(store)
    other = Waypoint.of(loaded).baskets()
    assert other.slots.capacity == 11
    same_bits(other.update(values[20:]), expected[20:])


def test_a_function_that_remembers_without_saying_what_is_refused(register):
    @register("silent_memory")
    class Silent:
        def __init__(self, *, N_alloc):
            self.slots = N_alloc

        def __call__(self, values, context=None):
            return np.array(values)

    made = qv.Baskets(WEIGHTS, "silent_memory")
    with pytest.raises(TypeError, match="'silent_memory' of the expression has no get_state"):
        Waypoint.of(made)
