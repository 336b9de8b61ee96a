"""Functions of one's own in the life of baskets: days, parts, stores, room, failures."""

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import NAMES, START, WEIGHTS, long_columns, numbers, same_bits

NAN = np.nan
READY_MADE = "ewma(3);delay(1);centered_rank"
OWN = "ewma(3);own;centered_rank"
DAYS = START + np.arange(40)


def plain(values, state):
    """The values of the day before."""
    return np.full(len(values), NAN) if state is None else state["last"], {"last": values}


class Previous:
    """The values of the day before, in an array that each day writes to and that is handed out."""

    def __init__(self, *, N_alloc):
        self.last = np.full(N_alloc, NAN)

    def __call__(self, values, context=None):
        given = self.last.copy()
        self.last[:] = values
        return given

    def get_state(self):
        return {"last": self.last}

    def set_state(self, state):
        self.last = state["last"]

    def resize(self, N_alloc):
        self.last = np.append(self.last, np.full(N_alloc - len(self.last), NAN))

    def forget(self, slots):
        self.last[slots] = NAN


class Stateless:
    stateful = False

    def __init__(self, *, N_alloc):
        pass

    def __call__(self, values, context=None):
        return -values


def without(*methods):
    """Previous without some of its methods."""
    rest = {name: value for name, value in vars(Previous).items() if name not in methods}
    return type("Rest", (), rest)


@pytest.fixture(params=[plain, Previous], ids=["plain", "class"])
def own(request, register):
    register("own", request.param)


# ---- days ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("hold", [0, 2, None])
def test_one_s_own_between_two_ready_made_gives_the_same_bits_on_every_way(own, make, hold, store):
    values = numbers()
    expected = make(READY_MADE, hold=hold).run(values, date=DAYS)
    for threads in (1, 4):
        same_bits(make(OWN, hold=hold, threads=threads).run(values, date=DAYS), expected)
    made = make(OWN, hold=hold)
    cuts = np.split(np.arange(40), [1, 1, 9, 30])
    same_bits(np.concatenate([made.update(values[c], date=DAYS[c]) for c in cuts]), expected)
    made.reset()
    found = []
    for day, row in zip(DAYS, values, strict=True):
        found.append(made.step(row, date=day))
        made.save(store)
        if len(found) % 7 == 0:
            made = make(OWN, hold=hold)
            made.load(store)
        if len(found) == 20:
            made.grow(30)
            made.save(store)
            made = make(OWN, hold=hold, capacity=30)
            made.load(store)
    same_bits(np.array(found), expected)
    same_bits(made.run(values, date=DAYS), expected)


@pytest.mark.parametrize("seed", range(12))
@pytest.mark.parametrize("hold", [0, 1])
def test_slots_are_taken_from_one_s_own_as_from_ready_made(own, seed, hold, store):
    pandas = pytest.importorskip("pandas")
    rng = np.random.default_rng(seed)
    rows = [
        (day, name, name, 1.0)
        for day in range(0, 40, 2)
        for name in rng.permutation(list("ABCDEF"))[: rng.integers(1, 4)].tolist()
    ]
    values = numbers(40, 6, missing=0.4, seed=seed)

    def make(expression):
        return qv.Baskets.from_long(
            pandas.DataFrame(long_columns(rows)),
            expression,
            capacity=4,
            reclaim=True,
            hold=hold,
            instruments=[*"ABCDEF"],
        )

    try:
        expected = make(READY_MADE).run(values, date=DAYS)
    except ValueError:
        with pytest.raises(ValueError, match="the capacity is 4"):
            make(OWN).run(values, date=DAYS)
        return
    same_bits(make(OWN).run(values, date=DAYS), expected)
    made, found = make(OWN), []
    for row, day in zip(values, DAYS, strict=True):
        found.append(made.step(row, date=day))
        made.save(store)
        made = make(OWN)
        made.load(store)
    same_bits(np.array(found), expected)


def test_each_place_in_an_expression_has_a_memory_of_its_own(own):
    values = numbers(12)
    expected = qv.Baskets(WEIGHTS, "delay(1);delay(1);abs;delay(1)").run(values)
    same_bits(qv.Baskets(WEIGHTS, "own;own;abs;own").run(values), expected)
    first, second = qv.Baskets(WEIGHTS, "own"), qv.Baskets(WEIGHTS, "own")
    first.run(values[:6])
    same_bits(second.run(values), qv.Baskets(WEIGHTS, "delay(1)").run(values))


