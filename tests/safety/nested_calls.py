"""Calls nested until they are refused; `python nested_calls.py <bytes> <limit> <program>`.

They run in a thread with a stack of so many bytes, or in the main thread with 0. A limit is what
sys.setrecursionlimit gets, 0 leaves it: a high one makes the room what ends them. They are programs
and not tests because a crash is what is looked for.
"""

import contextlib
import resource
import sys
import threading

from quorvane.functions.rotations.virtualization.columns import StructureColumns
from safety.subjects.failures import FAILURES
from safety.subjects.operations import OPERATIONS
from safety.subjects.rotations import (
    MAKERS,
    Baskets,
    N,
    Store,
    make_ewma,
    matrix,
    plain_columns,
    row,
    used,
    usual_items,
)
from support.siblings import installed_real_base

# The operations of so many calls above the deepest one are run: what they need is there or not.
LEVELS = 24

LEFT_TO_THE_MAIN_THREAD = []


def must_refuse(operation):
    try:
        operation()
    except RecursionError:
        return
    raise AssertionError(f"{operation} came back")


# ---- rotations that reach themselves -------------------------------------------------------------


def one_in_itself():
    rotation = Baskets(N_alloc=N, transformation_expression="none")
    rotation.child_rotations.append(rotation)
    return rotation


def two_in_each_other():
    first, second = (Baskets(N_alloc=N, transformation_expression="none") for _ in range(2))
    first.child_rotations.append(second)
    second.child_rotations.append(first)
    return first


def many_in_one_another():
    rotation = Baskets(N_alloc=N, transformation_expression="none")
    for _ in range(4000):
        rotation = Baskets(N_alloc=N, transformation_expression="none", child_rotations=[rotation])
    return rotation


def endless_state(rotation):
    """A state with itself as the state of each of the children."""
    state = Baskets(N_alloc=N, transformation_expression="none").get_state()
    state["child_states"] = [state] * len(rotation.child_rotations)
    return state


def many_rotations_in_one_another():
    """What there is room for comes back, and the rest is refused."""
    rotation = many_in_one_another()
    # Up to Python 3.13 the interpreter itself may crash where it takes them apart in a small stack.
    LEFT_TO_THE_MAIN_THREAD.append(rotation)
    for operation in (
        lambda: rotation(row()),
        lambda: rotation.batch_reference(matrix()),
        rotation.get_state,
        lambda: rotation.set_state(endless_state(rotation)),
        lambda: rotation.checkpoint(Store()),
    ):
        with contextlib.suppress(RecursionError):
            operation()


def rotations_that_reach_themselves():
    refuses_every_call(one_in_itself())
    refuses_every_call(two_in_each_other())


def refuses_every_call(rotation):
    state = endless_state(rotation)
    must_refuse(lambda: rotation(row()))
    must_refuse(lambda: rotation.batch_reference(matrix()))
    must_refuse(rotation.get_state)
    must_refuse(lambda: rotation.set_state(state))
    must_refuse(lambda: rotation.checkpoint(Store()))
    assert rotation.recover(Store(state)) is False
    rotation.child_rotations.clear()
    rotation(row())


# ---- methods that reach themselves through what they are given -----------------------------------


def through_a_hook():
    rotation = Baskets(items=lambda: rotation(row()))
    must_refuse(lambda: rotation(row()))
    rotation = Baskets(items=lambda: rotation.batch_reference(matrix()))
    must_refuse(lambda: rotation.batch_reference(matrix()))


