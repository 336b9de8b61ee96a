"""What may be registered by which name, and what expressions may give it."""

import functools
import re

import numpy as np
import pytest

import quorvane as qv
from quorvane.expressions.ready_made import ALIASES, READY_MADE

VALUES = np.array([[1.0, 2.0], [3.0, 5.0]])


def run(expression):
    return qv.Baskets(None, expression).run(VALUES)


def times(values, state, w=1):
    return values * w, state


# ---- names --------------------------------------------------------------------------------------


def test_a_name_stands_for_its_function_until_it_is_registered_again(register):
    assert register("own_2", times) is times
    np.testing.assert_array_equal(run("own_2(3)"), VALUES * 3)
    register("own_2", lambda values, state: (-values, state))
    np.testing.assert_array_equal(run("own_2"), -VALUES)


def test_a_decorator_gives_the_function_back(register):
    @register("own")
    def own(values, state):
        """Doubled."""
        return values * 2, state

    assert own(1.0, None) == (2.0, None)
    np.testing.assert_array_equal(run("own"), VALUES * 2)


def test_names_are_lower_cased_wherever_they_are_written(register):
    register("OwnOne", times)
    np.testing.assert_array_equal(run("OWNONE(w=2);ownone(2)"), VALUES * 4)
    assert qv.catalogue()[-1].name == "ownone"


@pytest.mark.parametrize("name", ["", " ", "a b", "a;b", "a()", "9a", "é", "\u212a", "a-b", "a\n"])
def test_a_name_that_no_expression_can_hold_is_refused(register, name):
    with pytest.raises(ValueError, match="name must be letters, digits and underscores, got"):
        register(name, times)


@pytest.mark.parametrize("name", [*READY_MADE, *ALIASES, "none", "NoOp", "identity", "RANK"])
def test_what_is_the_catalogue_s_own_cannot_be_replaced(register, name):
    with pytest.raises(ValueError, match="is the catalogue's own and cannot be replaced"):
        register(name, times)


def test_what_is_no_name_or_no_function_is_refused(register):
    for name in (3, None, b"own", ["own"]):
        with pytest.raises(TypeError, match="name must be a str, got"):
            register(name, times)
    for function in (3, "own", [times]):
        with pytest.raises(TypeError, match="function must be a class or a callable, got"):
            register("own", function)
    with pytest.raises(ValueError, match="there is no function 'own'"):
        run("own")


def test_a_misspelt_name_of_one_s_own_gets_a_hint(register):
    register("decayed_max", times)
    with pytest.raises(ValueError, match=r"no function 'decayd_max'; did you mean 'decayed_max'\?"):
        run("decayd_max")
    text = r"'decayed_max\(ww=1\)' has no argument 'ww'; did you mean 'w'\?"
    with pytest.raises(ValueError, match=text):
        run("decayed_max(ww=1)")


# ---- signatures ---------------------------------------------------------------------------------


class Instance:
    def __call__(self, values, state, w=2):
        return values * w, state

    def method(self, values, state, *, w):
        return values * w, state


class Falsy(Instance):
    def __len__(self):
        return 0


class Class:
    stateful = False

    def __init__(self, w=1, *, N_alloc):
        self.w, self.slots = w, N_alloc

    def __call__(self, values, context=None):
        assert values.shape == (self.slots,)
        return values * self.w


class AnyClass(Class):
    def __init__(self, N_alloc, **keywords):
        super().__init__(**keywords, N_alloc=N_alloc)


def any_keywords(values, state, **kw):
    return values * kw.get("w", kw.get("kw", 1)), state


def everything(*args, **kwargs):
    return args[0] * kwargs["w"], args[1]


def rest(values, *args, w=1):
    return values * w, args[0]


def tail(values, state, *args):
    assert args == ()
    return values, state


@functools.wraps(times)
def wrapper(*args, **kwargs):
    return times(*args, **kwargs)


