"""The table as text and as JSON."""

import json
from pathlib import Path

from daybench.peers import PeerAbsent

_HEADINGS = f"{'':<34}{'':<20}{'ours':>11}{'peer':>11}{'ratio':>9}  {'quartiles':<17}{'goal':>7}"


def print_machine(machine):
    """One line for each fact."""
    for name, value in machine.items():
        print(f"{name + ':':<15} {value}")


def print_heading(group):
    """The head of a group's lines."""
    print(f"\n{group}\n{_HEADINGS}", flush=True)


def print_line(line):
    """One line of the table, as soon as it is measured, or why one is left out."""
    if isinstance(line, PeerAbsent):
        print(f"left out: {line}", flush=True)
        return
    found = line.comparison
    times = f"{_time(found.ours):>11}{_time(found.peer):>11}"
    spread = f"{found.low:.3g} - {found.high:.3g}"
    goal = "" if line.goal is None else f"{line.goal:g}"
    verdict = {None: "", True: "met", False: "MISSED"}[line.met]
    each = ""
    if line.structures and found.ours:
        each = f"{found.ours / line.structures * 1e9:9.1f} ns each"
    print(
        f"{line.case:<34}{line.what:<20}{times}{found.ratio:>9.3g}  {spread:<17}{goal:>7}"
        f" {verdict:<7}{each}  ({found.pairs})",
        flush=True,
    )


def print_summary(lines):
    """How many goals are met."""
    judged = [line for line in lines if line.met is not None]
    missed = [line for line in judged if not line.met]
    print(f"\n{len(judged) - len(missed)} of {len(judged)} goals met")
    for line in missed:
        print(
            f"  missed: {line.group}, {line.case}, {line.what}: "
            f"{line.comparison.ratio:.3g} of {line.goal:g}"
        )


def write_json(path, machine, settings, lines, left_out):
    """Everything that was printed, with the settings."""
    content = {
        "machine": machine,
        "settings": settings,
        "lines": [line.as_dict() for line in lines],
        "left out": [str(absent) for absent in left_out],
    }
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(json.dumps(content, indent=1) + "\n")


def _time(seconds):
    if not seconds:
        return ""
    for unit, size in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}"
    return f"{seconds * 1e9:.3g} ns"
