"""Days that differ from the plain one in one respect, as multiples of the plain day beside them.

The plain day is 10,000 pairs with `ewma(20);rank` through `__call__`. The hook hands out lists of
new dicts that are ready, with the same keys and legs and new values, so that its own work, which
does not vary, hides nothing.
"""

import itertools
import random
from collections.abc import Callable
from dataclasses import dataclass, field
from functools import partial
from typing import Any

import numpy as np

from daybench.goals import Line
from daybench.structures import HELD_DAYS, Days, Shape, base_module
from daybench.timing import Side, cost_apart, in_new_process

STRUCTURES, INSTRUMENTS = 10_000, 2_000
EXPRESSION = "ewma(20);rank"
CHECKED_DAYS = 4
WARM_UP_DAYS = 4


@dataclass(frozen=True)
class Variation:
    """What differs from the plain day, and how many plain days it may take.

    `items` changes the list of a held day's items; `inputs` the day's input; `before` does
    something before each day, untimed; `derived` derives the rotation's class from
    the one with the hook; `settings` are the constructor's; `call` does the day. `against` is what
    it is measured against, by default the plain day.
    """

    name: str
    goal: float | None = None
    items: Callable[[list[dict], int], list[dict]] = lambda items, day: items
    inputs: Callable[[np.ndarray], np.ndarray] = lambda inputs: inputs
    before: Callable[["VariedDay"], object] = lambda varied_day: None
    derived: Callable[[type], type] = lambda reporting: reporting
    settings: Callable[[], dict[str, Any]] = dict
    call: Callable[[Any, np.ndarray], object] = lambda rotation, inputs: rotation(inputs)
    against: "Variation | None" = field(default=None, repr=False)


class VariedDay:
    """A rotation on the module of one kind that lives the days of one variation."""

    def __init__(self, variation, shape, kind="native", **settings):
        self._variation = variation
        self.number = 0
        self.kept = None
        with base_module(kind) as base:
            self.rotation = variation.derived(self._reporting_class(base))(
                max_structures=shape.slots,
                N_alloc=shape.instruments,
                **{"transformation_expression": EXPRESSION, **settings, **variation.settings()},
            )
            days = Days(shape, base)
            reports = [variation.items(days.next_items(), day) for day in range(HELD_DAYS)]
        rows = np.random.default_rng(6).standard_normal((HELD_DAYS, shape.instruments))
        self._days = itertools.cycle(
            zip(reports, [variation.inputs(row) for row in rows], strict=True)
        )

    def _reporting_class(self, base):
        varied_day = self

        # The items are not an attribute of the rotation, where setting them would be a change.
        class Reporting(base.VirtualizationBase):
            _name = "reporting"
            arity = 1

            def _refresh_active_structures(self, *_):
                return varied_day.report

        return Reporting

    def prepare(self):
        """Go on to the next day."""
        self.report, self._inputs = next(self._days)
        self.number += 1
        self._variation.before(self)

    def call(self):
        """Live the day."""
        self._variation.call(self.rotation, self._inputs)

    def live(self, days):
        """Some days, none of them timed."""
        for _ in range(days):
            self.prepare()
            self.call()

    @property
    def output(self):
        """The last day's output, as the framework would return it."""
        return self.rotation._output_buf[: self._inputs.shape[0]].copy()

    @property
    def warm_side(self):
        """What is timed, after some days that are not."""
        self.live(WARM_UP_DAYS)
        return Side(self.call, self.prepare)


# --- items ----------------------------------------------------------------------------------------