def test_what_is_not_finite_or_of_a_silent_basket_reaches_nothing(register):
    seen = []

    def spoiler(values, state):
        return np.where(values > 0, np.inf, 1e300), state

    def witness(values, state):
        seen.append(values.copy())
        return values, state

    register("spoiler", spoiler)
    register("witness", witness)
    made = qv.Baskets(None, "spoiler;witness;rank", hold=0)
    found = made.run(np.array([[1.0, -1.0, NAN, -2.0]]))
    np.testing.assert_array_equal(seen[-1], [NAN, 1e300, NAN, 1e300])
    np.testing.assert_array_equal(found, [[NAN, 0.75, NAN, 0.75]])


@pytest.mark.parametrize("expression", ["hostile;rank", "abs;hostile;rank", "hostile;hostile;rank"])
def test_what_is_done_to_its_input_reaches_nothing(register, expression):
    @register("hostile")
    class Hostile(Stateless):
        def __call__(self, values, context=None):
            copied = values.copy()
            values[:] = 7.0
            return copied

    values = numbers(9, missing=0)
    given = values.copy()
    harmless = expression.replace("hostile", "clip(-inf, inf)")
    expected, made = qv.Baskets(WEIGHTS, harmless), qv.Baskets(WEIGHTS, expression)
    same_bits(made.run(values), expected.run(values))
    same_bits(np.array([made.step(row) for row in values]), expected.update(values))
    same_bits(values, given)
    for name in ("value", "contribution"):
        same_bits(made.explain("A")[name], expected.explain("A")[name])


def test_a_view_of_the_input_or_of_the_memory_may_be_returned(register):
    @register("own")
    class Own(Previous):
        def __call__(self, values, context=None):
            # Nothing tells it how many days come at once, or of the other functions.
            assert context is None
            self.last *= 0.5
            self.last += np.nan_to_num(values)
            return self.last[:]

    values = numbers(9)
    made = qv.Baskets(WEIGHTS, "own;rank;own")
    expected = made.run(values)
    made.reset()
    same_bits(np.array([made.step(row) for row in values]), expected)


# ---- methods that it needs ----------------------------------------------------------------------


def test_what_remembers_nothing_needs_no_methods(register, make, store):
    register("own", Stateless)
    values = numbers()
    expected = -make("none", hold=1).run(values, date=DAYS)
    made = make("own", hold=1, reclaim=True)
    made.run(values[:20], date=DAYS[:20])
    made.grow(9)
    made.save(store)
    made = make("own", hold=1, capacity=9, reclaim=True)
    made.load(store)
    found = made.update(values[20:], date=DAYS[20:])
    np.testing.assert_array_equal(found, expected[20:])


@pytest.mark.parametrize("method", ["get_state", "set_state"])
def test_saving_needs_a_state(register, store, method):
    register("own", without(method))
    made = qv.Baskets(WEIGHTS, "ewma(3);own")
    made.run(numbers(5))
    with pytest.raises(TypeError, match=f"'own' of the expression has no {method};.* stateful"):
        made.save(store)
    assert store.names() == []


@pytest.mark.parametrize("method", ["get_state", "set_state", "resize"])
def test_more_room_needs_a_state_and_a_size(register, method):
    register("own", without(method))
    values = numbers()
    made = qv.Baskets(WEIGHTS, "ewma(3);own")
    expected = made.run(values)
    made.run(values[:20])
    with pytest.raises(TypeError, match=f"'own' of the expression has no {method}; one that"):
        made.grow(9)
    assert made.slots.capacity == 4
    same_bits(made.update(values[20:]), expected[20:])


def test_giving_slots_away_needs_forgetting(register, make):
    register("own", without("forget"))
    with pytest.raises(TypeError, match=r"'own\(\)' of the expression has no forget; one that"):
        make("ewma(3);own()", reclaim=True)
    make("ewma(3);own()")


def test_more_room_leaves_nothing_shared_with_the_baskets_before(register):
    register("own", Previous)
    values = numbers()
    made = qv.Baskets(WEIGHTS, "own")
    expected = made.run(values)
    made.run(values[:20])
    before = made._course.rotation
    made.grow(9)
    before(values[3])
    same_bits(made.update(values[20:]), expected[20:])


# ---- registered again ---------------------------------------------------------------------------