@pytest.mark.parametrize(
    ("function", "arguments", "factor"),
    [
        (times, "(3)", 3),
        (times, "(w=3)", 3),
        (times, "", 1),
        (any_keywords, "(w=3)", 3),
        (any_keywords, "(kw=3)", 3),
        (everything, "(w=3)", 3),
        (rest, "(w=3)", 3),
        (tail, "", 1),
        (wrapper, "(3)", 3),
        (Instance(), "(3)", 3),
        (Falsy(), "(3)", 3),
        (Instance().method, "(w=3)", 3),
        (functools.partial(times, w=5), "", 5),
        (functools.partial(times, w=5), "(w=3)", 3),
        (functools.partial(Instance.method, Instance()), "(w=3)", 3),
        (lambda values, state, w: (values * w, state), "(3)", 3),
        (lambda values, state, /, w: (values * w, state), "(3)", 3),
        (Class, "(3)", 3),
        (Class, "(w=3)", 3),
        (Class, "", 1),
        (AnyClass, "(w=3)", 3),
    ],
)
def test_arguments_arrive_however_the_function_takes_them(register, function, arguments, factor):
    register("own", function)
    np.testing.assert_array_equal(run(f"own{arguments}"), VALUES * factor)


@pytest.mark.parametrize(
    ("function", "expression", "said"),
    [
        (times, "own(1, 2)", "too many positional arguments; it is own(w=1)"),
        (tail, "own(1)", "too many positional arguments; it is own()"),
        (rest, "own(1)", "too many positional arguments; it is own(*, w=1)"),
        (Instance().method, "own", "argument: 'w'; it is own(*, w)"),
        (times, "own(values=1)", "'own(values=1)' has no argument 'values'; it is own(w=1)"),
        (times, "own(N_alloc=1)", "has no argument 'N_alloc'"),
        (Class, "own(N_alloc=1)", "has no argument 'N_alloc'"),
        (Class, "own(v=1)", "has no argument 'v'; it is own(w=1)"),
    ],
)
def test_arguments_that_do_not_fit_are_refused_at_once(register, function, expression, said):
    register("own", function)
    with pytest.raises(ValueError, match="expression") as caught:
        qv.Baskets(None, expression)
    assert said in str(caught.value)


@pytest.mark.parametrize(
    ("function", "expression"),
    [(any_keywords, "own(state=1)"), (everything, "own;own"), (AnyClass, "own(N_alloc=3)")],
)
def test_what_is_given_already_cannot_be_given_by_the_expression(register, function, expression):
    register("own", function)
    if function is everything:
        # What it needs it finds out itself.
        with pytest.raises(KeyError, match="w"):
            run(expression)
        return
    text = f"expression: {expression!r}: "
    with pytest.raises(TypeError, match=f"^{re.escape(text)}.*multiple values"):
        qv.Baskets(None, expression)


@pytest.mark.parametrize(
    ("function", "said"),
    [
        (lambda values: values, "function must take values and state, got one of (values)"),
        (lambda: None, "function must take values and state, got one of ()"),
        (lambda values, *, state: values, "function must take values and state"),
        (functools.partial(times, state=1), "function must take values and state"),
        (len, "function must take values and state"),
        (lambda values, state, w, /: values, "function must take 'w' by name, got one of"),
        (object, "function must take N_alloc, got one of ()"),
        (type("Own", (), {"__init__": lambda self, w: None}), "function must take N_alloc"),
        (type("Own", (), {"__init__": lambda self, N_alloc, /: None}), "must take N_alloc"),
        (type("Own", (), {"__init__": lambda self, w, /, *, N_alloc: None}), "'w' by name"),
    ],
)
def test_a_function_that_could_never_be_called_is_refused(register, function, said):
    with pytest.raises(TypeError) as caught:
        register("own", function)
    assert said in str(caught.value)


@pytest.mark.parametrize("function", [dict, int])
def test_a_class_that_makes_no_rotation_is_refused_at_once(register, function):
    register("own", function)
    with pytest.raises(TypeError):
        qv.Baskets(None, "own")


def test_what_a_class_says_of_its_arguments_comes_with_the_text(register):
    class Own(Class):
        def __init__(self, w, *, N_alloc):
            raise ValueError("w must be odd")

    register("own", Own)
    with pytest.raises(ValueError, match=r"^expression: 'own\(2\)': w must be odd$"):
        qv.Baskets(None, "ewma(3);own(2)")
