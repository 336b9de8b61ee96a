"""Indexing: of the mask that children are given, and of the universe masks that callers give."""

import types

import numpy as np

from adversary.values.chosen import anything, chance, container, number, pick
from adversary.values.odd_containers import BackwardsTuple
from fuzz.subjects import both_modules
from quorvane.functions.rotations._boilerplate import RotationBase
from support import frozen

__all__ = ["play", "subjects"]


LARGE = 10_000


class Left(RotationBase):
    """Tells which columns the day's universe leaves out."""

    _name = "left"

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = combined_nan_mask
        return 0


class Plain:
    """Tells the same by the rule: a row of the mask, in which nought leaves a column out."""

    def __init__(self, *, N_alloc):
        self._n_alloc = N_alloc

    def __call__(self, values, *, context):
        N = values.shape[-1]
        mask = getattr(context, "universe_mask", None)
        if mask is None:
            return np.zeros(N)
        if type(mask) is not np.ndarray and not hasattr(mask, "ndim"):
            mask = np.asarray(mask)
        row = mask if mask.ndim == 1 else mask[int(getattr(context, "current_day_index", 0))]
        row = np.asarray(row, dtype=bool)
        if row.ndim != 1 or row.shape[0] < N:
            raise ValueError(
                "left: a row of universe_mask must have at least one entry for each of the "
                f"{N} columns, got shape {row.shape}"
            )
        return 1.0 - row[:N]


def subjects():
    return list(zip(both_modules(), [Left, Plain], strict=True))


def play(random, subject):
    base, rotation_class = subject
    if chance(random, 0.7):
        return index_the_mask(random, base)
    return run_a_day(random, base, rotation_class)


# The children's mask


def index_the_mask(random, base):
    row = stored_row(random)
    rows = number(random) if chance(random, 0.1) else pick(random, [0, 1, 2, 3, 5, 9, 2**40])
    made = []
    log = [frozen.outcome(lambda: made.append(base._AllOnesVirtualMask(rows, row)))]
    for mask in made:
        if chance(random, 0.03):
            mask.shape = anything(random)
        if chance(random, 0.03):
            mask._row = anything(random)
        log += [frozen.outcome(look_up, mask, row, item(random)) for _ in range(2)]
    return log


def look_up(mask, row, asked):
    """Return the entry together with the row, so that the row itself is told from a copy."""
    found = mask[asked]
    if isinstance(found, np.ndarray) and max(found.size, *found.shape, 0) > LARGE:
        # A view of that many rows takes no memory, but its contents would.
        corner = found[tuple(slice(2) for _ in found.shape)]
        return row, found.shape, found.strides, found.flags.writeable, corner
    return row, found


def stored_row(random):
    draw = random.random()
    if draw < 0.8:
        return np.arange(1, 1 + pick(random, [0, 1, 4, 4, 7]), dtype=np.uint8)
    if draw < 0.9:
        return pick(random, ROWS)()
    if draw < 0.95:
        return types.SimpleNamespace(shape=container(random, [number(random)]))
    return anything(random)


ROWS = [
    lambda: np.ones((3, 4), dtype=np.uint8),
    lambda: np.arange(8.0)[::2],
    lambda: np.arange(4)[::-1],
    lambda: np.array(5),
    lambda: np.array(["a", None, 3], dtype=object),
    lambda: np.ma.masked_array([1, 2, 3], [0, 1, 0]),
    lambda: np.broadcast_to(np.uint8(1), (5,)),
    lambda: np.zeros(3, dtype="i4,f8"),
    lambda: np.array(["x", "yz"]),
]


def item(random, depth=0):
    """Index of a mask: mostly sensible, now and then of another kind."""
    draw = random.random()
    if draw < 0.2:
        return pick(random, range(-6, 7))
    if draw < 0.4:
        return slice(*(bound(random) for _ in range(3)))
    if draw < 0.7 and depth < 4:
        count = 2 if chance(random, 0.9) else pick(random, [0, 1, 3])
        parts = tuple(item(random, depth + 1) for _ in range(count))
        return BackwardsTuple(parts) if chance(random, 0.05) else parts
    if draw < 0.8:
        return pick(random, COLUMNS)()
    if draw < 0.95:
        return number(random)
    return anything(random)


def bound(random):
    """Start, stop or step of a slice."""
    draw = random.random()
    if draw < 0.3:
        return None
    return pick(random, range(-6, 7)) if draw < 0.85 else number(random)


COLUMNS = [
    lambda: Ellipsis,
    lambda: np.newaxis,
    lambda: [0, 1],
    lambda: [True, False, True, False],
    lambda: np.array([1, -1]),
    lambda: np.array([[0], [1]]),
    lambda: np.ones(4, dtype=bool),
    lambda: np.array(1),
    lambda: np.array([], dtype=int),
    lambda: "f0",
]


# Callers' masks


def run_a_day(random, base, rotation_class):
    N = pick(random, [1, 3, 4, 4, 6])
    attributes = {}
    if chance(random, 0.95):
        attributes["universe_mask"] = universe_mask(random, base, N)
    if chance(random, 0.9):
        attributes["current_day_index"] = pick(random, [0, 0, 1, 1, 2, -1, -3, 3])
    if chance(random, 0.1):
        attributes["current_day_index"] = number(random)
    context = types.SimpleNamespace(**attributes)
    return [frozen.outcome(rotation_class(N_alloc=N), np.zeros(N), context=context)[:2]]


def universe_mask(random, base, N):
    draw = random.random()
    width = N if draw < 0.8 else pick(random, [0, 1, N - 1, N + 2])
    rows = [[pick(random, [1, 1, 0]) for _ in range(width)] for _ in range(3)]
    if draw < 0.1:
        return rows[0]
    if draw < 0.15:
        return base._AllOnesVirtualMask(3, np.array(rows[0], dtype=np.uint8))
    if draw < 0.3:
        return LazyMask([pick(random, FORMS)(row) for row in rows], pick(random, [2, 2, 1, 1.0, 0]))
    if draw < 0.35:
        return anything(random)
    return pick(random, FORMS)(pick(random, [rows, rows, rows, rows[0], [rows]]))


class LazyMask:
    """Mask that has nothing but rows."""

    def __init__(self, rows, ndim):
        self.rows = rows
        self.ndim = ndim

    def __getitem__(self, day):
        return self.rows[day]


FORMS = [
    list,
    lambda parts: np.array(parts, dtype=np.uint8),
    lambda parts: np.array(parts, dtype=bool),
    lambda parts: np.array(parts, dtype=np.int64) * 256,
    lambda parts: np.array(parts, dtype=float) * np.nan,
    lambda parts: np.array(parts, dtype=float) * 5e-324,
    lambda parts: np.array(parts, dtype=object),
    lambda parts: np.array(parts, dtype=complex) * 1j,
    lambda parts: np.array(parts, dtype=">i4"),
    lambda parts: np.array(parts).astype(str),
    lambda parts: np.array(parts).astype("m8[s]"),
    lambda parts: np.array(parts, dtype=np.uint8, order="F"),
    lambda parts: np.repeat(np.array(parts, dtype=np.uint8), 2, axis=-1)[..., ::2],
    lambda parts: np.array(parts, dtype=np.uint8)[..., ::-1],
    lambda parts: np.ma.masked_array(np.array(parts), np.array(parts)),
    lambda parts: np.array(parts).view(np.recarray),
    lambda parts: np.broadcast_to(np.uint8(0), np.shape(parts)),
    lambda parts: memoryview(np.array(parts, dtype=np.uint8)),
]
