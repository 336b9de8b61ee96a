"""Everything that is promised about speed and memory, as one table.

    python benchmarks/bench_days.py                      the whole table
    python benchmarks/bench_days.py --quick              the same cases except 1M slots, shorter
    python benchmarks/bench_days.py --only module --cases pairs-100 pairs-10k

What is measured against what, and how to read it, is in benchmarks/README.md. What this Python has
not the libraries for is left out, and said to be.
"""

import argparse
import itertools
import os
import sys
from pathlib import Path

# Idle threads of a linear algebra library spin, and the processor time would count them. The other
# libraries would use all processors where we use one.
for _threads in ("OPENBLAS_NUM_THREADS", "POLARS_MAX_THREADS", "NUMBA_NUM_THREADS"):
    os.environ.setdefault(_threads, "1")

_HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(_HERE), str(_HERE.parent / "tests")]

from daybench import (  # noqa: E402
    batch,
    fixed_cost,
    functions,
    garbage,
    histories,
    kernels,
    machine,
    memory,
    module_alone,
    ours,
    picture,
    report,
    snapshots,
    sparse_days,
    styles,
    tables,
    variations,
    whole_day,
)
from daybench.peers import PeerAbsent  # noqa: E402
from daybench.timing import CLOCKS, Settings  # noqa: E402

GROUPS = [
    "module", "fixed", "day", "styles", "variations", "kernels", "functions", "batch", "histories",
    "tables", "memory",
]  # fmt: skip
_VARIED = [variations, sparse_days, snapshots, garbage]


def main():
    options = _parse()
    settings = _settings(options)
    described = machine.describe()
    report.print_machine(described)
    lines, left_out = [], []
    for group in options.only:
        report.print_heading(group)
        for line in _available(_measure(group, options, settings)):
            (left_out if isinstance(line, PeerAbsent) else lines).append(line)
            report.print_line(line)
    report.print_summary(lines)
    if options.json:
        report.write_json(options.json, described, vars(settings), lines, left_out)
    if options.picture:
        try:
            picture.draw(options.picture, described, lines)
        except PeerAbsent as absent:
            print(f"no picture: {absent}")


def _available(lines):
    """The lines, and at their end what the rest of them would have needed."""
    try:
        yield from lines
    except PeerAbsent as absent:
        yield absent


def _measure(group, options, settings):
    """The lines of one group, each as soon as it is there."""
    if group == "module":
        names = [*module_alone.CASES, *(module_alone.VARIANTS if options.variants else ())]
        return module_alone.run(_chosen(names, options), settings)
    if group == "fixed":
        return fixed_cost.run(settings)
    if group == "day":
        return whole_day.run(_chosen(ours.BASKETS, options), settings)
    if group == "styles":
        return styles.run(_chosen(styles.CASES, options), settings)
    if group == "variations":
        runs = (part.run(_chosen(part.CASES, options), settings) for part in _VARIED)
        return itertools.chain.from_iterable(runs)
    if group == "kernels":
        return kernels.run(_chosen(kernels.SIZES, options), settings)
    if group == "functions":
        return functions.run(_chosen(functions.CASES, options), settings)
    if group == "batch":
        return batch.run(settings, days=1_000 if options.quick else batch.DAYS)
    if group == "histories":
        return histories.run(_chosen(histories.CASES, options), settings)
    if group == "tables":
        return tables.run(_chosen(tables.SHAPES, options), settings)
    return memory.run(growth_days=10_000 if options.quick else memory.GROWTH_DAYS)


def _chosen(names, options):
    """The cases asked for, in the table's order; without a wish all, or all but the largest."""
    if options.cases:
        return [name for name in names if name in options.cases]
    return [name for name in names if not (options.quick and "1m" in name)]


def _settings(options):
    common = {"clock": options.clock, "collect_garbage": options.gc}
    if options.quick:
        return Settings(**common, max_pairs=9, min_pairs=3, compare_seconds=1.0)
    return Settings(**common)


def _parse():
    parts = (
        module_alone.CASES, module_alone.VARIANTS, ours.BASKETS, styles.CASES, histories.CASES,
        tables.SHAPES, functions.CASES,
    )  # fmt: skip
    known = [name for cases in (*parts, *(part.CASES for part in _VARIED)) for name in cases]
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--quick", action="store_true", help="short turns, no case of 1M slots")
    parser.add_argument("--only", nargs="+", choices=GROUPS, default=GROUPS, metavar="GROUP")
    parser.add_argument(
        "--cases", nargs="+", choices=known, metavar="CASE", help=f"of {', '.join(known)}"
    )
    parser.add_argument(
        "--variants", action="store_true", help="other ways to report the same structures too"
    )
    parser.add_argument("--clock", choices=CLOCKS, default="cpu")
    parser.add_argument("--gc", action="store_true", help="leave the garbage collector on")
    parser.add_argument("--json", metavar="FILE")
    parser.add_argument("--picture", metavar="FILE")
    options = parser.parse_args()
    if options.only is not GROUPS:
        options.only = [group for group in GROUPS if group in options.only]
    return options


if __name__ == "__main__":
    main()
