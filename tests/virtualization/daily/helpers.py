"""A day on masks of one's own, and the structures of most of them."""

import numpy as np

from support.fakes import make_rotation, structure

NAN = float("nan")
PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)
SINGLE = structure(("c",), [(2, 1.0)], 3.0)
WIDTH = 6


def one_day(rotation, *, masks=None, combined=None, N=WIDTH):
    """Run compute directly on clear masks and return the output buffer."""
    buffer = np.full(WIDTH, 77.0)
    combined = np.zeros(WIDTH, dtype=np.uint8) if combined is None else combined
    masks = (np.zeros(WIDTH, dtype=np.uint8),) if masks is None else masks
    assert rotation.compute((np.arange(float(WIDTH)),), masks, combined, buffer, N) == 0
    return buffer


def flagged(*instruments):
    mask = np.zeros(WIDTH, dtype=np.uint8)
    mask[list(instruments)] = 1
    return mask


class Log(list):
    """Steps in the order in which they were called."""

    def step(self, name):
        def method(rotation, *args, **kwargs):
            self.append(name)
            return getattr(super(type(rotation), rotation), name)(*args, **kwargs)

        return method


def unallocated(base, limit=None, **attributes):
    """Make a rotation without an allocation; the limit also binds construction, so set it last."""
    rotation = make_rotation(base, attributes=attributes)
    rotation._n_alloc = None
    if limit is not None:
        base.MAX_VIRTUAL_STRUCTURES = limit
    return rotation