def test_baskets_keep_the_functions_that_they_were_made_with(register, store):
    register("own", plain)
    values = numbers()
    made, other = qv.Baskets(WEIGHTS, "own"), qv.Baskets(WEIGHTS, "own")
    expected = made.run(values)
    made.run(values[:20])
    register("own", lambda values, state: (values * 1000, state))
    made.grow(9)
    same_bits(made.update(values[20:]), expected[20:])
    same_bits(made.run(values), expected)
    made.reset()
    same_bits(made.run(values[:20]), expected[:20])
    made.save(store)
    other.grow(9)
    other.load(store)
    same_bits(other.update(values[20:]), expected[20:])
    with pytest.raises(qv.StateMismatch, match=r"functions: .*plain.* stored, .*lambda.* here"):
        qv.Baskets(WEIGHTS, "own", capacity=9).load(store)


def test_a_function_may_register_another_in_the_middle_of_a_day(register):
    def own(values, state):
        register("own", Stateless)
        return values, state

    register("own", own)
    made = qv.Baskets(WEIGHTS, "own;abs")
    expected = qv.Baskets(WEIGHTS, "abs").run(numbers())
    same_bits(made.run(numbers()), expected)
    same_bits(made.run(numbers()), expected)


# ---- days that fail -----------------------------------------------------------------------------


class Failing(Previous):
    """Fails after it has changed what it remembers, where the first number is above 5."""

    error = KeyError

    def __call__(self, values, context=None):
        given = super().__call__(values, context)
        if values[0] > 5:
            raise self.error("too much")
        return given


def failing(values, state):
    found = plain(values, state)
    if values[0] > 5:
        raise KeyError("too much")
    return found


WAYS = {
    "update": lambda made, rows: made.update(rows),
    "one day": lambda made, rows: made.update(rows[-1:]),
    "step": lambda made, rows: made.step(rows[-1]),
    "labelled": lambda made, rows: made.step(dict(zip(NAMES, rows[-1], strict=True))),
}


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("function", [Failing, failing, "interrupted"])
def test_a_day_that_fails_leaves_the_baskets_where_they_were(register, function, way):
    error = KeyError
    if function == "interrupted":
        error, function = KeyboardInterrupt, type("Own", (Failing,), {"error": KeyboardInterrupt})
    register("own", function)
    values = numbers(12, missing=0)
    made = qv.Baskets(WEIGHTS, OWN, instruments=NAMES)
    expected = made.run(values)
    made.run(values[:6])
    bad = values[6:9].copy()
    bad[-1, :2] = 90.0, -90.0
    for _ in range(2):
        with pytest.raises(error):
            WAYS[way](made, bad)
    assert made.slots.speaking == 4
    same_bits(made.update(values[6:]), expected[6:])
    with pytest.raises(error):
        made.run(bad)
    with pytest.raises(error):
        made.run(np.concatenate([values, bad]))
    made.reset()
    same_bits(made.run(values), expected)


@pytest.mark.parametrize("returned", [None, 1.0, np.ones(3), np.ones((1, 4)), np.ones(4) * 1j, "x"])
def test_what_it_must_not_return_is_told_of_by_its_name(register, returned):
    class Own(Previous):
        def __call__(self, values, context=None):
            given = super().__call__(values, context)
            return returned if values[0] > 5 else given

    register("own", Own)
    values = numbers(12, missing=0)
    made = qv.Baskets(WEIGHTS, OWN, instruments=NAMES)
    expected = made.run(values)
    made.run(values[:6])
    with pytest.raises((TypeError, ValueError), match="own: the function must return values"):
        made.step(np.array([90.0, -90, 0, 0, 0]))
    same_bits(made.update(values[6:]), expected[6:])


def unable(**errors):
    """Failing that cannot be taken back: without a method, or with one that fails."""
    if not errors:
        return type("Own", (Failing,), {"get_state": property(), "set_state": property()})

    def set_state(self, state):
        raise errors["error"]

    return type("Own", (Failing,), {"set_state": set_state})