def _one_with_metadata(items, day):
    items[len(items) // 2]["metadata"] = {"note": f"day {day}"}
    return items


def _one_of_lists(items, day):
    item = items[len(items) // 2]
    item["key"] = list(item["key"])
    item["legs"] = [list(leg) for leg in item["legs"]]
    return items


def _another_order(items, day):
    random.Random(day).shuffle(items)
    # Made in that order too, as a hook would.
    return [dict(item) for item in items]


def _some_infinite(items, day):
    for i in range(day, len(items), 100):
        items[i]["value"] = float("inf") if i % 200 < 100 else float("-inf")
    return items


def _some_nan(items, day):
    for i in range(day, len(items), 100):
        items[i]["value"] = float("nan")
    return items


def _some_without(items, day):
    for i in range(day, len(items), 100):
        del items[i]["value"]
    return items


def _whole_numbers(items, day):
    for item in items:
        item["value"] = round(1_000_000 * item["value"])
    return items


def _fewer(items, day):
    return [item for i, item in enumerate(items) if i % 10 != day]


# --- inputs ---------------------------------------------------------------------------------------


def _some_dead(inputs):
    inputs = inputs.copy()
    inputs[::50] = np.nan
    return inputs


def _single_precision(inputs):
    return inputs.astype(np.float32)


# --- what is done between the days ----------------------------------------------------------------


def _note_in_one_slot(today):
    metadata = today.rotation._metadata_by_slot
    metadata[997 * today.number % len(metadata)]["note"] = today.number


def _snapshot(today):
    # Kept until the next one, as by somebody who may want to go back.
    today.kept = today.rotation.get_state()


def _another_policy(today):
    today.rotation.unmap_policy = ("proportional", "equal_split")[today.number % 2]


def _attribute_of_its_own(today):
    today.rotation.day_number = today.number


def _forget_the_trace(today):
    today.rotation.trace_sink.clear()


# --- classes --------------------------------------------------------------------------------------


def _own_validity(reporting):
    class Own(reporting):
        def _structure_is_valid(self, structure, nan_masks, combined_nan_mask, N):
            return super()._structure_is_valid(structure, nan_masks, combined_nan_mask, N)

    return Own


def _own_slots(reporting):
    class Own(reporting):
        def _slot_for_key(self, key):
            return super()._slot_for_key(key)

    return Own


def _own_normalizing(reporting):
    class Own(reporting):
        def _normalize_structure(self, item):
            return super()._normalize_structure(item)

    return Own


def _own_unmapping(reporting):
    class Own(reporting):
        def _unmap(self, txi_output, output_buf, N):
            super()._unmap(txi_output, output_buf, N)

    return Own


def _own_tracing(reporting):
    class Own(reporting):
        def _record_trace(self, output_buf, N):
            super()._record_trace(output_buf, N)

    return Own


class _Halved:
    """A child in plain Python."""

    def __call__(self, values, *, context):
        return values * 0.5


# --- calls ----------------------------------------------------------------------------------------


def _compute_with(sequence):
    def call(rotation, inputs):
        N = inputs.shape[0]
        mask = np.zeros(N, dtype=np.uint8)
        rotation.compute((inputs,), sequence((mask,)), mask.copy(), rotation._output_buf, N)

    return call


PLAIN = Variation("plain")
_COMPUTE = Variation("compute, masks in a tuple", call=_compute_with(tuple))

CASES = {
    "one-metadata": Variation("one item with metadata", 1.5, items=_one_with_metadata),
    "order": Variation("another order every day", 5.0, items=_another_order),
    "note": Variation("a note in one slot's metadata", 1.5, before=_note_in_one_slot),
    "snapshot": Variation("a snapshot before each day", 2.0, before=_snapshot),
    "own-validity": Variation("own _structure_is_valid", 12.0, derived=_own_validity),
    "own-slots": Variation("own _slot_for_key", 12.0, derived=_own_slots),
    "own-normalizing": Variation("own _normalize_structure", 12.0, derived=_own_normalizing),
    "masks-list": Variation(
        "masks in a list, by compute", 1.3, call=_compute_with(list), against=_COMPUTE
    ),
    "infinite": Variation("infinite values, 1 in 100", 1.5, items=_some_infinite),
    "nan": Variation("NaN as values, 1 in 100", 1.5, items=_some_nan),
    "without-value": Variation("items without value, 1 in 100", 1.5, items=_some_without),
    "ints": Variation("ints as values", 1.5, items=_whole_numbers),
    "one-of-lists": Variation("lists in one item", 1.5, items=_one_of_lists),
    "dead": Variation("dead instruments, 1 in 50", 1.5, inputs=_some_dead),
    "fewer": Variation("another tenth left out every day", 1.5, items=_fewer),
    "float32": Variation("float32 inputs", 1.5, inputs=_single_precision),
    "python-child": Variation(
        "a child in Python before", 1.5, settings=lambda: {"child_rotations": [_Halved()]}
    ),
    "own-unmap": Variation("own _unmap", 1.5, derived=_own_unmapping),
    "own-trace": Variation("own _record_trace", 1.5, derived=_own_tracing),
    "policy": Variation("unmap_policy changed every day", 1.5, before=_another_policy),
    "attribute": Variation("own attribute changed every day", 1.5, before=_attribute_of_its_own),
    "trace": Variation(
        "a trace", 2.4, before=_forget_the_trace, settings=lambda: {"trace_sink": []}
    ),
}


def run(names, settings):
    """Yield a line for each chosen variation, checked and measured in processes of its own."""
    for name in names:
        in_new_process(_check, name)
        ours, plain = partial(_side, name, False), partial(_side, name, True)
        found = cost_apart(ours, plain, settings)
        variation = CASES[name]
        what = "plain days"
        yield Line("variations", variation.name, what, found, variation.goal, STRUCTURES, True)


_SHAPE = Shape(STRUCTURES, 2, STRUCTURES, INSTRUMENTS)


def _check(name):
    check(CASES[name], _SHAPE)


def _side(name, plain):
    """The variation's days, or those it is measured against."""
    variation = CASES[name]
    if plain:
        variation = variation.against or PLAIN
    return VariedDay(variation, _SHAPE).warm_side


def check(variation, shape, **settings):
    """Live some days on which the native module must return the bits of the plain-Python twin."""
    ours, twin = (VariedDay(variation, shape, kind, **settings) for kind in ("native", "twin"))
    for _ in range(CHECKED_DAYS):
        for varied_day in (ours, twin):
            varied_day.live(1)
        np.testing.assert_array_equal(ours.output, twin.output)
    return ours
