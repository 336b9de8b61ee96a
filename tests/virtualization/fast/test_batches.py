"""Rows and outputs of batches, and when what a day has made is let go."""

import weakref

import numpy as np
import pytest

from support import frozen
from support.fakes import make_rotation
from virtualization.fast.calls import BESIDE, ITEMS, same_on_both

# --- batches ----------------------------------------------------------------------------------


MATRICES = {
    "days": lambda: np.arange(24.0).reshape(4, 6),
    "one day": lambda: np.ones((1, 6)),
    "one column": lambda: np.ones((3, 1)),
    "no day": lambda: np.ones((0, 6)),
    "no column": lambda: np.ones((3, 0)),
    "columns first": lambda: np.arange(24.0).reshape(6, 4).T,
    "backward": lambda: np.arange(24.0).reshape(4, 6)[::-1, ::-1],
    "frozen": lambda: np.broadcast_to(np.arange(6.0), (4, 6)),
    "one axis": lambda: np.arange(6.0),
    "three axes": lambda: np.arange(48.0).reshape(4, 2, 6),
    "integers": lambda: np.arange(24).reshape(4, 6),
    "list": lambda: [[1, 2], [3, 4]],
    "subclass": lambda: np.arange(24.0).reshape(4, 6).view(type("Own", (np.ndarray,), {})),
    "scalar": lambda: 5.0,
}


def described(row):
    """Tell what can be told of an array that is handed over, besides its content."""
    if not isinstance(row, np.ndarray):
        return repr(row)
    base = None if row.base is None else (type(row.base).__name__, row.base.shape)
    return frozen.freeze(row), str(row.flags), base


@pytest.mark.parametrize("name", MATRICES)
@pytest.mark.parametrize("second", [None, "short", "wide"])
def test_rows_of_a_batch_are_handed_over_as_numpy_indexes_them(name, second):
    def scenario(base, attributes):
        rows = []

        def __call__(self, *args, context=None):
            rows.append([described(row) for row in args])
            rows.append(frozen.freeze(vars(context)))
            return np.array(args[0])

        further = {"short": [np.ones((2, 6))], "wide": [np.ones((9, 9))], None: []}[second]
        rotation = make_rotation(base, attributes={**attributes, "__call__": __call__})
        context = type("Context", (), {"universe_mask": "everybody"})()
        outcomes = [
            frozen.outcome(rotation.batch_reference, MATRICES[name](), *further),
            frozen.outcome(rotation.batch_reference, MATRICES[name](), *further, context=context),
        ]
        return outcomes, rows

    same_on_both(scenario)


RETURNED = {
    "rows": lambda day: np.arange(3.0) + day,
    "one number": lambda day: np.ones(1),
    "nothing": lambda day: np.ones(0),
    "widths": lambda day: np.ones(2 + day % 2),
    "lists": lambda day: [1, 2],
    "scalars": lambda day: 1.0 * day,
    "without axes": lambda day: np.array(1.0),
    "matrices": lambda day: np.ones((2, 3)),
    "a matrix first": lambda day: np.ones((1, 3) if day == 0 else 3),
    "single": lambda day: np.ones(3, dtype=np.float32),
    "single last": lambda day: np.ones(3, dtype=np.float32 if day == 3 else np.float64),
    "swapped": lambda day: np.ones(3).astype(">f8"),
    "strided": lambda day: np.arange(6.0)[::2],
    "backward": lambda day: np.arange(3.0)[::-1],
    "frozen": lambda day: np.broadcast_to(1.0, 3),
    "subclass": lambda day: np.ones(3).view(type("Own", (np.ndarray,), {})),
    "masked": lambda day: np.ma.masked_array(np.ones(3), [0, 1, 0]),
    "none": lambda day: None,
    "dtype of its own": lambda day: np.ones(3, dtype=np.dtype("f8", metadata={"own": 1})),
}


@pytest.mark.parametrize("name", RETURNED)
@pytest.mark.parametrize("number", [1, 4])
def test_outputs_of_a_batch_are_stacked_as_numpy_stacks_them(name, number):
    def scenario(base, attributes):
        def __call__(self, row, context=None):
            return RETURNED[name](context.current_day_index)

        rotation = make_rotation(base, attributes={**attributes, "__call__": __call__})
        outcome = frozen.outcome(rotation.batch_reference, np.ones((number, 6)))
        if outcome[0] == "raised":
            return outcome
        stacked = rotation.batch_reference(np.ones((number, 6)))
        return outcome, described(stacked), dict(stacked.dtype.metadata or {})

    same_on_both(scenario)


@pytest.mark.parametrize("name", ["vstack", "asarray", "array", "nan"])
def test_numpy_replaced_during_a_batch_counts(name):
    class Other:
        def __getattr__(self, attribute):
            if attribute == name:
                return lambda *args, **kwargs: ("replaced", len(args), sorted(kwargs))
            return getattr(np, attribute)

    def scenario(base, attributes):
        def replace(*_):
            base.np = Other()
            return ITEMS

        rotation = make_rotation(base, [ITEMS, replace] + [ITEMS] * 3, attributes=attributes)
        return frozen.outcome(rotation.batch_reference, np.ones((4, 6)))

    same_on_both(scenario)


def test_batch_may_be_called_through_any_kind_of_call():
    def scenario(base, attributes):
        outcomes = []
        for call in [*BESIDE.values(), property(lambda self: lambda *args, context: np.ones(2))]:
            rotation = make_rotation(base, attributes={**attributes, "__call__": call})
            outcomes.append(
                frozen.outcome(rotation.batch_reference, np.ones((2, 6)), np.ones((2, 1)))
            )
        return outcomes

    same_on_both(scenario)


# --- what is let go, and when -----------------------------------------------------------------


def test_result_of_a_child_lives_until_the_next_one_is_there():
    class Result(list):
        pass

    def scenario(base, attributes):
        results, log = [], []

        def child(values, context):
            log.append([result() is None for result in results])
            result = Result(values)
            results.append(weakref.ref(result))
            return result

        rotation = make_rotation(
            base, [ITEMS], attributes=attributes, child_rotations=[child, child, child]
        )
        rotation(np.ones(6))
        return log, [result() is None for result in results]

    assert same_on_both(scenario) == ([[], [False], [True, False]], [True] * 3)


def test_child_context_lives_until_the_day_is_over():
    class Sink(list):
        def append(self, record):
            super().append(self.context() is None)

    def scenario(base, attributes):
        def child(values, context):
            sink.context = weakref.ref(context)
            return values

        sink = Sink()
        rotation = make_rotation(
            base, [ITEMS] * 2, attributes=attributes, child_rotations=[child], trace_sink=sink
        )
        rotation(np.ones(6))
        rotation(np.ones(6))
        return list(sink), sink.context() is None

    assert same_on_both(scenario) == ([False, False], True)


def test_context_of_a_batch_lives_until_the_next_one_is_there():
    def scenario(base, attributes):
        class Context:
            def __init__(self, universe_mask, current_day_index):
                self.universe_mask = universe_mask
                self.current_day_index = current_day_index
                log.append(f"make {current_day_index}")

            def __del__(self):
                log.append(f"drop {self.current_day_index}")

        log = []
        attributes = {**attributes, "_make_child_context": lambda *_: None}
        rotation = make_rotation(base, [ITEMS] * 3, attributes=attributes)
        base._VirtualContext = Context
        rotation.batch_reference(np.ones((3, 6)))
        return log

    log = same_on_both(scenario)
    assert log == ["make 0", "make 1", "drop 0", "make 2", "drop 1", "drop 2"]
