"""The ready-made rotation of fixed, keyed baskets over named instruments."""

import importlib.util
import math
import sys
from pathlib import Path

import numpy as np
import pytest

import quorvane.functions.rotations.virtualization.baskets as installed
import quorvane.functions.rotations.virtualization.planned as planned_structures

NAMES = ["KO", "PEP", "XOM", "CVX"]
PAIRS = {"KO/PEP": {"KO": 1.0, "PEP": -1.0}, "XOM/CVX": {"XOM": 1.0, "CVX": -1.0}}


def executed(name, path):
    """The module of that file, made anew from what can be imported now."""
    spec = importlib.util.spec_from_file_location(name, Path(path))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@pytest.fixture
def FixedBaskets(real_base, monkeypatch):
    """The class on the native base and on its plain-Python twin, with the package's children."""
    planned = executed("planned", planned_structures.__file__)
    monkeypatch.setitem(sys.modules, planned_structures.__name__, planned)
    return executed("baskets_under_test", installed.__file__).FixedBaskets


@pytest.fixture
def make(FixedBaskets):
    """Build baskets over NAMES, without children unless told otherwise."""

    def make(baskets=PAIRS, instruments=NAMES, **options):
        options.setdefault("transformation_expression", "none")
        return FixedBaskets(baskets, instruments, **options)

    return make


def test_it_names_itself_and_takes_one_input(FixedBaskets):
    assert FixedBaskets._name == "fixed_baskets"
    assert FixedBaskets.arity == 1


def test_the_docstring_example_is_true(FixedBaskets):
    pairs = FixedBaskets(PAIRS, ["CVX", "KO", "PEP", "XOM"], transformation_expression="rank")
    assert pairs(np.array([0.01, 0.03, 0.01, 0.02])).tolist() == [-0.5, 1.0, -1.0, 0.5]


def test_a_value_is_the_sum_over_the_legs_in_leg_order(make):
    rng = np.random.default_rng(1)
    names = [f"i{column}" for column in range(40)]
    baskets = {}
    for number in range(60):
        legs = rng.permutation(40)[: rng.integers(1, 41)]
        weights = rng.normal(size=len(legs)) * 10.0 ** rng.integers(-8, 9, size=len(legs))
        baskets[f"b{number}"] = [(names[leg], w) for leg, w in zip(legs, weights, strict=True)]
    rotation = make(baskets, names)
    day = rng.normal(size=40)
    rotation(day)
    expected = []
    for legs in baskets.values():
        total = 0.0
        for name, weight in legs:
            total += float(day[names.index(name)]) * float(weight)
        expected.append(total)
    entered, left = rotation.structure_values()
    assert entered.tolist() == expected
    assert left.tolist() == expected


def test_the_order_of_the_legs_decides_the_last_bits(make):
    names = ["a", "b", "c"]
    forward = make({"x": [("a", 1.0), ("b", 1.0), ("c", 1.0)]}, names)
    backward = make({"x": [("c", 1.0), ("b", 1.0), ("a", 1.0)]}, names)
    day = np.array([1e16, -1e16, 1.0])
    assert forward.basket_values(day).tolist() == [1.0]
    assert backward.basket_values(day).tolist() == [0.0]


def test_a_missing_leg_makes_the_value_nan_and_the_slot_inactive(make):
    records = []
    rotation = make(trace_sink=records)
    output = rotation(np.array([1.0, math.nan, 3.0, 1.0]))
    assert np.isnan(rotation.structure_values()[0]).tolist() == [True, False]
    assert [slot["active"] for slot in records[0]["metadata_by_slot"]] == [False, True]
    assert np.isnan(output).tolist() == [True, True, False, False]
    assert output[2:].tolist() == [2.0, -2.0]


def test_infinite_input_makes_the_slot_inactive_without_a_warning(make):
    rotation = make({"x": {"KO": 0.0, "PEP": 1.0}, "y": {"XOM": 1e300}})
    output = rotation(np.array([math.inf, 1.0, 1e300, 0.0]))
    assert np.isnan(output).all()


