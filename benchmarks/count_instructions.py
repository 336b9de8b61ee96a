"""Run by count_instructions.sh: the counted cases, their report, and the gate.

Each case is counted over some days and over twice as many; the difference is free of what starting
and stopping costs, and of what only the first days do. The gate is for the Pythons whose counts
stand in instructions.json: no case may take a twentieth and 2,000 a day more than it says.

    python benchmarks/count_instructions.py --record FOLDER    takes over what a run left in FOLDER
"""

import argparse
import ctypes
import gc
import json
import platform
import re
import sys
from pathlib import Path

_HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(_HERE), str(_HERE.parent / "tests")]

RECORDED = _HERE / "instructions.json"
WARM_UP_DAYS = 4
# Counts of one build repeat far better; compilers and NumPys of the same Python move them. Where in
# memory things happen to lie moves those of a day by a thousand or two, however short it is.
ALLOWED = 1.05
ALLOWED_EACH_DAY = 2_000


def count_all(folder):
    """Run every case under callgrind; one profile for each count is left in `folder`."""
    # Imported here, so that the report needs no built package.
    import numpy as np
    from daybench import counted_cases

    switch = ctypes.CDLL(str(folder / "switch.so"))
    gc.collect()
    gc.disable()
    structures = {}
    for name, case in counted_cases.cases():
        for days in (WARM_UP_DAYS, case.days, 2 * case.days):
            switch.start_counting()
            case.run(days)
            switch.stop_counting(f"{name}|{days}|".encode())
        structures[name] = (case.structures, case.days)
    counted = {
        "python": platform.python_version(),
        "numpy": np.__version__,
        "compiler": platform.python_compiler(),
        "cases": structures,
    }
    (folder / "cases.json").write_text(json.dumps(counted))


def measured(folder):
    """What a run left: the versions, and a day's instructions for each case."""
    totals = {}
    for path in folder.glob("profile.*"):
        text = path.read_text(errors="replace")
        found = re.search(r"Client Request: (.*)\|(.*)\|", text)
        counted = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
        if found and counted:
            totals[found[1], int(found[2])] = int(counted[1])
    run = json.loads((folder / "cases.json").read_text())
    each_day = {
        name: (totals[name, 2 * days] - totals[name, days]) / days
        for name, (_, days) in run["cases"].items()
    }
    return run, each_day


def minor(version):
    """The version of Python that counts are recorded for: 3.15 of 3.15.2."""
    return ".".join(version.split(".")[:2])


def report(folder):
    """Print instructions for each structure of each case; 1 when one takes more than it may."""
    run, each_day = measured(folder)
    recorded = json.loads(RECORDED.read_text()).get(minor(run["python"]), {"cases": {}})
    print(
        f"{'case':<34}{'instructions':>14}{'structures':>12}{'for each':>10}{'of recorded':>13}",
    )
    grown = []
    for name, (structures, _) in run["cases"].items():
        before = recorded["cases"].get(name)
        share = f"{each_day[name] / before:.1%}" if before else "-"
        line = f"{name:<34}{each_day[name]:>14,.0f}{structures:>12,}"
        print(f"{line}{each_day[name] / structures:>10.1f}{share:>13}")
        if before and each_day[name] > ALLOWED * before + ALLOWED_EACH_DAY:
            grown.append(name)
    print(verdict(run, recorded, grown))
    return int(bool(grown))


def verdict(run, recorded, grown):
    """What the gate found, in one line."""
    on = f"Python {run['python']} with NumPy {run['numpy']}"
    if grown:
        return f"More instructions than recorded on {on}: {', '.join(grown)}"
    gated = len(recorded["cases"].keys() & run["cases"].keys())
    if not gated:
        return f"Nothing is recorded for Python {minor(run['python'])}, so nothing is compared"
    return f"None of {gated} cases takes more instructions than recorded on {on}"


def record(folder):
    """Take the counts over as those of their Python."""
    run, each_day = measured(folder)
    versions = {name: run[name] for name in ("python", "numpy", "compiler")}
    counts = {name: round(count) for name, count in each_day.items()}
    everything = json.loads(RECORDED.read_text())
    everything[minor(run["python"])] = {**versions, "cases": counts}
    RECORDED.write_text(json.dumps(everything, indent=2) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--report", action="store_const", dest="action", const=report)
    parser.add_argument("--record", action="store_const", dest="action", const=record)
    parser.add_argument("folder", type=Path)
    parser.set_defaults(action=count_all)
    options = parser.parse_args()
    return options.action(options.folder)


if __name__ == "__main__":
    sys.exit(main())