def through_what_is_converted():
    class Again:
        """Array, number and iterable: each made by the same call once more."""

        def __init__(self, operation):
            self.operation = operation

        def _again(self, *args, **kwargs):
            return self.operation(self)

        __array__ = __iter__ = __float__ = __index__ = __getitem__ = __len__ = _again

    columns = plain_columns()
    for operation in (
        columns.with_values,
        columns.weighted_sums,
        lambda value: StructureColumns(value, [0], [], [], []),
        lambda value: StructureColumns([], value, [], [], []),
        lambda value: StructureColumns([("a",)], [0, 0], [], [], value),
        *(used(make) for make in MAKERS.values()),
        Baskets().batch_reference,
        make_ewma().set_state,
    ):
        again = Again(operation)
        with contextlib.suppress(RecursionError, ValueError, TypeError):
            operation(again)
            raise AssertionError(f"{operation} came back")


def through_a_factory():
    def again(*, N_alloc):
        return Baskets(N_alloc=N_alloc, child_factories=[again])

    must_refuse(lambda: again(N_alloc=N))


def through_a_sink_and_a_store():
    class Again:
        def __init__(self):
            self.rotation = Baskets(trace_sink=self)

        def append(self, record):
            self.rotation(row())

        def write(self, name, state):
            self.rotation.checkpoint(self)

        def read(self, name):
            return self.rotation.recover(self)

    again = Again()
    must_refuse(lambda: again.rotation(row()))
    must_refuse(lambda: again.rotation.checkpoint(again))
    must_refuse(lambda: again.rotation.recover(again))


# ---- the main thread, whose stack grows ----------------------------------------------------------


def where_no_file_can_be_opened():
    """The C library reads from a file how large the main thread's stack may grow."""
    sys.setrecursionlimit(10**6)
    rotation = one_in_itself()
    files, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (0, most))
    must_refuse(lambda: rotation(row()))
    resource.setrlimit(resource.RLIMIT_NOFILE, (files, most))


# ---- every operation, wherever the stack ends ----------------------------------------------------


def every_operation():
    """Each runs at the deepest call that there was room for, and at some above it."""
    makers = [*OPERATIONS.values(), *(make for _, make in FAILURES.values())]
    depth = deepest = 0

    def level():
        nonlocal depth, deepest
        depth += 1
        deepest = max(deepest, depth)
        with contextlib.suppress(RecursionError):
            deeper(values)
        if deepest - depth < LEVELS:
            with contextlib.suppress(Exception):
                operation()
        depth -= 1
        return ()

    values = row()
    deeper = Baskets(items=level, transformation_expression="none")
    for make in makers:
        operation, deepest = make(), 0
        deeper(values)
        assert deepest > 0


# ---- what plain Python needs ---------------------------------------------------------------------


def days_of(kind):
    with installed_real_base(kind) as base:

        class Reporting(base.VirtualizationBase):
            def _refresh_active_structures(self, *args):
                return usual_items()

        rotation = Reporting(
            N_alloc=N, max_structures=4, transformation_expression="none", trace_sink=[]
        )
        rotation(row())
        rotation.batch_reference(matrix())
        rotation.set_state(rotation.get_state())


def days_in_plain_python():
    days_of("twin")


def days_of_the_module():
    days_of("native")


PROGRAMS = {
    program.__name__: program
    for program in (
        rotations_that_reach_themselves,
        many_rotations_in_one_another,
        through_a_hook,
        through_what_is_converted,
        through_a_factory,
        through_a_sink_and_a_store,
        where_no_file_can_be_opened,
        every_operation,
        days_in_plain_python,
        days_of_the_module,
    )
}


def warm_up():
    """Import in the main thread what is imported when it is first used: that needs more stack."""
    for make in MAKERS.values():
        used(make)
    Baskets().batch_reference(matrix())


def main():
    size, limit, program = int(sys.argv[1]), int(sys.argv[2]), PROGRAMS[sys.argv[3]]
    errors = []
    if limit:
        sys.setrecursionlimit(limit)

    def run():
        try:
            program()
        except BaseException as error:
            errors.append(error)

    warm_up()
    if size == 0:
        run()
    else:
        threading.stack_size(size)
        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
    if errors:
        raise errors[0]
    print("done")


if __name__ == "__main__":
    main()