@pytest.mark.parametrize(
    ("key", "exact"),
    [
        ("KO/PEP", ("KO/PEP",)),
        (("KO", "PEP"), ("KO", "PEP")),
        (("pair", 7), ("pair", 7)),
        ((), ()),
        ("", ("",)),
    ],
)
def test_a_string_key_is_one_element_and_a_tuple_stays(make, key, exact):
    rotation = make({key: {"KO": 1.0}})
    rotation(np.ones(4))
    assert rotation.keys == (exact,)
    assert rotation.slot_by_key == {exact: 0}


def test_baskets_take_their_slots_in_order_whether_valid_or_not(make):
    rotation = make({"b": {"KO": 1.0}, "a": {"PEP": 1.0}, "c": {"XOM": 1.0}})
    rotation(np.array([math.nan, 1.0, math.nan, 1.0]))
    assert rotation.slot_by_key == {("b",): 0, ("a",): 1, ("c",): 2}


def test_baskets_and_legs_may_be_pairs(make):
    by_pairs = make([("x", [("KO", 2), ("PEP", np.float32(0.5))]), (("y",), {"XOM": 1})])
    assert by_pairs.keys == (("x",), ("y",))
    assert by_pairs.basket_values(np.array([1.0, 2.0, 3.0, 4.0])).tolist() == [3.0, 3.0]


def test_keys_and_legs_are_made_once_and_items_hold_exact_types(make):
    rotation = make({"x": {"KO": 2, "PEP": np.float64(0.5)}})
    seen = []
    inner = rotation._refresh_active_structures

    def spy(*arguments):
        seen.append(inner(*arguments))
        return seen[-1]

    rotation._refresh_active_structures = spy
    for scale in (1.0, 2.0):
        rotation(np.full(4, scale))
    assert seen[0].keys is seen[1].keys
    assert seen[0].legs is seen[1].legs
    (item,) = seen[0]
    assert type(item) is dict
    assert type(item["key"]) is tuple
    assert type(item["legs"]) is tuple
    assert [(type(i), type(w)) for i, w in item["legs"]] == [(int, float)] * 2
    assert item["legs"] == ((0, 2.0), (1, 0.5))
    assert (type(item["value"]), item["value"]) == (float, 2.5)


def test_equal_split_gives_each_leg_the_same_size(make):
    rotation = make({"x": {"KO": 3.0, "PEP": -1.0}}, unmap_policy="equal_split")
    output = rotation(np.array([1.0, 1.0, 0.0, 0.0]))
    assert output[:2].tolist() == [1.0, -1.0]
    assert np.isnan(output[2:]).all()


def test_children_run_over_the_days(make):
    rotation = make(transformation_expression="ewma(3)")
    rotation(np.array([1.0, 0.0, 2.0, 0.0]))
    output = rotation(np.array([4.0, 0.0, 2.0, 0.0]))
    # Adjusted weights of span 3: today 1, yesterday 1/2.
    assert output.tolist() == pytest.approx([3.0, -3.0, 2.0, -2.0], rel=1e-15)


def test_structure_values_are_nan_before_the_first_day_and_may_be_chosen(make):
    rotation = make(transformation_expression="rank")
    assert all(np.isnan(values).all() for values in rotation.structure_values())
    rotation(np.array([3.0, 1.0, 5.0, 1.0]))
    entered, left = rotation.structure_values([1, 0])
    assert (entered.tolist(), left.tolist()) == ([4.0, 2.0], [1.0, 0.5])
    entered[:] = 0.0
    assert rotation.structure_values()[0].tolist() == [2.0, 4.0]


def test_structure_values_follow_the_slots_of_a_restored_state(make):
    donor = make(dict(reversed(PAIRS.items())))
    donor(np.ones(4))
    rotation = make()
    rotation.set_state(donor.get_state())
    rotation(np.array([3.0, 1.0, 5.0, 1.0]))
    assert rotation.slot_by_key == {("XOM/CVX",): 0, ("KO/PEP",): 1}
    assert rotation.structure_values()[0].tolist() == [2.0, 4.0]


def test_more_slots_and_more_columns_than_needed_are_allowed(make):
    rotation = make(max_structures=5, N_alloc=6)
    assert rotation.max_structures == 5
    output = rotation(np.array([1.0, 0.0, 2.0, 0.0, 9.0, 9.0]))
    assert output[:4].tolist() == [1.0, -1.0, 2.0, -2.0]
    assert np.isnan(output[4:]).all()


