"""Puts what `bench_days.py --json` wrote on several Pythons side by side, as Markdown tables.

    python benchmarks/compare_pythons.py build/bench/python-*.json

A cell is the figure that the goal is about; in brackets nanoseconds per structure, where the figure
counts units of U. What misses its goal has an exclamation mark. Needs nothing but Python.
"""

import argparse
import json
import sys
from pathlib import Path

MISSED = " !"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("files", nargs="+", type=Path)
    runs = sorted((json.loads(path.read_text()) for path in parser.parse_args().files), key=_age)
    print(joined(runs))


def joined(runs):
    """The tables of all groups, and how many goals each Python misses."""
    groups = list(dict.fromkeys(line["group"] for run in runs for line in run["lines"]))
    parts = [_origin(runs), *(_table(group, runs) for group in groups)]
    parts += ["\n".join(_verdict(run) for run in runs)]
    return "\n\n".join(parts)


def _age(run):
    return [int(part) for part in run["machine"]["python"].split(".") if part.isdigit()]


def _origin(runs):
    """What the runs have in common, and what they should have and have not."""
    lines = []
    for fact in ("processor", "commit"):
        known = {str(run["machine"][fact]) for run in runs} - {"unknown"}
        warning = "" if len(known) < 2 else " (NOT THE SAME: do not compare)"
        lines.append(f"{fact}: {', '.join(sorted(known)) or 'unknown'}{warning}")
    return "\n".join(lines)


def _table(group, runs):
    """One row for each line that any run has, in the order of the first that has it."""
    found = [{_row(line): line for line in run["lines"] if line["group"] == group} for run in runs]
    rows = dict.fromkeys(row for lines in found for row in lines)
    head = [group, "in", *(run["machine"]["python"] for run in runs), "goal"]
    cells = [[*row, *(_cell(lines.get(row)) for lines in found), _goal(row, found)] for row in rows]
    return _aligned([head, *cells])


def _row(line):
    return line["case"], line["what"]


def _cell(line):
    if line is None:
        return "-"
    each = ""
    if line["what"] == "U":
        each = f" ({line['comparison']['ours'] / line['structures'] * 1e9:.0f})"
    return f"{line['comparison']['ratio']:.3g}{each}{MISSED if line['met'] is False else ''}"


def _goal(row, found):
    goals = {lines[row]["goal"] for lines in found if row in lines} - {None}
    return ", ".join(f"{goal:g}" for goal in sorted(goals))


def _aligned(rows):
    """The rows as a Markdown table, whose first is the head."""
    widths = [max(map(len, column)) for column in zip(*rows, strict=True)]
    rule = ["-" * width for width in widths]
    return "\n".join(
        "| " + " | ".join(map(str.ljust, row, widths)) + " |" for row in (rows[0], rule, *rows[1:])
    )


def _verdict(run):
    judged = [line for line in run["lines"] if line["met"] is not None]
    missed = [line for line in judged if not line["met"]]
    python = f"Python {run['machine']['python']}, NumPy {run['machine']['numpy']}"
    names = "".join(f"\n  missed: {_in_words(line)}" for line in missed)
    left_out = "".join(f"\n  left out: {text}" for text in run["left out"])
    return f"{python}: {len(judged) - len(missed)} of {len(judged)} goals met{names}{left_out}"


def _in_words(line):
    figure, goal = line["comparison"]["ratio"], line["goal"]
    return f"{line['case']}, {line['what']}: {figure:.3g} of {goal:g}"


if __name__ == "__main__":
    sys.exit(main())
