"""What a program may leave behind that goes on after its last line.

A function of `LEFT_BEHIND` takes the process's folder. What runs later adds a word to the file
`told`: "same" when it came to the same bits as the same days before the end, else "other".
"""

import atexit
import os
import threading
import weakref

import numpy as np

from quorvane.stores import DirectoryStore, SqliteStore
from safety.endings.computing import Latest, Pairs, ready_made, row

DAYS = 5
TABLE = np.array([row(4, day) for day in range(DAYS)])


def output_of_days(rotation, table=TABLE):
    """Some days' output as bytes."""
    return b"".join(rotation(values).tobytes() for values in table)


class Teller:
    """Says whether a rotation gives what another one of its kind gave while all was there.

    It holds everything that it needs: at the very end a module's globals are None.
    """

    def __init__(self, folder, make):
        self._file = os.open(folder / "told", os.O_WRONLY | os.O_CREAT | os.O_APPEND)
        self._write, self._days = os.write, output_of_days
        self._expected = output_of_days(make())

    def __call__(self, rotation):
        same = self._days(rotation) == self._expected
        self._write(self._file, b"same " if same else b"other ")


class LastDays(Pairs):
    """Computes some days when it is given up."""

    def __init__(self, tell=None):
        super().__init__(3, transformation_expression="ewma(3);rank", trace_sink=Latest())
        self.tell = tell

    def __del__(self):
        if self.tell is not None:
            self.tell(self)


# What is left behind


def rotation_in_a_global(folder):
    globals()["kept"] = LastDays(Teller(folder, LastDays))


def rotation_in_a_cycle(folder):
    rotation = LastDays(Teller(folder, LastDays))
    rotation.itself = rotation


def rotation_in_an_attribute_of_its_class(folder):
    class Own(LastDays):
        pass

    Own.kept = Own(Teller(folder, LastDays))


def days_in_a_weak_references_finalizer(folder):
    rotation, tell = ready_made(), Teller(folder, ready_made)

    class Owner:
        pass

    globals()["kept"] = owner = Owner()
    weakref.finalize(owner, tell, rotation)


def days_at_exit(folder):
    atexit.register(Teller(folder, ready_made), ready_made())


def days_at_exit_while_threads_compute(folder):
    days_at_exit(folder)
    for _ in range(2):
        threading.Thread(target=_compute, args=(None,), daemon=True).start()


def checkpoints_at_exit(folder):
    rotation, tell = ready_made(), Teller(folder, ready_made)
    stores = [DirectoryStore(folder / "records"), SqliteStore(folder / "states.db")]

    def go_on():
        state = rotation.get_state()
        for store in stores:
            rotation(TABLE[0])
            rotation.checkpoint(store)
            rotation.set_state(state)
            assert rotation.recover(store)
            rotation.set_state(state)
        tell(rotation)

    atexit.register(go_on)


def threads_that_are_waited_for(folder):
    tell = Teller(folder, ready_made)

    def work():
        _compute(300)
        tell(ready_made())

    for _ in range(2):
        threading.Thread(target=work).start()


def views_of_a_day(folder):
    """Objects that a day is made of, in the middle of their use."""
    rotation = LastDays(Teller(folder, LastDays))
    rotation(row(4))
    items = rotation._refresh_active_structures(row(4))
    context = rotation._make_child_context(None, 2)
    globals()["kept"] = [rotation.compute, next(items), items, context, context.universe_mask]


def _compute(days):
    rotation, values = ready_made(), TABLE[0]
    while days != 0:
        rotation(values)
        days = None if days is None else days - 1


LEFT_BEHIND = {
    function.__name__: function
    for function in [
        rotation_in_a_global,
        rotation_in_a_cycle,
        rotation_in_an_attribute_of_its_class,
        days_in_a_weak_references_finalizer,
        days_at_exit,
        days_at_exit_while_threads_compute,
        checkpoints_at_exit,
        threads_that_are_waited_for,
        views_of_a_day,
    ]
}
