"""Memory: a rotation at 1M slots against what its dicts and arrays need, days, and histories.

Each figure is the growth of the resident set of a fresh process.
"""

import os
import subprocess
import sys
from pathlib import Path

from daybench import histories
from daybench.goals import Line
from daybench.timing import Comparison

SLOTS = 1_000_000
GROWTH_DAYS = 100_000
GROWTH_LIMIT_MEGABYTES = 1.0
HISTORY_LIMIT_MEGABYTES = 64.0


def run(growth_days=GROWTH_DAYS):
    """Yield construction as bytes over bytes needed, of both modules, and the native growth."""
    needed = needed_bytes(SLOTS)
    for kind, goal in (("native", 1.3), ("twin", None)):
        ratio = _in_new_process(f"construct({kind!r})") / needed
        yield _line(f"construction, 1M slots, {kind}", "bytes / needed", ratio, goal)
    grown = _in_new_process(f"live({growth_days})") / 1e6
    yield _line(f"growth over {growth_days:,} days", "MB", grown, GROWTH_LIMIT_MEGABYTES)
    for name in histories.CASES:
        for threads in (1, 2):
            peak = _in_new_process(f"history_peak({name!r}, {threads})") / 1e6
            what = f"{name}, {threads} threads"
            yield _line(what, "MB beyond input and output", peak, HISTORY_LIMIT_MEGABYTES)


def needed_bytes(slots):
    """Bytes of the metadata dicts and their list, and of the three slot-sized arrays."""
    metadata = slots * (sys.getsizeof({"active": False}) + 8)
    return metadata + slots * (8 + 8 + 1)


def construct(kind):
    """Resident bytes that a rotation with a million slots adds."""
    from daybench.structures import base_module, reporting_class

    with base_module(kind) as base:
        make = reporting_class(base)
        make(max_structures=1, N_alloc=1, transformation_expression="none")
        before = _resident()
        rotation = make(max_structures=SLOTS, N_alloc=1, transformation_expression="none")
        # NumPy's full() writes its arrays, so their pages are resident too.
        grown = _resident() - before
        del rotation
    return grown


def live(days):
    """Resident bytes added between a tenth of the days and all of them."""
    import numpy as np

    from daybench.structures import ModuleDay, Shape

    module_day = ModuleDay(
        "native", Shape(20, 2, 20, 50, new_legs=True), transformation_expression="ewma(20);rank"
    )
    inputs = np.random.default_rng(5).standard_normal(50)
    before = 0
    for day in range(days):
        if day == days // 10:
            before = _resident()
        module_day.new_day()
        module_day.rotation(inputs)
    return _resident() - before


def history_peak(name, threads):
    """Resident bytes that a history has at most beyond its input and its output."""
    history, _, _ = histories.made(histories.CASES[name])
    history(threads, days=3)  # what is made once and kept
    before = _resident()
    Path("/proc/self/clear_refs").write_text("5")  # the peak begins anew
    output = history(threads)
    return _peak() - before - output.nbytes


def _peak():
    status = Path("/proc/self/status").read_text()
    return 1024 * int(status.partition("VmHWM:")[2].split()[0])


def _resident():
    pages = int(Path("/proc/self/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGE_SIZE")


def _in_new_process(expression):
    code = f"from daybench import memory; print(memory.{expression})"
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
    done = subprocess.run(
        [sys.executable, "-c", code], env=environment, stdout=subprocess.PIPE, check=True
    )
    return int(done.stdout)


def _line(case, what, figure, goal):
    comparison = Comparison(figure, figure, figure, 0.0, 0.0, 1)
    return Line("memory", case, what, comparison, goal, smaller_is_better=True)
