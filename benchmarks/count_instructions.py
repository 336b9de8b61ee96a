"""Run by count_instructions.sh: the counted cases, and their report.

Each case is counted over some days and over twice as many; the difference is free of what starting
and stopping costs, and of what only the first days do.
"""

import argparse
import ctypes
import gc
import json
import re
import sys
from pathlib import Path

_HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(_HERE), str(_HERE.parent / "tests")]

WARM_UP_DAYS = 4


def count_all(folder):
    """Run every case under callgrind; one profile for each count is left in `folder`."""
    # Imported here, so that the report needs no built package.
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
    (folder / "cases.json").write_text(json.dumps(structures))


def report(folder):
    """Print instructions for each structure of each case."""
    totals = {}
    for path in folder.glob("profile.*"):
        text = path.read_text(errors="replace")
        found = re.search(r"Client Request: (.*)\|(.*)\|", text)
        counted = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
        if found and counted:
            totals[found[1], int(found[2])] = int(counted[1])
    print(f"{'case':<34}{'instructions':>14}{'structures':>12}{'for each':>10}")
    for name, (structures, days) in json.loads((folder / "cases.json").read_text()).items():
        each_day = (totals[name, 2 * days] - totals[name, days]) / days
        print(f"{name:<34}{each_day:>14,.0f}{structures:>12,}{each_day / structures:>10.1f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--report", action="store_true")
    parser.add_argument("folder", type=Path)
    options = parser.parse_args()
    (report if options.report else count_all)(options.folder)


if __name__ == "__main__":
    main()