@pytest.mark.parametrize("heal", ["run", "reset"])
@pytest.mark.parametrize(
    ("function", "text"),
    [
        (unable(), "'own' of the expression has no get_state, set_state, so what"),
        (unable(error=OSError("no")), r"did not take its state back \(no\), so what"),
        (unable(error=KeyboardInterrupt()), "did not take its state back, so what"),
    ],
)
def test_what_cannot_be_taken_back_goes_on_from_a_fresh_start_alone(
    register, store, function, text, heal
):
    pandas = pytest.importorskip("pandas")
    register("own", function)
    values = numbers(12, 2, missing=0)
    rows = [(0, "a", "A", 1.0), (0, "b", "B", 1.0)]
    made = qv.Baskets.from_long(
        pandas.DataFrame(long_columns(rows)), "ewma(2);own", capacity=9, instruments=[*"AB"]
    )
    expected = made.run(values, date=DAYS[:12])
    made.run(values[:6], date=DAYS[:6])
    with pytest.raises((KeyError, KeyboardInterrupt)):
        made.step(np.array([90.0, 0.0]), date=DAYS[6])
    later = pandas.DataFrame(long_columns([(30, "a", "A", 1.0)]))
    for go_on in (
        lambda: made.step(values[6], date=DAYS[6]),
        lambda: made.update(values[6:], date=DAYS[6:12]),
        lambda: made.save(store),
        lambda: made.grow(20),
        lambda: made.extend(later),
        lambda: made.step(values[6], date=DAYS[6]),
    ):
        with pytest.raises(RuntimeError, match=f"{text}.*begin anew with run.. or reset"):
            go_on()
    if heal == "reset":
        made.reset()
        found = made.update(values, date=DAYS[:12])
    else:
        found = made.run(values, date=DAYS[:12])
    same_bits(found, expected)
    made.extend(later)


# ---- baskets that are used by their own functions -----------------------------------------------


@pytest.mark.parametrize(
    "use",
    [
        lambda made, store: made.run(numbers()),
        lambda made, store: made.update(numbers()),
        lambda made, store: made.step(np.zeros(5)),
        lambda made, store: made.step(dict.fromkeys(NAMES, 0.0)),
        lambda made, store: made.reset(),
        lambda made, store: made.grow(50),
        lambda made, store: made.save(store),
        lambda made, store: made.load(store),
    ],
    ids=["run", "update", "step", "labelled", "reset", "grow", "save", "load"],
)
@pytest.mark.parametrize("caught", [True, False])
def test_a_function_cannot_use_the_baskets_that_it_is_part_of(register, store, use, caught):
    used = []

    @register("own")
    def own(values, state):
        if used:
            if not caught:
                use(used[0], store)
            with pytest.raises(RuntimeError, match="these baskets compute a day just now"):
                use(used[0], store)
        return plain(values, state)

    values = numbers()
    made = qv.Baskets(WEIGHTS, OWN, instruments=NAMES)
    expected = made.run(values)
    made.run(values[:20])
    used.append(made)
    if caught:
        found = [*made.update(values[20:30]), *map(made.step, values[30:])]
    else:
        for day in (lambda: made.update(values[20:]), lambda: made.step(values[20])):
            with pytest.raises(RuntimeError, match="these baskets compute a day just now"):
                day()
        used.clear()
        found = made.update(values[20:])
    same_bits(np.array(found), expected[20:])


def test_it_may_look_at_them_and_use_others(register):
    other = qv.Baskets(WEIGHTS, "ewma(2)", instruments=NAMES)
    looks = []

    @register("own")
    def own(values, state):
        other.step(np.zeros(5))
        looks.append((made.slots.capacity, made.baskets, repr(made)))
        return plain(values, state)

    made = qv.Baskets(WEIGHTS, OWN, instruments=NAMES)
    expected = qv.Baskets(WEIGHTS, READY_MADE, instruments=NAMES).run(numbers())
    same_bits(made.run(numbers()), expected)
    assert len(looks) == 40
    assert other.slots.speaking == 4


# ---- where a signal comes from ------------------------------------------------------------------


def test_one_s_own_has_a_column_where_a_signal_comes_from(own):
    pandas = pytest.importorskip("pandas")
    table = pandas.DataFrame(numbers(), columns=list(NAMES), index=DAYS)
    made, ready = (qv.Baskets(WEIGHTS, text) for text in (OWN, READY_MADE))
    made.run(table)
    ready.run(table)
    found = made.explain("A")
    assert list(found)[3:6] == ["ewma(3)", "own", "centered_rank"]
    same_bits(found.iloc[:, 1:], ready.explain("A").iloc[:, 1:])
    earlier = made.explain("A", DAYS[12], returns=table)
    same_bits(earlier.iloc[:, 1:], ready.explain("A", DAYS[12], returns=table).iloc[:, 1:])
    same_bits(made.explain("A").iloc[:, 1:], found.iloc[:, 1:])
