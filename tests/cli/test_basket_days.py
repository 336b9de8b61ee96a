"""What structures compute: the base class's bits, and what the layer adds."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.basket_days import BasketDays, Choices
from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.structures import fixed_book

NAMES = tuple("ABCDE")
BASE = ["none", "ewma(3)", "rank", "zscore", "EWMA(5);sigmoid", "ewma(3);zscore;rank;sigmoid"]


def random_case(seed):
    """Days with gaps, infinities and ties, and structures over them."""
    rng = np.random.default_rng(seed)
    inputs = rng.normal(size=(30, 5)) * 10.0 ** rng.integers(-3, 4)
    inputs[rng.random(inputs.shape) < rng.choice([0.0, 0.1, 0.5])] = np.nan
    inputs[rng.random(inputs.shape) < 0.03] = rng.choice([np.inf, -np.inf, 0.0])
    if seed % 2:
        inputs = np.round(inputs)
    structures = {
        f"s{k}": {
            NAMES[i]: float(rng.choice([1.0, -1.0, 0.3, 0.0]))
            for i in rng.choice(5, int(rng.integers(1, 4)), replace=False)
        }
        for k in range(6)
    }
    return inputs, structures


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("expression", BASE)
def test_base_expressions_give_the_bits_of_the_base_class(expression, policy):
    for seed in range(12):
        inputs, structures = random_case(seed)
        base = qv.FixedBaskets(
            structures, NAMES, transformation_expression=expression, unmap_policy=policy
        )
        # Infinities meet, as they do in any table of levels.
        with np.errstate(invalid="ignore"):
            expected = np.array([base(row) for row in inputs])
            days = BasketDays(fixed_book(structures, NAMES), Choices(expression, policy), inputs)
            output = np.concatenate(
                [days.compute(0, 11), days.compute(11, 12), days.compute(12, 30)]
            )
        assert output.tobytes() == expected.tobytes()


ARGUMENTS = {
    **dict.fromkeys(["ewma", "ewm_std", "rolling_mean", "rolling_std", "rolling_zscore"], "(4)"),
    **dict.fromkeys(["delay", "diff"], "(2)"),
    **dict.fromkeys(["rank", "centered_rank", "zscore", "demean"], '(by="group")'),
    "clip": "(-1, 1)",
    "winsorize": "(0.2)",
}
SEVERAL = "diff(1);" + ";".join(["ewma(3)", "rank", "zscore"] * 3)


@pytest.mark.parametrize("hold", [0, 2, None])
@pytest.mark.parametrize("name", [*(entry.name for entry in qv.catalogue()), SEVERAL])
def test_every_function_of_the_catalogue_computes_what_baskets_compute(name, hold):
    text = name + ARGUMENTS.get(name, "")
    inputs, structures = random_case(4)
    inputs[np.isinf(inputs)] = np.nan
    # A weight of 0 is no leg of a basket.
    structures = {k: {n: w or 1.0 for n, w in legs.items()} for k, legs in structures.items()}
    labels = {"group": {key: key in ("s0", "s3") for key in structures}}
    baskets = qv.Baskets(structures, text, hold=hold, instruments=NAMES, labels=labels)
    days = BasketDays(
        fixed_book(structures, NAMES), Choices(text, hold=hold), inputs, labels=labels
    )
    assert np.array_equal(days.compute(0, 30), baskets.run(inputs), equal_nan=True)


@pytest.mark.parametrize(
    ("choices", "message"),
    [
        (Choices("foo"), "--expression: there is no function 'foo'; known are"),
        (Choices("rank", hold=-1), "--hold must be None or at least 0, got -1"),
        (Choices("rank", policy="half"), "--policy must be one of proportional, equal_split"),
        (Choices('zscore(by="sector")'), "labels: there is no 'sector'; none are given"),
    ],
)
def test_choices_that_make_no_sense_name_the_option(choices, message):
    with pytest.raises(UsageError) as raised:
        BasketDays(fixed_book({"a": {"A": 1.0}}, NAMES), choices, np.ones((2, 5)))
    assert message in str(raised.value)


@pytest.fixture
def failing():
    """A function of one's own that fails on the fourth day."""

    class Failing:
        stateful = False

        def __init__(self, N_alloc):
            self.days = 0

        def __call__(self, values, context=None):
            self.days += 1
            if self.days == 4:
                raise RuntimeError("no more")
            return values

    qv.register("failing", Failing)
    yield
    from quorvane.expressions import registered

    del registered.FUNCTIONS["failing"]


def test_a_function_that_fails_is_an_error_of_one_line(failing):
    days = BasketDays(fixed_book({"a": {"A": 1.0}}, NAMES), Choices("failing"), np.ones((9, 5)))
    days.compute(0, 2)
    message = "one of the days 2 to 8: a function of the expression failed: RuntimeError: no more"
    with pytest.raises(DataError) as raised:
        days.compute(2, 9)
    assert str(raised.value) == message