def test_an_input_without_all_the_named_columns_is_refused(make):
    with pytest.raises(ValueError, match="fixed_baskets: input has 3 columns, expected at least 4"):
        make()(np.ones(3))


def test_instruments_are_known_by_name(make):
    assert make().instruments == tuple(NAMES)


def test_the_base_class_still_checks_its_own_arguments(make):
    with pytest.raises(ValueError, match="transformation_expression must be a non-empty string"):
        make(transformation_expression=" ")
    with pytest.raises(ValueError, match="unmap_policy must be one of"):
        make(unmap_policy="half")
    with pytest.raises(TypeError, match="max_structures must be a positive integer"):
        make(max_structures=True)
    with pytest.raises(ValueError, match="N_alloc must be a positive integer"):
        make(N_alloc=0)


@pytest.mark.parametrize(
    ("baskets", "error", "text"),
    [
        ({}, ValueError, "baskets must hold at least one basket"),
        ({"x": {}}, ValueError, "basket 'x': a basket needs at least one leg"),
        (
            {"x": {"KOO": 1.0}},
            ValueError,
            "basket 'x': unknown instrument 'KOO'; did you mean 'KO'?",
        ),
        ({"x": {"zzzz": 1.0}}, ValueError, "basket 'x': unknown instrument 'zzzz'"),
        ({"x": {0: 1.0}}, TypeError, "basket 'x': an instrument is named by a string, got 0"),
        ({"x": {"KO": math.nan}}, ValueError, "weight of 'KO' must be finite, got nan"),
        ({"x": {"KO": -math.inf}}, ValueError, "weight of 'KO' must be finite, got -inf"),
        ({"x": {"KO": 10**400}}, ValueError, "weight of 'KO' must be finite, got inf"),
        ({"x": {"KO": "1"}}, TypeError, "weight of 'KO' must be a number, got '1'"),
        ({"x": {"KO": True}}, TypeError, "weight of 'KO' must be a number, got True"),
        ({"x": [("KO", 1.0), ("KO", 2.0)]}, ValueError, "instrument 'KO' is given twice"),
        ({"x": ["KO"]}, TypeError, "basket 'x': expected a pair, got 'KO'"),
        ({"x": "KO"}, TypeError, "basket 'x': expected a mapping or pairs, got 'KO'"),
        ({"x": {"KO": 1.0}, ("x",): {"KO": 1.0}}, ValueError, "duplicate key ('x',)"),
        ([("x", {"KO": 1.0}), ("x", {"PEP": 1.0})], ValueError, "baskets: duplicate key 'x'"),
        ({7: {"KO": 1.0}}, TypeError, "a basket key must be a string or a tuple, got 7"),
        ([(([],), {"KO": 1.0})], TypeError, "a basket key must be hashable, got ([],)"),
        (None, TypeError, "baskets: expected a mapping or pairs, got None"),
    ],
)
def test_bad_baskets_are_refused(make, baskets, error, text):
    with pytest.raises(error) as raised:
        make(baskets)
    assert text in str(raised.value)


@pytest.mark.parametrize(
    ("instruments", "error", "text"),
    [
        (["KO", "PEP", "KO"], ValueError, "instruments must be distinct, got 'KO' twice"),
        ([], ValueError, "instruments must name at least one instrument"),
        (["KO", 5], TypeError, "instruments must be strings, got 5"),
        ("KO", TypeError, "instruments must be a sequence of names, got one string"),
    ],
)
def test_bad_instruments_are_refused(make, instruments, error, text):
    with pytest.raises(error) as raised:
        make({"x": {"KO": 1.0}}, instruments)
    assert str(raised.value) == text


@pytest.mark.parametrize(
    ("options", "text"),
    [
        ({"max_structures": 1}, "max_structures must be at least 2, the number of baskets, got 1"),
        ({"N_alloc": 3}, "N_alloc must be at least 4, the number of instruments, got 3"),
    ],
)
def test_a_capacity_below_what_is_named_is_refused(make, options, text):
    with pytest.raises(ValueError, match=f"^{text}$"):
        make(**options)
